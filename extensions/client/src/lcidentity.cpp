// Identities and names: who the session is bound as, who may do what, names of other forms as
// DNs; and the request that makes the server refresh itself.

#include "frame.h"

#include <climits>
#include <cstdlib>
#include <cstring>

using namespace greirige;

namespace {

constexpr ber_len_t unlimited = static_cast<ber_len_t>(-1);

// Reads the response value, one OCTET STRING, into a new block of its length + 1 bytes. Copies
// all of it, or its first `cut` bytes where it is longer than `limit`; zero bytes are bytes like
// any other.
void read_name(CallFrame &call, char **name, ber_len_t limit = unlimited,
               ber_len_t cut = unlimited) noexcept
{
    berval *value = nullptr;
    expect(call, LBER_OCTETSTRING);
    decode(call, "O", &value);
    if (value == nullptr)
        return; // the call has failed

    *name = static_cast<char *>(std::malloc(value->bv_len + 1));
    if (*name == nullptr) {
        // The decoded value is left behind here, alone of all paths: a documented leak.
        call.err = LDAPX_NO_MEMORY;
        return;
    }
    const ber_len_t copied = value->bv_len > limit ? cut : value->bv_len;
    std::memcpy(*name, value->bv_val, copied);
    (*name)[copied] = '\0';
    ber_bvfree(value);
}

// The units before the terminating zero unit. The counter has 32 bits.
std::size_t x_unilen(const unsigned short *s) noexcept
{
    unsigned int units = 0;
    while (s[units] != 0)
        ++units;
    return units;
}

// The unit whose bytes in memory are those of num in big-endian order.
unsigned short getint16(unsigned short num) noexcept
{
    unsigned char bytes[2];
    std::memcpy(bytes, &num, sizeof bytes);
    return static_cast<unsigned short>(bytes[0] << 8 | bytes[1]);
}

// Asks for the privileges on a list of attributes. Stores at most capacity of them and, in
// *count, the number that the server announced.
//   SEQUENCE { SEQUENCE { INTEGER count }, SET { SEQUENCE { INTEGER privileges } ... } }
int privileges_list(LDAP *ld, char *subjectDN, char *targetDN, char **targetAttrs, int *privileges,
                    int capacity, int *count) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "ss{v}", subjectDN, targetDN, targetAttrs);
    exchange(call, ld, LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
             LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE);
    open_value(call);
    int announced = 0;
    decode(call, "{{i}[", &announced);
    if (call.err == LDAP_SUCCESS)
        *count = announced;
    const int stored = announced < capacity ? announced : capacity;
    for (int index = 0; call.err == LDAP_SUCCESS && index < stored; ++index) {
        privileges[index] = 0; // and stays 0 when the entry cannot be read
        decode(call, "{i}", &privileges[index]);
    }
    if (call.err == LDAP_SUCCESS && announced > capacity)
        call.err = LDAPX_DECODING_ERROR;
    return end(call);
}

} // namespace

int ldap_get_bind_dn(LDAP *ld, char **identity) noexcept
{
    CallFrame call;
    exchange(call, ld, LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE);
    open_value(call);
    // Two numbers on purpose: 771 bytes still come back whole, 772 come back as 770.
    read_name(call, identity, 771, 770);
    return end(call);
}

int ldap_get_context_identity_name(LDAP *ld, char **identity) noexcept
{
    return ldap_get_bind_dn(ld, identity);
}

int ldap_get_effective_privileges(LDAP *ld, char *dn, char *trusteeDN, char *attrName,
                                  int *privileges) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "sss", dn, trusteeDN, attrName);
    exchange(call, ld, LDAPX_GET_EFFECTIVE_PRIVILEGES_REQUEST,
             LDAPX_GET_EFFECTIVE_PRIVILEGES_RESPONSE);
    open_value(call);
    decode(call, "i", privileges);
    return end(call);
}

int ldap_get_effective_privileges_list(LDAP *ld, char *subjectDN, char *targetDN,
                                       char **targetAttrs, int *privileges) noexcept
{
    if (targetDN == nullptr || subjectDN == nullptr || targetAttrs == nullptr ||
        privileges == nullptr)
        return LDAPX_PARAM_ERROR;

    // Whatever the server announces is stored: the caller has made room for it.
    int count = 0;
    return privileges_list(ld, subjectDN, targetDN, targetAttrs, privileges, INT_MAX, &count);
}

int ldap_get_effective_privileges_list_ext(LDAP *ld, char *subjectDN, char *targetDN,
                                           char **targetAttrs, int *privileges, int capacity,
                                           int *count) noexcept
{
    if (targetDN == nullptr || subjectDN == nullptr || targetAttrs == nullptr ||
        privileges == nullptr || capacity < 0 || count == nullptr)
        return LDAPX_PARAM_ERROR;

    return privileges_list(ld, subjectDN, targetDN, targetAttrs, privileges, capacity, count);
}

int ldap_zil_to_ldap(LDAP *ld, unsigned short *dn, char **ldapName) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    const std::size_t units = x_unilen(dn);
    const ber_len_t size = 2 * units + 2; // the terminating zero unit travels too
    auto *name = static_cast<unsigned short *>(std::malloc(size));
    if (name == nullptr) {
        call.err = LDAPX_NO_MEMORY;
        return end(call);
    }
    for (std::size_t unit = 0; unit < units; ++unit)
        name[unit] = getint16(dn[unit]);
    name[units] = 0;
    encode(call, "o", reinterpret_cast<char *>(name), size);
    std::free(name);
    exchange(call, ld, LDAPX_ZIL_TO_LDAP_REQUEST, LDAPX_ZIL_TO_LDAP_RESPONSE);
    open_value(call);
    read_name(call, ldapName);
    return end(call);
}

int ldap_dns_to_x500_dn(LDAP *ld, char *dn, char **ldapName) noexcept
{
    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    encode(call, "s", dn);
    exchange(call, ld, LDAPX_DNS_TO_X500_DN_REQUEST, LDAPX_DNS_TO_X500_DN_RESPONSE);
    open_value(call);
    read_name(call, ldapName);
    return end(call);
}

int ldap_refresh_server(LDAP *ld) noexcept
{
    return request_only(ld, LDAPX_REFRESH_SERVER_REQUEST, LDAPX_REFRESH_SERVER_RESPONSE);
}
