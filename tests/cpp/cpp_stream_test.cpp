// The event stream of the C++ layer: registration, waiting, the end in all its forms, moves.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "greirige.hpp"
#include "support/ber.h"
#include "support/peer.h"

using namespace greirige;
using namespace support;
using namespace std::chrono_literals;
using std::string;
using Clock = EventStream::Clock;

namespace {

string request_value(const string &count, const string &specifiers)
{
    return element(0x30, count + element(0x31, specifiers, 4), 4);
}

// An event whose type says which one it is.
string event_value(int type)
{
    return sequence(integer(type), integer(0),
                    element(EVT_TAG_UNKNOWN_OP, integer(1) + octets("10.0.0.1")));
}

// A registered stream; its request has been taken.
struct Registered {
    Peer peer;
    Session session{peer.ld()};
    EventStream stream = EventStream::open(session, {{.type = 1, .status = 2}}).value();
    int id = peer.take_request().id;

    void event(int type)
    {
        peer.respond_intermediate(LDAPX_EVENT_NOTIFICATION, event_value(type), id);
    }
    void end(const Response &response)
    {
        Response closing = response;
        closing.id = id;
        peer.respond(closing);
    }
    // The type of the next event, -1 for none.
    int next()
    {
        Result<std::optional<Event>> event = stream.next(5s);
        return event.value() ? (*event)->type() : -1;
    }
};

const string abandon = bytes("01"); // of the first request

} // namespace

TEST(Registration, sends_its_specifiers)
{
    Peer peer;
    const std::vector<EventSpecifier> events{{1, 2}, {-3, 4}};
    Result<EventStream> stream = EventStream::open(Session(peer.ld()), events);
    ASSERT_TRUE(stream);
    Request request = peer.take_request();
    EXPECT_EQ(request.name, LDAPX_MONITOR_EVENTS_REQUEST);
    EXPECT_EQ(hex(request.value.value_or("")),
              hex(request_value(integer(2), element(0x30, integer(1) + enumerated(2), 4) +
                                                element(0x30, integer(-3) + enumerated(4), 4))));

    Result<EventStream> filtered =
        EventStream::open_filtered(Session(peer.ld()), {{1, 2, "(cn=a)"}, {3, 4, ""}});
    ASSERT_TRUE(filtered);
    request = peer.take_request();
    EXPECT_EQ(request.name, LDAPX_MONITOR_EVENTS_FILTERED_REQUEST);
    EXPECT_EQ(hex(request.value.value_or("")),
              hex(request_value(integer(2),
                                element(0x30, integer(1) + enumerated(2) + octets("(cn=a)"), 4) +
                                    element(0x30, integer(3) + enumerated(4) + octets(""), 4))));
}

TEST(Registration, of_nothing_or_of_a_cut_filter_or_without_session_is_refused)
{
    Peer peer;
    const Session session(peer.ld());
    EXPECT_EQ(EventStream::open(session, std::vector<EventSpecifier>()).error().code,
              LDAPX_PARAM_ERROR);
    EXPECT_EQ(
        EventStream::open_filtered(session, std::vector<FilteredEventSpecifier>()).error().code,
        LDAPX_PARAM_ERROR);
    const Error cut = EventStream::open_filtered(session, {{1, 2, string("a\0b", 3)}}).error();
    EXPECT_EQ(cut.code, LDAPX_PARAM_ERROR);
    EXPECT_EQ(cut.where, "monitor_events_filtered: filter");
    EXPECT_EQ(EventStream::open(Session(nullptr), {{1, 2}}).error().code, LDAPX_PARAM_ERROR);
    EXPECT_EQ(EventStream::open_filtered(Session(nullptr), {{1, 2, ""}}).error().code,
              LDAPX_PARAM_ERROR);
    EXPECT_TRUE(peer.quiet());
}

TEST(Registration, on_a_closed_connection_fails)
{
    Peer peer;
    peer.close();
    EXPECT_EQ(EventStream::open(Session(peer.ld()), {{1, 2}}).error().code, LDAP_SERVER_DOWN);
}

TEST(Stream, gives_the_events_in_their_order)
{
    Registered monitor;
    for (int type = 1; type <= 20; ++type)
        monitor.event(type);
    for (int type = 1; type <= 20; ++type)
        EXPECT_EQ(monitor.next(), type);
    EXPECT_FALSE(monitor.stream.ended());
}

TEST(Stream, waits_until_the_deadline_and_no_longer)
{
    Registered monitor;
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(monitor.stream.next(30ms).value());
    EXPECT_GE(Clock::now() - start, 30ms);
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_FALSE(monitor.stream.ended());

    std::thread later([&] {
        std::this_thread::sleep_for(20ms);
        monitor.event(4);
    });
    EXPECT_EQ(monitor.next(), 4);
    later.join();
}

TEST(Stream, with_a_deadline_in_the_past_takes_what_is_there)
{
    Registered monitor;
    monitor.event(1);
    monitor.event(2);
    EXPECT_EQ(monitor.next(), 1);
    EXPECT_EQ(monitor.stream.next(Clock::time_point::min()).value()->type(), 2);
    EXPECT_FALSE(monitor.stream.next(Clock::time_point::min()).value());
    EXPECT_FALSE(monitor.stream.next(Clock::duration::min()).value());
}

TEST(Stream, waits_as_long_as_there_are_clocks)
{
    Registered monitor;
    std::thread later([&] {
        std::this_thread::sleep_for(20ms);
        monitor.event(1);
        monitor.event(2);
    });
    EXPECT_EQ(monitor.stream.next().value()->type(), 1);
    EXPECT_EQ(monitor.stream.next(Clock::duration::max()).value()->type(), 2);
    later.join();
}

TEST(Stream, comes_back_when_a_signal_interrupts_the_wait)
{
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {
    };
    sigaction(SIGUSR1, &ignore, nullptr); // without SA_RESTART
    Registered monitor;
    const pthread_t waiting = pthread_self();
    std::thread later([&] {
        std::this_thread::sleep_for(50ms);
        pthread_kill(waiting, SIGUSR1);
    });
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(monitor.stream.next(20s).value());
    EXPECT_LT(Clock::now() - start, 10s);
    later.join();
    EXPECT_FALSE(monitor.stream.ended());
    monitor.event(9);
    EXPECT_EQ(monitor.next(), 9);
}

TEST(Stream, goes_on_after_an_event_that_cannot_be_decoded)
{
    Registered monitor;
    monitor.event(1);
    monitor.peer.respond_intermediate(LDAPX_EVENT_NOTIFICATION, bytes("30 03 04 01 00"),
                                      monitor.id);
    monitor.peer.respond_intermediate("1.2.3", event_value(2), monitor.id);
    monitor.event(3);
    EXPECT_EQ(monitor.next(), 1);
    EXPECT_EQ(monitor.stream.next().error().code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(monitor.stream.next().error().code, LDAPX_DECODING_ERROR);
    EXPECT_FALSE(monitor.stream.ended());
    EXPECT_EQ(monitor.next(), 3);
}

TEST(Stream, tells_where_an_event_breaks_off)
{
    Registered monitor;
    const auto text = [&](const string &value) {
        monitor.peer.respond_intermediate(LDAPX_EVENT_NOTIFICATION, value, monitor.id);
        return monitor.stream.next(5s).error().text;
    };
    const auto unknown_operation = [](const string &data, const string &trailer = "") {
        return sequence(integer(7), integer(0), element(EVT_TAG_UNKNOWN_OP, data), trailer);
    };
    EXPECT_EQ(text(sequence(integer(7))), "the event's type, result or data cannot be decoded");
    EXPECT_EQ(text(unknown_operation(octets("too long"))),
              "event 7, unknown-operation, cannot be decoded: element 1 of its data is wrong or "
              "missing");
    EXPECT_EQ(text(unknown_operation(integer(1))),
              "event 7, unknown-operation, cannot be decoded: element 2 of its data is wrong or "
              "missing");
    EXPECT_EQ(text(unknown_operation(integer(1) + octets("x"), integer(1))),
              "event 7, unknown-operation, cannot be decoded: its address is wrong");
    EXPECT_FALSE(monitor.stream.ended());
}

TEST(Stream, tells_of_messages_of_another_kind_and_ends_with_the_last)
{
    Registered monitor;
    const auto message = [&](unsigned long tag, const string &content) {
        monitor.peer.send(sequence(integer(monitor.id), element(tag, content)));
        return monitor.stream.next(5s).error();
    };
    EXPECT_EQ(message(LDAP_RES_SEARCH_ENTRY, octets("o=x") + sequence()).code,
              LDAPX_DECODING_ERROR);
    monitor.event(1);
    EXPECT_EQ(monitor.next(), 1);
    EXPECT_EQ(message(LDAP_RES_BIND, enumerated(0) + octets("") + octets("")).text,
              "the message is no event");
    EXPECT_TRUE(monitor.stream.ended());
    EXPECT_FALSE(monitor.stream.end_of_stream());
}

TEST(Stream, is_iterated_until_it_ends)
{
    Registered monitor;
    monitor.event(1);
    monitor.peer.respond_intermediate("1.2.3", event_value(2), monitor.id);
    monitor.event(3);
    monitor.end({.name = LDAPX_MONITOR_EVENTS_RESPONSE});
    std::vector<int> types;
    std::vector<Event> kept;
    for (Result<Event> &event : monitor.stream.until_end()) {
        types.push_back(event ? event->type() : -1);
        if (event)
            kept.push_back(*std::move(event));
    }
    EXPECT_EQ(types, (std::vector{1, -1, 3}));
    EXPECT_EQ(kept[1].get_if<UnknownOperationEvent>()->address, "10.0.0.1");
    EXPECT_TRUE(monitor.stream.ended());
    for (const Result<Event> &event : monitor.stream.until_end())
        ADD_FAILURE() << event.has_value();
    static_assert(std::input_iterator<EventStream::Range::iterator>);
}

TEST(Stream, is_iterated_until_a_deadline)
{
    Registered monitor;
    monitor.event(1);
    monitor.event(2);
    int count = 0;
    for (const Result<Event> &event : monitor.stream.until(Clock::now() + 50ms))
        EXPECT_EQ(event.value().type(), ++count);
    EXPECT_EQ(count, 2);
    EXPECT_FALSE(monitor.stream.ended());
    monitor.event(3);
    EXPECT_EQ(monitor.next(), 3);
}

TEST(Stream, is_iterated_to_the_loss_of_its_connection)
{
    Registered monitor;
    monitor.event(1);
    monitor.peer.finish();
    std::vector<int> codes;
    for (const Result<Event> &event : monitor.stream.until_end())
        codes.push_back(event ? 0 : event.error().code);
    EXPECT_EQ(codes, (std::vector{0, LDAP_SERVER_DOWN}));
    EXPECT_TRUE(monitor.stream.ended());
    EXPECT_FALSE(monitor.stream.end_of_stream());
    EXPECT_FALSE(monitor.stream.next().value());
}

TEST(Stream, gives_what_came_whole_when_the_connection_ends_after_any_byte)
{
    const string event = intermediate_response(1, LDAPX_EVENT_NOTIFICATION, event_value(1));
    const string whole = event + event + extended_response(1, {});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Registered monitor;
        ASSERT_EQ(monitor.id, 1);
        monitor.peer.send(whole.substr(0, length));
        monitor.peer.finish();
        std::vector<int> codes;
        for (const Result<Event> &each : monitor.stream.until_end())
            codes.push_back(each ? 0 : each.error().code);
        std::vector<int> expected(std::min<std::size_t>(length / event.size(), 2), 0);
        expected.push_back(LDAP_SERVER_DOWN);
        EXPECT_EQ(codes, expected);
        EXPECT_FALSE(monitor.stream.end_of_stream());
    }
}

TEST(Stream, gives_what_came_whole_when_the_server_falls_silent_after_any_byte)
{
    const string event = intermediate_response(1, LDAPX_EVENT_NOTIFICATION, event_value(1));
    const string whole = event + event + extended_response(1, {});
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Registered monitor;
        monitor.peer.limit_waits(1ms);
        monitor.peer.send(whole.substr(0, length));
        for (std::size_t left = std::min<std::size_t>(length / event.size(), 2); left > 0; --left)
            EXPECT_EQ(monitor.next(), 1);
        EXPECT_FALSE(monitor.stream.next(1ms).value());
        EXPECT_FALSE(monitor.stream.ended());
    }
}

TEST(End, by_a_loss_that_another_call_has_found_is_the_same_loss)
{
    Registered monitor;
    monitor.peer.finish();
    EXPECT_EQ(monitor.session.refresh_server().error().code, LDAP_SERVER_DOWN);
    EXPECT_EQ(monitor.stream.next(5s).error().code, LDAP_SERVER_DOWN);
    EXPECT_TRUE(monitor.stream.ended());
}

TEST(End, of_a_stream_tells_the_verdict_and_what_was_rejected)
{
    Registered monitor;
    monitor.event(1);
    monitor.end({.name = LDAPX_MONITOR_EVENTS_RESPONSE,
                 .value = sequence(integer(2), set(sequence(integer(7), enumerated(8)),
                                                   sequence(integer(-9), enumerated(0)))),
                 .diagnostic = "bye"});
    EXPECT_EQ(monitor.next(), 1);
    EXPECT_FALSE(monitor.stream.end_of_stream());
    EXPECT_EQ(monitor.next(), -1);
    EXPECT_TRUE(monitor.stream.ended());
    EXPECT_EQ(monitor.stream.end_of_stream(), (StreamEnd{0, "bye", {{7, 8}, {-9, 0}}}));
    EXPECT_EQ(monitor.next(), -1);
}

TEST(End, by_a_refusal_is_an_error_and_still_tells_what_was_rejected)
{
    Registered monitor;
    monitor.end({.code = LDAP_UNWILLING_TO_PERFORM,
                 .name = LDAPX_MONITOR_EVENTS_RESPONSE,
                 .value = sequence(integer(1), set(sequence(integer(1), enumerated(2)))),
                 .diagnostic = "not that one",
                 .matched_dn = "o=x"});
    Result<std::optional<Event>> next = monitor.stream.next(5s);
    ASSERT_FALSE(next);
    EXPECT_EQ(next.error(), (Error{LDAP_UNWILLING_TO_PERFORM, "Server is unwilling to perform",
                                   "monitor_events", "not that one", "o=x"}));
    EXPECT_TRUE(monitor.stream.ended());
    EXPECT_EQ(monitor.stream.end_of_stream(),
              (StreamEnd{LDAP_UNWILLING_TO_PERFORM, "not that one", {{1, 2}}}));
}

TEST(End, without_a_list_is_an_end_all_the_same)
{
    for (const Response &response : std::vector<Response>{
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = ""},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(3))},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(octets("count"))},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE,
             .value = sequence(integer(3), sequence(integer(1)))},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(0), set())},
             {.value = sequence(integer(1), set(sequence(integer(1), enumerated(2))))}}) {
        Registered monitor;
        monitor.end(response);
        EXPECT_EQ(monitor.next(), -1) << hex(response.value.value_or(""));
        EXPECT_EQ(monitor.stream.end_of_stream(), StreamEnd());
    }
}

TEST(End, that_cannot_be_read_is_an_error)
{
    const string two = set(sequence(integer(1), enumerated(2)), sequence(integer(3)));
    for (const Response &response : std::vector<Response>{
             {.name = LDAPX_EVENT_NOTIFICATION},
             {.name = string(LDAPX_MONITOR_EVENTS_RESPONSE) + "0"},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(2), two)},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(-1), set())},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(1), set())},
             {.name = LDAPX_MONITOR_EVENTS_RESPONSE,
             .value = sequence(integer(2147483647), set(sequence()))}}) {
        Registered monitor;
        monitor.end(response);
        EXPECT_EQ(monitor.stream.next(5s).error().code, LDAPX_DECODING_ERROR)
            << hex(response.value.value_or(""));
        EXPECT_TRUE(monitor.stream.ended());
        EXPECT_FALSE(monitor.stream.end_of_stream());
    }
}

TEST(End, cut_at_any_byte_gives_no_rejected_event_that_was_not_sent)
{
    const string whole = sequence(
        integer(2), set(sequence(integer(7), enumerated(8)), sequence(integer(9), enumerated(0))));
    for (const string &cut : cuts(whole)) {
        Registered monitor;
        monitor.end({.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = cut});
        Result<std::optional<Event>> next = monitor.stream.next(5s);
        EXPECT_TRUE(!next || monitor.stream.end_of_stream()->rejected.empty()) << hex(cut);
    }
}

TEST(Cancelling, tells_the_server_and_drops_what_it_has_sent)
{
    Registered monitor;
    monitor.event(1);
    monitor.event(2);
    EXPECT_EQ(monitor.next(), 1);
    monitor.stream.cancel();
    EXPECT_TRUE(monitor.stream.ended());
    EXPECT_FALSE(monitor.stream.next().value());
    const Request request = monitor.peer.take_request();
    EXPECT_EQ(request.operation, LDAP_REQ_ABANDON);
    EXPECT_EQ(request.body, abandon);
    monitor.stream.cancel();
    EXPECT_TRUE(monitor.peer.quiet());
    // Nothing of the stream disturbs the session.
    monitor.event(3);
    monitor.peer.respond({.name = LDAPX_REFRESH_SERVER_RESPONSE, .id = monitor.id + 2});
    EXPECT_TRUE(monitor.session.refresh_server());
}

TEST(Streams, that_go_out_of_use_cancel_and_those_that_ended_do_not)
{
    Peer peer;
    {
        Result<EventStream> stream = EventStream::open(Session(peer.ld()), {{1, 2}});
        ASSERT_TRUE(stream);
        EXPECT_EQ(peer.take_request().id, 1);
    }
    EXPECT_EQ(peer.take_request().operation, LDAP_REQ_ABANDON);
    {
        Result<EventStream> stream = EventStream::open(Session(peer.ld()), {{1, 2}});
        ASSERT_TRUE(stream);
        const int id = peer.take_request().id;
        peer.respond({.name = LDAPX_MONITOR_EVENTS_RESPONSE, .id = id});
        EXPECT_FALSE(stream->next(5s).value());
    }
    EXPECT_TRUE(peer.quiet());
}

TEST(Streams, move_with_their_registration)
{
    Registered monitor;
    EventStream moved = std::move(monitor.stream);
    EXPECT_TRUE(monitor.stream.ended()); // NOLINT: must be harmless
    EXPECT_FALSE(monitor.stream.next(1s).value());
    monitor.event(1);
    EXPECT_EQ(moved.next(5s).value()->type(), 1);
    EXPECT_TRUE(monitor.peer.quiet());

    // Taking the place of another cancels that one.
    EventStream other = EventStream::open(monitor.session, {{3, 4}}).value();
    const int other_id = monitor.peer.take_request().id;
    other = std::move(moved);
    Request request = monitor.peer.take_request();
    EXPECT_EQ(request.operation, LDAP_REQ_ABANDON);
    EXPECT_EQ(request.body, string(1, static_cast<char>(other_id)));
    monitor.event(2);
    EXPECT_EQ(other.next(5s).value()->type(), 2);

    EventStream &itself = other;
    other = std::move(itself);
    EXPECT_TRUE(other.ended());
}

TEST(Streams, outlive_their_session)
{
    std::optional<EventStream> stream;
    {
        Registered monitor;
        monitor.event(1);
        stream = std::move(monitor.stream);
        EXPECT_EQ(stream->next(5s).value()->type(), 1);
    }
    EXPECT_EQ(stream->next(5s).error().code, LDAP_SERVER_DOWN);
    EXPECT_TRUE(stream->ended());

    std::optional<EventStream> unused;
    {
        Registered monitor;
        unused = std::move(monitor.stream);
    }
    unused.reset();
}

TEST(Streams, share_a_connection_with_each_other_and_the_session)
{
    Registered monitor;
    EventStream second = EventStream::open(monitor.session, {{3, 4}}).value();
    const int id = monitor.peer.take_request().id;
    monitor.peer.respond_intermediate(LDAPX_EVENT_NOTIFICATION, event_value(10), id);
    monitor.event(20);
    monitor.peer.respond({.name = LDAPX_REFRESH_SERVER_RESPONSE, .id = id + 1});
    EXPECT_TRUE(monitor.session.refresh_server());
    EXPECT_EQ(monitor.next(), 20);
    EXPECT_EQ(second.next(5s).value()->type(), 10);
}
