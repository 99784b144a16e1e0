#include "clock.h"

#include <array>

namespace sandbox {

namespace {
constexpr char format[] = "%Y%m%d%H%M%SZ";
}

std::string generalized_time(std::time_t time)
{
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

std::optional<std::time_t> time_of(const std::string &generalized)
{
    std::tm parts{};
    const char *end = strptime(generalized.c_str(), format, &parts);
    if (end == nullptr || *end != '\0')
        return {};
    return timegm(&parts);
}

} // namespace sandbox
