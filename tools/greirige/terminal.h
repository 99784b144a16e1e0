// The person at the terminal, if there is one: questions, passwords, Ctrl-C.
#pragma once

#include <string>

#include "secret.h"

namespace tool {

// Somebody can be asked: standard input and standard error are terminals.
bool somebody_is_there();

// Asks on standard error; true only when the answer begins with y or Y.
bool confirm(const std::string &question);

// Asks on the terminal, wherever input and output go; where there is no terminal, on standard
// error and standard input. A password is not shown while it is typed.
Secret read_password(const std::string &prompt);
Secret read_answer(const std::string &prompt);

// SIGINT, SIGTERM and SIGHUP no longer end the process at once: they end the wait for the server,
// and the call that waited fails. A second signal of the same kind ends the process.
void catch_signals();
bool interrupted();

// Thrown when a call failed because a signal ended it.
struct Interrupted {};
void leave_if_interrupted();

// Ends the process the way the signal would have, so that shells and parents can tell.
[[noreturn]] void end_by_signal();

} // namespace tool
