#include "names.h"

#include "dn.h"
#include "ldapx.h"

#include <algorithm>
#include <array>
#include <strings.h>

namespace sandbox {

// A name on its way down: the entries that it may mean so far, and what is still to be tried.
struct Names::Search {
    std::shared_ptr<Call> call;
    std::string name;
    std::vector<NamePart> parts; // those below the base that are left; the next is the last
    std::vector<std::string> here;
    std::vector<std::string> probes;
    std::vector<std::string> found;
};

namespace {

// In the order in which they are tried.
constexpr std::array<const char *, 8> naming_types = {"dc", "o", "ou", "cn", "uid", "l", "st", "c"};
// Each part costs as many looks as there are types, for each entry that it may mean.
constexpr std::size_t most_parts = 64;
constexpr std::size_t most_meanings = 16;

unsigned unit_at(std::string_view units, std::size_t index)
{
    return static_cast<unsigned>(static_cast<unsigned char>(units[index])) << 8 |
           static_cast<unsigned char>(units[index + 1]);
}

void append_utf8(std::string &text, unsigned character)
{
    const auto rest = [&](int shift) {
        text += static_cast<char>(0x80 | (character >> shift & 0x3f));
    };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += static_cast<char>(0xc0 | character >> 6);
        rest(0);
    } else if (character < 0x10000) {
        text += static_cast<char>(0xe0 | character >> 12);
        rest(6);
        rest(0);
    } else {
        text += static_cast<char>(0xf0 | character >> 18);
        rest(12);
        rest(6);
        rest(0);
    }
}

bool is_type(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '-' || c == '.';
    });
}

// A value as it stands in a DN (RFC 4514, section 2.4).
std::string escaped(std::string_view value)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        const bool edge = i == 0 || i + 1 == value.size();
        const bool special = std::string_view("\"+,;<>\\=").find(c) != std::string_view::npos;
        if (special || static_cast<unsigned char>(c) < 0x20 || (edge && (c == ' ' || c == '#')))
            text += {'\\', digits[c >> 4 & 0xf], digits[c & 0xf]};
        else
            text += c;
    }
    return text;
}

std::string rdn(const NamePart &part)
{
    std::string text;
    for (const auto &[type, value] : part)
        text += (text.empty() ? "" : "+") + type + "=" + escaped(value);
    return text;
}

// True when the part can mean this RDN of the base.
bool means(const NamePart &part, const std::pair<std::string, std::string> &base_rdn)
{
    const auto is_same = [](const std::string &left, const std::string &right) {
        return strcasecmp(left.c_str(), right.c_str()) == 0;
    };
    return part.size() == 1 && is_same(part.front().second, base_rdn.second) &&
           (part.front().first.empty() || is_same(part.front().first, base_rdn.first));
}

} // namespace

std::string utf8_of(std::string_view units)
{
    if (units.size() % 2 != 0)
        throw ber::Malformed("a native name of an odd number of bytes");
    std::string text;
    for (std::size_t i = 0; i < units.size(); i += 2) {
        unsigned character = unit_at(units, i);
        const bool is_last = i + 2 == units.size();
        if (character == 0 && is_last)
            return text;
        if (character == 0)
            throw ber::Malformed("a native name goes on after its zero unit");
        if (character >= 0xd800 && character < 0xe000) {
            const unsigned low = is_last ? 0 : unit_at(units, i + 2);
            if (character >= 0xdc00 || low < 0xdc00 || low >= 0xe000)
                throw ber::Malformed("half a surrogate pair in a native name");
            character = 0x10000 + ((character - 0xd800) << 10) + (low - 0xdc00);
            i += 2;
        }
        append_utf8(text, character);
    }
    throw ber::Malformed("a native name without its zero unit");
}

std::optional<std::vector<NamePart>> parse_native_name(const std::string &text)
{
    std::vector<NamePart> parts(1, NamePart(1));
    bool has_type = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto &[type, value] = parts.back().back();
        const char c = text[i];
        if (c == '\\') {
            if (++i == text.size())
                return {};
            value += text[i];
        } else if (c == '=' && !has_type) {
            has_type = true;
            type = std::exchange(value, {});
            if (!is_type(type))
                return {};
        } else if (c == '+' && has_type) {
            has_type = false;
            parts.back().emplace_back();
        } else if (c == '.') {
            has_type = false;
            parts.emplace_back(1);
        } else {
            value += c;
        }
    }
    for (const NamePart &part : parts)
        for (const auto &[type, value] : part)
            if (value.empty() || (type.empty() && part.size() > 1))
                return {};
    return parts;
}

std::optional<std::vector<NamePart>> parse_dns_name(std::string name)
{
    constexpr std::size_t longest_label = 63;
    constexpr std::size_t longest_name = 253;
    if (!name.empty() && name.back() == '.')
        name.pop_back();
    if (name.size() > longest_name || name.find('\0') != std::string::npos)
        return {};
    std::vector<NamePart> parts;
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('.', begin), name.size());
        if (end == begin || end - begin > longest_label)
            return {};
        parts.push_back({{"", name.substr(begin, end - begin)}});
        begin = end + 1;
    }
    return parts;
}

Names::Names(Directory &directory, const std::string &base)
    : directory_(directory), base_(base), base_rdns_(rdns_of(base))
{
}

// One OCTET STRING, and the answer is one.
void Names::offer(Operations &operations)
{
    operations.add({LDAPX_ZIL_TO_LDAP_REQUEST, LDAPX_ZIL_TO_LDAP_RESPONSE, "native name to DN",
                    [this](const std::shared_ptr<Call> &call) {
                        ber::Reader value = call->value();
                        const std::string name = utf8_of(value.octets());
                        value.finish();
                        resolve(call, name, parse_native_name(name));
                    }});
    operations.add({LDAPX_DNS_TO_X500_DN_REQUEST, LDAPX_DNS_TO_X500_DN_RESPONSE, "DNS name to DN",
                    [this](const std::shared_ptr<Call> &call) {
                        ber::Reader value = call->value();
                        const std::string name = value.text();
                        value.finish();
                        resolve(call, name, parse_dns_name(name));
                    }});
}

void Names::resolve(const std::shared_ptr<Call> &call, const std::string &name,
                    const std::optional<std::vector<NamePart>> &parts)
{
    if (!parts)
        return call->answer({LDAP_INVALID_DN_SYNTAX,
                             call->operation().title + ": \"" + name + "\" is no such name",
                             {}});
    if (parts->size() > most_parts)
        return call->answer({LDAP_UNWILLING_TO_PERFORM,
                             "a name of more than " + std::to_string(most_parts) + " parts",
                             {}});
    const auto ends_with = [&](std::size_t rdns) {
        return parts->size() >= rdns && std::equal(parts->end() - static_cast<std::ptrdiff_t>(rdns),
                                                   parts->end(), base_rdns_.begin(), means);
    };
    const std::size_t whole = base_rdns_.size();
    const std::size_t matched = ends_with(whole) ? whole : ends_with(1) ? 1 : 0;
    if (matched == 0)
        return call->answer(
            {LDAP_NO_SUCH_OBJECT, "\"" + name + "\" does not end in the name of " + base_, {}});
    const auto search = std::make_shared<Search>();
    search->call = call;
    search->name = name;
    search->parts.assign(parts->begin(), parts->end() - static_cast<std::ptrdiff_t>(matched));
    search->probes = {base_};
    probe(search);
}

// All entries that the next part may mean, below those that the name has led to so far.
void Names::descend(const std::shared_ptr<Search> &search)
{
    if (search->parts.empty())
        return answer(*search);
    NamePart part = std::move(search->parts.back());
    search->parts.pop_back();
    const bool is_typed = !part.front().first.empty();
    for (const std::string &above : search->here) {
        if (is_typed) {
            search->probes.push_back(rdn(part) + "," + above);
            continue;
        }
        for (const char *type : naming_types) {
            part.front().first = type;
            search->probes.push_back(rdn(part) + "," + above);
        }
    }
    probe(search);
}

// Looks for one of them after the other.
void Names::probe(const std::shared_ptr<Search> &search)
{
    if (search->probes.empty()) {
        if (search->found.empty())
            return search->call->answer({LDAP_NO_SUCH_OBJECT,
                                         "no entry has the name \"" + search->name + "\"",
                                         search->here.empty() ? "" : search->here.front()});
        if (search->found.size() > most_meanings)
            return search->call->answer(
                {LDAP_UNWILLING_TO_PERFORM, "\"" + search->name + "\" may mean too much", {}});
        search->here = std::exchange(search->found, {});
        return descend(search);
    }
    const std::string dn = std::move(search->probes.front());
    search->probes.erase(search->probes.begin());
    directory_.read(search->call->behalf(), dn, {LDAP_NO_ATTRS},
                    [this, search](const Result &result, const Entry &entry) {
                        // A value that the type cannot have, or a type that is none, names nothing.
                        if (!result.ok() && result.code != LDAP_NO_SUCH_OBJECT &&
                            result.code != LDAP_INVALID_DN_SYNTAX)
                            return search->call->answer(
                                explained(result, *search->call, search->name));
                        if (result.ok())
                            search->found.push_back(entry.dn);
                        probe(search);
                    });
}

void Names::answer(const Search &search) const
{
    if (search.here.size() == 1)
        return search.call->answer({}, ber::octets(search.here.front()));
    std::string all;
    for (const std::string &dn : search.here)
        all += (all.empty() ? "" : " and ") + dn;
    search.call->answer({LDAP_UNWILLING_TO_PERFORM, "\"" + search.name + "\" may mean " + all, {}});
}

} // namespace sandbox
