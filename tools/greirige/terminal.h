// The person at the terminal, if there is one: questions and passwords.
#pragma once

#include <string>

#include "secret.h"

namespace tool {

// Somebody can be asked: standard input and standard error are terminals.
bool somebody_is_there();

// Asks on standard error; true only when the answer begins with y or Y.
bool confirm(const std::string &question);

// Asks on the terminal, wherever input and output go; where there is no terminal, on standard
// error and standard input. A password is not shown while it is typed. `instead` is the option
// that a Failure names when the input ends.
Secret read_password(const std::string &prompt, const std::string &instead = "-y FILE");
Secret read_answer(const std::string &prompt);
// Asks a second time where the password cannot be seen: it must be the same.
Secret read_new_password(const std::string &prompt, const std::string &instead);

} // namespace tool
