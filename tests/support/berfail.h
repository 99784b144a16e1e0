// Watches and fails the calls that the library makes to liblber, libldap and the allocator. For
// tests declared with BERFAIL in greirige_test(); they link the archive, and every call in the
// program itself to one of the functions below goes through here. Calls inside libldap do not.
//
//     Calls calls;
//     calls.fail("ber_flatten");                       // the next call of it fails
//     EXPECT_EQ(ldap_split_partition(peer.ld(), dn, 0), LDAPX_NO_MEMORY);
//     EXPECT_EQ(calls.made(), (Names{"ber_alloc", "ber_printf is", "ber_flatten", "ber_free"}));
//     EXPECT_EQ(calls.released(), (Names{"ber_free(requestber)"}));
//     EXPECT_EQ(calls.unreleased(), Names());
//
// Watches the thread that makes it, while it lives. Functions: ber_alloc, ber_alloc_t, ber_init,
// ber_flatten, ber_printf, ber_scanf, ber_peek_tag, ber_skip_tag, ber_first_element,
// ber_next_element, ber_get_option, ldap_extended_operation, ldap_extended_operation_s,
// ldap_parse_extended_result, ldap_parse_intermediate, ldap_parse_result, ldap_set_option,
// malloc, calloc, realloc, strdup; and the releases ber_free, ber_bvfree, ber_memfree,
// ldap_memfree, ldap_value_free, ldap_controls_free, ldap_msgfree, free.
//
// A call that fails does nothing but return its failure: NULL, -1, LBER_ERROR or, from the
// ldap_ functions, a result code of your choice.
//
// What a call hands out has a name, which released() and unreleased() use: requestber (ber_alloc,
// ber_alloc_t), requestbv (ber_flatten), returnedber (ber_init), returnedOID and returnedbv (the
// extended operation and the parsers of extended and intermediate results), matchedDN,
// errorMessage, referrals, controls (the parsers); "a", "O", "v", "V", "o" (ber_scanf, by
// conversion); and the name of the allocator for its blocks. Anything else is "?".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <ldap.h>

namespace support {

using Names = std::vector<std::string>;

class Calls {
public:
    Calls();
    ~Calls();
    Calls(const Calls &) = delete;
    Calls &operator=(const Calls &) = delete;

    // From now on, the nth call of this function fails; or that one and all after it.
    void fail(const std::string &function, int nth = 1, int code = LDAP_NO_MEMORY);
    void fail_from(const std::string &function, int nth = 1, int code = LDAP_NO_MEMORY);

    int count(const std::string &function) const;
    // Calls in their order; ber_printf and ber_scanf with their format. Without the allocator's.
    Names made() const;
    // "ber_free(requestber)" and so on in their order. "ber_free(requestber, 0)" if the buffer
    // was not to be released with it. Releases of NULL are listed as "free(NULL)".
    Names released() const;
    Names unreleased() const;

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace support
