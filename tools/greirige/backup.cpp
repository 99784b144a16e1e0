// greirige backup, restore: one object out of the directory into a file, and back.

#include "commands.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>
#include <optional>

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "backup_file.h"
#include "ldapx.h"
#include "new_file.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

struct Arguments {
    std::string dn;
    std::string file;
    std::string since;
    std::string verify;
    std::string password_file;
    bool ask_password = false;
    bool other_server = false;
    bool overwrite = false;
};

// ---- Files --------------------------------------------------------------------------------------

// An object has less than 2 GiB; what is larger was not made here.
constexpr std::size_t largest_file = std::size_t(INT_MAX) + 64UL * 1024 * 1024;

std::string read_file(const std::string &path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string bytes;
    ssize_t got = file < 0 ? -1 : 1;
    while (got > 0 && bytes.size() <= largest_file) {
        char part[65536];
        got = read(file, part, sizeof part);
        bytes.append(part, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    const int error = errno;
    if (file >= 0)
        close(file);
    if (got < 0)
        throw UsageError("cannot read " + in_quotes(path) + ": " + std::strerror(error));
    return bytes;
}

BackupFile read_backup(const std::string &path)
{
    const std::string bytes = read_file(path);
    auto read = parse_backup(std::as_bytes(std::span(bytes)));
    if (const Damage *damage = std::get_if<Damage>(&read))
        throw Failure(ExitStatus::failed, in_quotes(path) + ' ' + damage->what);
    return std::get<BackupFile>(std::move(read));
}

std::string utc_now()
{
    const std::time_t now = std::time(nullptr);
    std::tm time = {};
    gmtime_r(&now, &time);
    char text[sizeof "2026-11-21T00:22:30Z"];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &time);
    return text;
}

// ---- What belongs together ----------------------------------------------------------------------

bool is_same_object(const std::string &one, const std::string &other)
{
    const auto normal = [](const std::string &dn) {
        char *text = nullptr;
        ldap_dn_normalize(dn.c_str(), LDAP_DN_FORMAT_LDAPV3, &text, LDAP_DN_FORMAT_LDAPV3);
        std::string normalized = text != nullptr ? text : dn;
        ldap_memfree(text);
        return normalized;
    };
    return strcasecmp(normal(one).c_str(), normal(other).c_str()) == 0;
}

// Two URIs name the same server when host and port are the same; ldap and ldaps, each at its
// standard port, are the same server too. Names are compared, not addresses.
bool is_same_server(std::string_view one, std::string_view other)
{
    const auto place = [](std::string_view uri) {
        for (const std::string_view scheme : {"ldap://", "ldaps://"})
            if (uri.starts_with(scheme))
                uri.remove_prefix(scheme.size());
        return std::string(uri);
    };
    return strcasecmp(place(one).c_str(), place(other).c_str()) == 0;
}

// The session's servers (one, once it is connected) must be, or have among them, the file's.
void require_same_server(const Tool &tool, const Arguments &arguments, const BackupFile &file,
                         const std::string &path)
{
    std::string_view servers = tool.server();
    bool found = arguments.other_server;
    while (!found && !servers.empty()) {
        const std::size_t end = std::min(servers.find(' '), servers.size());
        found = is_same_server(servers.substr(0, end), file.server);
        servers.remove_prefix(std::min(end + 1, servers.size()));
    }
    if (!found)
        throw UsageError(in_quotes(path) + " is a backup of " + printable(file.server) +
                         ", not of " + tool.server() + " (--other-server uses it all the same)");
}

// ---- The password -------------------------------------------------------------------------------

enum class Asking { once, twice };

std::optional<Secret> given_password(const Arguments &arguments, Asking asking)
{
    const std::string instead = "--backup-password-file FILE";
    if (!arguments.password_file.empty())
        return read_password_file(arguments.password_file);
    if (!arguments.ask_password)
        return std::nullopt;
    return asking == Asking::twice ? read_new_password("Enter Backup Password: ", instead)
                                   : read_password("Enter Backup Password: ", instead);
}

void check_password_options(const Arguments &arguments, const std::string &command)
{
    if (arguments.ask_password && !arguments.password_file.empty())
        throw UsageError(command + ": --ask-backup-password and --backup-password-file each give "
                                   "the password: choose one");
}

// ---- Failures -----------------------------------------------------------------------------------

// Runs either operation. It has one code for everything that is not its answer, the end of the
// connection and of the time to wait included; what became of the session tells them apart.
template <class Call>
auto run(Tool &tool, Call call)
{
    using namespace std::chrono;
    const greirige::Session session = tool.session();
    const auto begin = steady_clock::now();
    auto result = call(session);
    if (result || result.error().code != LDAPX_NOT_SUPPORTED)
        return result;
    const long limit = seconds_of(session.handle(), LDAP_OPT_TIMEOUT);
    greirige::Error error = result.error();
    if (!tool.connected())
        error.code = LDAP_SERVER_DOWN;
    else if (limit >= 0 && steady_clock::now() - begin >= seconds(limit))
        error.code = LDAP_TIMEOUT;
    error.text = ldapx_err2string(error.code);
    result = error;
    return result;
}

// ---- Backup -------------------------------------------------------------------------------------

std::string amount(const BackupFile &file)
{
    return counted(static_cast<long>(file.backup.data.size()), "byte") + " in " +
           counted(static_cast<long>(file.backup.chunks.size()), "chunk");
}

// What both commands show of a backup as JSON, behind the operation and the server.
void describe_backup(Json &json, const BackupFile &file)
{
    json["time"] = file.time;
    json["state"] = file.backup.state;
    json["since"] = file.since.empty() ? Json(nullptr) : Json(file.since);
    json["password"] = file.guarded;
    json["size"] = file.backup.data.size();
    json["chunks"] = file.backup.chunks.size();
    json["digest"] = "sha256 " + digest_of(file);
}

// The earlier backup whose state the server shall go on from.
std::optional<BackupFile> earlier_backup(const Tool &tool, const Arguments &arguments)
{
    if (arguments.since.empty())
        return std::nullopt;
    BackupFile earlier = read_backup(arguments.since);
    if (!is_same_object(earlier.dn, arguments.dn))
        throw UsageError(in_quotes(arguments.since) + " is a backup of " + in_quotes(earlier.dn) +
                         ", not of " + in_quotes(arguments.dn));
    require_same_server(tool, arguments, earlier, arguments.since);
    const std::string &state = earlier.backup.state;
    if (state.starts_with("0+") || state.ends_with("+0"))
        throw UsageError("the state " + state + " of " + in_quotes(arguments.since) +
                         " cannot be sent back: 0 stands for no state");
    return earlier;
}

ExitStatus back_up(Tool &tool, const Arguments &arguments)
{
    // Whatever is wrong with the files shows before the server has any work.
    check_new_file(arguments.file, arguments.overwrite);
    const std::optional<BackupFile> earlier = earlier_backup(tool, arguments);
    BackupFile file;
    file.dn = arguments.dn;
    file.since = earlier ? earlier->backup.state : "";
    const Operation operation{
        .name = "backup",
        .doing = "back up " + in_quotes(file.dn) +
                 (file.since.empty() ? "" : " since its state " + file.since) + " to " +
                 in_quotes(arguments.file),
        .done = {},
        .details = {{"dn", json_text(file.dn)}, {"file", json_text(arguments.file)}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    NewFile output(arguments.file, arguments.overwrite);
    const Secret password = given_password(arguments, Asking::twice).value_or(Secret());
    file.guarded = !password.empty();

    tool.session(); // now one server has answered
    if (earlier)
        require_same_server(tool, arguments, *earlier, arguments.since);
    file.backup = tool.value(operation, run(tool, [&](greirige::Session session) {
                                 return session.backup_object(
                                     file.dn, greirige::Password(password.view()), file.since);
                             }));
    file.server = tool.server();
    file.time = utc_now();
    output.write(format_backup(file));
    output.commit();

    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["done"] = true;
        describe_backup(json, file);
        tool.output.document(json);
    } else {
        tool.output.line(printable(file.dn) + " is backed up in " + printable(arguments.file) +
                         ": " + amount(file) + ", state " + file.backup.state +
                         (file.since == file.backup.state ? " (unchanged)" : "") +
                         (file.guarded ? "" : ", no password"));
    }
    return ExitStatus::done;
}

ExitStatus verify(Tool &tool, const Arguments &arguments)
{
    const BackupFile file = read_backup(arguments.verify);
    if (tool.output.json()) {
        Json json{{"operation", "backup"},
                  {"server", json_text(file.server)},
                  {"dn", json_text(file.dn)},
                  {"file", json_text(arguments.verify)},
                  {"verified", true}};
        describe_backup(json, file);
        tool.output.document(json);
        return ExitStatus::done;
    }
    std::vector<std::pair<std::string, std::string>> fields{{"object", printable(file.dn)},
                                                            {"server", printable(file.server)},
                                                            {"time", file.time},
                                                            {"state", file.backup.state}};
    if (!file.since.empty())
        fields.emplace_back("since", file.since);
    fields.emplace_back("password", file.guarded ? "yes" : "no");
    fields.emplace_back("data", amount(file));
    fields.emplace_back("digest", "sha256 " + digest_of(file) + ", as it should be");
    tool.output.fields(fields);
    return ExitStatus::done;
}

ExitStatus back_up_or_verify(Tool &tool, const Arguments &arguments)
{
    const std::string help = " (greirige backup --help)";
    if (!arguments.verify.empty()) {
        if (!arguments.dn.empty() || !arguments.file.empty() || !arguments.since.empty())
            throw UsageError("backup: --verify FILE reads that file and goes with no DN, no -o and "
                             "no --since" +
                             help);
        return verify(tool, arguments);
    }
    if (arguments.dn.empty())
        throw UsageError("backup: DN is missing" + help);
    if (arguments.file.empty())
        throw UsageError("backup: -o FILE is missing" + help);
    check_password_options(arguments, "backup");
    return back_up(tool, arguments);
}

// ---- Restore ------------------------------------------------------------------------------------

ExitStatus restore(Tool &tool, const Arguments &arguments)
{
    check_password_options(arguments, "restore");
    const BackupFile file = read_backup(arguments.file);
    require_same_server(tool, arguments, file, arguments.file);
    const Operation operation{.name = "restore",
                              .doing = "restore " + in_quotes(file.dn) + " as it was at " +
                                       file.time + ", from " + in_quotes(arguments.file) + ',',
                              .done = printable(file.dn) + " is restored as it was at " + file.time,
                              .details = {{"dn", json_text(file.dn)},
                                          {"file", json_text(arguments.file)},
                                          {"time", file.time},
                                          {"state", file.backup.state}},
                              .destructive = true};
    const bool given = arguments.ask_password || !arguments.password_file.empty();
    if (file.guarded && !given && !somebody_is_there())
        throw UsageError(in_quotes(arguments.file) +
                         " is guarded by a password (--backup-password-file FILE reads it)");
    return tool.carry_out(operation, [&](greirige::Session) {
        require_same_server(tool, arguments, file, arguments.file);
        Arguments asking = arguments;
        asking.ask_password = arguments.ask_password || (file.guarded && !given);
        const Secret password = given_password(asking, Asking::once).value_or(Secret());
        return run(tool, [&](greirige::Session session) {
            return session.restore_object(file.dn, greirige::Password(password.view()),
                                          file.backup);
        });
    });
}

void add_common_options(CLI::App &command, Arguments &arguments)
{
    command
        .add_option("--backup-password-file", arguments.password_file,
                    "The complete contents of FILE are the password that guards the backup")
        ->type_name("FILE");
    command.add_flag("--ask-backup-password", arguments.ask_password,
                     "Ask for the password that guards the backup");
    command.add_flag("--other-server", arguments.other_server,
                     "Use a backup of another server all the same");
}

} // namespace

void add_backup_commands(CommandLine &line)
{
    const auto backup = std::make_shared<Arguments>();
    CLI::App &backup_command =
        line.command("backup", "Back up one object into a file, or check such a file",
                     "greirige backup uid=ada,ou=people,dc=example,dc=com -o ada.backup",
                     [backup](Tool &tool) { return back_up_or_verify(tool, *backup); });
    add_dn(backup_command, "DN", backup->dn, "The object")->required(false);
    backup_command.add_option("-o,--output", backup->file, "The file, which must not exist yet")
        ->type_name("FILE");
    backup_command
        .add_option("--since", backup->since, "Go on from the state of this earlier backup")
        ->type_name("FILE");
    backup_command.add_flag("--overwrite", backup->overwrite, "Replace a file that exists");
    backup_command
        .add_option("--verify", backup->verify, "Check that FILE is whole, ask no server")
        ->type_name("FILE");
    add_common_options(backup_command, *backup);

    const auto restore_arguments = std::make_shared<Arguments>();
    CLI::App &restore_command = line.command(
        "restore", "Put an object back as a backup shows it", "greirige restore yesterday.backup",
        [restore_arguments](Tool &tool) { return restore(tool, *restore_arguments); });
    restore_command.add_option("FILE", restore_arguments->file, "The backup")
        ->required()
        ->type_name("");
    add_common_options(restore_command, *restore_arguments);
}

} // namespace tool
