// Why a connection could not be made. libldap answers every such failure with "Can't contact
// LDAP server"; what really happened (the system's error, the certificate's fault, the file that
// cannot be read) stands only in its trace.
#pragma once

#include <string>
#include <vector>

#include "connection.h"

namespace tool {

// Collects libldap's trace while it lives; one at a time. The level is the one that names calls
// and errors, not the one that shows packets, so no password passes here.
class LibraryTrace {
public:
    LibraryTrace();
    ~LibraryTrace();
    LibraryTrace(const LibraryTrace &) = delete;
    LibraryTrace &operator=(const LibraryTrace &) = delete;

    static const std::vector<std::string> &lines();
};

struct Cause {
    std::string text; // "connection refused"
    std::string hint; // "is the server running? -H chooses another"
};

// One cause for each server that was tried, in order.
std::vector<Cause> connection_causes(const std::vector<std::string> &trace);

// What the trace says about a TLS handshake; an empty text when it says nothing.
Cause tls_cause(const std::vector<std::string> &trace);

} // namespace tool
