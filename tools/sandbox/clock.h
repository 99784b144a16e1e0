// Times as the directory writes them: GeneralizedTime (RFC 4517, section 3.3.13), whole seconds.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace sandbox {

std::string generalized_time(std::time_t time);
// Nothing when the text is no such time.
std::optional<std::time_t> time_of(const std::string &generalized);

} // namespace sandbox
