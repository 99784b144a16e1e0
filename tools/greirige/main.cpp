// greirige - administers a partitioned, replicated LDAP directory from the shell.

#include "commands.h"

int main(int argc, char **argv)
{
    tool::CommandLine line;
    tool::add_partition_commands(line);
    return line.run(argc, argv);
}
