#include "fuzz.h"

#include <cstdio>
#include <cstdlib>

// Some blocks are as large as the server says. What is larger than any machine's memory, or this
// limit, is an allocation that fails, as it is without AddressSanitizer.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

void fuzz::require(bool promise, std::string_view complaint)
{
    if (promise)
        return;
    std::fprintf(stderr, "promise broken: %.*s\n", static_cast<int>(complaint.size()),
                 complaint.data());
    std::abort();
}
