// greirige replica: add, remove, retype, info, list.

#include "commands.h"

#include "text.h"

namespace tool {

namespace {

const std::vector<std::string> type_names{"master", "secondary",    "read-only",
                                          "subref", "sparse-write", "sparse-read"};

// Servers may know types that have no name.
std::string name_of(greirige::ReplicaType type)
{
    const bool known = greirige::replica_type(to_string(type)).has_value();
    return known ? std::string(to_string(type)) : "type " + std::to_string(static_cast<int>(type));
}

struct Arguments {
    std::string dn;
    std::string server;
    std::string type;
    int flags = 0;

    greirige::Server holder() const
    {
        return greirige::Server(server);
    }
    greirige::ReplicaType replica_type() const
    {
        return greirige::replica_type(type).value(); // a name that is checked already
    }
    std::string replica() const
    {
        return "replica of " + in_quotes(dn) + " held by " + in_quotes(server);
    }
    Json details() const
    {
        Json json{{"dn", json_text(dn)}, {"serverDN", json_text(server)}};
        if (!type.empty())
            json["type"] = type;
        json["flags"] = flags;
        return json;
    }
};

void add_dn_and_server(CLI::App &command, Arguments &arguments)
{
    add_dn(command, "DN", arguments.dn, "The root of the partition");
    add_dn(command, "SERVER", arguments.server, "The server object that holds the replica");
}

void add_type(CommandLine &line, CLI::App &command, Arguments &arguments)
{
    line.add_name(command, "TYPE", arguments.type, type_names,
                  "master, secondary, read-only, subref, sparse-write or sparse-read");
}

void add_add(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "add", "Put a replica of a partition on a server",
        "greirige replica add ou=people,dc=example,dc=com cn=server2,ou=servers,dc=example,dc=com "
        "read-only",
        [arguments](Tool &tool) {
            return tool.carry_out(
                {.name = "replica add",
                 .doing = "add a " + arguments->type + ' ' + arguments->replica(),
                 .done = printable(arguments->server) + " holds a " + arguments->type +
                         " replica of " + printable(arguments->dn),
                 .details = arguments->details()},
                [&](greirige::Session session) {
                    return session.add_replica(arguments->dn, arguments->holder(),
                                               arguments->replica_type(), arguments->flags);
                });
        });
    add_dn_and_server(command, *arguments);
    add_type(line, command, *arguments);
    add_flags(command, arguments->flags);
}

void add_remove(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "remove", "Remove the replica of a partition from a server",
        "greirige replica remove ou=people,dc=example,dc=com "
        "cn=server2,ou=servers,dc=example,dc=com",
        [arguments](Tool &tool) {
            return tool.carry_out({.name = "replica remove",
                                   .doing = "remove the " + arguments->replica(),
                                   .done = printable(arguments->server) + " holds no replica of " +
                                           printable(arguments->dn) + " any more",
                                   .details = arguments->details(),
                                   .destructive = true},
                                  [&](greirige::Session session) {
                                      return session.remove_replica(
                                          arguments->dn, arguments->holder(), arguments->flags);
                                  });
        });
    add_dn_and_server(command, *arguments);
    add_flags(command, arguments->flags);
}

void add_retype(CommandLine &line, CLI::App &group)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, "retype", "Change the type of a replica",
        "greirige replica retype ou=people,dc=example,dc=com "
        "cn=server2,ou=servers,dc=example,dc=com master",
        [arguments](Tool &tool) {
            return tool.carry_out(
                {.name = "replica retype",
                 .doing =
                     "change the type of the " + arguments->replica() + " to " + arguments->type,
                 .done = "the replica of " + printable(arguments->dn) + " on " +
                         printable(arguments->server) + " is " + arguments->type,
                 .details = arguments->details()},
                [&](greirige::Session session) {
                    return session.change_replica_type(arguments->dn, arguments->holder(),
                                                       arguments->replica_type(), arguments->flags);
                });
        });
    add_dn_and_server(command, *arguments);
    add_type(line, command, *arguments);
    add_flags(command, arguments->flags);
}

ExitStatus show_info(Tool &tool, const Arguments &arguments)
{
    const Operation operation{
        .name = "replica info",
        .doing = "read the " + arguments.replica(),
        .done = {},
        .details = {{"dn", json_text(arguments.dn)}, {"serverDN", json_text(arguments.server)}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    const greirige::ReplicaInfo info =
        tool.value(operation, tool.session().replica_info(arguments.dn, arguments.holder()));

    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["partition"] = json_text(info.partition_dn);
        json["type"] = name_of(info.type);
        json["replicaType"] = static_cast<int>(info.type);
        json["state"] = info.state;
        json["flags"] = info.flags;
        json["rootID"] = info.root_id;
        json["localReplicaID"] = info.local_replica_id;
        json["modificationTime"] = info.modification_time;
        json["purgeTime"] = info.purge_time;
        tool.output.document(json);
    } else {
        tool.output.fields({{"partition", printable(info.partition_dn)},
                            {"type", name_of(info.type)},
                            {"state", std::to_string(info.state)},
                            {"flags", std::to_string(info.flags)},
                            {"root entry", std::to_string(info.root_id)},
                            {"replica number", std::to_string(info.local_replica_id)},
                            {"modification time", std::to_string(info.modification_time)},
                            {"purge time", std::to_string(info.purge_time)}});
    }
    return ExitStatus::done;
}

ExitStatus show_list(Tool &tool, const std::string &server)
{
    const Operation operation{.name = "replica list",
                              .doing = "list the replicas on " + in_quotes(server),
                              .done = {},
                              .details = {{"serverDN", json_text(server)}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    const std::vector<std::string> names =
        tool.value(operation, tool.session().list_replicas(greirige::Server(server)));

    if (tool.output.json()) {
        Json json = tool.document(operation);
        Json &replicas = json["replicas"] = Json::array();
        for (const std::string &name : names)
            replicas.push_back(json_text(name));
        tool.output.document(json);
    } else {
        for (const std::string &name : names)
            tool.output.line(printable(name));
        if (names.empty())
            complain(in_quotes(server) + " holds no replicas");
    }
    return ExitStatus::done;
}

} // namespace

void add_replica_commands(CommandLine &line)
{
    CLI::App &group = line.group("replica", "Place and inspect the replicas of partitions");
    add_add(line, group);
    add_remove(line, group);
    add_retype(line, group);

    const auto replica = std::make_shared<Arguments>();
    add_dn_and_server(line.command(group, "info",
                                   "Show what a server knows of its replica of a partition",
                                   "greirige replica info ou=people,dc=example,dc=com "
                                   "cn=server2,ou=servers,dc=example,dc=com",
                                   [replica](Tool &tool) { return show_info(tool, *replica); }),
                      *replica);

    const auto server = std::make_shared<std::string>();
    add_dn(line.command(group, "list", "List the partitions of which a server holds replicas",
                        "greirige replica list cn=server2,ou=servers,dc=example,dc=com",
                        [server](Tool &tool) { return show_list(tool, *server); }),
           "SERVER", *server, "The server object");
}

} // namespace tool
