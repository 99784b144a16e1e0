// The replication filter: written and read as one flat text, sent as nested SEQUENCEs.
//
//   text     filter = { class "$" { attribute "$" } "$" } "$"
//   on wire  SEQUENCE { SEQUENCE { class, SEQUENCE { attribute ... } } ... }

#include "frame.h"

#include <cstdlib>
#include <cstring>

using namespace greirige;

namespace {

constexpr char closing = '$';

// Cuts the name that begins at the cursor out of the text, in place, and moves the cursor past
// its closing sign.
char *take_name(CallFrame &call, char *&cursor) noexcept
{
    char *name = cursor;
    char *sign = std::strchr(cursor, closing);
    if (sign == nullptr) {
        call.err = LDAPX_PARAM_ERROR;
    } else {
        *sign = '\0';
        cursor = sign + 1;
    }
    return name;
}

// Encodes the classes of a filter text and closes the filter's SEQUENCE. What follows the sign
// that closes the filter is not looked at.
void encode_classes(CallFrame &call, char *text) noexcept
{
    char *cursor = text;
    while (call.err == LDAP_SUCCESS && *cursor != closing) {
        char *className = take_name(call, cursor);
        encode(call, "{s{", className);
        while (call.err == LDAP_SUCCESS && *cursor != closing) {
            char *attrName = take_name(call, cursor);
            encode(call, "s", attrName);
        }
        encode(call, "}}");
        ++cursor;
    }
    encode(call, "}");
}

// Appends to the text and returns its new end; the text is terminated after each step.
char *append_sign(char *end) noexcept
{
    end[0] = closing;
    end[1] = '\0';
    return end + 1;
}

char *append_name(char *end, const char *name) noexcept
{
    return append_sign(stpcpy(end, name));
}

// Reads one class, SEQUENCE { OCTET STRING, SEQUENCE OF OCTET STRING }, and appends it to the
// text. ber_scanf leaves a "{" right before "v" to the "v".
char *decode_class(CallFrame &call, char *end) noexcept
{
    char *className = nullptr;
    char **attrList = nullptr;
    decode(call, "{a{v}}", &className, &attrList);
    if (className == nullptr)
        return end; // the call has failed

    end = append_name(end, className);
    for (char **attr = attrList; attr != nullptr && *attr != nullptr; ++attr)
        end = append_name(end, *attr);
    if (attrList != nullptr)
        ldap_value_free(attrList);
    ldap_memfree(className);
    return append_sign(end);
}

// Reads the filter into the text. The classes go on until the value is exhausted, whatever length
// the SEQUENCE around them announced.
void decode_filter(CallFrame &call, char *text) noexcept
{
    char *end = text;
    *end = '\0';
    expect(call, LBER_SEQUENCE);
    decode(call, "{");
    while (call.err == LDAP_SUCCESS && unread_bytes(call.returnedber) > 0)
        end = decode_class(call, end);
    if (call.err == LDAP_SUCCESS)
        append_sign(end);
}

} // namespace

int ldap_set_replication_filter(LDAP *ld, const char *serverDN, const char *filter) noexcept
{
    if (serverDN == nullptr || filter == nullptr)
        return LDAPX_PARAM_ERROR;

    CallFrame call;
    if (!begin_request(call, 0))
        return LDAPX_NO_MEMORY;

    const int written = encode(call, "s{", serverDN);
    char *text = written != -1 ? duplicate(filter, std::strlen(filter)) : nullptr;
    if (text != nullptr) {
        encode_classes(call, text);
        exchange(call, ld, LDAPX_SET_REPLICATION_FILTER_REQUEST,
                 LDAPX_SET_REPLICATION_FILTER_RESPONSE);
        std::free(text);
    } else if (written != -1) {
        // Not a result code but what ber_printf returned, 0 with OpenLDAP; published so, and kept.
        call.err = written;
    }
    return end(call);
}

int ldap_get_replication_filter(LDAP *ld, const char *serverDN, char **filter) noexcept
{
    if (serverDN == nullptr || filter == nullptr)
        return LDAPX_PARAM_ERROR;

    CallFrame call;
    if (!begin_request(call, 0))
        return LDAPX_NO_MEMORY;
    call.undecodable = LDAPX_DECODING_ERROR;

    encode(call, "s", serverDN);
    // The response must have a name, but any will do: a filter is read from servers that answer
    // under another one.
    exchange(call, ld, LDAPX_GET_REPLICATION_FILTER_REQUEST, nullptr);
    open_value(call, LDAPX_DECODING_ERROR);

    if (call.err == LDAP_SUCCESS) {
        // Always large enough. Every name takes two bytes of tag and length in the value and one
        // sign in the text; so does every attribute list; and the two bytes of the outer SEQUENCE
        // pay for the last sign and the terminator.
        *filter = static_cast<char *>(std::malloc(call.returnedbv->bv_len + 2));
        if (*filter != nullptr)
            decode_filter(call, *filter);
        else
            call.err = LDAPX_NO_MEMORY;
    }

    BerElement *reader = call.returnedber; // here it goes last, after the request element
    call.returnedber = nullptr;
    end(call);
    if (reader != nullptr)
        ber_free(reader, 1);
    return call.err;
}
