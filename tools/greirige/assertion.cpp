// libldap asserts, in Debian's build, that an answer has certain properties (an extended response
// that names itself has a name of at least one byte). A server that breaks one must not end the
// tool with an abort and a core file, so the C library's reporter of failed assertions is replaced
// for the whole process: one message, the status of a failed operation.

#include <unistd.h>

#include "error.h"

extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *, unsigned,
                                           const char *function) noexcept
{
    tool::complain(std::string("the server's answer cannot be read: it broke a rule of the LDAP "
                               "library (") +
                   (function != nullptr ? function : "?") + ": " + assertion +
                   "); is this a server that offers the operation?");
    _exit(static_cast<int>(tool::ExitStatus::failed));
}
