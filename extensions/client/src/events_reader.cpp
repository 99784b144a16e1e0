#include "events_reader.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace greirige {

namespace {

// The header at in.position as OpenLDAP's ber_peek_element reads it, with the same limits: tags and
// definite lengths of up to eight bytes, contents that end within the value.
void read_long_header(EventReader &in) noexcept
{
    in.tag = no_element;

    const unsigned char *at = in.position;
    if (at == in.end)
        return;
    ber_tag_t tag = *at++;
    if ((tag & LBER_BIG_TAG_MASK) == LBER_BIG_TAG_MASK) {
        do {
            if (at == in.end || tag > LBER_DEFAULT >> 8)
                return;
            tag = tag << 8 | *at++;
        } while ((tag & LBER_MORE_TAG_MASK) != 0);
    }

    if (at == in.end)
        return;
    ber_len_t length = *at++;
    if ((length & 0x80) != 0) {
        ber_len_t size = length & 0x7f;
        if (size == 0 || size > sizeof length || size > static_cast<ber_len_t>(in.end - at))
            return;
        for (length = 0; size > 0; --size)
            length = length << 8 | *at++;
    }
    if (length > static_cast<ber_len_t>(in.end - at))
        return;

    in.tag = tag;
    in.contents = at;
    in.length = length;
}

// Nearly every header is two bytes.
inline void read_header(EventReader &in) noexcept
{
    const unsigned char *at = in.position;
    if (in.end - at < 2 || (at[0] & LBER_BIG_TAG_MASK) == LBER_BIG_TAG_MASK ||
        at[1] > in.end - at - 2 || at[1] >= 0x80) {
        read_long_header(in);
        return;
    }
    in.tag = at[0];
    in.contents = at + 2;
    in.length = at[1];
}

void peek_header(EventReader &in) noexcept
{
    berval contents{};
    in.tag = ber_peek_element(in.ber, &contents);
    in.contents = reinterpret_cast<const unsigned char *>(contents.bv_val);
    in.length = contents.bv_len;
}

inline void move_behind(EventReader &in) noexcept
{
    if (in.ber == nullptr) {
        in.position = in.contents + in.length;
        read_header(in);
    } else {
        berval passed{};
        ber_skip_element(in.ber, &passed);
        peek_header(in);
    }
}

// Two's complement in at most four bytes; none are 0.
inline bool decode_number(const EventReader &in, int &number) noexcept
{
    if (in.length > sizeof number)
        return false;
    unsigned int bits = in.length > 0 && in.contents[0] >= 0x80 ? ~0U : 0U;
    for (ber_len_t i = 0; i < in.length; ++i)
        bits = bits << 8 | in.contents[i];
    number = static_cast<int>(bits);
    return true;
}

// From 2^31 on, in the five bytes that X.690 wants, as well as in four.
inline bool decode_number(const EventReader &in, unsigned int &number) noexcept
{
    EventReader last_four = in;
    if (in.length == 5 && in.contents[0] == 0 && in.contents[1] >= 0x80) {
        ++last_four.contents;
        --last_four.length;
    }
    int value = 0;
    if (!decode_number(last_four, value))
        return false;
    number = static_cast<unsigned int>(value);
    return true;
}

template <class Number>
inline void read_any_number(EventReader &in, Number &number) noexcept
{
    if (in.err != LDAP_SUCCESS)
        return;
    if (in.tag == no_element || !decode_number(in, number))
        in.err = LDAPX_DECODING_ERROR;
    else
        move_behind(in);
}

inline bool carries(EventReader &in, ber_tag_t expectedTag) noexcept
{
    GREIRIGE_ASSERT(expectedTag == in.tag, "expectedTag == tag");
    if (in.tag == expectedTag && in.tag != no_element)
        return true;
    in.err = LDAPX_DECODING_ERROR;
    return false;
}

inline void copy_contents(EventReader &in, char *&block) noexcept
{
    block = nullptr;
    if (in.length > 0 && (block = duplicate(in.contents, in.length)) == nullptr)
        in.err = LDAPX_NO_MEMORY;
    else
        move_behind(in);
}

// { OCTET STRING }, of any tags. NULL ends a list, so an empty string stays a string here. A NUL
// may only be its last byte; some servers send one there.
void read_component(EventReader &in, char *&string) noexcept
{
    step_into(in);
    if (in.err != LDAP_SUCCESS)
        return;
    if (in.tag != no_element &&
        (in.length == 0 || std::memchr(in.contents, 0, in.length - 1) == nullptr))
        string = duplicate(in.contents, in.length);
    // No memory for a component is reported like one that cannot be read: the LDAP library's
    // reader, which callers know, does not tell the two apart.
    if (string == nullptr)
        in.err = LDAPX_DECODING_ERROR;
    else
        move_behind(in);
}

} // namespace

EventReader reader_of(const berval &value) noexcept
{
    EventReader in;
    in.position = reinterpret_cast<const unsigned char *>(value.bv_val);
    in.end = in.position + value.bv_len;
    read_header(in);
    return in;
}

EventReader reader_of(BerElement *ber) noexcept
{
    EventReader in;
    in.ber = ber;
    peek_header(in);
    return in;
}

ber_len_t unread_bytes(const EventReader &in) noexcept
{
    return in.ber == nullptr ? static_cast<ber_len_t>(in.end - in.position) : unread_bytes(in.ber);
}

void check_count(EventReader &in, unsigned int count) noexcept
{
    if (count > unread_bytes(in))
        fail(in, LDAPX_DECODING_ERROR);
}

void check_count(EventReader &in, int count) noexcept
{
    // A negative count has always been a block that cannot be had.
    if (count < 0)
        fail(in, LDAPX_NO_MEMORY);
    else
        check_count(in, static_cast<unsigned int>(count));
}

void pass(EventReader &in) noexcept
{
    move_behind(in);
}

void step_into(EventReader &in) noexcept
{
    if (in.err != LDAP_SUCCESS)
        return;
    if (in.tag == no_element) {
        in.err = LDAPX_DECODING_ERROR;
    } else if (in.ber == nullptr) {
        in.position = in.contents;
        read_header(in);
    } else {
        ber_len_t length = 0;
        ber_skip_tag(in.ber, &length);
        peek_header(in);
    }
}

void read_number(EventReader &in, int &number) noexcept
{
    read_any_number(in, number);
}

void read_number(EventReader &in, unsigned int &number) noexcept
{
    read_any_number(in, number);
}

void read_time_stamp(EventReader &in, EVT_TimeStamp &timeStamp) noexcept
{
    step_into(in);
    read_number(in, timeStamp.seconds);
    read_number(in, timeStamp.replicaNumber);
    read_number(in, timeStamp.event);
}

void take_contents(EventReader &in, char *&block) noexcept
{
    copy_contents(in, block);
}

void read_string(EventReader &in, char *&string, ber_tag_t expectedTag) noexcept
{
    if (in.err == LDAP_SUCCESS && carries(in, expectedTag))
        copy_contents(in, string);
}

void read_octets(EventReader &in, char *&octets, ber_len_t &size, ber_tag_t expectedTag) noexcept
{
    const ber_len_t length = in.length;
    read_string(in, octets, expectedTag);
    size = in.err == LDAP_SUCCESS ? length : 0;
}

void read_string_sequence(EventReader &in, char **&strings) noexcept
{
    if (in.err != LDAP_SUCCESS || unread_bytes(in) == 0)
        return;
    if (in.tag == no_element) {
        in.err = LDAPX_DECODING_ERROR;
        return;
    }
    strings = static_cast<char **>(std::malloc(sizeof *strings));
    if (strings == nullptr) {
        in.err = LDAPX_NO_MEMORY;
        return;
    }
    *strings = nullptr;

    const ber_len_t length = in.length;
    step_into(in);
    const ber_len_t behind = unread_bytes(in) - length;
    // A component with more in it than one string is not passed over: what follows the string is
    // taken for the next component, and the last string may reach behind the list.
    for (std::size_t count = 0; unread_bytes(in) > behind; ++count) {
        auto *longer = static_cast<char **>(std::realloc(strings, (count + 2) * sizeof *strings));
        if (longer == nullptr) {
            freeStringSequence(strings); // and the caller's pointer still names it, as ever
            in.err = LDAPX_NO_MEMORY;
            return;
        }
        strings = longer;
        strings[count + 1] = nullptr;
        read_component(in, strings[count]);
        if (in.err != LDAP_SUCCESS) {
            // All slots: the strings, the one that ended the list, the one that was added.
            for (std::size_t slot = 0; slot < count + 2; ++slot)
                std::free(strings[slot]);
            std::free(strings);
            strings = nullptr;
            return;
        }
    }
}

void read_referrals(EventReader &in, int &count, EVT_ReferralAddress *&list) noexcept
{
    list = nullptr;
    count = 0;
    if (!next_is(in, LBER_SEQUENCE))
        return;
    step_into(in);
    read_number(in, count);
    step_into(in);
    check_count(in, count);
    if (in.err != LDAP_SUCCESS)
        return;

    list = static_cast<EVT_ReferralAddress *>(
        std::calloc(static_cast<std::size_t>(count), sizeof *list));
    if (list == nullptr)
        in.err = LDAPX_NO_MEMORY;
    for (int i = 0; i < count && in.err == LDAP_SUCCESS; ++i) {
        ber_len_t length = 0;
        step_into(in);
        read_number(in, list[i].type);
        read_octets(in, list[i].address, length, LBER_OCTETSTRING);
        list[i].length = static_cast<int>(length);
    }
}

void read_connection(EventReader &in, EVT_ConnectionEventData *&connection) noexcept
{
    if (!next_is(in, LBER_SEQUENCE))
        return;
    step_into(in);
    connection = static_cast<EVT_ConnectionEventData *>(std::malloc(sizeof *connection));
    if (connection == nullptr) {
        in.err = LDAPX_NO_MEMORY;
        return;
    }
    *connection = {};
    read_fields(in, *connection);
}

void read_fields(EventReader &in, EVT_ConnectionEventData &connection) noexcept
{
    read_number(in, connection.connection);
    read_number(in, connection.time);
    read_string(in, connection.inetAddr);
}

EVT_NetAddress *read_net_address(EventReader &in) noexcept
{
    unsigned int type = 0;
    read_number(in, type);
    if (!next_is(in, LBER_OCTETSTRING)) {
        fail(in, LDAPX_DECODING_ERROR);
        return nullptr;
    }

    const std::size_t size = sizeof(EVT_NetAddress) + (in.length > 0 ? in.length + 1 : 0);
    void *record = allocEventData(size, EVT_TAG_NET_ADDRESS);
    if (record == nullptr) {
        in.err = LDAPX_NO_MEMORY;
        return nullptr;
    }
    auto *address = static_cast<EVT_NetAddress *>(record);
    auto *data = static_cast<char *>(record) + offsetof(EVT_NetAddress, data);
    address->type = type;
    address->length = static_cast<unsigned int>(in.length);
    std::memcpy(data, in.contents, in.length);
    data[in.length] = '\0';
    // An empty address is left unread; readers of the stream expect it there.
    if (in.length > 0)
        pass(in);
    return address;
}

void read_trailer(EventReader &in, void **pIP) noexcept
{
    if (!next_is(in, LBER_INTEGER))
        return;
    if (pIP != nullptr) {
        *pIP = read_net_address(in);
        return;
    }
    unsigned int type = 0;
    read_number(in, type);
    if (in.tag != LBER_OCTETSTRING)
        fail(in, LDAPX_DECODING_ERROR);
}

} // namespace greirige

using namespace greirige;

int ber_get_IP(LDAP *ld, BerElement *responseBer, void **pIP) noexcept
{
    EventReader in = reader_of(responseBer);
    if (in.tag != LBER_INTEGER)
        return stored_result(ld); // what the decoder before this call left there
    read_trailer(in, pIP);
    store_result(ld, in.err);
    return in.err;
}

int parseOctetString(BerElement *responseBer, char **pString, ber_len_t *size,
                     ber_tag_t expectedTag) noexcept
{
    EventReader in = reader_of(responseBer);
    *pString = nullptr;
    read_octets(in, *pString, *size, expectedTag == 0 ? LBER_OCTETSTRING : expectedTag);
    return in.err;
}

int parseLDAPString(BerElement *responseBer, char **pString, ber_tag_t expectedTag) noexcept
{
    EventReader in = reader_of(responseBer);
    *pString = nullptr;
    read_string(in, *pString, expectedTag == 0 ? LBER_OCTETSTRING : expectedTag);
    return in.err;
}

int parseReferralList(BerElement *responseBer, int *count, EVT_ReferralAddress **pList) noexcept
{
    EventReader in = reader_of(responseBer);
    read_referrals(in, *count, *pList);
    return in.err;
}

int parseStringSequence(BerElement *ber, char ***stringSequence) noexcept
{
    EventReader in = reader_of(ber);
    read_string_sequence(in, *stringSequence);
    return in.err;
}

int parseConnectionData(BerElement *responseBer, EVT_ConnectionEventData **connData) noexcept
{
    EventReader in = reader_of(responseBer);
    *connData = nullptr;
    read_connection(in, *connData);
    return in.err;
}
