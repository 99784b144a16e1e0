// greirige sync: receive, send, partition, schema.

#include "commands.h"

#include <optional>

#include "text.h"

namespace tool {

namespace {

struct Arguments {
    std::string dn;
    std::string server;
    std::string from; // empty: not given
    int delay = 0;
};

std::optional<greirige::Origin> origin(const std::string &server)
{
    return server.empty() ? std::nullopt : std::optional(greirige::Origin(server));
}

void add_delay(CLI::App &command, Arguments &arguments)
{
    command.add_option("--delay", arguments.delay, "When to begin, in the server's unit (0: now)")
        ->type_name("N");
}

void add_receive(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "receive", "Make a server receive all updates of a partition",
        "greirige sync receive ou=people,dc=example,dc=com cn=server2,ou=servers,dc=example,dc=com",
        [arguments](Tool &tool) {
            const std::string &dn = arguments->dn;
            const std::string &server = arguments->server;
            const std::string &from = arguments->from;

            Json details{{"dn", json_text(dn)}, {"toServerDN", json_text(server)}};
            if (!from.empty())
                details["fromServerDN"] = json_text(from);
            return tool.carry_out(
                {.name = "sync receive",
                 .doing = "make " + in_quotes(server) + " receive all updates of " + in_quotes(dn) +
                          (from.empty() ? "" : " from " + in_quotes(from)),
                 .done = printable(server) + " receives all updates of " + printable(dn),
                 .details = details},
                [&](greirige::Session session) {
                    return session.receive_all_updates(dn, greirige::Server(server), origin(from));
                });
        });
    add_dn(command, "DN", arguments->dn, "The root of the partition");
    add_dn(command, "TO", arguments->server, "The server object that receives");
    add_dn(command, "FROM", arguments->from, "The server object that sends (any)")->required(false);
}

void add_send(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "send", "Make a server send all its updates of a partition",
        "greirige sync send dc=example,dc=com cn=server1,ou=servers,dc=example,dc=com",
        [arguments](Tool &tool) {
            const std::string &dn = arguments->dn;
            const std::string &server = arguments->server;

            Json details{{"dn", json_text(dn)}};
            if (!server.empty())
                details["serverDN"] = json_text(server);
            const std::string who = server.empty() ? "the server" : in_quotes(server);
            return tool.carry_out({.name = "sync send",
                                   .doing = "make " + who + " send all updates of " + in_quotes(dn),
                                   .done = (server.empty() ? "the server" : printable(server)) +
                                           " sends all updates of " + printable(dn),
                                   .details = details},
                                  [&](greirige::Session session) {
                                      return session.send_all_updates(dn, origin(server));
                                  });
        });
    add_dn(command, "DN", arguments->dn, "The root of the partition");
    add_dn(command, "SERVER", arguments->server, "The server object that sends (the one asked)")
        ->required(false);
}

void add_partition(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "partition", "Make a server synchronise a partition",
        "greirige sync partition dc=example,dc=com cn=server1,ou=servers,dc=example,dc=com",
        [arguments](Tool &tool) {
            const std::string &dn = arguments->dn;
            const std::string &server = arguments->server;

            return tool.carry_out(
                {.name = "sync partition",
                 .doing = "make " + in_quotes(server) + " synchronise " + in_quotes(dn),
                 .done = printable(server) + " synchronises " + printable(dn),
                 .details = {{"dn", json_text(dn)},
                             {"serverDN", json_text(server)},
                             {"delay", arguments->delay}}},
                [&](greirige::Session session) {
                    return session.request_partition_sync(dn, greirige::Server(server),
                                                          arguments->delay);
                });
        });
    add_dn(command, "DN", arguments->dn, "The root of the partition");
    add_dn(command, "SERVER", arguments->server, "The server object");
    add_delay(command, *arguments);
}

void add_schema(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "schema", "Make the server synchronise the schema",
        "greirige sync schema dc=example,dc=com", [arguments](Tool &tool) {
            const std::string &dn = arguments->dn;

            return tool.carry_out({.name = "sync schema",
                                   .doing = "synchronise the schema of " + in_quotes(dn),
                                   .done = "the schema of " + printable(dn) + " is synchronised",
                                   .details = {{"dn", json_text(dn)}, {"delay", arguments->delay}}},
                                  [&](greirige::Session session) {
                                      return session.request_schema_sync(dn, arguments->delay);
                                  });
        });
    add_dn(command, "DN", arguments->dn, "A DN that the server interprets");
    add_delay(command, *arguments);
}

} // namespace

void add_sync_commands(CommandLine &line)
{
    CLI::App &group = line.group("sync", "Make servers exchange updates now");
    add_receive(line, group);
    add_send(line, group);
    add_partition(line, group);
    add_schema(line, group);
}

} // namespace tool
