#include "update_order.h"

#include <ldap.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <strings.h>
#include <type_traits>

namespace sandbox {

namespace {

struct FreeDn {
    void operator()(LDAPRDN *dn) const
    {
        ldap_dnfree(dn);
    }
};
using Dn = std::unique_ptr<std::remove_pointer_t<LDAPDN>, FreeDn>;

// Naming attributes whose values slapd compares without regard to case and spaces.
constexpr std::array<std::string_view, 12> text_types = {
    "uid", "cn", "ou", "dc", "o", "l", "c", "st", "sn", "mail", "givenName", "employeeNumber"};

bool is_text(const berval &type)
{
    return std::any_of(text_types.begin(), text_types.end(), [&type](std::string_view known) {
        return known.size() == type.bv_len &&
               strncasecmp(known.data(), type.bv_val, type.bv_len) == 0;
    });
}

// Outside of ASCII a letter can be spelled in several ways.
std::optional<std::string> folded(const LDAPAVA &ava)
{
    if (!is_text(ava.la_attr) || (ava.la_flags & LDAP_AVA_BINARY) != 0)
        return {};
    std::string text;
    for (const char c : std::string_view(ava.la_value.bv_val, ava.la_value.bv_len)) {
        if (c < ' ' || c > '~')
            return {};
        if (c != ' ')
            text += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

// The types are left out: one type can have several names.
std::optional<std::string> comparable_rdn(LDAPRDN rdn)
{
    std::vector<std::string> values;
    for (; *rdn != nullptr; ++rdn) {
        auto value = folded(**rdn);
        if (!value)
            return {};
        values.push_back(std::move(*value));
    }
    std::sort(values.begin(), values.end());
    std::string text;
    for (const std::string &value : values)
        text.append(value).append("\t");
    return text.append("\n"); // neither stands in a value
}

// The entries at and below a name are those whose names begin with it.
bool begins_with(std::string_view name, std::string_view above)
{
    return name.substr(0, above.size()) == above;
}

} // namespace

std::optional<std::string> comparable_dn(const std::string &dn)
{
    LDAPDN parsed = nullptr;
    if (dn.find('\0') != std::string::npos ||
        ldap_str2dn(dn.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return {};
    const Dn owner(parsed);
    std::string name;
    for (LDAPDN rdn = parsed; rdn != nullptr && *rdn != nullptr; ++rdn) {
        const auto part = comparable_rdn(*rdn);
        if (!part)
            return {};
        name.insert(0, *part);
    }
    return name;
}

Footprint footprint(const ber::Element &request)
{
    if (request.tag == LDAP_REQ_DELETE) {
        const auto name = comparable_dn(std::string(request.content));
        return name ? Footprint({*name}) : Footprint();
    }
    ber::Reader reader(request.content);
    const auto name = comparable_dn(reader.text());
    if (!name || request.tag != LDAP_REQ_MODDN)
        return name ? Footprint({*name}) : Footprint();

    const auto new_rdn = comparable_dn(reader.text());
    reader.boolean();
    // Without its last component, which begins behind the line end before its own.
    const std::size_t end = name->rfind('\n', name->size() < 2 ? 0 : name->size() - 2);
    std::optional<std::string> superior = name->substr(0, end == std::string::npos ? 0 : end + 1);
    if (!reader.at_end())
        superior = comparable_dn(std::string(reader.element().content));
    if (!new_rdn || !superior)
        return {};
    return Footprint({*name, *superior + *new_rdn});
}

bool UnderWay::goes_alone(const Footprint &update) const
{
    return !update || !groups_ ||
           std::any_of(update->begin(), update->end(), [this](const std::string &name) {
               return begins_with(name, *groups_) || begins_with(*groups_, name);
           });
}

bool UnderWay::depends(const std::string &name) const
{
    // Names above it and the name itself.
    for (std::size_t end = name.find('\n'); end != std::string::npos;
         end = name.find('\n', end + 1))
        if (names_.contains(name.substr(0, end + 1)))
            return true;
    const auto below = names_.lower_bound(name);
    return below != names_.end() && begins_with(*below, name);
}

bool UnderWay::admits(const Footprint &update) const
{
    if (count_ == 0)
        return true;
    return !alone_ && !goes_alone(update) &&
           std::none_of(update->begin(), update->end(),
                        [this](const std::string &name) { return depends(name); });
}

void UnderWay::begin(const Footprint &update)
{
    ++count_;
    alone_ = goes_alone(update);
    if (update)
        for (const std::string &name : *update)
            names_.insert(name);
}

void UnderWay::end(const Footprint &update)
{
    --count_;
    alone_ = false;
    if (update)
        for (const std::string &name : *update)
            names_.erase(names_.find(name));
}

} // namespace sandbox
