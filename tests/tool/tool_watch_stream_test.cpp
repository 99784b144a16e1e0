// greirige watch against a scripted server: what it asks, what it makes of nonsense, how a watch
// ends.

#include <csignal>
#include <regex>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "support/events.h"
#include "watch.h"

using namespace support;
using namespace tool_test;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;

namespace {

const std::string registration = LDAPX_MONITOR_EVENTS_REQUEST;

// An event of type number, of the kind with the fewest fields.
std::string event(int number)
{
    return event_message(
        notification(number, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("10.0.0.1")));
}

std::string specifiers(const std::string &count, const std::string &list)
{
    return element(0x30, count + element(0x31, list, 4), 4);
}

std::string specifier(int type, int status, const std::string &filter = {})
{
    return element(0x30, integer(type) + enumerated(status) + filter, 4);
}

// The tool against a server that sends this and then nothing more.
Finished watch(const std::string &stream, const Arguments &arguments)
{
    TcpPeer peer;
    peer.answer_raw(registration, stream);
    Arguments all{"watch"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return greirige(peer, all);
}

// ---- What is asked ------------------------------------------------------------------------------

TEST(Asked, is_for_the_types_and_statuses_given)
{
    TcpPeer peer;
    peer.answer_raw(registration, closing({}));
    EXPECT_EQ(greirige(peer, {"watch", "1", "100:2", "3:-4"}).status, 0);
    const Request request = peer.request(registration);
    EXPECT_EQ(hex(request.value.value_or("")),
              hex(specifiers(integer(3), specifier(1, 0) + specifier(100, 2) + specifier(3, -4))));
}

TEST(Asked, is_for_type_0_without_any)
{
    TcpPeer peer;
    peer.answer_raw(registration, closing({}));
    EXPECT_EQ(greirige(peer, {"watch"}).status, 0);
    EXPECT_EQ(hex(peer.request(registration).value.value_or("")),
              hex(specifiers(integer(1), specifier(0, 0))));
}

TEST(Asked, with_a_filter_goes_with_every_type)
{
    TcpPeer peer;
    peer.answer_raw(LDAPX_MONITOR_EVENTS_FILTERED_REQUEST, closing({}));
    EXPECT_EQ(greirige(peer, {"watch", "1", "2:1", "--filter", "(cn=ä)"}).status, 0);
    EXPECT_EQ(hex(peer.request(LDAPX_MONITOR_EVENTS_FILTERED_REQUEST).value.value_or("")),
              hex(specifiers(integer(2), specifier(1, 0, octets("(cn=ä)")) +
                                             specifier(2, 1, octets("(cn=ä)")))));
}

TEST(Asked, with_an_empty_filter_is_filtered_all_the_same)
{
    TcpPeer peer;
    peer.answer_raw(LDAPX_MONITOR_EVENTS_FILTERED_REQUEST, closing({}));
    EXPECT_EQ(greirige(peer, {"watch", "--filter", ""}).status, 0);
}

// ---- What comes ---------------------------------------------------------------------------------

TEST(Line, tells_when_the_event_was_received_in_utc)
{
    const auto before = std::chrono::system_clock::now();
    const Finished finished = watch(event(1) + closing({}), {"--json"});
    const auto after = std::chrono::system_clock::now();
    const std::string received = objects(finished.out).at(0)["received"];
    ASSERT_TRUE(std::regex_match(received, std::regex(time_pattern))) << received;
    std::tm parts{};
    ASSERT_NE(strptime(received.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr);
    const auto time = std::chrono::system_clock::from_time_t(timegm(&parts)) +
                      std::chrono::microseconds(std::stoi(received.substr(20, 6)));
    EXPECT_LE(before - 1us, time);
    EXPECT_LE(time, after);
}

TEST(Line, of_an_unknown_kind_has_its_tag_and_no_data)
{
    const std::string unknown = notification(7, 5, 0x6a, octets("x"));
    const std::string strange = sequence(integer(8), integer(0), bytes("7f 2a 01 00"));
    const std::string without = sequence(integer(9), integer(0));
    const std::string stream = event_message(unknown) + event_message(strange) +
                               event_message(without) +
                               event_message(notification(10, 0, EVT_TAG_SKULK, "")) + closing({});
    const std::vector<Json> shown = objects(watch(stream, {"--json"}).out);
    ASSERT_EQ(shown.size(), 4U);
    const std::vector<std::vector<Json>> expected{{7, 5, "unknown", "0x6a"},
                                                  {8, 0, "unknown", "0x7f2a"},
                                                  {9, 0, "none", nullptr},
                                                  {10, 0, "skulk", "0x64"}};
    for (std::size_t i = 0; i < shown.size(); ++i) {
        EXPECT_EQ(shown[i]["eventType"], expected[i][0]);
        EXPECT_EQ(shown[i]["eventResult"], expected[i][1]);
        EXPECT_EQ(shown[i]["kind"], expected[i][2]);
        EXPECT_EQ(shown[i]["tag"], expected[i][3]);
        EXPECT_EQ(shown[i]["eventData"], nullptr);
        EXPECT_EQ(shown[i]["address"], nullptr);
    }
    const std::vector<std::string> text = lines(watch(stream, {}).out);
    ASSERT_EQ(text.size(), 4U);
    EXPECT_TRUE(text[0].ends_with("Z unknown eventType=7 eventResult=5 tag=\"0x6a\"")) << text[0];
    EXPECT_TRUE(text[1].ends_with("Z unknown eventType=8 eventResult=0 tag=\"0x7f2a\"")) << text[1];
    EXPECT_TRUE(text[2].ends_with("Z none eventType=9 eventResult=0")) << text[2];
    EXPECT_TRUE(text[3].ends_with("Z skulk eventType=10 eventResult=0")) << text[3];
}

Json address_object(const std::string &data)
{
    const std::string value =
        sequence(integer(1), integer(0), element(EVT_TAG_NET_ADDRESS, integer(9) + octets(data)));
    return objects(watch(event_message(value) + closing({}), {"--json"}).out).at(0)["eventData"];
}

TEST(Address, is_readable_where_it_can_be_read)
{
    const auto text = [](const std::string &data) {
        return address_object(data)["data"]["text"];
    };
    EXPECT_EQ(text(bytes("c0 00 02 07")), "192.0.2.7");
    EXPECT_EQ(text(bytes("20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01")), "2001:db8::1");
    EXPECT_EQ(text("192.0.2.255:6360"), "192.0.2.255:6360") << "16 bytes, but written";
    EXPECT_EQ(text("tcp:ldap.example.com:389"), "tcp:ldap.example.com:389");
    EXPECT_EQ(address_object(bytes("02 85 c0 00 02 07")),
              Json::parse(R"({"type":9,"length":6,"data":{"base64":"AoXAAAIH"}})"));
    EXPECT_EQ(address_object(""), Json::parse(R"({"type":9,"length":0,"data":null})"));
}

TEST(Line, shows_what_is_no_text_and_lets_nobody_draw_on_the_terminal)
{
    // A line feed, an escape sequence, a quote, a backslash, a direction override; then no UTF-8.
    const std::string odd = "a\n\x1b[2J\"\\ \xe2\x80\xae \xc3\xa4";
    const std::string stream =
        event_message(notification(1, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets(odd))) +
        event_message(notification(1, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("\xff\xfe"))) +
        closing({});
    const Finished finished = watch(stream, {"--json"});
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 2U);
    EXPECT_EQ(shown[0]["eventData"]["inetAddr"], odd);
    EXPECT_EQ(shown[1]["eventData"]["inetAddr"], Json::parse(R"({"base64":"//4="})"));
    const std::string text = watch(stream, {}).out;
    const std::vector<std::string> all = lines(text);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_TRUE(all[0].ends_with(" inetAddr=\"a\\0A\\1B[2J\\22\\ \\E2\\80\\AE \xc3\xa4\""))
        << all[0];
    EXPECT_TRUE(all[1].ends_with(" inetAddr=\"base64://4=\"")) << all[1];
    for (const std::string &output : {text, finished.out})
        EXPECT_EQ(output.find_first_of("\x1b\r"), std::string::npos);
    EXPECT_EQ(finished.out.find("\xe2\x80\xae"), std::string::npos);
}

TEST(Line, is_there_before_the_next_event_comes)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1) + event(2));
    Child tool(command(peer, {"watch", "--json"}), isolated());
    EXPECT_EQ(Json::parse(tool.read_line())["eventType"], 1);
    EXPECT_EQ(Json::parse(tool.read_line())["eventType"], 2);
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait().status, 128 + SIGTERM);
}

// ---- Nonsense -----------------------------------------------------------------------------------

struct Nonsense {
    std::string name;
    std::string message;
    std::string told; // in its place
};

const std::string good = notification(1, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("x"));

const Nonsense nonsense[] = {
    {"no_name", intermediate_response(registration_id, std::nullopt, good),
     "the message is no event"},
    {"another_name", intermediate_response(registration_id, "1.2.3", good),
     "the message is no event"},
    {"no_value", intermediate_response(registration_id, LDAPX_EVENT_NOTIFICATION, std::nullopt),
     "the message is no event"},
    {"empty_value", event_message(""), "the event's type, result or data cannot be decoded"},
    {"no_sequence", event_message(octets("event")),
     "the event's type, result or data cannot be decoded"},
    {"long_type", event_message(sequence(integer(1LL << 40), integer(0))),
     "the event's type, result or data cannot be decoded"},
    {"no_data", event_message(notification(3, 0, EVT_TAG_SEARCH, "")),
     "event 3, search, cannot be decoded: element 2 of its data is wrong or missing"},
    {"wrong_tag", event_message(notification(3, 0, EVT_TAG_UNKNOWN_OP, integer(1) + integer(2))),
     "event 3, unknown-operation, cannot be decoded: element 2 of its data is wrong or missing"},
    {"wrong_trailer",
     event_message(
         notification(3, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("x"), integer(1) + null())),
     "event 3, unknown-operation, cannot be decoded: its address is wrong"},
    {"referrals_lie",
     event_message(notification(3, 0, EVT_TAG_SEV_INFO,
                                octets("a") + integer(1) + octets("b") +
                                    sequence(integer(2147483647), sequence()))),
     "event 3, server-to-server, cannot be decoded: element 4 of its data is wrong or missing"},
    {"search_entry", sequence(integer(registration_id), element(0x64, octets("o=x") + sequence())),
     "the message is no event"},
    {"search_reference", sequence(integer(registration_id), element(0x73, octets("ldap://x/"))),
     "the message is no event"},
};

class Stream : public testing::TestWithParam<Nonsense> {};

TEST_P(Stream, goes_on_after_nonsense_that_is_told)
{
    const Nonsense &odd = GetParam();
    const std::string stream = event(1) + odd.message + event(2) + closing({});
    const Finished finished = watch(stream, {"--json"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 3U) << finished.out << finished.err;
    EXPECT_EQ(shown[0]["eventType"], 1);
    EXPECT_EQ(shown[1]["error"]["message"], odd.told);
    EXPECT_EQ(shown[1]["error"]["code"], LDAPX_DECODING_ERROR);
    EXPECT_TRUE(
        std::regex_match(shown[1]["received"].get<std::string>(), std::regex(time_pattern)));
    EXPECT_EQ(shown[2]["eventType"], 2);

    const std::vector<std::string> text = lines(watch(stream, {}).out);
    ASSERT_EQ(text.size(), 3U);
    EXPECT_TRUE(text[1].ends_with("Z error code=84 message=\"" + odd.told + '"')) << text[1];
}

struct NonsenseName {
    template <class Info>
    std::string operator()(const Info &odd) const
    {
        return odd.param.name;
    }
};

INSTANTIATE_TEST_SUITE_P(Each, Stream, testing::ValuesIn(nonsense), NonsenseName());

TEST(Nonsense, of_an_event_cut_at_any_byte_is_an_error_or_an_event)
{
    for (const EventKind &kind : event_kinds()) {
        std::string stream;
        std::size_t count = 0;
        for (const std::string &cut : cuts(full_event(kind).bytes)) {
            stream += event_message(notification(1, 0, kind.tag, cut));
            ++count;
        }
        const Finished finished = watch(stream + closing({}), {"--json"});
        EXPECT_EQ(finished.status, 0) << kind.name << finished.err;
        std::size_t errors = 0;
        const std::vector<Json> shown = objects(finished.out);
        for (const Json &object : shown)
            errors += object.contains("error") ? 1 : 0;
        EXPECT_EQ(shown.size(), count) << kind.name;
        EXPECT_GT(errors, count / 4) << kind.name;
    }
}

TEST(Nonsense, of_each_wrong_tag_in_an_event_does_not_stop_the_tool)
{
    std::string stream;
    std::size_t count = 0;
    for (const EventKind &kind : event_kinds()) {
        const std::string whole = full_event(kind).bytes;
        for (std::size_t at = 0; at < whole.size(); ++at) {
            std::string odd = whole;
            odd[at] = static_cast<char>(0xbf);
            stream += event_message(notification(1, 0, kind.tag, odd));
            ++count;
        }
    }
    const Finished finished = watch(stream + closing({}), {"--json"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(objects(finished.out).size(), count);
}

TEST(Nonsense, that_is_no_ldap_message_breaks_the_watch)
{
    const Finished finished = watch(event(1) + bytes("30 05 04 03 61 62 63") + event(2), {});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(lines(finished.out).size(), 1U);
    EXPECT_TRUE(finished.err.starts_with("greirige: the watch on ldap://127.0.0.1:"))
        << finished.err;
    EXPECT_NE(finished.err.find(" is broken: "), std::string::npos) << finished.err;
}

TEST(Nonsense, of_answers_that_nobody_asked_for_is_passed_over)
{
    const Finished finished =
        watch(extended_response(77, {}) + event(1) + event_message(good, 78) + closing({}), {});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(lines(finished.out).size(), 1U);
}

// ---- The end ------------------------------------------------------------------------------------

TEST(End, by_the_server_without_complaint_is_no_failure)
{
    const Finished finished = watch(event(1) + closing({.diagnostic = "good night"}), {});
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(lines(finished.out).size(), 1U);
    EXPECT_TRUE(std::regex_match(
        finished.err, std::regex("greirige: the server ldap://127.0.0.1:\\d+ has ended the watch: "
                                 "it says \"good night\"\n")))
        << finished.err;
}

TEST(End, with_rejected_events_names_them_and_is_a_failure)
{
    const std::string rejected = sequence(integer(2), set(sequence(integer(9999), enumerated(0)),
                                                          sequence(integer(3), enumerated(7))));
    for (const int code : {LDAP_UNWILLING_TO_PERFORM, LDAP_SUCCESS}) {
        const Finished finished =
            watch(closing({.code = code, .value = rejected, .diagnostic = "no such type"}),
                  {"9999", "3:7", "1"});
        EXPECT_EQ(finished.status, 1);
        EXPECT_EQ(finished.out, "");
        EXPECT_NE(finished.err.find("; it rejects the events 9999, 3:7\n"), std::string::npos)
            << finished.err;
        EXPECT_NE(finished.err.find("says \"no such type\""), std::string::npos) << finished.err;
    }
    const Finished refused =
        watch(closing({.code = LDAP_INSUFFICIENT_ACCESS, .diagnostic = "bind first"}), {"1"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(std::regex_match(
        refused.err,
        std::regex("greirige: cannot watch events of type 1 on ldap://127.0.0.1:\\d+: Insufficient "
                   "access \\(50\\), the server says \"bind first\" \\(-x -D DN -W binds as "
                   "somebody who may\\)\n")))
        << refused.err;
}

TEST(End, after_events_is_told_as_one)
{
    const Finished finished =
        watch(event(1) + closing({.code = LDAP_ADMINLIMIT_EXCEEDED, .diagnostic = "too slow"}), {});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find(" has ended the watch: Administrative limit exceeded (11), the "
                                "server says \"too slow\""),
              std::string::npos)
        << finished.err;
}

TEST(End, in_a_response_that_cannot_be_read_is_a_failure)
{
    const Finished finished =
        watch(closing({.value = sequence(integer(2), set(sequence(integer(1))))}), {});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("the list of rejected events cannot be decoded"), std::string::npos)
        << finished.err;
}

TEST(End, by_the_result_of_another_operation_is_a_failure)
{
    const Finished finished =
        watch(event(1) + sequence(integer(registration_id),
                                  element(0x61, enumerated(0) + octets("") + octets(""))),
              {});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(lines(finished.out).size(), 1U);
    EXPECT_NE(finished.err.find(" is broken: the server's answer cannot be read (84): the message "
                                "is no event\n"),
              std::string::npos)
        << finished.err;
}

TEST(End, of_the_connection_is_a_failure)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    const Finished finished = greirige(peer, {"watch"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(lines(finished.out).size(), 1U);
    EXPECT_EQ(finished.err, "greirige: the watch on " + peer.uri() +
                                " is broken: the server closed the connection (-1) (its log may "
                                "say why)\n");
}

TEST(End, by_a_notice_of_disconnection_tells_its_code)
{
    TcpPeer peer;
    peer.answer_raw(registration,
                    event(1) + extended_response(0, {.code = LDAP_UNAVAILABLE,
                                                     .name = LDAP_NOTICE_OF_DISCONNECTION,
                                                     .diagnostic = "maintenance"}),
                    TcpPeer::Then::close);
    const Finished finished = greirige(peer, {"watch"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.err, "greirige: the watch on " + peer.uri() +
                                " is broken: Server is unavailable (52) (try again later)\n");
}

TEST(Events, by_the_thousand_leak_nothing)
{
    // Where the tool is built with a leak checker, it would complain at the end.
    std::string block;
    for (const EventKind &kind : event_kinds()) {
        block +=
            event_message(notification(1, 0, kind.tag, full_event(kind).bytes, trailer_bytes()));
        block += event_message(notification(1, 0, kind.tag, least_event(kind).bytes));
        block += event_message(notification(1, 0, kind.tag, full_event(kind).bytes.substr(0, 40)));
    }
    TcpPeer peer;
    peer.answer_repeated(registration, block, 100);
    const Finished finished = greirige(peer, {"watch", "--json", "--count", "4000"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "");
}

TEST(Count, ends_the_watch_and_tells_the_server)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1) + event_message("") + event(2) + event(3));
    const Finished finished = greirige(peer, {"watch", "--count", "2"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(lines(finished.out).size(), 3U) << "two events and an error: " << finished.out;
    wait_for_requests(peer, 4);
    constexpr unsigned char abandon_request = 0x50;
    EXPECT_EQ(peer.requests()[2].operation, abandon_request);
    EXPECT_EQ(peer.requests()[3].operation, unbind_request);
}

TEST(Timeout, ends_the_watch_with_success)
{
    const auto start = std::chrono::steady_clock::now();
    const Finished finished = watch(event(1), {"--timeout", "1.5"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(lines(finished.out).size(), 1U);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1500ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST(Timeout, before_as_many_events_as_asked_for_have_come_is_told)
{
    const Finished some = watch(event(1) + event(2), {"--timeout", "0.3", "--count", "5"});
    EXPECT_EQ(some.status, 4);
    EXPECT_EQ(some.err, "greirige: 2 of 5 events came\n");
    const Finished none = watch("", {"--timeout", "0.3", "--count", "1"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "greirige: 0 of 1 event came\n");
    const Finished ended = watch(event(1) + closing({}), {"--count", "3"});
    EXPECT_EQ(ended.status, 4);
    EXPECT_NE(ended.err.find("greirige: 1 of 3 events came\n"), std::string::npos) << ended.err;
}

TEST(Signal, ends_the_watch_at_once_and_without_a_word)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        TcpPeer peer;
        peer.answer_raw(registration, event(1));
        Child tool(command(peer, {"watch"}), isolated());
        tool.read_line();
        const auto start = std::chrono::steady_clock::now();
        tool.signal(number);
        const Finished finished = tool.wait();
        EXPECT_EQ(finished.status, 128 + number);
        EXPECT_EQ(finished.err, "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
        wait_for_requests(peer, 4);
        EXPECT_EQ(peer.requests()[3].operation, unbind_request) << "the server is told";
    }
}

TEST(Pipe, that_is_closed_ends_the_watch_quietly)
{
    for (const std::string last : {"", "more"}) { // told by a write, or noticed while idle
        TcpPeer peer;
        std::string stream = event(1);
        for (int i = 0; last == "more" && i < 10000; ++i)
            stream += event(2);
        peer.answer_raw(registration, stream);
        const Finished finished =
            run({"/bin/sh", "-c", "(\"$0\" \"$@\"; echo \"status $?\" >&2) | head -1",
                 command({})[0], "-x", "-H", peer.uri(), "watch"},
                isolated());
        EXPECT_EQ(lines(finished.out).size(), 1U);
        EXPECT_EQ(finished.err, "status 0\n");
    }
}

TEST(Output, that_cannot_be_written_is_a_failure)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1));
    const Finished finished = run({"/bin/sh", "-c", "exec \"$0\" \"$@\" >/dev/full", command({})[0],
                                   "-x", "-H", peer.uri(), "watch"},
                                  isolated());
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.err, "greirige: cannot write the output: No space left on device\n");
}

} // namespace
