// Object backup and restore.

#include "frame.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace greirige;

namespace {

// The server's two marks of an object's state, in text "mts+revision".
struct Marks {
    ber_int_t mts = 0;
    ber_int_t revision = 0;
};

// The chunk list while it is built: "count;size;size;...", and the text of one number.
struct ChunkList {
    char *text = nullptr;
    std::size_t length = 0;
    char *number = nullptr;
};

constexpr std::size_t numberSize = 512;

// The number at the start of a text, 0 where there is none or no text; larger ones keep their low
// 32 bits.
ber_int_t number_in(const char *text) noexcept
{
    return text != nullptr ? static_cast<ber_int_t>(std::strtol(text, nullptr, 10)) : 0;
}

// Reads the marks, cutting the caller's string at each '+' that ends one; callers expect it to
// read as its mts alone afterwards. A mark that is missing, no number or 0 is refused: 0 is what
// a first backup sends.
bool read_marks(char *state, Marks &marks) noexcept
{
    char *rest = nullptr;
    marks.mts = number_in(strtok_r(state, "+", &rest));
    marks.revision = number_in(strtok_r(nullptr, "+", &rest));
    return marks.mts != 0 && marks.revision != 0;
}

const char *or_empty(const char *passwd) noexcept
{
    return passwd != nullptr ? passwd : "";
}

// As exchange(), but the response name is looked at before the call's own code: a call that failed
// without a response name reports LDAPX_NOT_SUPPORTED and not its own code. Callers of these two
// operations have always seen that code first.
void exchange_name_first(CallFrame &call, LDAP *ld, const char *requestName,
                         const char *responseName) noexcept
{
    exchange(call, ld, requestName, responseName);
    const bool called = call.requestbv != nullptr;
    if (called && !same_name(call.returnedOID, responseName))
        call.err = LDAPX_NOT_SUPPORTED;
}

// Appends "number;" to the list.
void append_number(CallFrame &call, ChunkList &list, int number) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    const auto digits =
        static_cast<std::size_t>(std::snprintf(list.number, numberSize, "%d", number));
    // A list that cannot grow is lost, not released: the one block that a backup leaks.
    list.text = static_cast<char *>(std::realloc(list.text, list.length + digits + 2));
    if (list.text == nullptr) {
        call.err = LDAPX_NO_MEMORY;
        return;
    }
    std::memcpy(list.text + list.length, list.number, digits);
    list.length += digits;
    list.text[list.length++] = ';';
    list.text[list.length] = '\0';
}

// SEQUENCE { INTEGER count, SET OF SEQUENCE { INTEGER size } }. The ends of the SET and of the
// SEQUENCE are not looked for.
void read_chunk_table(CallFrame &call, ChunkList &list) noexcept
{
    ber_int_t count = 0;
    decode(call, "{i[", &count);
    if (call.err != LDAP_SUCCESS)
        return;
    if (count > 0 && static_cast<ber_len_t>(count) > unread_bytes(call.returnedber)) {
        call.err = LDAPX_DECODING_ERROR; // more chunks than there are bytes
        return;
    }

    list.number = static_cast<char *>(std::malloc(numberSize));
    if (list.number == nullptr)
        call.err = LDAPX_NO_MEMORY;
    append_number(call, list, count);
    for (int i = 0; call.err == LDAP_SUCCESS && i < count; ++i) {
        ber_int_t size = 0;
        decode(call, "{i}", &size);
        append_number(call, list, size);
    }
}

// Hands out the object data: *size bytes as the server announced them, those that it sent and
// zeros for those that it did not send. A negative size asks for more than there is.
void hand_out_data(CallFrame &call, const berval &data, const int *size, char **objectInfo) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    const auto length = static_cast<std::size_t>(*size);
    auto *block = static_cast<char *>(std::calloc(1, length));
    if (block == nullptr) {
        call.err = LDAPX_NO_MEMORY;
        return;
    }
    std::memcpy(block, data.bv_val, std::min<std::size_t>(data.bv_len, length));
    *objectInfo = block;
}

// Hands out the characters of the list and no terminator: the block is exactly as long as its
// text, and callers who count its ';' have always got it so.
void hand_out_list(CallFrame &call, const ChunkList &list, char **chunckSize) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    auto *block = static_cast<char *>(std::malloc(list.length));
    if (block == nullptr) {
        call.err = LDAPX_NO_MEMORY;
        return;
    }
    std::memcpy(block, list.text, list.length);
    *chunckSize = block;
}

// Replaces the caller's state. *objectState is NULL when there is no memory for the new one; the
// backup itself is good all the same.
void hand_out_state(const CallFrame &call, const Marks &marks, char *text,
                    char **objectState) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return;
    std::free(*objectState);
    const int length = std::snprintf(text, numberSize, "%d+%d", marks.mts, marks.revision);
    *objectState = duplicate(text, static_cast<ber_len_t>(length));
}

// SEQUENCE { INTEGER count, SET OF SEQUENCE { INTEGER size } } from the chunk list, which is cut
// in place. Every size in it is sent, whatever the count says. Returns what the closing step
// returned: it is not checked, no more than the opening one.
int encode_chunk_table(CallFrame &call, char *chunckSize) noexcept
{
    if (call.err != LDAP_SUCCESS)
        return -1;
    char *rest = nullptr;
    const char *token = chunckSize != nullptr ? strtok_r(chunckSize, ";", &rest) : nullptr;
    ber_printf(call.requestber, "{i[", number_in(token));
    while (token != nullptr && call.err == LDAP_SUCCESS) {
        token = strtok_r(nullptr, ";", &rest);
        if (token != nullptr)
            encode(call, "{i}", number_in(token));
    }
    return call.err == LDAP_SUCCESS ? ber_printf(call.requestber, "]}") : -1;
}

// Not the frame's order: the request first, and the response name after the value.
void release(CallFrame &call) noexcept
{
    ber_free(call.requestber, 1); // exists: without it nobody comes here
    if (call.requestbv != nullptr)
        ber_bvfree(call.requestbv);
    close_value(call);
    if (call.returnedbv != nullptr)
        ber_bvfree(call.returnedbv);
    if (call.returnedOID != nullptr)
        ldap_memfree(call.returnedOID);
}

} // namespace

int ldap_backup_object(LDAP *ld, const char *dn, const char *passwd, char **objectState,
                       char **objectInfo, char **chunckSize, int *size) noexcept
{
    if (dn == nullptr)
        return LDAPX_PARAM_ERROR;

    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    Marks marks;
    if (*objectState != nullptr && !read_marks(*objectState, marks)) {
        ber_free(call.requestber, 1);
        return LDAPX_ENCODING_ERROR; // like the two before it, not left in the session
    }

    encode(call, "siis", dn, marks.mts, marks.revision, or_empty(passwd));
    exchange_name_first(call, ld, LDAPX_BACKUP_OBJECT_REQUEST, LDAPX_BACKUP_OBJECT_RESPONSE);
    open_value(call);

    call.undecodable = LDAPX_DECODING_ERROR;
    berval data = {0, nullptr};
    ChunkList list;
    decode(call, "i", size);
    decode(call, "i", &marks.mts);
    decode(call, "i", &marks.revision);
    decode(call, "o", &data); // counted: the data may hold zero bytes
    read_chunk_table(call, list);

    hand_out_data(call, data, size, objectInfo);
    hand_out_list(call, list, chunckSize);
    hand_out_state(call, marks, list.number, objectState);

    release(call);
    ldapx_memfree(list.text);
    ldap_memfree(data.bv_val);
    ldapx_memfree(list.number); // NOLINT(clang-analyzer-unix.Malloc): the list that was lost
    store_result(ld, call.err);
    return call.err;
}

int ldap_restore_object(LDAP *ld, const char *dn, const char *passwd, char *objectInfo,
                        char *chunckSize, int size) noexcept
{
    if (dn == nullptr || objectInfo == nullptr)
        return LDAPX_PARAM_ERROR;

    CallFrame call;
    if (!begin_request(call))
        return LDAPX_NO_MEMORY;

    // The password stands second here and last in a backup request.
    encode(call, "ssio", dn, or_empty(passwd), size, objectInfo, static_cast<ber_len_t>(size));
    const int closed = encode_chunk_table(call, chunckSize);

    // Room for one more copy of the object. Nothing is put there, but callers are told at this
    // point, before anything is sent, that the object is too large for what memory is left.
    void *scratch = nullptr;
    if (call.err == LDAP_SUCCESS) {
        scratch = std::malloc(static_cast<std::size_t>(size));
        if (scratch == nullptr)
            call.err = LDAPX_NO_MEMORY;
    }

    const bool encoded = call.err == LDAP_SUCCESS;
    exchange_name_first(call, ld, LDAPX_RESTORE_OBJECT_REQUEST, LDAPX_RESTORE_OBJECT_RESPONSE);
    // A request that cannot be flattened gives what the closing step returned, no result code.
    if (encoded && call.requestbv == nullptr)
        call.err = closed;

    release(call);
    ldapx_memfree(scratch);
    store_result(ld, call.err);
    return call.err;
}
