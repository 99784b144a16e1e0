// greirige watch --reconnect: what it does when a server goes away, and what it tells.

#include <csignal>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "support/events.h"
#include "watch.h"

using namespace support;
using namespace tool_test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

namespace {

const std::string registration = LDAPX_MONITOR_EVENTS_REQUEST;
const std::string search; // requests that have no name

std::string event(int number)
{
    return event_message(
        notification(number, 0, EVT_TAG_UNKNOWN_OP, integer(1) + octets("10.0.0.1")));
}

// The answer to the search by which the tool knows that it is registered again.
const std::string search_done = sequence(
    integer(registration_id + 1), element(0x65, concat(enumerated(0), octets(""), octets(""))));

std::size_t occurrences(const std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

std::size_t binds(const TcpPeer &peer)
{
    std::size_t count = 0;
    for (const Request &request : peer.requests())
        count += request.operation == bind_request ? 1 : 0;
    return count;
}

TEST(Reconnect, goes_on_and_tells_between_which_times_events_may_be_missing)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    const Finished finished = greirige(
        peer, {"-D", "cn=a", "-w", "secret", "watch", "--json", "--reconnect", "--count", "2"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 3U) << finished.out;
    EXPECT_EQ(shown[0]["eventType"], 1);
    const Json &gap = shown[1]["gap"];
    EXPECT_EQ(gap["from"], shown[0]["received"]);
    EXPECT_LT(gap["from"], gap["to"]);
    EXPECT_EQ(gap["to"], shown[1]["received"]);
    EXPECT_EQ(gap["reason"], "the watch on " + peer.uri() +
                                 " is broken: the server closed the connection (-1) (its log may "
                                 "say why)");
    EXPECT_EQ(shown[2]["eventType"], 2);
    EXPECT_GE(shown[2]["received"], gap["to"]);
    EXPECT_EQ(finished.err, "greirige: " + gap["reason"].get<std::string>() +
                                "; trying again in 1 second\ngreirige: watching again on " +
                                peer.uri() + '\n');
    EXPECT_EQ(binds(peer), 2U);
    std::vector<Request> bound;
    for (const Request &request : peer.requests())
        if (request.operation == bind_request)
            bound.push_back(request);
    EXPECT_EQ(hex(bound.at(0).body), hex(bound.at(1).body)) << "the same credentials";
}

TEST(Reconnect, tells_the_gap_in_text_too)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    const std::vector<std::string> shown =
        lines(greirige(peer, {"watch", "--reconnect", "--count", "2"}).out);
    ASSERT_EQ(shown.size(), 3U);
    const std::string from = shown[0].substr(0, shown[0].find(' '));
    const std::string to = shown[1].substr(0, shown[1].find(' '));
    EXPECT_TRUE(shown[1].starts_with(to + " gap from=\"" + from + "\" to=\"" + to +
                                     "\" reason=\"the watch on "))
        << shown[1];
}

TEST(Reconnect, waits_twice_as_long_after_each_attempt_that_fails)
{
    TcpPeer peer;
    peer.answer_raw(registration, "", TcpPeer::Then::close);
    peer.answer_raw(registration, "", TcpPeer::Then::close);
    peer.close_at(registration);
    peer.answer_raw(registration, event(1), TcpPeer::Then::close); // before the search is answered
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    const auto start = Clock::now();
    const Finished finished = greirige(peer, {"watch", "--json", "--reconnect", "--count", "2"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_GE(Clock::now() - start, 8s);
    const std::size_t first = finished.err.find("trying again in 1 second\n");
    const std::size_t second = finished.err.find("trying again in 2 seconds\n");
    const std::size_t third = finished.err.find("trying again in 4 seconds\n");
    ASSERT_NE(third, std::string::npos) << finished.err;
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
    EXPECT_NE(finished.err.find("trying again in 1 second\n", third), std::string::npos)
        << "after an event it begins anew: " << finished.err;
    EXPECT_EQ(peer.connections(), 5);
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 4U) << finished.out;
    EXPECT_TRUE(shown[0].contains("gap")) << "one gap for all attempts";
    EXPECT_EQ(shown[1]["eventType"], 1);
    EXPECT_TRUE(shown[2].contains("gap"));
    EXPECT_EQ(shown[3]["eventType"], 2);
}

TEST(Reconnect, asks_for_no_password_again)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    ProcessOptions options = isolated();
    options.terminal = true;
    Child tool(command(peer, {"-D", "cn=a", "-W", "watch", "--reconnect", "--count", "2"}),
               options);
    tool.wait_for("Enter LDAP Password: ");
    tool.type("open sesame\n");
    const Finished finished = tool.wait();
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(occurrences(finished.err, "Password"), 1U) << finished.err;
    std::size_t with_password = 0;
    for (const Request &request : peer.requests())
        if (request.operation == bind_request)
            with_password += request.body.find("open sesame") != std::string::npos ? 1 : 0;
    EXPECT_EQ(with_password, 2U);
}

TEST(Reconnect, gives_a_sasl_mechanism_the_answers_that_were_typed_at_first)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    ProcessOptions options = isolated();
    options.terminal = true;
    Child tool(command({"-H", peer.uri(), "-Y", "PLAIN", "-O", "none", "-I", "watch", "--reconnect",
                        "--count", "2"}),
               options);
    tool.wait_for("authorization name: ");
    tool.type("\n");
    tool.wait_for("authentication name: ");
    tool.type("anna\n");
    tool.wait_for("password: ");
    tool.type("open sesame\n");
    const Finished finished = tool.wait();
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(occurrences(finished.err, "enter your"), 3U) << finished.err;
    std::vector<std::string> bodies;
    for (const Request &request : peer.requests())
        if (request.operation == bind_request)
            bodies.push_back(hex(request.body));
    ASSERT_EQ(bodies.size(), 2U);
    EXPECT_EQ(bodies[0], bodies[1]);
    EXPECT_NE(bodies[0].find(hex(std::string("anna\0open sesame", 16))), std::string::npos);
}

TEST(Reconnect, needs_the_file_of_the_password_only_once)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    const Finished finished =
        run({"/bin/bash", "-c", "exec \"$0\" \"$@\" -y <(printf secret)", command({})[0], "-x",
             "-H", peer.uri(), "-D", "cn=a", "watch", "--reconnect", "--count", "2"},
            isolated());
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(binds(peer), 2U);
}

TEST(Reconnect, does_not_repeat_a_bind_that_is_refused)
{
    TcpPeer peer;
    peer.answer_bind_number(2, {.code = LDAP_INVALID_CREDENTIALS});
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    const Finished finished = greirige(
        peer, {"-D", "cn=a", "-w", "old", "watch", "--json", "--reconnect", "--count", "2"});
    EXPECT_EQ(finished.status, 3) << finished.err;
    EXPECT_NE(finished.err.find("cannot bind to "), std::string::npos) << finished.err;
    EXPECT_EQ(occurrences(finished.err, "trying again"), 1U) << finished.err;
    EXPECT_EQ(binds(peer), 2U);
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 2U);
    EXPECT_TRUE(shown[1].contains("gap")) << "what was missed until then is told";
}

TEST(Reconnect, tries_again_when_the_server_is_not_ready_to_bind)
{
    TcpPeer peer;
    peer.answer_bind_number(2, {.code = LDAP_BUSY});
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, event(2));
    peer.answer_raw(search, search_done);
    const Finished finished = greirige(peer, {"watch", "--reconnect", "--count", "2"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(occurrences(finished.err, "trying again in 2 seconds"), 1U) << finished.err;
}

TEST(Reconnect, registers_anew_when_the_server_has_dropped_the_watch)
{
    for (const int code : {LDAP_ADMINLIMIT_EXCEEDED, LDAP_UNAVAILABLE, LDAP_BUSY, LDAP_SUCCESS}) {
        TcpPeer peer;
        peer.answer_raw(registration, event(1) + closing({.code = code, .diagnostic = "dropped"}));
        peer.answer_raw(registration, event(2));
        peer.answer_raw(search, search_done);
        const Finished finished =
            greirige(peer, {"watch", "--json", "--reconnect", "--count", "2"});
        EXPECT_EQ(finished.status, 0) << finished.err;
        const std::vector<Json> shown = objects(finished.out);
        ASSERT_EQ(shown.size(), 3U) << code;
        EXPECT_NE(shown[1]["gap"]["reason"].get<std::string>().find("\"dropped\""),
                  std::string::npos)
            << shown[1];
    }
}

TEST(Reconnect, does_not_repeat_a_registration_that_is_refused)
{
    const std::string rejected = sequence(integer(1), set(sequence(integer(7), enumerated(0))));
    for (const Response &response :
         std::vector<Response>{{.code = LDAP_UNWILLING_TO_PERFORM, .value = rejected},
                               {.code = LDAP_INSUFFICIENT_ACCESS},
                               {.code = LDAP_PROTOCOL_ERROR},
                               {.code = LDAP_SUCCESS, .value = rejected}}) {
        TcpPeer peer;
        peer.answer_raw(registration, closing(response));
        const Finished finished = greirige(peer, {"watch", "7", "--reconnect"});
        EXPECT_EQ(finished.status, 1);
        EXPECT_EQ(occurrences(finished.err, "trying again"), 0U) << finished.err;
        EXPECT_EQ(finished.out, "");
    }
}

TEST(Reconnect, that_is_refused_tells_the_gap_and_why)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.answer_raw(registration, closing({.code = LDAP_INSUFFICIENT_ACCESS}));
    peer.answer_raw(search, search_done);
    const Finished finished = greirige(peer, {"watch", "--json", "--reconnect"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("Insufficient access (50)"), std::string::npos) << finished.err;
    const std::vector<Json> shown = objects(finished.out);
    ASSERT_EQ(shown.size(), 2U);
    EXPECT_LT(shown[1]["gap"]["from"], shown[1]["gap"]["to"]);
}

TEST(Reconnect, does_not_begin_where_there_was_no_connection)
{
    TcpPeer peer;
    peer.close_at_bind();
    const Finished finished = greirige(peer, {"watch", "--reconnect"});
    EXPECT_EQ(finished.status, 3);
    EXPECT_EQ(occurrences(finished.err, "trying again"), 0U) << finished.err;
    EXPECT_EQ(peer.connections(), 1);
}

TEST(Signal, during_a_delay_ends_the_watch_at_once_and_tells_the_gap)
{
    for (const int number : {SIGINT, SIGTERM}) {
        TcpPeer peer;
        peer.answer_raw(registration, event(1), TcpPeer::Then::close);
        for (int i = 0; i < 5; ++i)
            peer.close_at(registration);
        ProcessOptions options = isolated();
        options.terminal = true; // to see standard error as it comes
        Child tool(command(peer, {"watch", "--json", "--reconnect"}), options);
        tool.wait_for("trying again in 4 seconds");
        const auto start = Clock::now();
        tool.signal(number);
        const Finished finished = tool.wait();
        EXPECT_LT(Clock::now() - start, 2s);
        EXPECT_EQ(finished.status, 128 + number);
        const std::vector<Json> shown = objects(finished.out);
        ASSERT_EQ(shown.size(), 2U);
        EXPECT_LT(shown[1]["gap"]["from"], shown[1]["gap"]["to"]);
        EXPECT_EQ(occurrences(finished.err, "interrupted"), 0U) << finished.err;
    }
}

TEST(Timeout, during_a_delay_ends_the_watch_in_time)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    for (int i = 0; i < 5; ++i)
        peer.close_at(registration);
    const auto start = Clock::now();
    const Finished finished = greirige(peer, {"watch", "--json", "--reconnect", "--timeout", "4"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_GE(Clock::now() - start, 4s);
    EXPECT_LT(Clock::now() - start, 6500ms) << "the third delay alone would be too long";
    EXPECT_EQ(objects(finished.out).size(), 2U) << "the event and the gap";
}

TEST(Timeout, ends_an_attempt_to_come_back_to_a_server_that_says_nothing)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    peer.ignore_bind_number(2);
    peer.ignore_bind_number(3);
    const auto start = Clock::now();
    const Finished finished = greirige(peer, {"watch", "--reconnect", "--timeout", "3"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_GE(Clock::now() - start, 3s);
    EXPECT_LT(Clock::now() - start, 9s);
}

TEST(Pipe, that_is_closed_during_a_delay_ends_the_watch)
{
    TcpPeer peer;
    peer.answer_raw(registration, event(1), TcpPeer::Then::close);
    for (int i = 0; i < 10; ++i)
        peer.close_at(registration);
    const auto start = Clock::now();
    const Finished finished =
        run({"/bin/sh", "-c", "(\"$0\" \"$@\"; echo \"status $?\" >&2) | head -1", command({})[0],
             "-x", "-H", peer.uri(), "watch", "--reconnect"},
            isolated());
    EXPECT_TRUE(finished.err.ends_with("status 0\n")) << finished.err;
    EXPECT_LT(Clock::now() - start, 20s);
}

} // namespace
