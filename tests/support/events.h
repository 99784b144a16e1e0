// Every kind of event as one list of fields in wire order, and what follows from such a list: the
// bytes of an event, a record as text, and a decoder that is written on liblber alone and knows
// nothing of the library's. Tests go through all kinds with it:
//
//     for (const EventKind &kind : event_kinds()) {
//         Sample sample = full_event(kind);
//         ... decode sample.bytes with the library ...
//         EXPECT_EQ(describe(kind, record), sample.text);
//     }
//
// A record as text is one line for each field, "bindDN: 'cn=x'" or "flags: 7".
#pragma once

#include <cstddef>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "ldap_events.h"

namespace support {

// What stands in the place of a field, and how much the decoder insists on it.
enum class Form {
    signed_number,
    unsigned_number,
    time_stamp,
    string,          // asserted
    tagged_string,   // asserted, tag 0x85
    mechanism,       // a string whose failure is ignored
    new_dn,          // takes the place of any element
    value,           // optional; size beside it
    verb,            // optional
    integers,        // 0x86, at most four
    texts,           // 0xa7, at most three
    referrals,       // optional; count beside it
    name,            // 1 to 31 bytes, in the record
    description,     // 0 to 127 bytes, in the record
    server_address,  // asserted; size beside it
    config_value,    // by the type beside it
    parameters,      // by the count beside it
    connection,      // optional
    strings,         // whatever comes
    control_strings, // only 0x80
    referral_strings // only 0x81
};

struct Field {
    std::string name;
    Form form = Form::signed_number;
    std::size_t offset = 0;
    std::size_t beside = 0; // offset of the number that goes with it
};

using Decoder = int (*)(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP);

struct EventKind {
    ber_tag_t tag = 0;
    std::string name; // of the record
    Decoder decoder = nullptr;
    std::vector<Field> fields;

    friend std::ostream &operator<<(std::ostream &out, const EventKind &kind)
    {
        return out << kind.name;
    }
};

// All kinds that have a record but EVT_NetAddress, by tag.
const std::vector<EventKind> &event_kinds();
const EventKind &event_kind(ber_tag_t tag);

using Text = std::vector<std::string>;

struct Sample {
    std::string bytes; // of the fields, without the tag around them
    Text text;         // what the record must say
};

Sample full_event(const EventKind &kind);
// Every optional part is missing and every string empty.
Sample least_event(const EventKind &kind);

// Numbers and lengths of strings to choose from.
struct Variety {
    std::vector<unsigned> numbers = {0,      1,      127,        128,        255,       256,
                                     0x7fff, 0x8000, 0x7fffffff, 0x80000000, 0xfffffffe};
    std::vector<unsigned> lengths = {0, 1, 2, 31, 127, 128, 200, 300};
};

// Any of them, and parts present or not.
Sample any_event(const EventKind &kind, std::mt19937 &random, const Variety &variety = {});

// INTEGER 1, OCTET STRING "10.0.0.1", and its text.
std::string trailer_bytes();
std::string trailer_text();

Text describe(const EventKind &kind, const void *record);
std::string describe_address(const void *record); // "none" for NULL

// What becomes of these bytes, fields and perhaps a trailer, with a decoder of this kind.
struct Verdict {
    int code = 0;
    std::string assertion{}; // its text, where the process stops instead
    Text text{};             // the record; of an assertion, the fields before it
    std::string trailer = "none";
    std::size_t unread = 0; // after success

    bool operator==(const Verdict &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Verdict &verdict);

// By the rules; asserting: with assertions in the build.
Verdict expected_verdict(const EventKind &kind, std::string_view bytes, bool asserting);

// What becomes of the whole value of an event message. The type and the result stay as they are
// where they cannot be read.
struct MessageVerdict {
    int code = 0;
    int type = -99;
    int result = -99;
    ber_tag_t tag = 0; // of the record; 0 where there is none
    Text text{};       // the record
    std::string trailer = "none";

    bool operator==(const MessageVerdict &) const = default;
};
std::ostream &operator<<(std::ostream &out, const MessageVerdict &verdict);

// By the rules, of a library without assertions; and what a call has handed out.
MessageVerdict expected_message(std::string_view value);
MessageVerdict seen_message(int code, int type, int result, const void *record,
                            const void *address);

// The whole value of an event message: SEQUENCE { type, result, tag { fields }, trailer }.
std::string notification(int type, int result, ber_tag_t tag, std::string_view fields,
                         std::string_view trailer = {});

} // namespace support
