// -o: any option of ldap.conf(5), and nettimeout, which the client tools add.
#pragma once

#include <string>
#include <vector>

#include <ldap.h>

#include "connection.h"

namespace tool {

// Applies each "name=value" to libldap before a session exists; a SASL option is kept back until
// one does, and the bind DN goes where -D goes. Throws a UsageError for a name or a value that
// libldap would not take.
void apply_library_options(ConnectionOptions &options);
void apply_session_options(const ConnectionOptions &options, LDAP *ld);

} // namespace tool
