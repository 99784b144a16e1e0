// The synchronous exchange as a bare sequence of the LDAP library's calls, the yardstick beside
// which operations are measured when memory runs out. It asks for the same blocks in the same
// order as an operation does, so the nth allocation of the one is the nth of the other, and what
// libldap itself does or loses when one of its own fails is seen here first.
#pragma once

#include <algorithm>
#include <cstring>

#ifndef LDAP_DEPRECATED
#    define LDAP_DEPRECATED 1
#endif
#include "ldapx.h"
#include "support/memory.h"

// format NULL: no request value.
template <class... Values>
int bare_exchange(LDAP *ld, const char *request, const char *response, const char *format,
                  Values... values)
{
    BerElement *element = nullptr;
    berval *value = nullptr;
    berval *data = nullptr;
    char *name = nullptr;
    int rc = LDAP_SUCCESS;
    if (format != nullptr) {
        element = ber_alloc_t(0);
        if (element == nullptr)
            return LDAPX_NO_MEMORY;
        if (ber_printf(element, format, values...) == -1)
            rc = LDAPX_ENCODING_ERROR;
        else if (ber_flatten(element, &value) == -1)
            rc = LDAPX_NO_MEMORY;
    }
    if (rc == LDAP_SUCCESS)
        rc = ldap_extended_operation_s(ld, request, value, nullptr, nullptr, &name, &data);
    if (rc == LDAP_SUCCESS && (name == nullptr || std::strcmp(name, response) != 0))
        rc = LDAPX_NOT_SUPPORTED;
    ldap_memfree(name);
    ber_bvfree(data);
    ber_bvfree(value);
    ber_free(element, 1);
    return rc;
}

// What OpenLDAP 2.5's libldap itself does wrong without memory. Nothing else may go wrong.
struct LibldapFailure {
    const char *what;
    std::string died;
    std::size_t lost;
};
inline const LibldapFailure libldap_failures[] = {
    {"the tree of outstanding requests cannot grow",
     "Aborted: ldap_send_server_request: Assertion `rc == LDAP_SUCCESS' failed.", 0},
    {"a response is copied to look into it, and the copy is not tested",
     "Aborted: ber_scanf: Assertion `ber != NULL' failed.", 0},
    {"a response that has arrived finds no LDAPMessage: its element and bytes are lost", "", 2},
};

inline bool is_libldap_failure(const support::Outcome &outcome)
{
    return std::ranges::any_of(libldap_failures, [&](const LibldapFailure &failure) {
        return outcome.died == failure.died && outcome.lost == failure.lost;
    });
}
