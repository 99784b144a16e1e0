// Event messages: the frame around an event, the choice of the decoder, the address trailer.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/event_session.h"

using namespace support;

namespace {

// The smallest kind of event.
constexpr ber_tag_t tag = EVT_TAG_UNKNOWN_OP;
const std::string fields = concat(integer(42), octets("10.0.0.9"));

class EventMessage : public testing::Test {
protected:
    EventSession session;

    // A message that gives this code and no record.
    void expect_failure(const std::optional<std::string> &value, int code)
    {
        const std::string what = value ? hex(*value) : "no value";
        const Event event = session.parse_value(value);
        EXPECT_EQ(event.code, code) << what;
        EXPECT_EQ(event.data, nullptr) << what;
        EXPECT_EQ(event.ip, nullptr) << what;
    }

    // A message that gives its type and result, no record, and leaves *pIP alone.
    void expect_no_record(const std::string &value)
    {
        int type = 0, result = 0;
        void *data = &type, *ip = &type;
        EXPECT_EQ(ldap_parse_ds_event_IP(session.ld(), session.message(value).get(), &type, &result,
                                         &data, 0, &ip),
                  LDAP_SUCCESS)
            << hex(value);
        EXPECT_EQ(type, 7);
        EXPECT_EQ(result, -8);
        EXPECT_EQ(data, nullptr) << hex(value);
        EXPECT_EQ(ip, &type) << hex(value);
        EXPECT_EQ(session.peer.session_code(), LDAP_SUCCESS);
    }
};

using EventTrailer = EventMessage;
using AddressEvent = EventMessage;

} // namespace

TEST_F(EventMessage, gives_type_result_and_record)
{
    const Event event = session.parse_value(notification(217, -601, tag, fields));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(event.type, 217);
    EXPECT_EQ(event.result, -601);
    ASSERT_NE(event.data, nullptr);
    const auto *record = static_cast<EVT_UnknownEventData *>(event.data.get());
    EXPECT_EQ(record->time, 42U);
    EXPECT_STREQ(record->inetAddr, "10.0.0.9");
    EXPECT_EQ(event.ip, nullptr);
}

TEST_F(EventMessage, needs_places_for_type_and_result)
{
    const Message message = session.message(notification(1, 2, tag, fields));
    int number = 77;
    void *data = &number, *ip = &number;
    for (int missing = 1; missing <= 3; ++missing) {
        int *type = (missing & 1) != 0 ? nullptr : &number;
        int *result = (missing & 2) != 0 ? nullptr : &number;
        session.set_session_code(0);
        EXPECT_EQ(ldap_parse_ds_event_IP(session.ld(), message.get(), type, result, &data, 1, &ip),
                  LDAPX_PARAM_ERROR);
        EXPECT_EQ(session.peer.session_code(), LDAPX_PARAM_ERROR);
        session.set_session_code(0);
        EXPECT_EQ(ldap_parse_ds_event(session.ld(), message.get(), type, result, &data, 1),
                  LDAPX_PARAM_ERROR);
        EXPECT_EQ(session.peer.session_code(), LDAPX_PARAM_ERROR);
    }
    EXPECT_EQ(number, 77);
    EXPECT_EQ(data, &number);
    EXPECT_EQ(ip, &number);
}

TEST_F(EventMessage, of_another_kind_gives_the_code_of_the_ldap_library)
{
    session.peer.respond({.name = LDAPX_EVENT_NOTIFICATION, .value = "", .id = session.id});
    const Event event = session.parse_message(session.peer.result(session.id).get());
    EXPECT_EQ(event.code, LDAP_PARAM_ERROR);
    EXPECT_EQ(event.data, nullptr);
}

TEST_F(EventMessage, that_the_ldap_library_cannot_read_gives_its_code)
{
    session.peer.send(sequence(integer(session.id), element(0x79, bytes("80 03 31 00 32"))));
    const Event event = session.parse_message(session.peer.result(session.id).get());
    EXPECT_EQ(event.code, LDAP_DECODING_ERROR);
    EXPECT_EQ(event.data, nullptr);
}

TEST_F(EventMessage, on_a_session_of_the_old_protocol_gives_the_code_of_the_ldap_library)
{
    const Message message = session.message(notification(1, 2, tag, fields));
    int version = LDAP_VERSION2;
    ldap_set_option(session.ld(), LDAP_OPT_PROTOCOL_VERSION, &version);
    const Event event = session.parse_message(message.get());
    EXPECT_EQ(event.code, LDAP_NOT_SUPPORTED);
    EXPECT_EQ(event.data, nullptr);
}

TEST_F(EventMessage, of_another_name_or_none_is_refused)
{
    const std::string value = notification(1, 2, tag, fields);
    const std::string name = LDAPX_EVENT_NOTIFICATION;
    EXPECT_EQ(name, "2.16.840.1.424242.1.27.100.81");
    for (const auto &other : std::vector<std::optional<std::string>>{
             std::nullopt, name + "0", name.substr(0, name.size() - 1), name + " ",
             "2.16.840.1.424242.1.27.100.80", "1.2.3"}) {
        const Event event = session.parse_message(session.message(value, other).get());
        EXPECT_EQ(event.code, LDAPX_DECODING_ERROR) << other.value_or("none");
        EXPECT_EQ(event.type, -99);
        EXPECT_EQ(event.data, nullptr);
    }
}

TEST_F(EventMessage, without_a_value_cannot_be_read)
{
    expect_failure(std::nullopt, LDAPX_NO_MEMORY);
    expect_failure("", LDAPX_DECODING_ERROR);
}

TEST_F(EventMessage, needs_a_sequence_of_two_numbers)
{
    for (const std::string &cut : cuts(notification(1, 2, tag, fields)))
        expect_failure(cut, LDAPX_DECODING_ERROR);
    expect_failure(sequence(), LDAPX_DECODING_ERROR);
    expect_failure(sequence(integer(1)), LDAPX_DECODING_ERROR);
    expect_failure(sequence(octets("12345"), integer(2)), LDAPX_DECODING_ERROR);
    expect_failure(sequence(integer(1), octets("12345")), LDAPX_DECODING_ERROR);
    // Both are signed: five bytes are too many.
    expect_failure(sequence(integer(0x80000000LL), integer(2)), LDAPX_DECODING_ERROR);
}

TEST_F(EventMessage, keeps_what_was_read_of_type_and_result)
{
    const Event event = session.parse_value(sequence(integer(5), octets("12345")));
    EXPECT_EQ(event.code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(event.type, 5);
    EXPECT_EQ(event.result, -99);
}

TEST_F(EventMessage, is_read_whatever_the_tags_of_the_frame)
{
    const Event event = session.parse_value(
        element(0x61, concat(octets("\x07"), enumerated(8), element(tag, fields))));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(event.type, 7);
    EXPECT_EQ(event.result, 8);
    EXPECT_NE(event.data, nullptr);
}

TEST_F(EventMessage, of_an_unknown_tag_is_success_without_a_record)
{
    for (ber_tag_t unknown :
         {0x6aUL, 0x6bUL, 0x6eUL, 0x60UL, 0x7eUL, 0x01UL, 0x30UL, 0x41UL, 0xa1UL, 0xffUL - 0x1f})
        expect_no_record(notification(7, -8, unknown, fields, trailer_bytes()));
    // Tags of several bytes, one that ends like a known one among them.
    expect_no_record(notification(7, -8, 0x7f71, fields, trailer_bytes()));
    expect_no_record(notification(7, -8, 0x7f8161, fields, trailer_bytes()));
}

TEST_F(EventMessage, whose_tag_is_missing_or_cut_is_one_of_an_unknown_tag)
{
    expect_no_record(sequence(integer(7), integer(-8)));
    expect_no_record(sequence(integer(7), integer(-8), bytes("61")));
    expect_no_record(sequence(integer(7), integer(-8), bytes("61 05 02 01 01")));
    expect_no_record(sequence(integer(7), integer(-8), bytes("7f 81")));
    expect_no_record(sequence(integer(7), integer(-8), bytes("61 80 00 00")));
    expect_no_record(sequence(integer(7), integer(-8), bytes("7f 81 81 81 81 81 81 81 01 00")));
}

TEST_F(EventMessage, of_a_skulk_event_is_success_without_a_record_and_without_a_trailer)
{
    expect_no_record(notification(7, -8, EVT_TAG_SKULK, "", trailer_bytes()));
    expect_no_record(notification(7, -8, EVT_TAG_SKULK, fields, trailer_bytes()));
}

TEST_F(EventMessage, without_a_place_for_the_record_is_read_no_further_than_its_result)
{
    for (const std::string &value :
         {notification(7, -8, tag, fields, trailer_bytes()), notification(7, -8, tag, "damaged")}) {
        const Message message = session.message(value);
        int type = 0, result = 0;
        void *ip = &type;
        EXPECT_EQ(
            ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, nullptr, 0, &ip),
            LDAP_SUCCESS);
        EXPECT_EQ(type, 7);
        EXPECT_EQ(result, -8);
        EXPECT_EQ(ip, &type);
        EXPECT_EQ(ldap_parse_ds_event(session.ld(), message.get(), &type, &result, nullptr, 0),
                  LDAP_SUCCESS);
    }
}

TEST_F(EventMessage, is_released_on_demand)
{
    int type = 0, result = 0;
    void *data = nullptr, *ip = nullptr;
    EXPECT_EQ(ldap_parse_ds_event_IP(session.ld(),
                                     session.message(notification(1, 2, tag, fields)).release(),
                                     &type, &result, &data, 1, &ip),
              LDAP_SUCCESS);
    const EventRecord record(data);
    EXPECT_EQ(ldap_parse_ds_event(session.ld(), session.message(std::string("x")).release(), &type,
                                  &result, &data, 1),
              LDAPX_DECODING_ERROR);
}

TEST_F(EventMessage, can_be_parsed_again)
{
    const Message message = session.message(notification(1, 2, tag, fields, trailer_bytes()));
    for (int i = 0; i < 3; ++i) {
        const Event event = session.parse_message(message.get());
        EXPECT_EQ(event.code, LDAP_SUCCESS);
        EXPECT_NE(event.data, nullptr);
        EXPECT_EQ(describe_address(event.ip.get()), trailer_text());
    }
}

TEST_F(EventMessage, of_an_update_is_the_same_whatever_its_type)
{
    const EventKind &kind = event_kind(EVT_TAG_UPDATE);
    const Sample sample = full_event(kind);
    for (int type : {0, 1, -1, 217}) {
        const Event event =
            session.parse_value(notification(type, 2, EVT_TAG_UPDATE, sample.bytes));
        ASSERT_EQ(event.code, LDAP_SUCCESS);
        EXPECT_EQ(event.type, type);
        EXPECT_EQ(describe(kind, event.data.get()), sample.text);

        const Element ber = element_of(sample.bytes);
        void *data = nullptr, *ip = nullptr;
        ASSERT_EQ(parseUpdateEventData(session.ld(), ber.get(), type, &data, &ip), LDAP_SUCCESS);
        const EventRecord record(data);
        EXPECT_EQ(describe(kind, data), sample.text);
    }
}

// ---- The address trailer ---------------------------------------------------------------------

TEST_F(EventTrailer, is_handed_out_as_a_record)
{
    const Event event = session.parse_value(
        notification(1, 2, tag, fields, concat(integer(0xfffffffeLL), octets(bytes("0a 00 01")))));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    ASSERT_NE(event.ip, nullptr);
    const auto *address = static_cast<EVT_NetAddress *>(event.ip.get());
    EXPECT_EQ(address->type, 0xfffffffeU);
    EXPECT_EQ(address->length, 3U);
    EXPECT_EQ(describe_address(address), "4294967294 '\\0a\\00\\01'");
    EXPECT_EQ(static_cast<ber_tag_t *>(event.ip.get())[-1], EVT_TAG_NET_ADDRESS);
}

TEST_F(EventTrailer, may_be_empty)
{
    const Event event =
        session.parse_value(notification(1, 2, tag, fields, concat(integer(9), octets(""))));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(describe_address(event.ip.get()), "9 ''");
}

TEST_F(EventTrailer, is_passed_over_where_there_is_no_place_for_it)
{
    const Message message = session.message(notification(1, 2, tag, fields, trailer_bytes()));
    int type = 0, result = 0;
    void *data = nullptr;
    EXPECT_EQ(ldap_parse_ds_event(session.ld(), message.get(), &type, &result, &data, 0),
              LDAP_SUCCESS);
    EventRecord(data).reset();
    EXPECT_EQ(
        ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, nullptr),
        LDAP_SUCCESS);
    EventRecord(data).reset();
}

TEST_F(EventTrailer, that_is_damaged_fails_the_event)
{
    for (const std::string &damaged :
         {integer(1), concat(integer(1), bytes("04")), concat(integer(1), bytes("04 05 31")),
          concat(integer(1), octets("x", 0x05)), concat(integer(0x7fffffffffLL), octets("x")),
          concat(integer(-0x80000001LL), octets("x")), concat(integer(1), integer(1))}) {
        const std::string value = notification(1, 2, tag, fields, damaged);
        expect_failure(value, LDAPX_DECODING_ERROR);

        int type = 0, result = 0;
        void *data = &type;
        EXPECT_EQ(ldap_parse_ds_event(session.ld(), session.message(value).get(), &type, &result,
                                      &data, 0),
                  LDAPX_DECODING_ERROR);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(session.peer.session_code(), LDAPX_DECODING_ERROR);
    }
}

TEST_F(EventTrailer, is_ignored_unless_it_begins_with_an_integer)
{
    for (const std::string &other :
         {octets("x"), enumerated(1), concat(octets("x"), trailer_bytes()), bytes("02"),
          bytes("02 05 01"), null(), sequence(trailer_bytes())}) {
        const Event event = session.parse_value(notification(1, 2, tag, fields, other));
        EXPECT_EQ(event.code, LDAP_SUCCESS) << hex(other);
        EXPECT_NE(event.data, nullptr);
        EXPECT_EQ(event.ip, nullptr) << hex(other);
    }
}

TEST_F(EventTrailer, may_stand_inside_or_behind_the_event)
{
    // Only the order of the elements counts.
    for (const std::string &value : {notification(1, 2, tag, fields + trailer_bytes()),
                                     notification(1, 2, tag, fields) + trailer_bytes()}) {
        const Event event = session.parse_value(value);
        EXPECT_EQ(event.code, LDAP_SUCCESS);
        EXPECT_EQ(describe_address(event.ip.get()), trailer_text());
    }
}

// ---- The event that is an address ------------------------------------------------------------

TEST_F(AddressEvent, is_decoded_with_and_without_a_trailer)
{
    const std::string address = concat(integer(3), octets("192.168.1.1"));
    Event event = session.parse_value(notification(1, 2, EVT_TAG_NET_ADDRESS, address));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(describe_address(event.data.get()), "3 '192.168.1.1'");
    EXPECT_EQ(event.ip, nullptr);

    event = session.parse_value(notification(1, 2, EVT_TAG_NET_ADDRESS, address, trailer_bytes()));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(describe_address(event.data.get()), "3 '192.168.1.1'");
    EXPECT_EQ(describe_address(event.ip.get()), trailer_text());
}

TEST_F(AddressEvent, that_is_empty_never_shows_its_trailer)
{
    const Event event = session.parse_value(
        notification(1, 2, EVT_TAG_NET_ADDRESS, concat(integer(3), octets("")), trailer_bytes()));
    EXPECT_EQ(event.code, LDAP_SUCCESS);
    EXPECT_EQ(describe_address(event.data.get()), "3 ''");
    EXPECT_EQ(event.ip, nullptr);
}

TEST_F(AddressEvent, that_is_cut_or_has_a_wrong_tag_fails)
{
    const std::string address = concat(integer(3), octets("192.168.1.1"));
    for (const std::string &cut : cuts(address))
        expect_failure(notification(1, 2, EVT_TAG_NET_ADDRESS, cut), LDAPX_DECODING_ERROR);
    expect_failure(notification(1, 2, EVT_TAG_NET_ADDRESS, concat(integer(3), octets("x", 0x16))),
                   LDAPX_DECODING_ERROR);
    // The first tag is not looked at.
    const Event event = session.parse_value(
        notification(1, 2, EVT_TAG_NET_ADDRESS, concat(octets("\x03"), octets("x"))));
    EXPECT_EQ(describe_address(event.data.get()), "3 'x'");
}

TEST_F(AddressEvent, with_a_damaged_trailer_fails)
{
    expect_failure(
        notification(1, 2, EVT_TAG_NET_ADDRESS, concat(integer(3), octets("x")), integer(1)),
        LDAPX_DECODING_ERROR);
}

TEST_F(AddressEvent, has_a_decoder_of_its_own_that_leaves_an_empty_address_unread)
{
    Element ber = element_of(concat(integer(3), octets("ab"), integer(4)));
    void *data = nullptr;
    session.set_session_code(77);
    EXPECT_EQ(parseNetAddrEventData(session.ld(), ber.get(), &data), LDAP_SUCCESS);
    EXPECT_EQ(session.peer.session_code(), LDAP_SUCCESS);
    EXPECT_EQ(describe_address(EventRecord(data).get()), "3 'ab'");
    EXPECT_EQ(unread(ber), 3U);

    ber = element_of(concat(integer(3), octets(""), integer(4)));
    EXPECT_EQ(parseNetAddrEventData(session.ld(), ber.get(), &data), LDAP_SUCCESS);
    EXPECT_EQ(describe_address(EventRecord(data).get()), "3 ''");
    EXPECT_EQ(unread(ber), 5U);

    ber = element_of("");
    data = &ber;
    EXPECT_EQ(parseNetAddrEventData(session.ld(), ber.get(), &data), LDAPX_DECODING_ERROR);
    EXPECT_EQ(session.peer.session_code(), LDAPX_DECODING_ERROR);
    EXPECT_EQ(data, nullptr);
}
