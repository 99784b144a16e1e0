// The groups of commands, each in a source file of its own.
#pragma once

#include "command_line.h"

namespace tool {

void add_partition_commands(CommandLine &line);

} // namespace tool
