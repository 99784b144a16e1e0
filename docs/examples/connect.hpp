// connect.hpp - an open, bound session for the examples, made of what the environment says:
//
//   LDAPURI        the server, such as "ldaps://ldap.example.com/"; ldap.conf(5) may say it too
//   LDAPBINDDN     who binds; so may a user's ~/.ldaprc
//   BIND_PASSWORD  his password; without one the session is anonymous
//   START_TLS      set to anything: encrypt an ldap:// session, or fail
#pragma once

#include <greirige.hpp>

#include <cstdlib>
#include <memory>
#include <string>

namespace example {

struct Unbind {
    void operator()(LDAP *ld) const
    {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
    }
};
using Connection = std::unique_ptr<LDAP, Unbind>;

// What went wrong, with the server's own words.
inline greirige::Error failure(LDAP *ld, int code, std::string where)
{
    char *text = nullptr;
    ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &text);
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return {code, ldapx_err2string(code), std::move(where), text != nullptr ? text : ""};
}

inline greirige::Result<Connection> connect()
{
    LDAP *ld = nullptr;
    if (const int code = ldap_initialize(&ld, nullptr); code != LDAP_SUCCESS)
        return greirige::Error{code, ldapx_err2string(code), "connect"};
    Connection connection(ld);

    const int version = LDAP_VERSION3;
    const timeval connecting{15, 0};
    const timeval answering{60, 0};
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &connecting);
    ldap_set_option(ld, LDAP_OPT_TIMEOUT, &answering);
    ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);

    if (std::getenv("START_TLS") != nullptr)
        if (const int code = ldap_start_tls_s(ld, nullptr, nullptr); code != LDAP_SUCCESS)
            return failure(ld, code, "start TLS");

    // Without a name libldap takes LDAPBINDDN where there is a password.
    std::string password;
    if (const char *word = std::getenv("BIND_PASSWORD"))
        password = word;
    berval credentials{password.size(), password.data()};
    const int code =
        ldap_sasl_bind_s(ld, nullptr, LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
    if (code != LDAP_SUCCESS)
        return failure(ld, code, "bind");
    return connection;
}

} // namespace example
