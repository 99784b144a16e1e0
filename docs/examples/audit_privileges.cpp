// audit_privileges - on which entries an object has more rights than it should.
//
//   audit_privileges SUBJECT-DN BASE-DN BITS ATTRIBUTE...
//
// Shows every entry at and below BASE and each of the attributes on which the subject has any of
// the rights BITS, numbers that the server defines: 0xe0 in the sandbox, to add, delete, manage.
// Exit status: 0 nothing found, 1 the operation failed, 2 wrong usage, 3 no session, 4 found.

#include "connect.hpp"

#include <iostream>
#include <vector>

namespace {

// The names of all entries at and below one.
greirige::Result<std::vector<std::string>> entries_below(LDAP *ld, const char *base)
{
    char no_attributes[] = LDAP_NO_ATTRS;
    char *attributes[] = {no_attributes, nullptr};
    LDAPMessage *found = nullptr;
    const int code = ldap_search_ext_s(ld, base, LDAP_SCOPE_SUBTREE, "(objectClass=*)", attributes,
                                       0, nullptr, nullptr, nullptr, LDAP_NO_LIMIT, &found);
    const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage *)> owner(found, ldap_msgfree);
    if (code != LDAP_SUCCESS)
        return example::failure(ld, code, "search");

    std::vector<std::string> names;
    for (LDAPMessage *entry = ldap_first_entry(ld, found); entry != nullptr;
         entry = ldap_next_entry(ld, entry)) {
        const std::unique_ptr<char, void (*)(void *)> dn(ldap_get_dn(ld, entry), ldap_memfree);
        if (dn)
            names.emplace_back(dn.get());
    }
    return names;
}

// How many rights were found that should not be.
greirige::Result<int> audit(LDAP *ld, greirige::Subject subject, const char *base, int bits,
                            const std::vector<std::string> &attributes)
{
    auto names = entries_below(ld, base);
    if (!names)
        return names.error();
    const greirige::Session session(ld);
    int found = 0;
    for (const std::string &dn : *names) {
        auto rights = session.effective_privileges_list(dn, subject, attributes);
        if (!rights)
            return rights.error();
        for (const auto &[attribute, privileges] : *rights) {
            if ((privileges & bits) == 0)
                continue;
            std::cout << "0x" << std::hex << privileges << std::dec << '\t' << attribute << '\t'
                      << dn << '\n';
            ++found;
        }
    }
    return found;
}

} // namespace

int main(int argc, char **argv)
{
    const int bits = argc > 4 ? static_cast<int>(std::strtoul(argv[3], nullptr, 0)) : 0;
    if (bits == 0) {
        std::cerr << "usage: audit_privileges SUBJECT-DN BASE-DN BITS ATTRIBUTE...\n";
        return 2;
    }
    auto connection = example::connect();
    if (!connection) {
        std::cerr << "audit_privileges: " << to_string(connection.error()) << '\n';
        return 3;
    }
    auto found = audit(connection->get(), greirige::Subject(argv[1]), argv[2], bits,
                       {argv + 4, argv + argc});
    if (!found) {
        std::cerr << "audit_privileges: " << to_string(found.error()) << '\n';
        return 1;
    }
    return *found == 0 ? 0 : 4;
}
