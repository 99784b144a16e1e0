#include "frame.h"

#include <cstdlib>
#include <cstring>

namespace greirige {

bool begin_request(CallFrame &call) noexcept
{
    call.requestber = ber_alloc();
    return call.requestber != nullptr;
}

bool begin_request(CallFrame &call, int options) noexcept
{
    call.requestber = ber_alloc_t(options);
    return call.requestber != nullptr;
}

static void flatten(CallFrame &call) noexcept
{
    if (call.err == LDAP_SUCCESS && call.requestber != nullptr &&
        ber_flatten(call.requestber, &call.requestbv) == -1)
        call.err = LDAPX_NO_MEMORY;
}

void exchange(CallFrame &call, LDAP *ld, const char *requestName, const char *responseName) noexcept
{
    flatten(call);
    if (call.err == LDAP_SUCCESS)
        // NULL controls, not empty arrays: an empty array would suppress the session's defaults.
        call.err = ldap_extended_operation_s(ld, requestName, call.requestbv, nullptr, nullptr,
                                             &call.returnedOID, &call.returnedbv);
    if (call.err == LDAP_SUCCESS &&
        (responseName == nullptr ? call.returnedOID == nullptr
                                 : !same_name(call.returnedOID, responseName)))
        call.err = LDAPX_NOT_SUPPORTED;
}

int request_only(LDAP *ld, const char *requestName, const char *responseName) noexcept
{
    CallFrame call;
    exchange(call, ld, requestName, responseName);
    return end(call);
}

void send_request(CallFrame &call, LDAP *ld, const char *requestName, int *msgID) noexcept
{
    flatten(call);
    if (call.err == LDAP_SUCCESS)
        call.err =
            ldap_extended_operation(ld, requestName, call.requestbv, nullptr, nullptr, msgID);
}

void read_response(CallFrame &call, LDAP *ld, LDAPMessage *message, int *resultCode,
                   char **errorMsg, int freeIt) noexcept
{
    call.err = ldap_parse_result(ld, message, resultCode, nullptr, errorMsg, nullptr, nullptr, 0);
    if (call.err == LDAP_SUCCESS)
        call.err =
            ldap_parse_extended_result(ld, message, &call.returnedOID, &call.returnedbv, freeIt);
}

void open_value(CallFrame &call, int noReader) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    if (call.returnedbv == nullptr)
        call.err = LDAPX_OPERATIONS_ERROR;
    else if ((call.returnedber = ber_init(call.returnedbv)) == nullptr)
        call.err = noReader;
}

ber_tag_t next_tag(BerElement *ber) noexcept
{
    ber_len_t length = 0;
    return ber_peek_tag(ber, &length);
}

ber_len_t unread_bytes(BerElement *ber) noexcept
{
    ber_len_t unread = 0;
    ber_get_option(ber, LBER_OPT_BER_REMAINING_BYTES, &unread);
    return unread;
}

void expect(CallFrame &call, ber_tag_t tag) noexcept
{
    if (call.err == LDAP_SUCCESS && next_tag(call.returnedber) != tag)
        call.err = call.undecodable;
}

void close_value(CallFrame &call) noexcept
{
    if (call.returnedber != nullptr)
        ber_free(call.returnedber, 1);
    call.returnedber = nullptr;
}

int end(CallFrame &call) noexcept
{
    close_value(call);
    if (call.returnedOID != nullptr)
        ldap_memfree(call.returnedOID);
    if (call.returnedbv != nullptr)
        ber_bvfree(call.returnedbv);
    if (call.requestbv != nullptr)
        ber_bvfree(call.requestbv);
    if (call.requestber != nullptr)
        ber_free(call.requestber, 1);
    return call.err;
}

int end_and_store(CallFrame &call, LDAP *ld) noexcept
{
    end(call);
    store_result(ld, call.err);
    return call.err;
}

void store_result(LDAP *ld, int code) noexcept
{
    ldap_set_option(ld, LDAP_OPT_RESULT_CODE, &code);
}

int stored_result(LDAP *ld) noexcept
{
    int code = LDAP_SUCCESS;
    ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &code);
    return code;
}

bool same_name(const char *name, const char *expected) noexcept
{
    return name != nullptr && std::strcmp(name, expected) == 0;
}

} // namespace greirige

static const char version[] = GREIRIGE_VERSION;

const char *ldapx_version(void) noexcept
{
    return version;
}

const char *ldapx_err2string(int code) noexcept
{
    switch (code) {
    case LDAPX_ENCODING_ERROR:
        return "Encoding error";
    case LDAPX_DECODING_ERROR:
        return "Decoding error";
    case LDAPX_PARAM_ERROR:
        return "Bad parameter";
    case LDAPX_NO_MEMORY:
        return "Out of memory";
    case LDAPX_NOT_SUPPORTED:
        return "Not supported: the response has no name or not the expected one";
    default:
        return ldap_err2string(code);
    }
}

void ldapx_memfree(void *mem) noexcept
{
    std::free(mem);
}
