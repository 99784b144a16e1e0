// The options that every command shares, and what they say about the connection. The letters and
// meanings are those of OpenLDAP's client tools.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "secret.h"

namespace CLI {
class App;
}

namespace tool {

struct ConnectionOptions {
    std::optional<std::string> uri;     // -H
    bool simple = false;                // -x
    std::optional<std::string> bind_dn; // -D
    std::optional<Secret> password;     // -w
    bool ask_password = false;          // -W
    std::string password_file;          // -y
    int start_tls = 0;                  // -Z: try, -ZZ: insist

    std::string mechanism;           // -Y
    std::string authentication_id;   // -U
    std::string realm;               // -R
    std::string authorization_id;    // -X
    std::string security_properties; // -O
    bool sasl_quiet = false;         // -Q
    bool sasl_interactive = false;   // -I
    bool sasl_no_canonical = false;  // -N

    std::vector<std::string> library_options; // -o
    std::vector<std::string> extensions;      // -e

    // What is asked for on the terminal, or read from the password's file, becomes the value of its
    // option, so that a later session of the same command need not ask again.
    bool keep_answers = false;
};

void add_connection_options(CLI::App &app, ConnectionOptions &options);

// Contradictions that a parser cannot see.
void check_connection_options(const ConnectionOptions &options);

} // namespace tool
