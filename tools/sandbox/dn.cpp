#include "dn.h"

#include <ldap.h>

#include <memory>

namespace sandbox {

namespace {

struct ParsedDn {
    LDAPDN dn = nullptr;

    explicit ParsedDn(const std::string &text)
    {
        if (text.find('\0') != std::string::npos ||
            ldap_str2dn(text.c_str(), &dn, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
            dn = nullptr;
    }
    ~ParsedDn()
    {
        ldap_dnfree(dn);
    }
    ParsedDn(const ParsedDn &) = delete;
    ParsedDn &operator=(const ParsedDn &) = delete;
};

} // namespace

std::optional<std::string> normalised_dn(const std::string &dn)
{
    const ParsedDn parsed(dn);
    char *text = nullptr;
    if (parsed.dn == nullptr ||
        ldap_dn2str(parsed.dn, &text, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return {};
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return std::string(text);
}

std::pair<std::string, std::string> first_rdn(const std::string &dn)
{
    const auto rdns = rdns_of(dn);
    return rdns.empty() ? std::pair<std::string, std::string>() : rdns.front();
}

std::vector<std::pair<std::string, std::string>> rdns_of(const std::string &dn)
{
    const ParsedDn parsed(dn);
    std::vector<std::pair<std::string, std::string>> rdns;
    for (LDAPRDN *rdn = parsed.dn; rdn != nullptr && *rdn != nullptr; ++rdn) {
        const LDAPAVA &first = *(*rdn)[0];
        rdns.emplace_back(std::string(first.la_attr.bv_val, first.la_attr.bv_len),
                          std::string(first.la_value.bv_val, first.la_value.bv_len));
    }
    return rdns;
}

std::vector<std::string> naming_attributes(const std::string &dn)
{
    const ParsedDn parsed(dn);
    std::vector<std::string> names;
    if (parsed.dn != nullptr && parsed.dn[0] != nullptr)
        for (LDAPAVA **part = parsed.dn[0]; *part != nullptr; ++part)
            names.emplace_back((*part)->la_attr.bv_val, (*part)->la_attr.bv_len);
    return names;
}

std::string rdn_of(const std::string &dn)
{
    const ParsedDn parsed(dn);
    char *text = nullptr;
    if (parsed.dn == nullptr || parsed.dn[0] == nullptr ||
        ldap_rdn2str(parsed.dn[0], &text, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return {};
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return std::string(text);
}

std::string parent_of(const std::string &dn)
{
    const ParsedDn parsed(dn);
    char *text = nullptr;
    if (parsed.dn == nullptr || parsed.dn[0] == nullptr ||
        ldap_dn2str(parsed.dn + 1, &text, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return {};
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return std::string(text);
}

} // namespace sandbox
