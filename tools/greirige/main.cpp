// greirige - administers a partitioned, replicated LDAP directory from the shell.

#include "commands.h"

int main(int argc, char **argv)
{
    tool::CommandLine line;
    tool::add_partition_commands(line);
    tool::add_replica_commands(line);
    tool::add_sync_commands(line);
    tool::add_filter_commands(line);
    tool::add_identity_commands(line);
    tool::add_trigger_commands(line);
    tool::add_load_command(line);
    tool::add_backup_commands(line);
    tool::add_watch_command(line);
    line.add_completion_command();
    return line.run(argc, argv);
}
