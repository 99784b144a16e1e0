// Reads the elements of an event one after the other.
//
// The reader always stands before one element whose header it has already read: its tag, contents
// and length are there to look at, and no header is read twice. Elements that are stepped into do
// not bound what is read from them; the only end is the end of the event's value.
//
// The first failure is remembered in err, and every read after it does nothing.
#pragma once

#include "frame.h"

#include "ldap_events.h"

namespace greirige {

// The tag of the element where there is none, or only a part of one. No element carries it.
constexpr ber_tag_t no_element = LBER_DEFAULT;

struct EventReader {
    // The elements come from the caller's BerElement, or, when this is NULL, from the bytes of a
    // response value where they lie: making a BerElement of them would copy them.
    BerElement *ber = nullptr;
    const unsigned char *position = nullptr; // of the element's header, without a BerElement
    const unsigned char *end = nullptr;

    ber_tag_t tag = no_element;
    const unsigned char *contents = nullptr;
    ber_len_t length = 0;

    int err = LDAP_SUCCESS;
};

[[nodiscard]] EventReader reader_of(const berval &value) noexcept;
[[nodiscard]] EventReader reader_of(BerElement *ber) noexcept;

inline void fail(EventReader &in, int code) noexcept
{
    if (in.err == LDAP_SUCCESS)
        in.err = code;
}

inline bool next_is(const EventReader &in, ber_tag_t tag) noexcept
{
    return in.err == LDAP_SUCCESS && in.tag == tag;
}

// How many bytes are left, those of the element included.
ber_len_t unread_bytes(const EventReader &in) noexcept;

// Requires that so many things, of at least one byte each, can stand in the bytes that are left.
// Counts come from the server: no block is made for one that cannot be true.
void check_count(EventReader &in, int count) noexcept;
void check_count(EventReader &in, unsigned int count) noexcept;

// On to the first element within this one's contents, whatever its tag. Fails where there is none.
void step_into(EventReader &in) noexcept;

// On to the element behind this one. Only for an element that has been looked at.
void pass(EventReader &in) noexcept;

// INTEGER, ENUMERATED or any other element in their place. What the field is declared as decides
// which values it takes.
void read_number(EventReader &in, int &number) noexcept;
void read_number(EventReader &in, unsigned int &number) noexcept;

// { INTEGER, INTEGER, INTEGER }.
void read_time_stamp(EventReader &in, EVT_TimeStamp &timeStamp) noexcept;

// The element's contents as a new NUL-terminated block, NULL when it is empty, whatever its tag.
// Only for an element that has been looked at.
void take_contents(EventReader &in, char *&block) noexcept;

// The same for a string: the element must carry this tag.
void read_string(EventReader &in, char *&string, ber_tag_t expectedTag = LBER_OCTETSTRING) noexcept;
void read_octets(EventReader &in, char *&octets, ber_len_t &size, ber_tag_t expectedTag) noexcept;

// As parseStringSequence, parseReferralList and parseConnectionData.
void read_string_sequence(EventReader &in, char **&strings) noexcept;
void read_referrals(EventReader &in, int &count, EVT_ReferralAddress *&list) noexcept;
void read_connection(EventReader &in, EVT_ConnectionEventData *&connection) noexcept;

// { connection INTEGER, time INTEGER, inetAddr OCTET STRING } without the braces.
void read_fields(EventReader &in, EVT_ConnectionEventData &connection) noexcept;

// INTEGER type, OCTET STRING data as a new record; NULL on failure.
[[nodiscard]] EVT_NetAddress *read_net_address(EventReader &in) noexcept;

// The address trailer, if there is one, into *pIP. With pIP NULL it is checked and passed over.
void read_trailer(EventReader &in, void **pIP) noexcept;

} // namespace greirige
