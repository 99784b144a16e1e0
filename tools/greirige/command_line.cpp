#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "ldapx.h"
#include "signals.h"
#include "text.h"

namespace tool {

namespace {

// How many letters must be added, removed or changed, or neighbours swapped.
std::size_t distance(const std::string &a, const std::string &b)
{
    std::vector<std::vector<std::size_t>> cost(a.size() + 1,
                                               std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            cost[i][j] =
                std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

// The name that was most likely meant, if one is near enough to be offered.
std::optional<std::string> nearest(const std::string &word, const std::vector<std::string> &names)
{
    const auto closest =
        std::min_element(names.begin(), names.end(), [&](const auto &a, const auto &b) {
            return distance(word, a) < distance(word, b);
        });
    if (closest == names.end() || distance(word, *closest) > (word.size() + 2) / 3)
        return std::nullopt;
    return *closest;
}

std::vector<std::string> command_names(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(command->get_name());
    return names;
}

std::vector<std::string> option_names(const CLI::App *app)
{
    std::vector<std::string> names;
    for (; app != nullptr; app = app->get_parent())
        for (const CLI::Option *option : app->get_options())
            for (const std::string &name : option->get_lnames())
                names.push_back("--" + name);
    return names;
}

// "partition split", empty for the tool itself.
std::string path_of(const CLI::App &app)
{
    if (app.get_parent() == nullptr)
        return {};
    const std::string parent = path_of(*app.get_parent());
    return (parent.empty() ? "" : parent + ' ') + app.get_name();
}

std::string help_of(const CLI::App &app)
{
    const std::string path = path_of(app);
    return "greirige " + (path.empty() ? "" : path + ' ') + "--help";
}

std::string versions()
{
    LDAPAPIInfo info = {};
    info.ldapai_info_version = LDAP_API_INFO_VERSION;
    ldap_get_option(nullptr, LDAP_OPT_API_INFO, &info);
    const int number = info.ldapai_vendor_version;
    std::string text = std::string("greirige ") + GREIRIGE_TOOL_VERSION + "\nlibgreirige " +
                       ldapx_version() + '\n' + info.ldapai_vendor_name + " libldap " +
                       std::to_string(number / 10000) + '.' + std::to_string(number / 100 % 100) +
                       '.' + std::to_string(number % 100) + '\n';
    ldap_memfree(info.ldapai_vendor_name);
    ber_memvfree(reinterpret_cast<void **>(info.ldapai_extensions));
    return text;
}

void print(std::FILE *stream, const std::string &text)
{
    if (std::fwrite(text.data(), 1, text.size(), stream) != text.size() || std::fflush(stream) != 0)
        throw Failure(ExitStatus::failed, std::string("cannot write: ") + std::strerror(errno));
}

// The text of a validation failure, empty when the DN is well-formed (RFC 4514).
std::string fault_of_dn(const std::string &text)
{
    LDAPDN dn = nullptr;
    const int code = ldap_str2dn(text.c_str(), &dn, LDAP_DN_FORMAT_LDAPV3);
    ldap_dnfree(dn);
    if (code == LDAP_SUCCESS)
        return {};
    return in_quotes(text) + " is not a distinguished name such as ou=people,dc=example,dc=com";
}

} // namespace

CommandLine::CommandLine()
    : app_("Administers a partitioned, replicated LDAP directory from the shell.", "greirige")
{
    app_.fallthrough(); // the options below may stand before or after the command
    app_.require_subcommand(0, 1);
    app_.set_help_flag("-h,--help", "Show this, or the help of the command before it");
    app_.add_flag("--json", options_.json, "Print one JSON document instead of text");
    app_.add_flag("--yes", options_.yes, "Do not ask before a destructive operation");
    app_.add_flag("-n,--dry-run", options_.dry_run, "Show what would be done, send nothing");
    app_.add_flag("-v,--verbose", options_.verbose, "Say on standard error what happens");
    app_.add_flag("-V,--version", options_.version,
                  "Show the versions; -VV shows nothing else even with a command");
    add_connection_options(app_, options_.connection);
    app_.footer(
        "Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 cannot connect or\n"
        "bind, 4 done in part. ldap.conf(5), LDAPRC and the LDAP variables hold.\n\n"
        "Example:\n  greirige -H ldap://localhost -x -D cn=admin,dc=example,dc=com -W partition "
        "count dc=example,dc=com");
}

CLI::App &CommandLine::group(const std::string &name, const std::string &description)
{
    CLI::App *group = app_.add_subcommand(name, description);
    group->require_subcommand(0, 1);
    group->footer("The options of the connection are listed by greirige --help.");
    return *group;
}

CLI::App &CommandLine::command(CLI::App &group, const std::string &name,
                               const std::string &description, const std::string &example,
                               Action action)
{
    CLI::App *command = group.add_subcommand(name, description);
    command->footer(
        "Example:\n  " + example +
        "\n\nThe options of the connection, --json, --yes and -n are listed by greirige "
        "--help.");
    actions_.emplace(command, std::move(action));
    return *command;
}

CLI::App &CommandLine::command(const std::string &name, const std::string &description,
                               const std::string &example, Action action)
{
    return command(app_, name, description, example, std::move(action));
}

CLI::Option *CommandLine::add_name(CLI::App &command, const std::string &name, std::string &value,
                                   const std::vector<std::string> &known,
                                   const std::string &description)
{
    const auto fault = [known](const std::string &text) -> std::string {
        if (std::find(known.begin(), known.end(), text) != known.end())
            return {};
        std::string all;
        for (const std::string &one : known)
            all += (all.empty() ? "" : ", ") + one;
        const auto meant = nearest(text, known);
        return in_quotes(text) + " is not one of " + all +
               (meant ? "; did you mean " + *meant + '?' : "");
    };
    CLI::Option *option = command.add_option(name, value, description)
                              ->required()
                              ->type_name("")
                              ->check(CLI::Validator(fault, ""));
    known_.emplace(option, known);
    return option;
}

void CommandLine::add_completion_command()
{
    const auto shell = std::make_shared<std::string>();
    CLI::App &completion =
        command("completion", "Print a script that makes a shell complete these commands",
                "greirige completion bash", [this, shell](Tool &) {
                    CompletionTable table;
                    add_to_completion(app_, table);
                    print(stdout, completion_script(*shell, table));
                    return ExitStatus::done;
                });
    add_name(completion, "SHELL", *shell, shells_with_completion(), "bash, zsh or fish");
}

void CommandLine::add_to_completion(const CLI::App &app, CompletionTable &table) const
{
    CompletionCommand command{
        .path = path_of(app), .description = app.get_description(), .options = {}, .arguments = {}};
    for (const CLI::Option *option : app.get_options()) {
        const bool repeats = option->get_items_expected_max() > 1;
        if (!option->nonpositional()) {
            command.arguments.push_back(completion_value(*option));
            command.repeats = repeats;
        } else if (option != app.get_help_ptr() || command.path.empty()) { // each has that one
            CompletionOption row{.names = {},
                                 .description = option->get_description(),
                                 .value = completion_value(*option),
                                 .repeats = repeats};
            for (const std::string &name : option->get_snames())
                row.names.push_back('-' + name);
            for (const std::string &name : option->get_lnames())
                row.names.push_back("--" + name);
            command.options.push_back(row);
        }
    }
    table.push_back(command);
    for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; }))
        add_to_completion(*each, table);
}

CompletionValue CommandLine::completion_value(const CLI::Option &option) const
{
    using Kind = CompletionValue::Kind;
    if (option.get_items_expected_min() == 0 && option.nonpositional())
        return {}; // a flag
    const std::string name =
        option.nonpositional() ? option.get_type_name() : option.get_name(true);
    const auto words = known_.find(&option);
    if (words != known_.end())
        return {.kind = Kind::words, .name = name, .words = words->second};
    return {.kind = name == "FILE" ? Kind::file : Kind::text, .name = name};
}

int CommandLine::run(int argc, char **argv)
{
    catch_signals();
    try {
        return static_cast<int>(parse_and_run(argc, argv));
    } catch (const Failure &failure) {
        complain(failure.what());
        return static_cast<int>(failure.status);
    } catch (const Interrupted &interruption) {
        if (!interruption.reported)
            complain("interrupted: the server may still do what it was asked to");
        end_by_signal();
    } catch (const std::exception &error) { // no memory, most likely
        complain(error.what());
        return static_cast<int>(ExitStatus::failed);
    }
}

// The parser would take "[a,b]" apart as a list of its own notation. A mark before such a word
// keeps it whole; every option that takes a value removes the mark again.
std::vector<std::string> CommandLine::protected_words(int argc, char **argv)
{
    constexpr char mark = '\1';
    std::vector<std::string> reversed; // as the parser wants them
    for (int at = argc - 1; at > 0; --at)
        reversed.emplace_back(argv[at][0] == '[' ? mark + std::string(argv[at]) : argv[at]);
    const CLI::Validator unmark(
        [](std::string &word) {
            if (word.starts_with(mark))
                word.erase(0, 1);
            return std::string();
        },
        "");
    for_every_command([&](CLI::App &app) {
        for (CLI::Option *option : app.get_options())
            if (option->get_items_expected_min() > 0)
                option->transform(unmark);
    });
    return reversed;
}

void CommandLine::for_every_command(const std::function<void(CLI::App &)> &visit)
{
    std::vector<CLI::App *> apps{&app_};
    while (!apps.empty()) {
        CLI::App *app = apps.back();
        apps.pop_back();
        visit(*app);
        for (CLI::App *command : app->get_subcommands([](CLI::App *) { return true; }))
            apps.push_back(command);
    }
}

ExitStatus CommandLine::parse_and_run(int argc, char **argv)
{
    Secret password;
    if (take_password(
            argc, argv, [this](const std::string &option) { return takes_value(option); },
            password))
        options_.connection.password = std::move(password);
    try {
        app_.parse(protected_words(argc, argv));
    } catch (const CLI::CallForHelp &) {
        print(stdout, app_.help());
        return ExitStatus::done;
    } catch (const CLI::ParseError &error) {
        throw UsageError(explain(error));
    }

    const auto action = actions_.find(&chosen());
    const bool runs_command = action != actions_.end() && options_.version < 2;
    if (options_.version > 0)
        print(runs_command ? stderr : stdout, versions());
    if (!runs_command) {
        if (options_.version > 0)
            return ExitStatus::done;
        throw UsageError("no command is given (" + help_of(chosen()) + " lists the commands)");
    }
    check_connection_options(options_.connection);
    Tool tool(options_);
    return action->second(tool);
}

bool CommandLine::takes_value(const std::string &option)
{
    // An option may mean different things to different commands, but it takes a value in all of
    // them or in none.
    bool takes = false;
    for_every_command([&](const CLI::App &app) {
        for (const CLI::Option *known : app.get_options())
            takes = takes || (known->check_name(option) && known->get_items_expected_min() > 0);
    });
    return takes;
}

// The innermost command that the command line names.
const CLI::App &CommandLine::chosen() const
{
    const CLI::App *app = &app_;
    while (!app->get_subcommands().empty())
        app = app->get_subcommands().front();
    return *app;
}

std::string CommandLine::explain(const CLI::ParseError &error) const
{
    const CLI::App &command = chosen();
    const std::string see = " (" + help_of(command) + ")";
    const std::string path = path_of(command);
    const std::string before = path.empty() ? "" : path + ": ";
    const std::vector<std::string> unknown = app_.remaining(true);
    if (!unknown.empty()) {
        const std::string &word = unknown.front();
        const bool is_option = word.starts_with('-');
        const bool is_command = !is_option && actions_.find(&command) == actions_.end();
        const auto meant =
            nearest(word.substr(0, word.find('=')), is_option    ? option_names(&command)
                                                    : is_command ? command_names(command)
                                                                 : std::vector<std::string>());
        const std::string kind = is_option    ? "unknown option "
                                 : is_command ? "unknown command "
                                              : "one argument too many: ";
        return before + kind + in_quotes(word) + (meant ? ", did you mean " + *meant + '?' : "") +
               see;
    }
    // The parser's own words, "NAME: what is wrong", where they cannot be said better.
    const std::string text = error.what();
    if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr) // "DN is required"
        return before + text.substr(0, text.find(' ')) + " is missing" + see;
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&error) != nullptr)
        return before + text.substr(0, text.find(':')) +
               (text.find("received") == std::string::npos ? " needs a value"
                                                           : " is given more than once") +
               see;
    if (dynamic_cast<const CLI::ConversionError *>(&error) != nullptr) { // "...: --flags = abc"
        const std::size_t name = text.find(": ") + 2;
        const std::size_t equals = text.find(" = ");
        return before + text.substr(name, equals - name) + ": " +
               in_quotes(text.substr(equals + 3)) + " is not a number that fits" + see;
    }
    return before + text + see;
}

CLI::Option *add_dn(CLI::App &command, const std::string &name, std::string &dn,
                    const std::string &description)
{
    return command.add_option(name, dn, description)
        ->required()
        ->type_name("")
        ->check(CLI::Validator(fault_of_dn, ""));
}

CLI::Option *add_dns(CLI::App &command, const std::string &name, std::vector<std::string> &dns,
                     const std::string &description)
{
    return command.add_option(name, dns, description)
        ->required()
        ->type_name("")
        ->check(CLI::Validator(fault_of_dn, ""));
}

void add_flags(CLI::App &command, int &flags)
{
    command.add_option("--flags", flags, "Option bits for the server (0)")->type_name("N");
}

} // namespace tool
