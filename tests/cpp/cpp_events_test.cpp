// Events of the C++ layer: every kind whole, cut and altered, compared with the rules that the
// tests of the library go by; and what an event owns.

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "greirige.hpp"
#include "support/ber.h"
#include "support/event_session.h"
#include "support/events.h"

using greirige::Address;
using greirige::Bytes;
using greirige::DebugParameter;
using greirige::EventTag;
using greirige::Result;
using greirige::Session;
using std::string;
using namespace support;

namespace {

using CppEvent = greirige::Event;

// ---- A view as text, in the form of describe() ----------------------------------------------

string quoted(std::string_view bytes)
{
    string text = "'";
    for (char c : bytes)
        text += c >= ' ' && c <= '~' ? string(1, c) : "\\" + hex(std::string_view(&c, 1));
    return text + "'";
}

template <class Number>
requires std::integral<Number> string shown(Number value)
{
    return std::to_string(value);
}
string shown(std::string_view value)
{
    return quoted(value);
}
string shown(const greirige::Text &value)
{
    return value ? quoted(*value) : "NULL";
}
string shown(Bytes value)
{
    return value.empty() ? "NULL"
                         : quoted({reinterpret_cast<const char *>(value.data()), value.size()});
}
string shown(const greirige::TimeStamp &value)
{
    return shown(value.seconds) + "/" + shown(value.replica) + "/" + shown(value.event);
}
string shown(const Address &value)
{
    return shown(value.type) + " " + shown(value.data);
}
string shown(const greirige::Referral &value)
{
    return shown(value.type) + " " + shown(value.data);
}
string shown(const std::optional<greirige::Connection> &value)
{
    return value ? shown(value->connection) + " " + shown(value->time) + " " + shown(value->address)
                 : "NULL";
}
string shown(std::monostate)
{
    return "none";
}
template <class Value>
string shown(const std::vector<Value> &values);
template <class... Values>
string shown(const std::variant<Values...> &value)
{
    return std::visit([](const auto &held) { return shown(held); }, value);
}
string shown(const DebugParameter &value)
{
    return shown(value.type) + " " + shown(value.value);
}
template <class Range>
string shown_list(const Range &values)
{
    string text = "[";
    for (const auto &value : values)
        text += (text.size() > 1 ? ", " : "") + shown(value);
    return text + "]";
}
template <class Value>
string shown(const std::vector<Value> &values)
{
    return shown_list(values);
}
template <class Value, std::size_t Size>
string shown(const std::array<Value, Size> &values)
{
    return shown_list(values);
}

std::vector<string> lines_of(const CppEvent &event)
{
    std::vector<string> lines;
    std::visit(
        [&](const auto &view) {
            greirige::for_each_field(view, [&](std::string_view name, const auto &value) {
                lines.push_back(string(name) + ": " + shown(value));
            });
        },
        event.data());
    std::sort(lines.begin(), lines.end());
    return lines;
}

// ---- The C record's text in the layer's words -----------------------------------------------

// Names that are not simply the C member's in lower case with underscores.
string name_of(const string &member)
{
    static const std::map<string, string> names{{"connectionData", "connection"},
                                                {"msgID", "message_id"},
                                                {"perpetratorDN", "perpetrator_dn"},
                                                {"syntaxOID", "syntax_oid"},
                                                {"extensionOID", "extension_oid"},
                                                {"controlOID", "controls"},
                                                {"attrs", "attributes"},
                                                {"referral", "referrals"},
                                                {"dstime", "time"},
                                                {"dsTime", "time"},
                                                {"curProcess", "process"},
                                                {"intValues", "numbers"},
                                                {"strValues", "strings"},
                                                {"emuObjFlags", "emulated_flags"},
                                                {"proto", "protocol"},
                                                {"addrFamily", "address_family"},
                                                {"addr", "address"},
                                                {"inetAddr", "address"},
                                                {"pstkname", "stack_name"},
                                                {"logTime", "time"},
                                                {"messageDesc", "message"},
                                                {"statusDoc", "status_document"},
                                                {"formatString", "format"},
                                                {"authMechanism", "mechanism"},
                                                {"oldRDN", "old_rdn"},
                                                {"newRDN", "new_rdn"},
                                                {"passwordModifyType", "modify_type"}};
    if (const auto name = names.find(member); name != names.end())
        return name->second;
    string name;
    for (std::size_t i = 0; i < member.size(); ++i) {
        const bool upper = std::isupper(static_cast<unsigned char>(member[i])) != 0;
        if (upper && i > 0 && std::islower(static_cast<unsigned char>(member[i - 1])) != 0)
            name += '_';
        name += static_cast<char>(std::tolower(static_cast<unsigned char>(member[i])));
    }
    return name;
}

std::vector<string> expected_lines(const EventKind &kind, const support::Text &text)
{
    std::vector<string> lines;
    string config_type;
    for (const string &line : text) {
        const std::size_t colon = line.find(": ");
        const string member = line.substr(0, colon);
        string value = line.substr(colon + 2);
        if (kind.tag == EVT_TAG_CHANGE_CONFIG_PARAM && member == "type")
            config_type = value;
        if (member == "value" && config_type == "2")
            value = value == "0" ? "0" : "1"; // a boolean
        if (member == "paramCount")
            continue; // the list has it
        for (const char *list : {"controlOID", "attrs", "referral", "referrals", "parameters"})
            if (member == list && value == "NULL")
                value = "[]";
        if (member == "strValues") // the fourth is never used
            value.resize(value.rfind(", NULL]"));
        if (member == "strValues")
            value += "]";
        lines.push_back(name_of(member) + ": " + value);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

string address_text(const CppEvent &event)
{
    if (!event.address())
        return "none";
    const Address &address = *event.address();
    return shown(address.type) + " " + (address.data.empty() ? "''" : shown(address.data));
}

class EveryEvent : public testing::TestWithParam<EventKind> {
protected:
    const EventKind &kind = GetParam();
    EventSession session;

    Result<CppEvent> parse(std::string_view fields, std::string_view trailer = {})
    {
        const Message message = session.message(notification(7, 8, kind.tag, fields, trailer));
        return greirige::parse_event(Session(session.ld()), message.get());
    }

    // These bytes decode exactly when the rules say so, to what they say; and never end the
    // process, with assertions in the library or without.
    void check(std::string_view fields)
    {
        const Verdict expected = expected_verdict(kind, fields, true);
        const Result<CppEvent> event = parse(fields);
        ASSERT_EQ(event.has_value(), expected.code == 0 && expected.assertion.empty())
            << hex(fields);
        if (!event) {
            EXPECT_EQ(event.error().code, LDAPX_DECODING_ERROR) << hex(fields);
            return;
        }
        EXPECT_EQ(event->type(), 7);
        EXPECT_EQ(event->result(), 8);
        EXPECT_EQ(event->tag(), static_cast<EventTag>(kind.tag));
        EXPECT_EQ(lines_of(*event), expected_lines(kind, expected.text)) << hex(fields);
        EXPECT_EQ(address_text(*event), expected.trailer) << hex(fields);
    }
};

INSTANTIATE_TEST_SUITE_P(, EveryEvent, testing::ValuesIn(event_kinds()),
                         [](const auto &kind) { return kind.param.name; });

// An event whose views are long enough that a dangling one would show.
const string referral_event =
    concat(octets("cn=entry,o=x"), integer(3), octets("cn=value,o=x"),
           sequence(integer(2), sequence(sequence(integer(1), octets("a first address")),
                                         sequence(integer(2), octets("a second address")))));

CppEvent make_event(EventSession &session, ber_tag_t tag, std::string_view fields,
                    std::string_view trailer = {})
{
    const Message message = session.message(notification(1, 0, tag, fields, trailer));
    return greirige::parse_event(Session(session.ld()), message.get()).value();
}

} // namespace

TEST_P(EveryEvent, shows_every_field_under_its_own_name)
{
    const Sample full = full_event(kind);
    Result<CppEvent> event = parse(full.bytes, trailer_bytes());
    ASSERT_TRUE(event) << to_string(event.error());
    EXPECT_EQ(lines_of(*event), expected_lines(kind, full.text));
    EXPECT_EQ(address_text(*event), trailer_text());
}

TEST_P(EveryEvent, shows_nothing_where_nothing_came)
{
    check(least_event(kind).bytes);
    check(least_event(kind).bytes + trailer_bytes());
}

TEST_P(EveryEvent, shows_whatever_values_its_fields_have)
{
    std::mt19937 random(kind.tag);
    for (int i = 0; i < 100; ++i) {
        const Sample sample = any_event(kind, random);
        check(sample.bytes);
        check(sample.bytes + trailer_bytes());
    }
}

TEST_P(EveryEvent, cut_at_any_byte_is_refused_unless_it_is_whole)
{
    for (const string &cut : cuts(full_event(kind).bytes + trailer_bytes()))
        check(cut);
    for (const string &cut : cuts(least_event(kind).bytes))
        check(cut);
}

TEST_P(EveryEvent, with_any_byte_altered_is_refused_unless_it_decodes)
{
    const string whole = full_event(kind).bytes + trailer_bytes();
    for (std::size_t i = 0; i < whole.size(); ++i)
        for (const char byte : {'\x00', '\x02', '\x04', '\x05', '\x1a', '\x30', '\x7f', '\x80',
                                '\x85', '\x86', '\xa7', '\xff'}) {
            string altered = whole;
            altered[i] = byte;
            check(altered);
        }
}

TEST_P(EveryEvent, of_random_elements_is_refused_unless_it_decodes)
{
    std::mt19937 random(kind.tag);
    const auto pick = [&](std::size_t below) {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
    };
    for (int i = 0; i < 500; ++i) {
        // Whole elements swapped, dropped and doubled.
        std::vector<string> elements;
        const string bytes = any_event(kind, random).bytes + trailer_bytes();
        for (std::string_view rest = bytes; std::size_t size = whole_element(rest);
             rest.remove_prefix(size))
            elements.emplace_back(rest.substr(0, size));
        switch (pick(3)) {
        case 0:
            std::swap(elements[pick(elements.size())], elements[pick(elements.size())]);
            break;
        case 1:
            elements.erase(elements.begin() + static_cast<std::ptrdiff_t>(pick(elements.size())));
            break;
        default:
            elements.push_back(elements[pick(elements.size())]);
        }
        string all;
        for (const string &element : elements)
            all += element;
        check(all);
    }
}

TEST(Events, of_an_address_show_it_and_their_trailer)
{
    EventSession session;
    const CppEvent event =
        make_event(session, EVT_TAG_NET_ADDRESS,
                   integer(2147483648) + octets(string("\x7f\0\0\1", 4)), trailer_bytes());
    EXPECT_EQ(event.tag(), EventTag::net_address);
    ASSERT_NE(event.get_if<greirige::NetAddressEvent>(), nullptr);
    EXPECT_EQ(shown(event.get_if<greirige::NetAddressEvent>()->address),
              "2147483648 '\\7f\\00\\00\\01'");
    EXPECT_EQ(address_text(event), trailer_text());

    const CppEvent empty = make_event(session, EVT_TAG_NET_ADDRESS, integer(1) + octets(""));
    EXPECT_TRUE(empty.get_if<greirige::NetAddressEvent>()->address.data.empty());
    for (const string &fields : {string(), integer(1), integer(1) + integer(2), octets("x")}) {
        const Message message = session.message(notification(1, 0, EVT_TAG_NET_ADDRESS, fields));
        EXPECT_EQ(greirige::parse_event(Session(session.ld()), message.get()).error().code,
                  LDAPX_DECODING_ERROR)
            << hex(fields);
    }
}

TEST(Events, without_a_record_still_have_type_result_and_tag)
{
    EventSession session;
    for (const ber_tag_t tag : {0x64UL, 0x60UL, 0x6aUL, 0x6bUL, 0x6eUL, 0x7eUL, 0x30UL}) {
        const CppEvent event = make_event(session, tag, octets("whatever"));
        EXPECT_EQ(event.type(), 1);
        EXPECT_EQ(event.result(), 0);
        EXPECT_EQ(event.tag(), static_cast<EventTag>(tag));
        EXPECT_TRUE(std::holds_alternative<greirige::NoData>(event.data()));
        EXPECT_EQ(event.get_if<greirige::EntryEvent>(), nullptr);
        EXPECT_FALSE(event.address());
        EXPECT_TRUE(lines_of(event).empty());
    }
    // Data that is missing, or claims more than is there.
    for (const string &value :
         {sequence(integer(5), integer(6)), sequence(integer(5), integer(6), bytes("61 7f 04"))}) {
        const Message message = session.message(value);
        const Result<CppEvent> event = greirige::parse_event(Session(session.ld()), message.get());
        ASSERT_TRUE(event) << hex(value);
        EXPECT_EQ(event->type(), 5);
        EXPECT_EQ(event->tag(), EventTag::none);
    }
}

TEST(Events, are_refused_from_messages_that_are_none)
{
    EventSession session;
    const string good = notification(1, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("a"));
    std::vector<Message> messages;
    messages.push_back(session.message(good, std::nullopt));
    messages.push_back(session.message(good, string(LDAPX_EVENT_NOTIFICATION) + "0"));
    messages.push_back(session.message(std::nullopt));
    messages.push_back(session.message(""));
    messages.push_back(session.message(bytes("30 00")));
    messages.push_back(session.message(sequence(integer(1))));
    messages.push_back(session.message(sequence(integer(1), octets("too long"))));
    for (const Message &message : messages)
        EXPECT_EQ(greirige::parse_event(Session(session.ld()), message.get()).error().code,
                  LDAPX_DECODING_ERROR);
    EXPECT_EQ(greirige::parse_event(Session(session.ld()), nullptr).error().code,
              LDAPX_PARAM_ERROR);
    EXPECT_EQ(greirige::parse_event(Session(nullptr), messages[0].get()).error().code,
              LDAPX_PARAM_ERROR);
    // Another kind of message.
    session.peer.respond({.name = LDAPX_MONITOR_EVENTS_RESPONSE, .id = session.id});
    const Message end = session.peer.result(session.id);
    EXPECT_FALSE(greirige::parse_event(Session(session.ld()), end.get()));
}

TEST(Events, outlive_message_stream_and_session)
{
    std::optional<CppEvent> kept;
    {
        EventSession session;
        kept = make_event(session, EVT_TAG_SEV_INFO, referral_event, trailer_bytes());
    }
    const auto *view = kept->get_if<greirige::ServerToServerEvent>();
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->entry_dn, "cn=entry,o=x");
    EXPECT_EQ(shown(view->referrals), "[1 'a first address', 2 'a second address']");
    EXPECT_EQ(address_text(*kept), trailer_text());
}

TEST(Events, keep_what_they_show_when_they_move)
{
    EventSession session;
    CppEvent first = make_event(session, EVT_TAG_SEV_INFO, referral_event, trailer_bytes());
    const std::vector<string> lines = lines_of(first);

    CppEvent second = std::move(first);
    EXPECT_EQ(lines_of(second), lines);
    EXPECT_EQ(address_text(second), trailer_text());
    EXPECT_TRUE(std::holds_alternative<greirige::NoData>(first.data())); // NOLINT
    EXPECT_FALSE(first.address());                                       // NOLINT

    CppEvent third = make_event(session, EVT_TAG_UNKNOWN_OP, integer(1) + octets("10.0.0.1"));
    third = std::move(second);
    EXPECT_EQ(lines_of(third), lines);
    EXPECT_EQ(third.tag(), EventTag::server_to_server);
    EXPECT_TRUE(std::holds_alternative<greirige::NoData>(second.data())); // NOLINT
    second = std::move(third);
    third = make_event(session, EVT_TAG_CONNECTION, integer(1) + integer(2) + octets("a"));
    EXPECT_EQ(lines_of(second), lines);

    CppEvent &itself = second;
    second = std::move(itself);
    static_cast<void>(lines_of(second)); // whatever it shows, it is still there
}

TEST(Events, move_and_go_in_any_order)
{
    EventSession session;
    std::vector<CppEvent> events;
    std::vector<std::vector<string>> lines;
    for (const EventKind &kind : event_kinds()) {
        events.push_back(make_event(session, kind.tag, full_event(kind).bytes, trailer_bytes()));
        lines.push_back(expected_lines(kind, full_event(kind).text));
    }
    std::mt19937 random(1);
    for (int i = 0; i < 500 && events.size() > 2; ++i) {
        const std::size_t a = random() % events.size(), b = random() % events.size();
        std::swap(events[a], events[b]);
        std::swap(lines[a], lines[b]);
        if (i % 25 == 24) { // the last takes the place of another, which goes
            events[a] = std::move(events.back());
            lines[a] = lines.back();
            events.pop_back();
            lines.pop_back();
        }
        for (std::size_t each = 0; each < events.size(); ++each)
            ASSERT_EQ(lines_of(events[each]), lines[each]);
    }
}

TEST(EventTags, have_names)
{
    using greirige::to_string;
    static_assert(to_string(EventTag::search_entry) == "search-entry");
    EXPECT_EQ(to_string(EventTag::none), "none");
    EXPECT_EQ(to_string(static_cast<EventTag>(0x6a)), "unknown");
    std::vector<std::string_view> names;
    for (ber_tag_t tag = EVT_TAG_ENTRY_INFO; tag <= EVT_TAG_UNKNOWN_OP; ++tag)
        if (tag != 0x6a && tag != 0x6b && tag != 0x6e)
            names.push_back(to_string(static_cast<EventTag>(tag)));
    EXPECT_EQ(std::count(names.begin(), names.end(), "unknown"), 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}
