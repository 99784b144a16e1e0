// greirige whoami, rights, name, refresh: what the server knows of identities and names.

#include "commands.h"

#include "text.h"

namespace tool {

namespace {

ExitStatus show_identity(Tool &tool)
{
    const Operation operation{
        .name = "whoami", .doing = "ask for the identity of the session", .done = {}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    const std::string dn = tool.value(operation, tool.session().bind_dn());
    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["identity"] = json_text(dn);
        tool.output.document(json);
    } else {
        tool.output.line(dn.empty() ? "anonymous" : printable(dn));
    }
    return ExitStatus::done;
}

struct Rights {
    std::string dn;
    std::string subject;
    std::vector<std::string> attributes;
};

ExitStatus show_rights(Tool &tool, const Rights &asked)
{
    Json attributes = Json::array();
    for (const std::string &attribute : asked.attributes)
        attributes.push_back(json_text(attribute));
    const Operation operation{.name = "rights",
                              .doing = "ask for the rights of " + in_quotes(asked.subject) +
                                       " on " + in_quotes(asked.dn),
                              .done = {},
                              .details = {{"dn", json_text(asked.dn)},
                                          {"subject", json_text(asked.subject)},
                                          {"attributes", attributes}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    const std::vector<greirige::AttributeRights> rights =
        tool.value(operation, tool.session().effective_privileges_list(
                                  asked.dn, greirige::Subject(asked.subject), asked.attributes));

    Json json = tool.document(operation);
    Json &list = json["rights"] = Json::array();
    std::vector<Row> rows;
    for (const auto &[attribute, privileges] : rights) {
        list.push_back({{"attribute", json_text(attribute)}, {"privileges", privileges}});
        rows.push_back({std::to_string(privileges), printable(attribute)});
    }
    if (tool.output.json())
        tool.output.document(json);
    else
        tool.output.table({{"RIGHTS", true}, {"ATTRIBUTE"}}, rows);
    return ExitStatus::done;
}

ExitStatus convert(Tool &tool, const Operation &operation,
                   const std::function<greirige::Result<std::string>(greirige::Session)> &call)
{
    if (!tool.begin(operation))
        return ExitStatus::done;
    const std::string dn = tool.value(operation, call(tool.session()));
    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["dn"] = json_text(dn);
        tool.output.document(json);
    } else {
        tool.output.line(printable(dn));
    }
    return ExitStatus::done;
}

ExitStatus convert_dns(Tool &tool, const std::string &name)
{
    const Operation operation{.name = "name from-dns",
                              .doing = "convert the DNS name " + in_quotes(name),
                              .done = {},
                              .details = {{"name", json_text(name)}}};
    return convert(tool, operation,
                   [&](greirige::Session session) { return session.dn_from_dns(name); });
}

// The 16-bit units of a UTF-8 name.
std::u16string native_units(const std::string &name)
{
    const auto characters = decode_utf8(name);
    if (!characters)
        throw UsageError("name from-native: NAME is not UTF-8: " + printable(name));
    std::u16string units;
    for (char32_t character : *characters) {
        if (character >= 0x10000) { // a surrogate pair
            character -= 0x10000;
            units += static_cast<char16_t>(0xd800 + (character >> 10));
            character = 0xdc00 + (character & 0x3ff);
        }
        units += static_cast<char16_t>(character);
    }
    return units;
}

ExitStatus convert_native(Tool &tool, const std::string &name)
{
    const std::u16string units = native_units(name);
    const Operation operation{.name = "name from-native",
                              .doing = "convert the native name " + in_quotes(name),
                              .done = {},
                              .details = {{"name", json_text(name)}}};
    return convert(tool, operation,
                   [&](greirige::Session session) { return session.dn_from_native(units); });
}

void add_names(CommandLine &line)
{
    CLI::App &group = line.group("name", "Turn names of other forms into DNs");
    const auto dns = std::make_shared<std::string>();
    line.command(group, "from-dns", "Turn a DNS-style name into a DN",
                 "greirige name from-dns people.example.com",
                 [dns](Tool &tool) { return convert_dns(tool, *dns); })
        .add_option("NAME", *dns, "The name")
        ->required()
        ->type_name("");
    const auto native = std::make_shared<std::string>();
    line.command(group, "from-native", "Turn a name in the directory's native form into a DN",
                 "greirige name from-native anna.people.example",
                 [native](Tool &tool) { return convert_native(tool, *native); })
        .add_option("NAME", *native, "The name, in UTF-8")
        ->required()
        ->type_name("");
}

} // namespace

void add_identity_commands(CommandLine &line)
{
    line.command("whoami", "Show under which identity the session is bound",
                 "greirige -x -D cn=admin,dc=example,dc=com -W whoami", show_identity);

    const auto rights = std::make_shared<Rights>();
    CLI::App &command =
        line.command("rights", "Show the rights that a subject has on attributes of an entry",
                     "greirige rights ou=people,dc=example,dc=com "
                     "uid=anna,ou=people,dc=example,dc=com cn description",
                     [rights](Tool &tool) { return show_rights(tool, *rights); });
    add_dn(command, "DN", rights->dn, "The entry");
    add_dn(command, "SUBJECT", rights->subject, "Whose rights");
    command.add_option("ATTR", rights->attributes, "The attributes")->required()->type_name("");

    add_names(line);

    line.command("refresh", "Make the server refresh itself", "greirige refresh", [](Tool &tool) {
        return tool.carry_out(
            {.name = "refresh", .doing = "start a refresh", .done = "the server refreshes itself"},
            [](greirige::Session session) { return session.refresh_server(); });
    });
}

} // namespace tool
