// Who the client is.
#pragma once

#include "operations.h"

namespace sandbox {

// The bind identity: the DN that slapd itself knows the client by, whatever it bound with; empty
// for an anonymous client.
void offer_bind_identity(Operations &operations);

} // namespace sandbox
