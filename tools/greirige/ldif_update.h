// What an LDIF record says (RFC 2849): an entry to add, or a change.
#pragma once

#include "greirige/bulk.hpp"

#include "ldif_reader.h"

namespace tool {

// Values are read by libldap (base64, "attribute:< file:///..."). Throws an LdifError that names
// the line and says what is wrong with it.
greirige::Update read_update(const LdifRecord &record);

} // namespace tool
