// The sandbox's own entries, below cn=system: what runs and what was asked for.
#pragma once

#include "directory.h"

#include <string>
#include <vector>

namespace sandbox {

struct NewEntry {
    std::string dn;
    std::vector<Attribute> attributes;
};

// Adds these entries one after the other; one that is there already stays as it is.
void ensure_entries(Directory &directory, std::vector<NewEntry> entries, Directory::Done done);

// A container of this name right below cn=system, and cn=system itself.
std::vector<NewEntry> system_container(const std::string &name, const std::string &description);
std::string system_dn(const std::string &name);

} // namespace sandbox
