#include "filters.h"

#include "ldapx.h"
#include "schema.h"
#include "targets.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sandbox {

namespace {

using Names = std::vector<std::string>; // a class, then its attributes

bool is_name(std::string_view text)
{
    return !text.empty() && text.find_first_of(std::string_view("$\0", 2)) == std::string::npos;
}

std::vector<Names> read_filter(ber::Reader filter)
{
    std::vector<Names> classes;
    while (!filter.at_end()) {
        ber::Reader entry = filter.enter(ber::sequence_tag);
        Names names{entry.text()};
        ber::Reader attributes = entry.enter(ber::sequence_tag);
        while (!attributes.at_end())
            names.push_back(attributes.text());
        entry.finish();
        classes.push_back(std::move(names));
    }
    return classes;
}

// Nothing when the text is no filter.
std::optional<std::vector<Names>> parse(std::string_view text)
{
    std::vector<Names> classes;
    const auto next = [&text]() -> std::optional<std::string> {
        const std::size_t end = text.find('$');
        if (end == std::string_view::npos)
            return {};
        const std::string name(text.substr(0, end));
        text.remove_prefix(end + 1);
        return name;
    };
    for (;;) {
        auto name = next();
        if (!name)
            return {};
        if (name->empty())
            break;
        Names names{*name};
        for (name = next(); name && !name->empty(); name = next())
            names.push_back(*name);
        if (!name)
            return {};
        classes.push_back(std::move(names));
    }
    if (!text.empty())
        return {};
    return classes;
}

std::string flat_text(const std::vector<Names> &classes)
{
    std::string text;
    for (const Names &names : classes) {
        for (const std::string &name : names)
            text += name + "$";
        text += "$";
    }
    return text + "$";
}

} // namespace

void Filters::offer(Operations &operations)
{
    operations.add({LDAPX_SET_REPLICATION_FILTER_REQUEST, LDAPX_SET_REPLICATION_FILTER_RESPONSE,
                    "set replication filter", [this](std::shared_ptr<Call> call) {
                        set(std::move(call));
                    }});
    operations.add({LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
                    "get replication filter", [this](std::shared_ptr<Call> call) {
                        get(std::move(call));
                    }});
}

// OCTET STRING server, SEQUENCE OF SEQUENCE { OCTET STRING class, SEQUENCE OF OCTET STRING }.
void Filters::set(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string server = value.text();
    const std::vector<Names> classes = read_filter(value.enter(ber::sequence_tag));
    value.finish();
    if (refuse_anonymous(*call))
        return;
    for (const Names &names : classes)
        for (const std::string &name : names)
            if (!is_name(name))
                return call->answer(
                    {LDAP_CONSTRAINT_VIOLATION,
                     "a name in a replication filter has at least one character, and no \"$\"",
                     {}});
    find_server(directory_, call, server, {},
                [this, call, text = flat_text(classes)](const Entry &entry) {
                    directory_.modify(call->behalf(), entry.dn,
                                      {{LDAP_MOD_REPLACE, replication_filter, {text}}},
                                      [call, dn = entry.dn](const Result &result) {
                                          call->answer(explained(result, *call, dn));
                                      });
                });
}

// OCTET STRING server; the answer is the SEQUENCE that set() takes.
void Filters::get(std::shared_ptr<Call> call)
{
    ber::Reader value = call->value();
    const std::string server = value.text();
    value.finish();
    find_server(directory_, call, server, {replication_filter}, [call](const Entry &entry) {
        const std::string text = entry.value(replication_filter);
        const auto classes = parse(text.empty() ? "$" : text);
        if (!classes)
            return call->answer(
                {LDAP_OTHER, "what " + entry.dn + " has as replicationFilter is no filter", {}});
        std::string content;
        for (const Names &names : *classes) {
            std::string attributes;
            for (std::size_t i = 1; i < names.size(); ++i)
                attributes += ber::octets(names[i]);
            content += ber::sequence(ber::octets(names.front()), ber::sequence(attributes));
        }
        call->answer({}, ber::sequence(content));
    });
}

} // namespace sandbox
