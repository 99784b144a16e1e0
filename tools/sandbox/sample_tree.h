// A tree to try things on: an organisation with departments, people, groups, servers and a payroll
// that few may see. The same arguments always give the same tree.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

namespace sandbox {

inline constexpr std::size_t smallest_tree = 100;
// Every person's password.
inline constexpr char sample_password[] = "password";

// Writes so many entries as LDIF. The base's first RDN is dc, o, ou, l or c; CannotStart
// otherwise.
void write_sample_tree(std::ostream &out, const std::string &base, std::size_t entries);

} // namespace sandbox
