// The groups of commands, each in a source file of its own.
#pragma once

#include "command_line.h"

namespace tool {

void add_partition_commands(CommandLine &line);
void add_replica_commands(CommandLine &line);
void add_sync_commands(CommandLine &line);
void add_filter_commands(CommandLine &line);
void add_identity_commands(CommandLine &line);
void add_trigger_commands(CommandLine &line);
void add_load_command(CommandLine &line);
void add_backup_commands(CommandLine &line);
void add_watch_command(CommandLine &line);

} // namespace tool
