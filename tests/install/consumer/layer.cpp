// A program that uses the C++ layer: it asks a server that is not there, and prints the version.

#include <greirige.hpp>

#include <iostream>

int main()
{
    LDAP *ld = nullptr;
    if (ldap_initialize(&ld, "ldapi://%2fnot%2fthere") != LDAP_SUCCESS)
        return 1;
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    int code = 0;
    {
        greirige::Session session(ld);
        auto count = session.partition_entry_count("ou=sales,o=x");
        code = count ? LDAP_SUCCESS : count.error().code;
    }
    ldap_unbind_ext(ld, nullptr, nullptr);
    if (code != LDAP_SERVER_DOWN) {
        std::cerr << "the count of a server that is not there: " << code << '\n';
        return 1;
    }
    std::cout << "greirige " << ldapx_version() << '\n';
}
