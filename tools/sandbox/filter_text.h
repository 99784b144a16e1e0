// A search filter as people write it (RFC 4515), from the form that it has in a request.
#pragma once

#include "ber.h"

#include <string>

namespace sandbox {

// ber::Malformed when it is none, or nested more deeply than anybody writes.
std::string filter_text(const ber::Element &filter);

} // namespace sandbox
