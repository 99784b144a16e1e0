// What goes wrong, in words, and the exit status that tells it to a script.
//
// A command throws a Failure; main prints "greirige: " and its message on standard error and
// exits with its status. The messages are text whatever the output format is.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <ldap.h>

#include "greirige/result.hpp"

namespace tool {

enum class ExitStatus : int {
    done = 0,
    failed = 1,         // the operation failed
    wrong_usage = 2,    // the command line makes no sense; nothing was sent
    cannot_connect = 3, // no connection, no encryption or no bind; the operation was not sent
    done_in_part = 4,   // some of it was done, some failed
};

class Failure : public std::runtime_error {
public:
    Failure(ExitStatus exit_status, const std::string &message)
        : std::runtime_error(message), status(exit_status)
    {
    }
    ExitStatus status;
};

// No connection, no encryption or no bind.
class ConnectFailure : public Failure {
public:
    ConnectFailure(const std::string &message, bool no_use_to_repeat)
        : Failure(ExitStatus::cannot_connect, message), final(no_use_to_repeat)
    {
    }
    bool final; // the server has judged who asks, and would judge the same again
};

// Nobody reads the output any more: the other end of the pipe is closed.
class ReaderGone : public Failure {
public:
    ReaderGone() : Failure(ExitStatus::failed, "cannot write the output: Broken pipe") {}
};

class UsageError : public Failure {
public:
    explicit UsageError(const std::string &message) : Failure(ExitStatus::wrong_usage, message) {}
};

// How a call on a session failed, as the server and the LDAP library tell it.
struct LdapFailure {
    int code = 0;
    bool own = false; // the code is the library's judgement of an answer, not the server's
    std::string diagnostic;
    std::string matched_dn;
    std::vector<std::string> referrals;
};

// Reads what the session remembers of its last call, which returned this code.
LdapFailure last_failure(LDAP *ld, int code);

// "No such object (32), the server says "...", the nearest entry is "o=x" (check the DN)".
std::string describe(const LdapFailure &failure);
// The same of a call through the C++ layer on this session, or what the layer itself found wrong.
std::string describe(LDAP *ld, const greirige::Error &error);

// A time limit of the session, LDAP_OPT_TIMEOUT or LDAP_OPT_NETWORK_TIMEOUT; -1 for none.
long seconds_of(LDAP *ld, int option);

// No later request can be answered on a session after this code.
bool connection_is_lost(int code);

// Prints "greirige: " and the message on standard error.
void complain(std::string_view message);

} // namespace tool
