// The call frame that every extended operation shares: encode, send, check the response name,
// decode, release.
//
// An operation is a straight line of these steps over one CallFrame. A step that fails sets
// call.err, and the steps after it do nothing; end() releases what exists, always in the same
// order, and returns the result. Only begin_request() can send the caller home early: nothing
// exists yet when it fails.
#pragma once

#include "ldapx.h"

#include <cstdlib>
#include <cstring>

#ifndef GREIRIGE_ASSERTIONS
#    define GREIRIGE_ASSERTIONS 1
#endif

namespace greirige {

struct CallFrame {
    BerElement *requestber = nullptr;
    berval *requestbv = nullptr;
    char *returnedOID = nullptr;
    berval *returnedbv = nullptr;
    BerElement *returnedber = nullptr;
    int err = LDAP_SUCCESS;
    // What a response value that cannot be decoded gives. The administrative operations report it
    // with the code of a request that they cannot encode; callers have relied on that code from
    // the beginning. The other families set LDAPX_DECODING_ERROR here.
    int undecodable = LDAPX_ENCODING_ERROR;
};

// Makes the request element: with ber_alloc(), or with ber_alloc_t() and its options. False when
// there is no memory for it.
[[nodiscard]] bool begin_request(CallFrame &call) noexcept;
[[nodiscard]] bool begin_request(CallFrame &call, int options) noexcept;

// Appends elements to the request value, as ber_printf does, and returns what ber_printf
// returned; -1 as well when the call has failed before.
template <class... Values>
int encode(CallFrame &call, const char *format, Values... values) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return -1;
    const int written = ber_printf(call.requestber, format, values...);
    if (written == -1)
        call.err = LDAPX_ENCODING_ERROR;
    return written;
}

// Synchronous: sends the request (with no value where there is no request element), waits for
// the response and requires its name to be responseName. With responseName NULL the response
// must have a name and may have any.
void exchange(CallFrame &call, LDAP *ld, const char *requestName,
              const char *responseName) noexcept;

// A whole operation that is nothing but its two names: no request value, no response value.
int request_only(LDAP *ld, const char *requestName, const char *responseName) noexcept;

// Asynchronous: sends the request and stores its message id in *msgID.
void send_request(CallFrame &call, LDAP *ld, const char *requestName, int *msgID) noexcept;

// Asynchronous: reads the response to such a request. *resultCode and *errorMsg receive what the
// server says of the whole request, the frame its response name and value. The message is
// released, where the caller asks for it, only once its result could be read.
void read_response(CallFrame &call, LDAP *ld, LDAPMessage *message, int *resultCode,
                   char **errorMsg, int freeIt) noexcept;

// Opens the response value for decoding; noReader is the result when no reader can be made.
void open_value(CallFrame &call, int noReader = LDAPX_NO_MEMORY) noexcept;

// The next element's tag, LBER_DEFAULT when there is none or its header cannot be read.
ber_tag_t next_tag(BerElement *ber) noexcept;

// How many bytes of the element have not been read. Tells the end of the data, where this is 0,
// from an element that is cut or damaged; next_tag() answers both with LBER_DEFAULT.
ber_len_t unread_bytes(BerElement *ber) noexcept;

// Requires the next element of the response value to carry this tag. ber_scanf's "i", "e", "O",
// "o", "a" and "s" take whatever element comes next.
void expect(CallFrame &call, ber_tag_t tag) noexcept;

// Reads elements of the response value, as ber_scanf does. The look at the next tag comes first
// because OpenLDAP 2.5's ber_scanf crashes on a value that is present but has no bytes.
template <class... Targets>
void decode(CallFrame &call, const char *format, Targets... targets) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    if (next_tag(call.returnedber) == LBER_DEFAULT ||
        ber_scanf(call.returnedber, format, targets...) == LBER_ERROR)
        call.err = call.undecodable;
}

// Releases the response reader. Only operations that must release something of their own right
// after it call this; the others leave it to end().
void close_value(CallFrame &call) noexcept;

// Releases the working set, in this order: response reader, response name, response value,
// request value, request element. Returns the result.
int end(CallFrame &call) noexcept;

// end() for the operations that also leave their result in the session.
int end_and_store(CallFrame &call, LDAP *ld) noexcept;

// The session's result code, the LDAP library's LDAP_OPT_RESULT_CODE.
void store_result(LDAP *ld, int code) noexcept;
int stored_result(LDAP *ld) noexcept;

// A new NUL-terminated copy of length bytes, NULL when there is no memory for it.
inline char *duplicate(const void *bytes, ber_len_t length) noexcept
{
    auto *copy = static_cast<char *>(std::malloc(length + 1));
    if (copy != nullptr) {
        std::memcpy(copy, bytes, length);
        copy[length] = '\0';
    }
    return copy;
}

// Whole strings, terminator included: neither a prefix nor a longer name matches. NULL does not.
bool same_name(const char *name, const char *expected) noexcept;

} // namespace greirige

// An assertion whose text is part of the interface. With assertions compiled out the condition
// is not evaluated; the code after it gives the result for that case.
#if GREIRIGE_ASSERTIONS
// The C library's assertion call; its own header hides it under NDEBUG, which must not matter here.
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file,
                                           unsigned int line, const char *function) noexcept;
#    define GREIRIGE_ASSERT(condition, text)                                                       \
        ((condition) ? static_cast<void>(0) : __assert_fail(text, __FILE__, __LINE__, __func__))
#else
#    define GREIRIGE_ASSERT(condition, text) static_cast<void>(0)
#endif
