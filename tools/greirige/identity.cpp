// greirige whoami, rights, name, refresh: what the server knows of identities and names.

#include "commands.h"

#include "ldapx.h"
#include "text.h"

namespace tool {

namespace {

// Takes over a string that the library allocated.
std::string take(char *text)
{
    std::string taken = text != nullptr ? text : "";
    ldapx_memfree(text);
    return taken;
}

ExitStatus show_identity(Tool &tool)
{
    const Operation operation{
        .name = "whoami", .doing = "ask for the identity of the session", .done = {}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    char *identity = nullptr;
    tool.check(operation, ldap_get_bind_dn(tool.ld(), &identity));
    const std::string dn = take(identity);
    // The library hands over no more of a DN that is longer than 771 bytes.
    constexpr std::size_t cut = 770;
    const bool maybe_cut = dn.size() == cut;
    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["identity"] = json_text(dn);
        if (maybe_cut)
            json["mayBeCut"] = true;
        tool.output.document(json);
    } else {
        tool.output.line(dn.empty() ? "anonymous" : printable(dn));
        if (maybe_cut)
            complain("warning: the identity may go on after these 770 bytes");
    }
    return ExitStatus::done;
}

struct Rights {
    std::string dn;
    std::string subject;
    std::vector<std::string> attributes;
};

ExitStatus show_rights(Tool &tool, Rights &rights)
{
    std::vector<std::string> &attributes = rights.attributes;
    Json asked = Json::array();
    for (const std::string &attribute : attributes)
        asked.push_back(json_text(attribute));
    const Operation operation{.name = "rights",
                              .doing = "ask for the rights of " + in_quotes(rights.subject) +
                                       " on " + in_quotes(rights.dn),
                              .done = {},
                              .details = {{"dn", json_text(rights.dn)},
                                          {"subject", json_text(rights.subject)},
                                          {"attributes", asked}}};
    if (!tool.begin(operation))
        return ExitStatus::done;
    std::vector<char *> names;
    names.reserve(attributes.size() + 1);
    for (std::string &attribute : attributes)
        names.push_back(attribute.data());
    names.push_back(nullptr);
    std::vector<int> privileges(attributes.size());
    int announced = 0;
    tool.check(operation, ldap_get_effective_privileges_list_ext(
                              tool.ld(), rights.subject.data(), rights.dn.data(), names.data(),
                              privileges.data(), static_cast<int>(privileges.size()), &announced));

    // The answers come without names, in the order of the question.
    const std::size_t answered = announced > 0 ? static_cast<std::size_t>(announced) : 0;
    Json json = tool.document(operation);
    Json &list = json["rights"] = Json::array();
    std::vector<Row> rows;
    for (std::size_t at = 0; at < attributes.size(); ++at) {
        const bool known = at < answered;
        list.push_back({{"attribute", json_text(attributes[at])},
                        {"privileges", known ? Json(privileges[at]) : Json(nullptr)}});
        rows.push_back({known ? std::to_string(privileges[at]) : "-", printable(attributes[at])});
    }
    if (tool.output.json())
        tool.output.document(json);
    else
        tool.output.table({{"RIGHTS", true}, {"ATTRIBUTE"}}, rows);
    if (answered == attributes.size())
        return ExitStatus::done;
    complain(tool.server() + " answered for " + std::to_string(announced) + " of " +
             counted(static_cast<long>(attributes.size()), "attribute"));
    return answered == 0 ? ExitStatus::failed : ExitStatus::done_in_part;
}

ExitStatus convert(Tool &tool, const Operation &operation,
                   const std::function<int(LDAP *, char **)> &call)
{
    if (!tool.begin(operation))
        return ExitStatus::done;
    char *converted = nullptr;
    tool.check(operation, call(tool.ld(), &converted));
    const std::string dn = take(converted);
    if (tool.output.json()) {
        Json json = tool.document(operation);
        json["dn"] = json_text(dn);
        tool.output.document(json);
    } else {
        tool.output.line(printable(dn));
    }
    return ExitStatus::done;
}

ExitStatus convert_dns(Tool &tool, std::string &name)
{
    const Operation operation{.name = "name from-dns",
                              .doing = "convert the DNS name " + in_quotes(name),
                              .done = {},
                              .details = {{"name", json_text(name)}}};
    return convert(tool, operation,
                   [&](LDAP *ld, char **dn) { return ldap_dns_to_x500_dn(ld, name.data(), dn); });
}

// The 16-bit units of a UTF-8 name, ended by a zero unit.
std::vector<unsigned short> native_units(const std::string &name)
{
    const auto characters = decode_utf8(name);
    if (!characters)
        throw UsageError("name from-native: NAME is not UTF-8: " + printable(name));
    std::vector<unsigned short> units;
    for (char32_t character : *characters) {
        if (character >= 0x10000) { // a surrogate pair
            character -= 0x10000;
            units.push_back(static_cast<unsigned short>(0xd800 + (character >> 10)));
            character = 0xdc00 + (character & 0x3ff);
        }
        units.push_back(static_cast<unsigned short>(character));
    }
    units.push_back(0);
    return units;
}

ExitStatus convert_native(Tool &tool, const std::string &name)
{
    std::vector<unsigned short> units = native_units(name);
    const Operation operation{.name = "name from-native",
                              .doing = "convert the native name " + in_quotes(name),
                              .done = {},
                              .details = {{"name", json_text(name)}}};
    return convert(tool, operation,
                   [&](LDAP *ld, char **dn) { return ldap_zil_to_ldap(ld, units.data(), dn); });
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
            ldap_refresh_server);
    });
}

} // namespace tool
