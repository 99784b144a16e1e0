#include "event_filter.h"

#include "dn.h"

#include "traffic.h"

#include <algorithm>
#include <charconv>
#include <strings.h>

namespace sandbox {

namespace {

enum class Syntax { text, number, name, type };

struct Known {
    std::string_view name;
    Syntax syntax;
};

// Everything that a filter can name.
constexpr Known attributes[] = {
    {"type", Syntax::type},
    {"result", Syntax::number},
    {"perpetratorDN", Syntax::name},
    {"entryDN", Syntax::name},
    {"newDN", Syntax::name},
    {"className", Syntax::text},
    {"verb", Syntax::number},
    {"flags", Syntax::number},
    {"attributeName", Syntax::text},
    {"syntaxOID", Syntax::text},
    {"value", Syntax::text},
    {"dstime", Syntax::number},
    {"milliseconds", Syntax::number},
    {"curProcess", Syntax::number},
    {"intValues", Syntax::number},
    {"strValues", Syntax::text},
    {"connection", Syntax::number},
    {"time", Syntax::number},
    {"inetAddr", Syntax::text},
    {"msgID", Syntax::number},
    {"bindDN", Syntax::name},
    {"bindType", Syntax::number},
    {"authMechanism", Syntax::text},
    {"resultCode", Syntax::number},
    {"controlOID", Syntax::text},
    {"base", Syntax::name},
    {"scope", Syntax::number},
    {"filter", Syntax::text},
    {"attrs", Syntax::text},
    {"operation", Syntax::number},
    {"compareDN", Syntax::name},
    {"assertionType", Syntax::text},
    {"assertionValue", Syntax::text},
    {"oldRDN", Syntax::name},
    {"newRDN", Syntax::name},
    {"extensionOID", Syntax::text},
    {"value1", Syntax::text},
    {"value2", Syntax::text},
    {"value3", Syntax::text},
    {"value4", Syntax::text},
    {"matchedDN", Syntax::name},
    {"referral", Syntax::text},
    {"passwordModifyType", Syntax::number},
};

constexpr int deepest = 100;

bool same_text(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string lower(std::string_view text)
{
    std::string result(text);
    for (char &c : result)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    return result;
}

std::optional<std::string> comparable_dn(const std::string &text)
{
    if (text.empty())
        return text; // the root, above every entry
    const std::optional<std::string> dn = normalised_dn(text);
    return dn ? std::optional(lower(*dn)) : std::nullopt;
}

std::optional<std::int64_t> number_in(std::string_view text)
{
    std::int64_t number = 0;
    const auto *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end)
        return {};
    return number;
}

// Both names in comparable form. How far `name` lies below `base`; -1 when it does not.
int levels_below(const std::string &name, const std::string &base)
{
    if (name.size() < base.size() ||
        name.compare(name.size() - base.size(), base.size(), base) != 0)
        return -1;
    std::string_view above = std::string_view(name).substr(0, name.size() - base.size());
    if (above.empty())
        return 0;
    if (!base.empty()) {
        if (above.back() != ',')
            return -1;
        above.remove_suffix(1);
    }
    // libldap writes a comma inside of a value as \2C: each one that stands here parts two RDNs.
    return 1 + static_cast<int>(std::count(above.begin(), above.end(), ','));
}

} // namespace

struct EventFilter::Node {
    enum class Kind {
        all,
        any,
        none_of, // not
        present,
        equal,
        at_least,
        at_most,
        parts, // substrings
        subtree,
        one_level,
        subordinate,
        superior,
        exact,
    };
    Kind kind = Kind::all;
    std::vector<Node> operands{};
    Known attribute{};
    std::string value{};              // in comparable form
    std::vector<std::string> parts{}; // first, any, ..., last; the first and the last may be empty

    bool matches(const Event &event) const;
    bool matches_value(const std::string &found) const;
};

namespace {

using Node = EventFilter::Node;
using Kind = Node::Kind;

class Parser {
public:
    explicit Parser(std::string_view text) : rest_(text) {}

    Node parse()
    {
        Node node = filter(0);
        if (!rest_.empty())
            throw EventFilter::Malformed("\"" + std::string(rest_) + "\" follows the filter");
        return node;
    }

private:
    Node filter(int depth)
    {
        if (depth > deepest)
            throw EventFilter::Malformed("nested too deeply");
        expect('(');
        Node node;
        switch (rest_.empty() ? '\0' : rest_.front()) {
        case '&':
            node = list(Kind::all, depth);
            break;
        case '|':
            node = list(Kind::any, depth);
            break;
        case '!':
            rest_.remove_prefix(1);
            node.kind = Kind::none_of;
            node.operands.push_back(filter(depth + 1));
            break;
        default:
            node = item();
        }
        expect(')');
        return node;
    }

    Node list(Kind kind, int depth)
    {
        rest_.remove_prefix(1);
        Node node;
        node.kind = kind;
        while (!rest_.empty() && rest_.front() == '(')
            node.operands.push_back(filter(depth + 1));
        return node;
    }

    Node item()
    {
        const std::string_view text = rest_.substr(0, rest_.find_first_of("()"));
        rest_.remove_prefix(text.size());
        const std::size_t sign = text.find('=');
        if (sign == std::string_view::npos || sign == 0)
            throw EventFilter::Malformed("\"" + std::string(text) + "\" compares nothing");
        std::string_view description = text.substr(0, sign);
        const std::string_view assertion = text.substr(sign + 1);

        Node node;
        node.kind = Kind::equal;
        switch (description.back()) {
        case '>':
            node.kind = Kind::at_least;
            description.remove_suffix(1);
            break;
        case '<':
            node.kind = Kind::at_most;
            description.remove_suffix(1);
            break;
        case '~':
            description.remove_suffix(1);
            break;
        case ':':
            description.remove_suffix(1);
            node.kind = rule(description);
            break;
        default:
            if (assertion == "*")
                node.kind = Kind::present;
            else if (assertion.find('*') != std::string_view::npos)
                node.kind = Kind::parts;
        }
        node.attribute = attribute(description);
        assertion_value(node, assertion);
        return node;
    }

    // The matching rule behind the attribute in "entryDN:dnSubtreeMatch"; takes it off.
    static Kind rule(std::string_view &description)
    {
        constexpr std::pair<std::string_view, Kind> rules[] = {
            {"dnSubtreeMatch", Kind::subtree},         {"dnOneLevelMatch", Kind::one_level},
            {"dnSubordinateMatch", Kind::subordinate}, {"dnSuperiorMatch", Kind::superior},
            {"distinguishedNameMatch", Kind::equal},   {"caseIgnoreMatch", Kind::equal},
            {"caseExactMatch", Kind::exact},
        };
        const std::size_t colon = description.find(':');
        const std::string_view name =
            colon == std::string_view::npos ? std::string_view() : description.substr(colon + 1);
        description = description.substr(0, colon);
        for (const auto &[known, kind] : rules)
            if (same_text(known, name))
                return kind;
        throw EventFilter::Malformed("\"" + std::string(name) + "\" is no matching rule here");
    }

    static Known attribute(std::string_view name)
    {
        for (const Known &known : attributes)
            if (same_text(known.name, name))
                return known;
        throw EventFilter::Malformed("no event has the attribute \"" + std::string(name) + "\"");
    }

    static void assertion_value(Node &node, std::string_view text)
    {
        const bool among_names = node.kind == Kind::subtree || node.kind == Kind::one_level ||
                                 node.kind == Kind::subordinate || node.kind == Kind::superior;
        if (among_names && node.attribute.syntax != Syntax::name)
            throw EventFilter::Malformed(std::string(node.attribute.name) + " is no name");
        if (node.kind == Kind::present)
            return;
        if (node.kind == Kind::parts) {
            for (std::size_t star = 0; star != std::string_view::npos;) {
                star = text.find('*');
                node.parts.push_back(lower(unescaped(text.substr(0, star))));
                text.remove_prefix(star == std::string_view::npos ? text.size() : star + 1);
            }
            return;
        }
        if (text.find('*') != std::string_view::npos)
            throw EventFilter::Malformed("\"*\" stands for itself as \\2a");
        const std::string plain = unescaped(text);
        if (node.attribute.syntax == Syntax::name && node.kind != Kind::exact) {
            const std::optional<std::string> dn = comparable_dn(plain);
            if (!dn)
                throw EventFilter::Malformed("\"" + plain + "\" is no name of an entry");
            node.value = *dn;
        } else if (node.attribute.syntax == Syntax::number && !number_in(plain)) {
            throw EventFilter::Malformed("\"" + plain + "\" is no number");
        } else {
            node.value = node.kind == Kind::exact ? plain : lower(plain);
        }
    }

    static std::string unescaped(std::string_view text)
    {
        std::string plain;
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] != '\\') {
                plain += text[i];
                continue;
            }
            unsigned value = 0;
            const std::string_view digits = text.substr(i + 1, 2);
            const auto [stop, error] =
                std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
            if (error != std::errc() || digits.size() != 2 || stop != digits.data() + 2)
                throw EventFilter::Malformed("\"\\\" needs two hexadecimal digits");
            plain += static_cast<char>(value);
            i += 2;
        }
        return plain;
    }

    void expect(char c)
    {
        if (rest_.empty() || rest_.front() != c)
            throw EventFilter::Malformed(
                std::string("\"") + c + "\" expected " +
                (rest_.empty() ? "at the end" : "before \"" + std::string(rest_) + "\""));
        rest_.remove_prefix(1);
    }

    std::string_view rest_;
};

bool matches_parts(const std::vector<std::string> &parts, std::string_view text)
{
    const std::string &first = parts.front();
    const std::string &last = parts.back();
    if (text.size() < first.size() + last.size() || text.substr(0, first.size()) != first ||
        text.substr(text.size() - last.size()) != last)
        return false;
    text.remove_suffix(last.size());
    text.remove_prefix(first.size());
    for (std::size_t i = 1; i + 1 < parts.size(); ++i) {
        const std::size_t at = text.find(parts[i]);
        if (at == std::string_view::npos)
            return false;
        text.remove_prefix(at + parts[i].size());
    }
    return true;
}

} // namespace

bool EventFilter::Node::matches_value(const std::string &found) const
{
    switch (kind) {
    case Kind::present:
        return true;
    case Kind::exact:
        return found == value;
    case Kind::parts:
        return matches_parts(parts, lower(found));
    default:
        break;
    }
    if (attribute.syntax == Syntax::name) {
        const std::optional<std::string> dn = comparable_dn(found);
        if (!dn)
            return false;
        const int below = levels_below(*dn, value);
        switch (kind) {
        case Kind::subtree:
            return below >= 0;
        case Kind::one_level:
            return below == 1;
        case Kind::subordinate:
            return below > 0;
        case Kind::superior:
            return levels_below(value, *dn) >= 0;
        case Kind::at_least:
            return *dn >= value;
        case Kind::at_most:
            return *dn <= value;
        default:
            return *dn == value;
        }
    }
    const std::optional<std::int64_t> number = number_in(found);
    const std::optional<std::int64_t> wanted = number_in(value);
    const std::string text = lower(found);
    const int order =
        number && wanted ? (*number > *wanted) - (*number < *wanted) : text.compare(value);
    switch (kind) {
    case Kind::at_least:
        return order >= 0;
    case Kind::at_most:
        return order <= 0;
    default:
        return order == 0;
    }
}

bool EventFilter::Node::matches(const Event &event) const
{
    const auto matches_event = [&](const Node &operand) {
        return operand.matches(event);
    };
    switch (kind) {
    case Kind::all:
        return std::all_of(operands.begin(), operands.end(), matches_event);
    case Kind::any:
        return std::any_of(operands.begin(), operands.end(), matches_event);
    case Kind::none_of:
        return !operands.front().matches(event);
    default:
        break;
    }
    const auto has = [&](std::string_view name, const std::string &found) {
        return attribute.name == name && !found.empty() && matches_value(found);
    };
    if (attribute.syntax == Syntax::type)
        return matches_value(std::to_string(event.type)) ||
               matches_value(std::string(find_event_kind(event.type)->name));
    if (has("result", std::to_string(event.result)) || has("entryDN", event.entry) ||
        has("perpetratorDN", event.perpetrator) ||
        (event.client && has("inetAddr", event.client->address)))
        return true;
    return std::any_of(event.record.fields().begin(), event.record.fields().end(),
                       [&](const auto &field) { return has(field.first, field.second); });
}

EventFilter::EventFilter(std::string_view text)
{
    if (!text.empty())
        root_ = std::make_shared<const Node>(Parser(text).parse());
}

bool EventFilter::matches(const Event &event) const
{
    return !root_ || root_->matches(event);
}

} // namespace sandbox
