#include "filter_text.h"

#include <ldap.h>

namespace sandbox {

namespace {

constexpr int deepest = 100;

void append_value(std::string &text, std::string_view value)
{
    constexpr char digits[] = "0123456789abcdef";
    for (const char c : value) {
        if (c == '*' || c == '(' || c == ')' || c == '\\' || c == '\0')
            text += {'\\', digits[c >> 4 & 0xf], digits[c & 0xf]};
        else
            text += c;
    }
}

void append_comparison(std::string &text, std::string_view content, const char *sign)
{
    ber::Reader reader(content);
    text.append(reader.octets()).append(sign);
    append_value(text, reader.octets());
}

void append_substrings(std::string &text, std::string_view content)
{
    ber::Reader reader(content);
    text.append(reader.octets()).append("=");
    ber::Reader parts = reader.enter(ber::sequence_tag);
    ber::Tag last = 0;
    while (!parts.at_end()) {
        const ber::Element part = parts.element();
        if (part.tag != LDAP_SUBSTRING_INITIAL)
            text += '*';
        append_value(text, part.content);
        last = part.tag;
    }
    if (last != LDAP_SUBSTRING_FINAL)
        text += '*';
}

void append_extensible(std::string &text, std::string_view content)
{
    ber::Reader reader(content);
    std::string rule;
    std::string type;
    std::string value;
    bool with_dn = false;
    while (!reader.at_end()) {
        const ber::Element part = reader.element();
        switch (part.tag) {
        case LDAP_FILTER_EXT_OID:
            rule = part.content;
            break;
        case LDAP_FILTER_EXT_TYPE:
            type = part.content;
            break;
        case LDAP_FILTER_EXT_VALUE:
            append_value(value, part.content);
            break;
        default:
            with_dn = part.content != std::string_view("\0", 1);
        }
    }
    text += type + (with_dn ? ":dn" : "") + (rule.empty() ? "" : ":" + rule) + ":=" + value;
}

void append_filter(std::string &text, const ber::Element &filter, int depth)
{
    if (depth > deepest)
        throw ber::Malformed("a filter nested too deeply");
    text += '(';
    switch (filter.tag) {
    case LDAP_FILTER_AND:
    case LDAP_FILTER_OR:
    case LDAP_FILTER_NOT: {
        text += filter.tag == LDAP_FILTER_AND ? '&' : filter.tag == LDAP_FILTER_OR ? '|' : '!';
        ber::Reader operands(filter.content);
        while (!operands.at_end())
            append_filter(text, operands.element(), depth + 1);
        break;
    }
    case LDAP_FILTER_EQUALITY:
        append_comparison(text, filter.content, "=");
        break;
    case LDAP_FILTER_GE:
        append_comparison(text, filter.content, ">=");
        break;
    case LDAP_FILTER_LE:
        append_comparison(text, filter.content, "<=");
        break;
    case LDAP_FILTER_APPROX:
        append_comparison(text, filter.content, "~=");
        break;
    case LDAP_FILTER_SUBSTRINGS:
        append_substrings(text, filter.content);
        break;
    case LDAP_FILTER_PRESENT:
        text.append(filter.content).append("=*");
        break;
    case LDAP_FILTER_EXT:
        append_extensible(text, filter.content);
        break;
    default:
        throw ber::Malformed("no kind of filter");
    }
    text += ')';
}

} // namespace

std::string filter_text(const ber::Element &filter)
{
    std::string text;
    append_filter(text, filter, 0);
    return text;
}

} // namespace sandbox
