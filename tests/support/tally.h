// Counts the failures that a test program injects, and says at its end how many there were:
// "[ injected ] 4711 failed allocations".
#pragma once

#include <cstddef>
#include <cstdio>

namespace support {

struct Tally {
    const char *what;
    std::size_t count = 0;

    ~Tally()
    {
        if (count > 0)
            std::printf("[ injected ] %zu %s\n", count, what);
    }
};

} // namespace support
