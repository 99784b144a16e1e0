// What must be known of an LDIF file (RFC 2849) before slapd loads it. slapd passes over lines
// that it cannot read, so the form of the file is checked here, line by line.
#pragma once

#include "process.h"

#include <filesystem>
#include <string>

namespace sandbox {

struct LdifFile {
    std::string path;
    std::string first_dn;
    std::size_t version_line = 0; // where "version: 1" stands; 0 when it does not
};

// CannotStart, naming file, line and reason, when the file cannot be read, is no LDIF, holds change
// records or has no entry at all.
LdifFile check_ldif(const std::string &path);

// A copy with the version line as a comment, since slapd takes it for an entry. Lines keep their
// numbers.
void copy_without_version(const LdifFile &file, const std::filesystem::path &copy);

// The line on which an entry begins: the first from this line on. slapd counts from the end of the
// entry before, comments and empty lines included.
std::size_t entry_line(const std::string &path, std::size_t from);
// The line on which the first entry below dn begins, 0 when there is none.
std::size_t first_line_below(const std::string &path, const std::string &dn);

} // namespace sandbox
