// greirige partition: split, merge, abort, count, split-orphan, remove-orphan.

#include "commands.h"

#include "signals.h"
#include "text.h"

namespace tool {

namespace {

// Split, merge and abort: a DN and flags in, nothing out.
struct PartitionOperation {
    const char *command;
    const char *summary;
    const char *example;
    const char *dn_help;
    const char *doing; // the DN and then doing_more follow
    const char *doing_more;
    const char *done; // follows the DN
    bool destructive;
    greirige::Result<void> (greirige::Session::*call)(std::string_view dn, int flags) const;
};

constexpr PartitionOperation operations[] = {
    {"split", "Make an entry the root of a new partition",
     "greirige partition split ou=people,dc=example,dc=com", "The entry that becomes the root",
     "split the partition at ", "", " is the root of a partition", false,
     &greirige::Session::split_partition},
    {"merge", "Merge a partition back into its parent partition",
     "greirige partition merge ou=people,dc=example,dc=com",
     "The root of the partition that disappears", "merge the partition ",
     " into its parent partition", " belongs to its parent partition", true,
     &greirige::Session::merge_partitions},
    {"abort", "Abort the operation that is running on a partition",
     "greirige partition abort ou=people,dc=example,dc=com", "The root of the partition",
     "abort the operation running on the partition ", "", ": the running operation is aborted",
     true, &greirige::Session::abort_partition_operation},
};

void add_operation(CommandLine &line, CLI::App &group, const PartitionOperation &operation)
{
    struct Arguments {
        std::string dn;
        int flags = 0;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, operation.command, operation.summary, operation.example,
        [arguments, &operation](Tool &tool) {
            const std::string &dn = arguments->dn;
            const int flags = arguments->flags;
            return tool.carry_out(
                {.name = std::string("partition ") + operation.command,
                 .doing = operation.doing + in_quotes(dn) + operation.doing_more,
                 .done = printable(dn) + operation.done,
                 .details = {{"dn", json_text(dn)}, {"flags", flags}},
                 .destructive = operation.destructive},
                [&](greirige::Session session) { return (session.*operation.call)(dn, flags); });
        });
    add_dn(command, "DN", arguments->dn, operation.dn_help);
    add_flags(command, arguments->flags);
}

struct OrphanOperation {
    const char *command;
    const char *summary;
    const char *example;
    const char *doing;
    const char *preposition;
    const char *done;
    bool destructive;
    greirige::Result<void> (greirige::Session::*call)(std::string_view name,
                                                      greirige::Server server) const;
};

constexpr OrphanOperation orphan_operations[] = {
    {"split-orphan", "Split off a partition whose parent no server holds",
     "greirige partition split-orphan o=lost cn=server1,ou=servers,dc=example,dc=com",
     "split off the orphan partition ", " on the server ", " is an orphan partition", false,
     &greirige::Session::split_orphan_partition},
    {"remove-orphan", "Remove an orphan partition from a server",
     "greirige partition remove-orphan o=lost cn=server1,ou=servers,dc=example,dc=com",
     "remove the orphan partition ", " from the server ", " is removed", true,
     &greirige::Session::remove_orphan_partition},
};

void add_orphan_operation(CommandLine &line, CLI::App &group, const OrphanOperation &operation)
{
    struct Arguments {
        std::string server;
        std::string context;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command = line.command(
        group, operation.command, operation.summary, operation.example,
        [arguments, &operation](Tool &tool) {
            const std::string &server = arguments->server;
            const std::string &context = arguments->context;
            return tool.carry_out(
                {.name = std::string("partition ") + operation.command,
                 .doing = operation.doing + in_quotes(context) + operation.preposition +
                          in_quotes(server),
                 .done = printable(context) + operation.done,
                 .details = {{"serverDN", json_text(server)}, {"contextName", json_text(context)}},
                 .destructive = operation.destructive},
                [&](greirige::Session session) {
                    return (session.*operation.call)(context, greirige::Server{server});
                });
        });
    add_dn(command, "DN", arguments->context, "The orphan partition");
    add_dn(command, "SERVER", arguments->server, "The server object on which it lives");
}

// Counts one partition after the other. One that fails does not stop the others, unless the
// connection is lost with it.
ExitStatus count_all(Tool &tool, const std::vector<std::string> &dns)
{
    Operation all{.name = "partition count", .doing = "count the entries of", .done = {}};
    Json &names = all.details["partitions"] = Json::array();
    for (const std::string &dn : dns) {
        all.doing += (&dn == &dns.front() ? " " : ", ") + in_quotes(dn);
        names.push_back(json_text(dn));
    }
    if (!tool.begin(all))
        return ExitStatus::done;
    const greirige::Session session = tool.session();

    Json counted = Json::array();
    std::vector<Row> rows;
    bool lost = false;
    std::size_t failed = 0;
    for (const std::string &dn : dns) {
        std::string why = "not counted, the connection is lost";
        int code = LDAP_SERVER_DOWN;
        if (!lost) {
            const auto count = session.partition_entry_count(dn);
            if (count) {
                counted.push_back({{"dn", json_text(dn)}, {"entries", *count}});
                rows.push_back({std::to_string(*count), printable(dn)});
                continue;
            }
            leave_if_interrupted();
            code = count.error().code;
            why = describe(session.handle(), count.error());
        }
        complain("cannot count the entries of " + in_quotes(dn) + " on " + tool.server() + ": " +
                 why);
        counted.push_back({{"dn", json_text(dn)}, {"error", {{"code", code}, {"message", why}}}});
        rows.push_back({"-", printable(dn)});
        lost = lost || connection_is_lost(code);
        ++failed;
    }

    if (tool.output.json()) {
        Json document = tool.document(all);
        document["partitions"] = counted;
        tool.output.document(document);
    } else if (rows.size() > 1 && failed < rows.size()) {
        tool.output.table({{"ENTRIES", true}, {"PARTITION"}}, rows);
    } else if (failed == 0) {
        tool.output.line(rows[0][0] + " entries in " + rows[0][1]);
    }
    return failed == 0            ? ExitStatus::done
           : failed == dns.size() ? ExitStatus::failed
                                  : ExitStatus::done_in_part;
}

} // namespace

void add_partition_commands(CommandLine &line)
{
    CLI::App &group = line.group("partition", "Split, merge and count partitions");
    for (const PartitionOperation &operation : operations)
        add_operation(line, group, operation);

    const auto dns = std::make_shared<std::vector<std::string>>();
    CLI::App &count =
        line.command(group, "count", "Count the entries of partitions",
                     "greirige partition count dc=example,dc=com ou=people,dc=example,dc=com",
                     [dns](Tool &tool) { return count_all(tool, *dns); });
    add_dns(count, "DN", *dns, "The roots of the partitions");

    for (const OrphanOperation &operation : orphan_operations)
        add_orphan_operation(line, group, operation);
}

} // namespace tool
