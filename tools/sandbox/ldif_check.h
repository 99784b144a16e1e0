// What must be known of an LDIF file (RFC 2849) before slapd loads it. slapd passes over lines
// that it cannot read, so the form of the file is checked here, line by line.
#pragma once

#include "process.h"

#include <string>

namespace sandbox {

// The DN of the first entry. CannotStart, naming file, line and reason, when the file cannot be
// read, is no LDIF, holds change records or has no entry at all.
std::string check_ldif(const std::string &path);

// The line on which the first entry below dn begins, 0 when there is none.
std::size_t first_line_below(const std::string &path, const std::string &dn);

} // namespace sandbox
