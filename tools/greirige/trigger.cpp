// greirige trigger: starts one of the server's background processes.

#include "commands.h"

namespace tool {

namespace {

// In the order of the numbers by which the library knows them, from 1.
const std::vector<std::string> processes{"backlink", "janitor",     "limber",
                                         "skulker",  "schema-sync", "partition-purge"};

} // namespace

void add_trigger_commands(CommandLine &line)
{
    const auto name = std::make_shared<std::string>();
    CLI::App &command = line.command(
        "trigger", "Start one of the server's background processes now", "greirige trigger janitor",
        [name](Tool &tool) {
            const auto found = std::find(processes.begin(), processes.end(), *name);
            const int number = static_cast<int>(found - processes.begin()) + 1;
            return tool.carry_out({.name = "trigger",
                                   .doing = "start the background process " + *name,
                                   .done = "the background process " + *name + " is started",
                                   .details = {{"process", *name}}},
                                  [&](greirige::Session session) {
                                      return session.trigger(greirige::BackgroundProcess(number));
                                  });
        });
    line.add_name(command, "NAME", *name, processes,
                  "backlink, janitor, limber, skulker, schema-sync or partition-purge");
}

} // namespace tool
