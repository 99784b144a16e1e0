// greirige filter: get, set.
//
// The library takes and gives a filter as one flat text, every name closed by a dollar sign. People
// read and write one class per line, its attributes behind it:
//
//     inetOrgPerson cn sn
//     group
//
// A byte of a name that has a meaning there (a blank, a backslash, # at the start of a line) or
// cannot be shown stands as \hh, so that every filter survives the way there and back.

#include "commands.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "text.h"

namespace tool {

namespace {

using Filter = std::vector<greirige::FilterClass>;

std::string escaped(const std::string &name, bool starts_line)
{
    constexpr const char *digits = "0123456789ABCDEF";
    const bool whole = decode_utf8(name) && printable(name) == name;
    std::string text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        const bool special = c == ' ' || c == '\\' || byte < 0x20 || byte == 0x7f ||
                             (c == '#' && starts_line && text.empty()) || (byte >= 0x80 && !whole);
        if (special)
            text += {'\\', digits[byte >> 4], digits[byte & 0x0f]};
        else
            text += c;
    }
    return text;
}

std::string unescaped(const std::string &word)
{
    std::string name;
    for (std::size_t at = 0; at < word.size(); ++at) {
        if (word[at] != '\\') {
            name += word[at];
            continue;
        }
        unsigned char byte = 0;
        const char *digits = word.data() + at + 1;
        const char *end = digits + std::min<std::size_t>(2, word.size() - at - 1);
        const auto [stop, error] = std::from_chars(digits, end, byte, 16);
        if (error != std::errc{} || stop != digits + 2 || byte == 0)
            throw UsageError(in_quotes(word) +
                             ": a backslash stands before two hex digits, not 00");
        name += static_cast<char>(byte);
        at += 2;
    }
    if (name.find('$') != std::string::npos)
        throw UsageError(in_quotes(word) + ": a name in a filter cannot hold a $");
    if (name.find('\0') != std::string::npos) // from a file
        throw UsageError(in_quotes(word) + ": a name in a filter cannot hold a zero byte");
    return name;
}

std::vector<std::string> lines_of(const Filter &filter)
{
    std::vector<std::string> lines;
    for (const greirige::FilterClass &one : filter) {
        std::string line = escaped(one.name, true);
        for (const std::string &attribute : one.attributes)
            line += ' ' + escaped(attribute, false);
        lines.push_back(line);
    }
    return lines;
}

Filter parse_lines(const std::vector<std::string> &lines)
{
    Filter filter;
    for (const std::string &line : lines) {
        std::istringstream words(line);
        std::string word;
        if (!(words >> word) || word.starts_with('#'))
            continue;
        greirige::FilterClass one{.name = unescaped(word), .attributes = {}};
        while (words >> word)
            one.attributes.push_back(unescaped(word));
        filter.push_back(one);
    }
    if (filter.empty())
        throw UsageError("the filter names no class (--raw '$' sets a filter without classes)");
    return filter;
}

Filter parse_flat(const std::string &text)
{
    auto filter = greirige::parse_filter(text);
    if (!filter)
        throw UsageError("filter set: " + in_quotes(text) + ": " + filter.error().text);
    return *std::move(filter);
}

Json classes_of(const Filter &filter)
{
    Json classes = Json::array();
    for (const greirige::FilterClass &one : filter) {
        Json attributes = Json::array();
        for (const std::string &attribute : one.attributes)
            attributes.push_back(json_text(attribute));
        classes.push_back({{"class", json_text(one.name)}, {"attributes", attributes}});
    }
    return classes;
}

struct Arguments {
    std::string server;
    std::vector<std::string> lines;
    std::string file;
    bool raw = false;
};

ExitStatus get_filter(Tool &tool, const Arguments &arguments)
{
    const Operation operation{.name = "filter get",
                              .doing =
                                  "read the replication filter of " + in_quotes(arguments.server),
                              .done = {},
                              .details = {{"serverDN", json_text(arguments.server)}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    const std::string text = tool.value(
        operation, tool.session().replication_filter_text(greirige::Server(arguments.server)));
    const Filter classes = greirige::parse_filter(text).value(); // as the layer promises
    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["filter"] = json_text(text);
        json["classes"] = classes_of(classes);
        tool.output.document(json);
    } else if (arguments.raw) {
        tool.output.line(text);
    } else {
        for (const std::string &line : lines_of(classes))
            tool.output.line(line);
        if (classes.empty())
            complain(in_quotes(arguments.server) + " has a filter without classes");
    }
    return ExitStatus::done;
}

// The filter's lines: from the arguments, or from a file ("-": standard input).
std::vector<std::string> given_lines(const Arguments &arguments)
{
    if (arguments.file.empty() == arguments.lines.empty())
        throw UsageError("filter set: the filter is given either as arguments or with -f FILE "
                         "(greirige filter set --help)");
    if (arguments.file.empty())
        return arguments.lines;
    std::ifstream file;
    if (arguments.file != "-") {
        file.open(arguments.file);
        if (!file)
            throw UsageError("cannot read " + in_quotes(arguments.file) + ": " +
                             std::strerror(errno));
    }
    std::istream &input = arguments.file == "-" ? std::cin : file;
    std::vector<std::string> lines;
    for (std::string line; std::getline(input, line);)
        lines.push_back(line);
    return lines;
}

ExitStatus set_filter(Tool &tool, const Arguments &arguments)
{
    const std::vector<std::string> lines = given_lines(arguments);
    if (arguments.raw && lines.size() != 1)
        throw UsageError("filter set --raw: the filter is one text");
    const Filter filter = arguments.raw ? parse_flat(lines[0]) : parse_lines(lines);
    const std::string text = greirige::format_filter(filter).value(); // every name was looked at
    return tool.carry_out(
        {.name = "filter set",
         .doing = "set the replication filter of " + in_quotes(arguments.server) + " to " +
                  in_quotes(text),
         .done = printable(arguments.server) + " replicates " +
                 (filter.size() == 1 ? "1 class" : std::to_string(filter.size()) + " classes"),
         .details = {{"serverDN", json_text(arguments.server)},
                     {"filter", json_text(text)},
                     {"classes", classes_of(filter)}}},
        [&](greirige::Session session) {
            return session.set_replication_filter(greirige::Server(arguments.server), filter);
        });
}

} // namespace

void add_filter_commands(CommandLine &line)
{
    CLI::App &group = line.group("filter", "Read and write a server's replication filter");

    const auto get = std::make_shared<Arguments>();
    CLI::App &get_command =
        line.command(group, "get", "Show the classes and attributes that a server replicates",
                     "greirige filter get cn=server2,ou=servers,dc=example,dc=com",
                     [get](Tool &tool) { return get_filter(tool, *get); });
    add_dn(get_command, "SERVER", get->server, "The server object");
    get_command.add_flag("--raw", get->raw, "Show the flat text: class$attribute$...$$$");

    const auto set = std::make_shared<Arguments>();
    CLI::App &set_command =
        line.command(group, "set", "Set the classes and attributes that a server replicates",
                     "greirige filter set cn=server2,ou=servers,dc=example,dc=com 'inetOrgPerson "
                     "cn sn' groupOfNames",
                     [set](Tool &tool) { return set_filter(tool, *set); });
    add_dn(set_command, "SERVER", set->server, "The server object");
    set_command
        .add_option("CLASS", set->lines, "A class, its attributes behind it, as one argument")
        ->type_name("");
    set_command
        .add_option("-f,--file", set->file, "Read one class per line from FILE (- standard input)")
        ->type_name("FILE");
    set_command.add_flag("--raw", set->raw, "The filter is given as flat text");
}

} // namespace tool
