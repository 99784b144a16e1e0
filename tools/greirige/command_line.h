// The commands and their arguments. A file of commands registers them like this:
//
//     void add_partition_commands(CommandLine &line)
//     {
//         CLI::App &partition = line.group("partition", "Split, merge and count partitions");
//         auto dn = std::make_shared<std::string>();
//         CLI::App &split = line.command(partition, "split", "Make an entry the root of ...",
//                                        "greirige partition split ou=people,dc=example,dc=com",
//                                        [dn](Tool &tool) { return ...; });
//         add_dn(split, "DN", *dn, "The entry");
//     }
//
// and main.cpp names that function in one line.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "completion.h"
#include "tool.h"

namespace tool {

using Action = std::function<ExitStatus(Tool &)>;

class CommandLine {
public:
    CommandLine();

    // A word that only gathers commands.
    CLI::App &group(const std::string &name, const std::string &description);
    // A command of the group; without one, a command of its own.
    CLI::App &command(CLI::App &group, const std::string &name, const std::string &description,
                      const std::string &example, Action action);
    CLI::App &command(const std::string &name, const std::string &description,
                      const std::string &example, Action action);

    // A required argument that is one of these names.
    CLI::Option *add_name(CLI::App &command, const std::string &name, std::string &value,
                          const std::vector<std::string> &known, const std::string &description);
    // greirige completion: prints what makes a shell complete everything added before and after.
    void add_completion_command();

    // Parses, runs the command, reports what goes wrong. Returns the process's exit status.
    int run(int argc, char **argv);

private:
    ExitStatus parse_and_run(int argc, char **argv);
    void add_to_completion(const CLI::App &app, CompletionTable &table) const;
    CompletionValue completion_value(const CLI::Option &option) const;
    std::vector<std::string> protected_words(int argc, char **argv);
    void for_every_command(const std::function<void(CLI::App &)> &visit);
    bool takes_value(const std::string &option);
    const CLI::App &chosen() const;
    std::string explain(const CLI::ParseError &error) const;

    CLI::App app_;
    Options options_;
    std::map<const CLI::App *, Action> actions_;
    std::map<const CLI::Option *, std::vector<std::string>> known_; // of add_name()
};

// A required argument that is a distinguished name, checked before anything is sent.
CLI::Option *add_dn(CLI::App &command, const std::string &name, std::string &dn,
                    const std::string &description);
CLI::Option *add_dns(CLI::App &command, const std::string &name, std::vector<std::string> &dns,
                     const std::string &description);
// --flags N: option bits, which the server interprets.
void add_flags(CLI::App &command, int &flags);

} // namespace tool
