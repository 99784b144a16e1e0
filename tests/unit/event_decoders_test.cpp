// What is particular to single kinds of events: the forms that their decoders take or refuse, and
// the places where they do what one would not expect and programs have come to rely on. Built
// twice: with the library's assertions and, as event_decoders_unasserted_test, without.

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/event_session.h"

using namespace support;

namespace {

#ifdef UNASSERTED
constexpr bool asserting = false;
#else
constexpr bool asserting = GREIRIGE_ASSERTIONS != 0;
#endif

// Decodes fields of one kind of event; the record is there after success.
template <class Type, ber_tag_t tag>
class Decode : public testing::Test {
protected:
    int decode(const std::string &fields)
    {
        const EventKind &kind = event_kind(tag);
        const Element ber = element_of(fields);
        void *data = this, *ip = nullptr;
        const int code = kind.decoder(session.ld(), ber.get(), &data, &ip);
        EXPECT_EQ(session.peer.session_code(), code);
        EXPECT_EQ(data != nullptr, code == LDAP_SUCCESS);
        record.reset(data);
        event = static_cast<Type *>(data);
        address.reset(ip);
        left = unread(ber);
        return code;
    }

    EventSession session;
    EventRecord record;
    EventRecord address;
    Type *event = nullptr;
    std::size_t left = 0;
};

const std::string stamp = sequence(integer(1), integer(2), integer(3));
const std::string a = octets("a"), none = octets("");
const std::string trailer = trailer_bytes();

using EntryEvent = Decode<EVT_EntryInfo, EVT_TAG_ENTRY_INFO>;
using ValueEvent = Decode<EVT_ValueInfo, EVT_TAG_VALUE_INFO>;
using GeneralEvent = Decode<EVT_EventData, EVT_TAG_GENERAL_EVENT>;
using SevEvent = Decode<EVT_SEVInfo, EVT_TAG_SEV_INFO>;
using ModuleEvent = Decode<EVT_ModuleState, EVT_TAG_MODULE_STATE>;
using ServerAddressEvent = Decode<EVT_ChangeServerAddr, EVT_TAG_CHANGE_SERVER_ADDR>;
using ConfigEvent = Decode<EVT_ChangeConfigParm, EVT_TAG_CHANGE_CONFIG_PARAM>;
using DebugEvent = Decode<EVT_DebugInfo, EVT_TAG_DEBUG_INFO>;
using AuthEvent = Decode<EVT_AuthEventData, EVT_TAG_AUTH>;
using ConnectionEvent = Decode<EVT_ConnectionEventData, EVT_TAG_CONNECTION>;
using SearchEvent = Decode<EVT_SearchEventData, EVT_TAG_SEARCH>;
using SearchEntryEvent = Decode<EVT_SearchEntryResponseEventData, EVT_TAG_SEARCH_ENTRY_RESPONSE>;
using UpdateEvent = Decode<EVT_UpdateEventData, EVT_TAG_UPDATE>;
using RenameEvent = Decode<EVT_ModDNEventData, EVT_TAG_MODDN>;
using ResponseEvent = Decode<EVT_ResponseEventData, EVT_TAG_RESPONSE>;
using UnknownEvent = Decode<EVT_UnknownEventData, EVT_TAG_UNKNOWN_OP>;

} // namespace

// ---- Numbers ---------------------------------------------------------------------------------

TEST_F(UnknownEvent, takes_unsigned_numbers_in_every_form)
{
    const std::pair<const char *, unsigned> forms[] = {
        {"02 00", 0},
        {"02 01 00", 0},
        {"02 01 7f", 127},
        {"02 01 ff", 0xffffffff}, // two's complement
        {"02 01 80", 0xffffff80},
        {"02 02 00 80", 128},
        {"02 04 7f ff ff ff", 0x7fffffff},
        {"02 04 80 00 00 00", 0x80000000},
        {"02 04 ff ff ff ff", 0xffffffff},
        {"02 05 00 80 00 00 00", 0x80000000}, // what X.690 wants
        {"02 05 00 ff ff ff ff", 0xffffffff},
        {"02 04 00 00 00 05", 5},
        {"0a 01 05", 5},
        {"9f 81 01 01 05", 5},
        {"02 81 01 05", 5},
        {"02 84 00 00 00 01 05", 5},
        {"02 88 00 00 00 00 00 00 00 01 05", 5},
    };
    for (const auto &[form, number] : forms) {
        EXPECT_EQ(decode(bytes(form) + a), LDAP_SUCCESS) << form;
        EXPECT_EQ(event->time, number) << form;
    }
}

TEST_F(UnknownEvent, refuses_numbers_of_more_than_32_bits)
{
    for (const char *form :
         {"02 05 01 00 00 00 00", "02 05 ff 80 00 00 00", "02 05 00 7f ff ff ff",
          "02 05 00 00 00 00 05", "02 06 00 00 80 00 00 00", "02 08 00 00 00 00 00 00 00 05",
          "02 80 05 00 00", "02 89 00 00 00 00 00 00 00 00 01 05", "02 ff 01 05"})
        EXPECT_EQ(decode(bytes(form) + a), LDAPX_DECODING_ERROR) << form;
}

TEST_F(ServerAddressEvent, takes_signed_numbers_of_four_bytes_and_no_more)
{
    const auto with_proto = [](const std::string &proto) {
        return integer(1) + proto + integer(3) + a + a + a;
    };
    EXPECT_EQ(decode(with_proto(integer(INT_MIN))), LDAP_SUCCESS);
    EXPECT_EQ(event->proto, INT_MIN);
    EXPECT_EQ(decode(with_proto(integer(-1))), LDAP_SUCCESS);
    EXPECT_EQ(event->proto, -1);
    EXPECT_EQ(decode(with_proto(bytes("02 00"))), LDAP_SUCCESS);
    EXPECT_EQ(event->proto, 0);
    EXPECT_EQ(decode(with_proto(bytes("02 05 00 80 00 00 00"))), LDAPX_DECODING_ERROR);
}

// ---- Entries ---------------------------------------------------------------------------------

namespace {
const std::string entry = a + a + a + stamp + integer(4) + integer(5);
}

TEST_F(EntryEvent, reads_its_fields_in_wire_order)
{
    ASSERT_EQ(decode(octets("p") + octets("e") + octets("c") + stamp + integer(4) + integer(5) +
                     octets("n") + trailer),
              LDAP_SUCCESS);
    EXPECT_STREQ(event->perpetratorDN, "p");
    EXPECT_STREQ(event->entryDN, "e");
    EXPECT_STREQ(event->className, "c");
    EXPECT_EQ(event->creationTime.seconds, 1U);
    EXPECT_EQ(event->creationTime.replicaNumber, 2U);
    EXPECT_EQ(event->creationTime.event, 3U);
    EXPECT_EQ(event->verb, 4U);
    EXPECT_EQ(event->flags, 5U);
    EXPECT_STREQ(event->newDN, "n");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(EntryEvent, consumes_an_empty_new_name)
{
    EXPECT_EQ(decode(entry + none + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->newDN, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(EntryEvent, may_end_before_the_new_name)
{
    EXPECT_EQ(decode(entry), LDAP_SUCCESS);
    EXPECT_EQ(event->newDN, nullptr);
}

TEST_F(EntryEvent, without_a_new_name_swallows_the_beginning_of_the_trailer)
{
    EXPECT_EQ(decode(entry + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->newDN, nullptr);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(left, octets("10.0.0.1").size());
}

TEST_F(EntryEvent, passes_over_whatever_stands_in_the_place_of_the_new_name)
{
    for (const std::string &other : {sequence(integer(1), integer(2)), octets("x", 0x80), null()}) {
        EXPECT_EQ(decode(entry + other + trailer), LDAP_SUCCESS) << hex(other);
        EXPECT_EQ(event->newDN, nullptr);
        EXPECT_EQ(describe_address(address.get()), trailer_text());
    }
}

TEST_F(EntryEvent, with_a_cut_new_name_is_one_without)
{
    EXPECT_EQ(decode(entry + bytes("04 05 61")), LDAP_SUCCESS);
    EXPECT_EQ(event->newDN, nullptr);
    EXPECT_EQ(left, 3U);
}

TEST_F(EntryEvent, that_fails_leaves_the_element_at_what_could_not_be_read)
{
    const std::string rest = bytes("02 05 01 00 00 00 00") + octets("n") + trailer;
    EXPECT_EQ(decode(a + a + a + stamp + integer(4) + rest), LDAPX_DECODING_ERROR);
    EXPECT_EQ(left, rest.size());
}

// ---- Values ----------------------------------------------------------------------------------

namespace {
const std::string value_head = a + a + a + a + a + stamp;
}

TEST_F(ValueEvent, reads_value_and_verb)
{
    EXPECT_EQ(decode(value_head + octets(bytes("00 01 ff")) + integer(7) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->size, 3U);
    EXPECT_EQ(std::memcmp(event->value, "\0\1\xff", 4), 0);
    EXPECT_EQ(event->verb, 7U);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(ValueEvent, may_have_neither)
{
    EXPECT_EQ(decode(value_head), LDAP_SUCCESS);
    EXPECT_EQ(event->size, 0U);
    EXPECT_EQ(event->value, nullptr);
    EXPECT_EQ(event->verb, 0U);
}

TEST_F(ValueEvent, may_have_a_verb_alone)
{
    EXPECT_EQ(decode(value_head + integer(7)), LDAP_SUCCESS);
    EXPECT_EQ(event->value, nullptr);
    EXPECT_EQ(event->verb, 7U);
}

TEST_F(ValueEvent, leaves_an_empty_value_unread_and_all_that_follows)
{
    EXPECT_EQ(decode(value_head + none + integer(7) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->size, 0U);
    EXPECT_EQ(event->value, nullptr);
    EXPECT_EQ(event->verb, 0U);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(left, (none + integer(7) + trailer).size());
}

TEST_F(ValueEvent, without_a_verb_takes_the_beginning_of_the_trailer_for_it)
{
    EXPECT_EQ(decode(value_head + octets("v") + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->verb, 1U);
    EXPECT_EQ(address, nullptr);
}

// ---- General events --------------------------------------------------------------------------

namespace {
const std::string general = integer(1) + integer(2) + integer(3) + integer(4) + octets("p", 0x85);

std::string integers(int count)
{
    std::string list;
    for (int i = 1; i <= count; ++i)
        list += integer(10 * i);
    return element(0x86, list);
}

std::string texts(const std::vector<std::string> &strings)
{
    std::string list;
    for (const std::string &string : strings)
        list += octets(string);
    return element(0xa7, list);
}
} // namespace

TEST_F(GeneralEvent, has_the_verb_before_the_process_on_the_wire)
{
    EXPECT_EQ(decode(general), LDAP_SUCCESS);
    EXPECT_EQ(event->dstime, 1U);
    EXPECT_EQ(event->milliseconds, 2U);
    EXPECT_EQ(event->verb, 3U);
    EXPECT_EQ(event->curProcess, 4U);
    EXPECT_STREQ(event->perpetratorDN, "p");
}

TEST_F(GeneralEvent, takes_up_to_four_integers)
{
    EXPECT_EQ(decode(general + integers(0)), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 0U);
    EXPECT_EQ(decode(general + integers(2)), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[1], 20U);
    EXPECT_EQ(event->intValues[2], 0U);
    EXPECT_EQ(decode(general + integers(4)), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 10U);
    EXPECT_EQ(event->intValues[3], 40U);
    EXPECT_EQ(decode(general + integers(5)), LDAPX_DECODING_ERROR);
}

TEST_F(GeneralEvent, takes_up_to_three_strings_though_it_has_room_for_four)
{
    EXPECT_EQ(decode(general + texts({})), LDAP_SUCCESS);
    EXPECT_EQ(decode(general + texts({"x", "", "z"}) + trailer), LDAP_SUCCESS);
    EXPECT_STREQ(event->strValues[0], "x");
    EXPECT_EQ(event->strValues[1], nullptr);
    EXPECT_STREQ(event->strValues[2], "z");
    EXPECT_EQ(event->strValues[3], nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(general + texts({"w", "x", "y", "z"})), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(general + texts({"", "", "", ""})), LDAPX_DECODING_ERROR);
}

TEST_F(GeneralEvent, with_integers_and_no_strings_swallows_the_beginning_of_the_trailer)
{
    EXPECT_EQ(decode(general + integers(2) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[2], 1U);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(decode(general + integers(4) + trailer), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(general + trailer), LDAP_SUCCESS);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(GeneralEvent, ends_its_lists_with_the_first_element_of_another_tag)
{
    // The lengths of the lists are lies; what follows them belongs to them all the same.
    EXPECT_EQ(decode(general + element(0x86, "") + integer(7) + element(0xa7, "") + a),
              LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 7U);
    EXPECT_STREQ(event->strValues[0], "a");
    EXPECT_EQ(decode(general + element(0x86, octets("x") + integer(7)) + texts({"y"})),
              LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 0U);
    EXPECT_EQ(event->strValues[0], nullptr);
    // A cut element ends them, too.
    EXPECT_EQ(decode(general + bytes("86 04 02 02 01 02") + bytes("02 09 01")), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 0x0102U);
    EXPECT_EQ(event->intValues[1], 0U);
}

TEST_F(GeneralEvent, knows_its_lists_by_their_tags_and_in_their_order)
{
    EXPECT_EQ(decode(general + texts({"x"}) + integers(1)), LDAP_SUCCESS);
    EXPECT_STREQ(event->strValues[0], "x");
    EXPECT_EQ(event->intValues[0], 0U);
    EXPECT_EQ(decode(general + element(0xa6, integer(1)) + element(0x87, a)), LDAP_SUCCESS);
    EXPECT_EQ(event->intValues[0], 0U);
    EXPECT_EQ(event->strValues[0], nullptr);
}

TEST_F(GeneralEvent, wants_its_perpetrator_under_a_tag_of_its_own)
{
    const std::string wrong = integer(1) + integer(2) + integer(3) + integer(4) + octets("p");
    if (asserting)
        EXPECT_DEATH(decode(wrong), "Assertion `expectedTag == tag' failed");
    else
        EXPECT_EQ(decode(wrong), LDAPX_DECODING_ERROR);
}

TEST(SkulkEvent, is_success_without_a_record_and_reads_nothing)
{
    EventSession session;
    for (const std::string &any : {std::string(), a + trailer, bytes("30")}) {
        const Element ber = element_of(any);
        int nobodys = 0;
        void *data = &nobodys, *ip = &nobodys;
        session.set_session_code(77);
        EXPECT_EQ(parseSkulkEventData(session.ld(), ber.get(), &data, &ip), LDAP_SUCCESS);
        EXPECT_EQ(session.peer.session_code(), LDAP_SUCCESS);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(ip, &nobodys);
        EXPECT_EQ(unread(ber), any.size());
    }
}

// ---- Servers, modules, configuration ---------------------------------------------------------

TEST_F(SevEvent, may_have_no_referral_list)
{
    EXPECT_EQ(decode(a + integer(7) + a + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->retryCount, 7U);
    EXPECT_EQ(event->referralCount, 0);
    EXPECT_EQ(event->referrals, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(SevEvent, with_an_impossible_number_of_referrals_fails)
{
    EXPECT_EQ(decode(a + integer(7) + a + sequence(integer(INT_MAX), sequence())),
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(a + integer(7) + a + sequence(integer(-1), sequence())), LDAPX_NO_MEMORY);
}

namespace {
std::string module(const std::string &name, const std::string &description)
{
    return octets("cn=c") + integer(7) + octets(name) + octets(description) + octets("source");
}
} // namespace

TEST_F(ModuleEvent, keeps_name_and_description_within_the_record)
{
    EXPECT_EQ(decode(module("m", "") + trailer), LDAP_SUCCESS);
    EXPECT_STREQ(event->name, "m");
    EXPECT_STREQ(event->description, "");
    EXPECT_STREQ(event->sourceModule, "source");
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    const std::string longest_name(31, 'n'), longest_description(127, 'd');
    EXPECT_EQ(decode(module(longest_name, longest_description)), LDAP_SUCCESS);
    EXPECT_EQ(event->name, longest_name);
    EXPECT_EQ(event->description, longest_description);
}

TEST_F(ModuleEvent, refuses_a_name_or_description_that_does_not_fit)
{
    EXPECT_EQ(decode(module("", "d")), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(module(std::string(32, 'n'), "d")), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(module("n", std::string(128, 'd'))), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(a + integer(7) + octets("n", 0x0c) + a + a), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(a + integer(7) + a + octets("d", 0x0c) + a), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(a + integer(7)), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(a + integer(7) + a), LDAPX_DECODING_ERROR);
}

TEST_F(ServerAddressEvent, takes_an_address_of_any_bytes)
{
    EXPECT_EQ(
        decode(integer(1) + integer(2) + integer(3) + octets(bytes("00 01 ff")) + a + a + trailer),
        LDAP_SUCCESS);
    EXPECT_EQ(event->addrSize, 3);
    EXPECT_EQ(std::memcmp(event->addr, "\0\1\xff", 4), 0);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(ServerAddressEvent, takes_an_empty_address)
{
    EXPECT_EQ(decode(integer(1) + integer(2) + integer(3) + none + a + a), LDAP_SUCCESS);
    EXPECT_EQ(event->addrSize, 0);
    EXPECT_EQ(event->addr, nullptr);
    EXPECT_STREQ(event->pstkname, "a");
}

TEST_F(ServerAddressEvent, asserts_its_address_in_words_of_its_own)
{
    const std::string head = integer(1) + integer(2) + integer(3);
    for (const std::string &wrong : {head + octets("x", 0x05), head, head + bytes("04 05 61")})
        if (asserting)
            EXPECT_DEATH(decode(wrong), "Assertion `\\(\\(ber_tag_t\\) 0x04UL\\) == tag' failed");
        else
            EXPECT_EQ(decode(wrong), LDAPX_DECODING_ERROR);
}

TEST_F(ConfigEvent, takes_a_value_of_each_type)
{
    EXPECT_EQ(decode(integer(5) + a + integer(-7, 0x81) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->type, 5);
    EXPECT_EQ(event->value.integer, -7);
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(integer(2) + a + integer(1, 0x82) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->value.boolean, 1);
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(integer(1) + a + octets(bytes("00 ff"), 0x83) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->value.binary.size, 2);
    EXPECT_EQ(std::memcmp(event->value.binary.data, "\0\xff", 3), 0);
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(integer(1) + a + octets("", 0x83) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->value.binary.size, 0);
    EXPECT_EQ(event->value.binary.data, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(integer(3) + a + octets("text", 0x84) + trailer), LDAP_SUCCESS);
    EXPECT_STREQ(event->value.utf8Str, "text");
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(integer(3) + a + octets("", 0x84) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->value.utf8Str, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(ConfigEvent, of_type_0_leaves_its_value_unread_and_shows_no_trailer)
{
    EXPECT_EQ(decode(integer(0) + a + octets("v", 0x85) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->type, 0);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(left, (octets("v", 0x85) + trailer).size());
}

TEST_F(ConfigEvent, refuses_every_other_pair_of_type_and_tag)
{
    const std::pair<int, ber_tag_t> pairs[] = {
        {5, 0x81}, {2, 0x82}, {1, 0x83}, {3, 0x84}, {0, 0x85}};
    for (int type = -1; type <= 7; ++type)
        for (ber_tag_t tag : {0x80UL, 0x81UL, 0x82UL, 0x83UL, 0x84UL, 0x85UL, 0x86UL, 0x04UL}) {
            bool pair = false;
            for (const auto &[its_type, its_tag] : pairs)
                pair = pair || (type == its_type && tag == its_tag);
            EXPECT_EQ(decode(integer(type) + a + octets("v", tag)),
                      pair ? LDAP_SUCCESS : LDAPX_DECODING_ERROR)
                << type << " " << tag;
        }
    EXPECT_EQ(decode(integer(5) + a), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(integer(3) + a + bytes("84 05 61")), LDAPX_DECODING_ERROR);
}

// ---- Debug events ----------------------------------------------------------------------------

namespace {
std::string debug(int count, const std::string &parameters)
{
    return integer(1) + integer(2) + octets("p") + octets("%s") + integer(3) + integer(count) +
           parameters;
}
} // namespace

TEST_F(DebugEvent, without_parameters_has_no_list_of_them)
{
    EXPECT_EQ(decode(debug(0, trailer)), LDAP_SUCCESS);
    EXPECT_EQ(event->parameters, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(debug(0, sequence() + trailer)), LDAP_SUCCESS);
    EXPECT_EQ(left, (sequence() + trailer).size());
    EXPECT_EQ(decode(debug(-3, trailer)), LDAP_SUCCESS);
    EXPECT_EQ(event->paramCount, -3);
    EXPECT_EQ(event->parameters, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(DebugEvent, takes_parameters_of_every_type)
{
    const std::string address_parameter =
        element(0x85, integer(0x80000001LL) + octets(bytes("0a 00")));
    EXPECT_EQ(
        decode(debug(7, sequence(integer(-1, 0x81), octets("s", 0x82), octets(bytes("00 ff"), 0x83),
                                 integer(4, 0x84), address_parameter,
                                 element(0x86, integer(1) + integer(2) + integer(3)),
                                 element(0x87, integer(2) + sequence(stamp, stamp)))) +
               trailer),
        LDAP_SUCCESS);
    ASSERT_EQ(event->paramCount, 7);
    const DB_Parameter *parameters = event->parameters;
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(parameters[i].type, i + 1);
    EXPECT_EQ(parameters[0].value.integer, -1);
    EXPECT_STREQ(parameters[1].value.utf8Str, "s");
    EXPECT_EQ(parameters[2].value.binary.size, 2U);
    EXPECT_EQ(std::memcmp(parameters[2].value.binary.data, "\0\xff", 3), 0);
    EXPECT_EQ(parameters[3].value.integer, 4);
    EXPECT_EQ(parameters[4].value.netAddress.type, 0x80000001U);
    EXPECT_EQ(parameters[4].value.netAddress.length, 2U);
    EXPECT_EQ(std::memcmp(parameters[4].value.netAddress.data, "\x0a\0", 3), 0);
    EXPECT_EQ(parameters[5].value.timeStamp.event, 3U);
    EXPECT_EQ(parameters[6].value.timeStampVector.count, 2U);
    EXPECT_EQ(parameters[6].value.timeStampVector.timeStamps[1].seconds, 1U);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(DebugEvent, takes_empty_parameters)
{
    EXPECT_EQ(decode(debug(3, sequence(octets("", 0x82), octets("", 0x83),
                                       element(0x87, integer(0) + sequence()))) +
                     trailer),
              LDAP_SUCCESS);
    EXPECT_EQ(event->parameters[0].value.utf8Str, nullptr);
    EXPECT_EQ(event->parameters[1].value.binary.size, 0U);
    EXPECT_EQ(event->parameters[1].value.binary.data, nullptr);
    EXPECT_EQ(event->parameters[2].value.timeStampVector.count, 0U);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(DebugEvent, leaves_an_empty_address_unread_which_must_then_be_the_last_parameter)
{
    const std::string empty = element(0x85, integer(6) + none);
    EXPECT_EQ(decode(debug(1, sequence(empty)) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->parameters[0].value.netAddress.type, 6U);
    EXPECT_EQ(event->parameters[0].value.netAddress.length, 0U);
    EXPECT_EQ(event->parameters[0].value.netAddress.data, nullptr);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(left, (none + trailer).size());
    EXPECT_EQ(decode(debug(2, sequence(empty, integer(1, 0x81)))), LDAPX_DECODING_ERROR);
}

TEST_F(DebugEvent, refuses_parameters_that_are_no_such)
{
    for (const std::string &wrong :
         {octets("x", 0x80), octets("x", 0x88), integer(1), std::string(), bytes("81"),
          bytes("82 05 61"), element(0x85, integer(1)), element(0x85, ""),
          element(0x85, integer(1) + octets("x", 0x05)), element(0x86, integer(1) + integer(2)),
          element(0x87, ""), element(0x87, integer(1)), element(0x87, integer(1) + sequence()),
          element(0x87, integer(2) + sequence(stamp)),
          element(0x87, integer(2) + sequence(stamp, sequence(integer(1), integer(2))))})
        EXPECT_EQ(decode(debug(2, sequence(octets("s", 0x82), wrong))), LDAPX_DECODING_ERROR)
            << hex(wrong);
    EXPECT_EQ(decode(debug(1, "")), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(debug(1, bytes("30"))), LDAPX_DECODING_ERROR);
}

TEST_F(DebugEvent, with_an_impossible_count_fails)
{
    EXPECT_EQ(decode(debug(INT_MAX, sequence(integer(1, 0x81)))), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(debug(100, sequence(integer(1, 0x81)))), LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(debug(1, sequence(element(0x87, integer(0xffffffffLL) + sequence())))),
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(debug(1, sequence(element(0x87, integer(-1) + sequence())))),
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(decode(debug(1, sequence(element(0x87, integer(1000) + sequence(stamp))))),
              LDAPX_DECODING_ERROR);
}

// ---- LDAP operations -------------------------------------------------------------------------

namespace {
const std::string connection = sequence(integer(1), integer(2), octets("10.0.0.1"));
const std::string controls = element(0x80, sequence(octets("1.2.3")));
const std::string referrals = element(0x81, sequence(octets("ldap://h")));
const std::string two = integer(3) + integer(4);
const std::string three = two + integer(5);
} // namespace

TEST_F(AuthEvent, reads_its_result_before_its_controls)
{
    const std::string fields =
        connection + two + octets("cn=a") + integer(6) + octets("SIMPLE") + integer(49);
    EXPECT_EQ(decode(fields + controls + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->connectionData->connection, 1U);
    EXPECT_EQ(event->connectionData->time, 2U);
    EXPECT_STREQ(event->connectionData->inetAddr, "10.0.0.1");
    EXPECT_EQ(event->msgID, 3U);
    EXPECT_EQ(event->time, 4U);
    EXPECT_STREQ(event->bindDN, "cn=a");
    EXPECT_EQ(event->bindType, 6U);
    EXPECT_STREQ(event->authMechanism, "SIMPLE");
    EXPECT_EQ(event->resultCode, 49);
    EXPECT_STREQ(event->controlOID[0], "1.2.3");
    EXPECT_EQ(event->controlOID[1], nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(fields), LDAP_SUCCESS);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(decode(fields + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(AuthEvent, knows_its_controls_by_their_tag_alone)
{
    const std::string fields = connection + two + a + integer(6) + a + integer(49);
    for (const std::string &other : {referrals, sequence(sequence(octets("1.2.3")))}) {
        EXPECT_EQ(decode(fields + other), LDAP_SUCCESS);
        EXPECT_EQ(event->controlOID, nullptr);
        EXPECT_EQ(left, other.size());
    }
    EXPECT_EQ(decode(fields + element(0x80, "")), LDAP_SUCCESS);
    ASSERT_NE(event->controlOID, nullptr);
    EXPECT_EQ(event->controlOID[0], nullptr);
    EXPECT_EQ(decode(fields + element(0x80, bytes("30 05"))), LDAPX_DECODING_ERROR);
}

TEST_F(AuthEvent, may_be_anonymous_and_without_a_connection)
{
    EXPECT_EQ(decode(two + none + integer(0) + none + integer(0)), LDAP_SUCCESS);
    EXPECT_EQ(event->connectionData, nullptr);
    EXPECT_EQ(event->bindDN, nullptr);
    EXPECT_EQ(event->authMechanism, nullptr);
}

TEST_F(AuthEvent, whose_mechanism_is_missing_is_an_assertion_or_one_without)
{
    const std::string fields = connection + two + a + integer(6) + integer(49);
    if (asserting) {
        EXPECT_DEATH(decode(fields), "Assertion `expectedTag == tag' failed");
        return;
    }
    // Its failure is no failure of the event; what stands there is the next field.
    EXPECT_EQ(decode(fields), LDAP_SUCCESS);
    EXPECT_EQ(event->authMechanism, nullptr);
    EXPECT_EQ(event->resultCode, 49);
}

TEST_F(ConnectionEvent, is_a_connection_block_without_its_sequence)
{
    EXPECT_EQ(decode(integer(7) + integer(8) + octets("::1") + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->connection, 7U);
    EXPECT_EQ(event->time, 8U);
    EXPECT_STREQ(event->inetAddr, "::1");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(connection), LDAPX_DECODING_ERROR);
}

namespace {
const std::string search =
    connection + two + octets("cn=a") + octets("o=x") + integer(2) + octets("(cn=*)") + integer(32);
const std::string attrs = sequence(sequence(octets("cn")), sequence(octets("sn")));
} // namespace

TEST_F(SearchEvent, reads_its_result_before_its_lists)
{
    EXPECT_EQ(decode(search + attrs + controls + trailer), LDAP_SUCCESS);
    EXPECT_STREQ(event->bindDN, "cn=a");
    EXPECT_STREQ(event->base, "o=x");
    EXPECT_EQ(event->scope, 2U);
    EXPECT_STREQ(event->filter, "(cn=*)");
    EXPECT_EQ(event->resultCode, 32);
    EXPECT_STREQ(event->attrs[0], "cn");
    EXPECT_STREQ(event->attrs[1], "sn");
    EXPECT_EQ(event->attrs[2], nullptr);
    EXPECT_STREQ(event->controlOID[0], "1.2.3");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(SearchEvent, may_end_after_its_result_or_its_attributes)
{
    EXPECT_EQ(decode(search), LDAP_SUCCESS);
    EXPECT_EQ(event->attrs, nullptr);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(decode(search + attrs), LDAP_SUCCESS);
    EXPECT_NE(event->attrs, nullptr);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(decode(search + sequence() + trailer), LDAP_SUCCESS);
    ASSERT_NE(event->attrs, nullptr);
    EXPECT_EQ(event->attrs[0], nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(SearchEvent, takes_whatever_follows_its_result_for_its_attributes)
{
    EXPECT_EQ(decode(search + controls), LDAP_SUCCESS);
    ASSERT_NE(event->attrs, nullptr);
    EXPECT_STREQ(event->attrs[0], "1.2.3");
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(decode(search + trailer), LDAPX_DECODING_ERROR);
}

TEST_F(SearchEvent, with_a_filter_of_another_tag_is_an_assertion_or_cannot_be_decoded)
{
    const std::string wrong = connection + two + a + a + integer(2) + integer(1) + integer(32);
    if (asserting)
        EXPECT_DEATH(decode(wrong), "Assertion `expectedTag == tag' failed");
    else
        EXPECT_EQ(decode(wrong), LDAPX_DECODING_ERROR);
}

TEST_F(SearchEntryEvent, reads_its_result_before_its_attributes)
{
    EXPECT_EQ(
        decode(connection + two + octets("cn=e") + octets("person") + integer(0) + attrs + trailer),
        LDAP_SUCCESS);
    EXPECT_STREQ(event->entryDN, "cn=e");
    EXPECT_STREQ(event->className, "person");
    EXPECT_STREQ(event->attrs[1], "sn");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(connection + two + a + a + integer(0) + controls), LDAP_SUCCESS);
    EXPECT_STREQ(event->attrs[0], "1.2.3");
}

TEST_F(UpdateEvent, has_its_operation_from_the_stream)
{
    EXPECT_EQ(decode(connection + three + a + a + a + integer(0) + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->operation, 5U);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(connection + three + a + a + a + integer(0) + controls), LDAP_SUCCESS);
    EXPECT_STREQ(event->controlOID[0], "1.2.3");
}

TEST_F(RenameEvent, may_end_after_its_result)
{
    const std::string fields = connection + two + a + a + a + a + integer(0);
    EXPECT_EQ(decode(fields), LDAP_SUCCESS);
    EXPECT_EQ(event->controlOID, nullptr);
    EXPECT_EQ(decode(fields + controls + trailer), LDAP_SUCCESS);
    EXPECT_STREQ(event->controlOID[0], "1.2.3");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
}

TEST_F(ResponseEvent, knows_its_referrals_by_their_tag_alone)
{
    const std::string fields = connection + three + integer(10) + octets("o=x");
    EXPECT_EQ(decode(fields + referrals + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->operation, 5U);
    EXPECT_EQ(event->resultCode, 10);
    EXPECT_STREQ(event->matchedDN, "o=x");
    EXPECT_STREQ(event->referral[0], "ldap://h");
    EXPECT_EQ(describe_address(address.get()), trailer_text());

    EXPECT_EQ(decode(fields + controls), LDAP_SUCCESS);
    EXPECT_EQ(event->referral, nullptr);
    EXPECT_EQ(left, controls.size());
    EXPECT_EQ(decode(fields), LDAP_SUCCESS);
    EXPECT_EQ(event->referral, nullptr);
}

TEST_F(UnknownEvent, has_a_time_and_an_address_and_no_connection)
{
    EXPECT_EQ(decode(integer(9) + octets("::1") + trailer), LDAP_SUCCESS);
    EXPECT_EQ(event->time, 9U);
    EXPECT_STREQ(event->inetAddr, "::1");
    EXPECT_EQ(describe_address(address.get()), trailer_text());
    EXPECT_EQ(decode(integer(9) + none), LDAP_SUCCESS);
    EXPECT_EQ(event->inetAddr, nullptr);
}
