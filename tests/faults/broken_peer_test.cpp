// The connection breaks: it is closed, reset or silent before the response and after each byte of
// it. Every operation gives a code within the session's time limit, and the caller holds nothing.
// The exchanges of several messages, events and bulk update, break in the same ways at every byte.

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/loopback.h"
#include "support/peer.h"

#include "ldap_events.h"

using namespace support;
using namespace std::chrono_literals;

namespace {

// A server on loopback that takes one connection, answers each request with the next of its
// answers, and resets the connection when it has said so many bytes.
class ResettingServer {
public:
    ResettingServer(std::vector<std::string> answers, std::size_t says)
    {
        const std::string uri = "ldap://127.0.0.1:" + std::to_string(port_of(listener_));
        const int version = LDAP_VERSION3;
        if (ldap_initialize(&ld_, uri.c_str()) != LDAP_SUCCESS ||
            ldap_set_option(ld_, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS)
            throw std::runtime_error("no session with a server on loopback");
        thread_ = std::thread([this, answers = std::move(answers), says] { serve(answers, says); });
    }
    ~ResettingServer()
    {
        ldap_unbind_ext_s(ld_, nullptr, nullptr);
        thread_.join();
    }
    ResettingServer(const ResettingServer &) = delete;
    ResettingServer &operator=(const ResettingServer &) = delete;

    LDAP *ld() const
    {
        return ld_;
    }

private:
    void serve(const std::vector<std::string> &answers, std::size_t left) const
    {
        const Socket client(accept(listener_.get(), nullptr, nullptr));
        for (const std::string &answer : answers) {
            char request[4096]; // it is small, and written at once
            static_cast<void>(recv(client.get(), request, sizeof request, 0));
            const std::size_t length = std::min(left, answer.size());
            static_cast<void>(::send(client.get(), answer.data(), length, MSG_NOSIGNAL));
            left -= length;
            if (length < answer.size())
                break;
        }
        const linger at_once{1, 0};
        setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }

    Socket listener_ = listening_socket();
    LDAP *ld_ = nullptr;
    std::thread thread_;
};

// The two operations that are not in the table of the administrative ones.
int back_up(LDAP *ld, Outputs &)
{
    char *state = nullptr, *data = nullptr, *chunks = nullptr;
    int size = 0;
    const int code = ldap_backup_object(ld, "o=x", "secret", &state, &data, &chunks, &size);
    for (char *block : {state, data, chunks})
        ldapx_memfree(block);
    return code;
}
int restore(LDAP *ld, Outputs &)
{
    char data[] = "data", chunks[] = "1;4;";
    return ldap_restore_object(ld, "o=x", "secret", data, chunks, 4);
}

std::vector<Operation> every_operation()
{
    std::vector<Operation> all = operations();
    Operation backup{"ldap_backup_object", "", LDAPX_BACKUP_OBJECT_RESPONSE, std::nullopt, back_up};
    backup.answer = concat(integer(4), integer(17), integer(2), octets("data"),
                           sequence(integer(1), set(sequence(integer(4)))));
    Operation other{"ldap_restore_object", "", LDAPX_RESTORE_OBJECT_RESPONSE, std::nullopt,
                    restore};
    all.push_back(backup);
    all.push_back(other);
    return all;
}

std::vector<Operation> operations_with_an_answer()
{
    std::vector<Operation> all = every_operation();
    std::erase_if(all, [](const Operation &operation) { return !operation.answer; });
    return all;
}

class EveryOperation : public testing::TestWithParam<Operation> {
protected:
    // The operation finds no response on this session, for the reason that the code tells.
    static void expect_nothing(LDAP *ld, int code)
    {
        if (GetParam().function == "ldap_backup_object" ||
            GetParam().function == "ldap_restore_object")
            code = LDAPX_NOT_SUPPORTED; // whatever the reason
        const auto began = std::chrono::steady_clock::now();
        Outputs out;
        EXPECT_EQ(GetParam().call(ld, out), code);
        EXPECT_EQ(out.describe(), "");
        EXPECT_LT(std::chrono::steady_clock::now() - began, 10s);
    }
    static std::string response()
    {
        return extended_response(1, {.name = GetParam().response_name, .value = GetParam().answer});
    }
};

class EveryAnswer : public EveryOperation {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Operation, EveryOperation, testing::ValuesIn(every_operation()),
                         FunctionName());
INSTANTIATE_TEST_SUITE_P(Operation, EveryAnswer, testing::ValuesIn(operations_with_an_answer()),
                         FunctionName());

TEST_P(EveryOperation, ends_when_the_connection_is_closed_before_or_after_any_byte_of_the_response)
{
    const std::string whole = response();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Peer peer;
        peer.send(whole.substr(0, length));
        peer.finish();
        expect_nothing(peer.ld(), LDAP_SERVER_DOWN);
    }
    Peer gone;
    gone.close();
    expect_nothing(gone.ld(), LDAP_SERVER_DOWN);
}

TEST_P(EveryOperation, ends_when_the_server_falls_silent_before_or_after_any_byte_of_the_response)
{
    const std::string whole = response();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Peer peer;
        peer.limit_waits(1ms);
        peer.send(whole.substr(0, length));
        expect_nothing(peer.ld(), LDAP_TIMEOUT);
    }
}

TEST_P(EveryOperation, ends_when_the_connection_is_reset_before_or_after_any_byte_of_the_response)
{
    const std::string whole = response();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const ResettingServer server({whole}, length);
        expect_nothing(server.ld(), LDAP_SERVER_DOWN);
    }
}

TEST_P(EveryOperation, passes_over_responses_to_nobody_s_request)
{
    Peer peer;
    for (const int id : {7, 2, INT_MAX})
        peer.send(extended_response(id, {.code = LDAP_BUSY, .name = "1.2.3"}));
    peer.send(intermediate_response(9, "1.2.3", "nothing"));
    peer.respond({.name = GetParam().response_name, .value = GetParam().answer});
    Outputs out;
    EXPECT_EQ(GetParam().call(peer.ld(), out), LDAP_SUCCESS);
}

TEST_P(EveryAnswer, of_64_MiB_is_taken_like_any_other)
{
    const std::string large = octets(std::string(std::size_t{64} << 20, 'x'));
    Peer peer;
    peer.send(extended_response(1, {.name = GetParam().response_name, .value = large}));
    Outputs out;
    const int code = GetParam().call(peer.ld(), out);
    if (GetParam().answer->front() == 0x04) // a string
        EXPECT_EQ(code, LDAP_SUCCESS);
    else if (GetParam().function == "ldap_backup_object")
        EXPECT_EQ(code, LDAPX_DECODING_ERROR);
    else
        EXPECT_EQ(code, GetParam().undecodable);
}

// ---- Exchanges of several messages --------------------------------------------------------------

namespace {

// Has the other side answer the request that was sent.
using Answer = std::function<void()>;

Message next_message(LDAP *ld, int id, std::chrono::milliseconds patience)
{
    timeval wait{patience / 1s, static_cast<suseconds_t>(patience % 1s / 1us)};
    LDAPMessage *message = nullptr;
    ldap_result(ld, id, LDAP_MSG_ONE, &wait, &message);
    return Message(message);
}

struct Exchange {
    std::string name;
    std::vector<std::string> answers; // each the bytes of one message or of several
    // Goes through the exchange as far as it gets and returns how many messages it has read.
    int (*run)(LDAP *ld, std::chrono::milliseconds patience, const Answer &answer);

    friend std::ostream &operator<<(std::ostream &out, const Exchange &exchange)
    {
        return out << exchange.name;
    }
};

int watch(LDAP *ld, std::chrono::milliseconds patience, const Answer &answer)
{
    EVT_EventSpecifier any{0, 0};
    int id = 0, code = 0, result = 0, read = 0;
    EXPECT_EQ(ldap_monitor_events(ld, 1, &any, &id), LDAP_SUCCESS);
    answer();
    Message message = next_message(ld, id, patience);
    for (; message && ldap_msgtype(message.get()) == LDAP_RES_INTERMEDIATE; ++read) {
        void *event = nullptr;
        EXPECT_EQ(ldap_parse_ds_event(ld, message.get(), &code, &result, &event, 0), LDAP_SUCCESS);
        EXPECT_NE(event, nullptr);
        if (event != nullptr)
            ldap_event_free(event);
        message = next_message(ld, id, patience);
    }
    if (!message)
        return read;
    int rejected = 0;
    EVT_EventSpecifier *events = nullptr;
    char *text = nullptr;
    EXPECT_EQ(ldap_parse_monitor_events_response(ld, message.get(), &result, &text, &rejected,
                                                 &events, 0),
              LDAP_SUCCESS);
    EXPECT_EQ(rejected, 0);
    ldap_memfree(text);
    ldapx_memfree(events);
    return read + 1;
}

int load(LDAP *ld, std::chrono::milliseconds patience, const Answer &answer)
{
    int id = 0, code = 0, size = 0;
    char *text = nullptr;
    if (ldap_lburp_start_request(ld, &id) != LDAP_SUCCESS)
        return 0;
    answer();
    Message message = next_message(ld, id, patience);
    if (!message)
        return 0;
    EXPECT_EQ(ldap_parse_lburp_start_response(ld, message.get(), &code, &text, &size, 0),
              LDAP_SUCCESS);
    EXPECT_EQ(size, 500);
    ldap_memfree(text);

    char dn[] = "o=x";
    LBURPUpdateOperationList removal{LDAP_REQ_DELETE, dn, {}, nullptr, nullptr};
    LBURPUpdateOperationList *batch[] = {&removal, nullptr};
    if (ldap_lburp_operation_request(ld, 1, batch, &id) != LDAP_SUCCESS)
        return 1;
    answer();
    message = next_message(ld, id, patience);
    if (!message)
        return 1;
    int count = 0;
    LBURPUpdateResult *failed = nullptr;
    EXPECT_EQ(
        ldap_parse_lburp_operation_response(ld, message.get(), &code, &text, &count, &failed, 0),
        LDAP_SUCCESS);
    EXPECT_EQ(count, 1);
    for (int i = 0; i < count; ++i)
        ldapx_memfree(failed[i].errorMsg);
    ldapx_memfree(failed);
    ldap_memfree(text);

    if (ldap_lburp_end_request(ld, 2, &id) != LDAP_SUCCESS)
        return 2;
    answer();
    message = next_message(ld, id, patience);
    if (!message)
        return 2;
    EXPECT_EQ(ldap_parse_lburp_end_response(ld, message.get(), &code, &text, 0), LDAP_SUCCESS);
    ldap_memfree(text);
    return 3;
}

std::vector<Exchange> every_exchange()
{
    const std::string event =
        sequence(integer(4), integer(0),
                 element(EVT_TAG_UNKNOWN_OP, concat(integer(9), octets("10.0.0.1"))));
    const std::string failed =
        sequence(integer(1), sequence(enumerated(32), octets(""), octets("no such entry")));
    return {{"events",
             {intermediate_response(1, LDAPX_EVENT_NOTIFICATION, event) +
              intermediate_response(1, LDAPX_EVENT_NOTIFICATION, event) +
              extended_response(1, {})}, // a name would stay allocated
             watch},
            {"bulk_update",
             {extended_response(
                  1, {.name = LDAPX_LBURP_START_RESPONSE, .value = sequence(integer(500))}),
              extended_response(2, {.name = LDAPX_LBURP_OPERATION_RESPONSE, .value = failed}),
              extended_response(3, {.name = LDAPX_LBURP_END_RESPONSE})},
             load}};
}

class EveryExchange : public testing::TestWithParam<Exchange> {
protected:
    // Where each message ends among the bytes of all answers.
    static std::vector<std::size_t> ends()
    {
        std::vector<std::size_t> ends;
        std::size_t end = 0;
        for (const std::string &answer : GetParam().answers)
            for (std::size_t at = 0; at < answer.size();) {
                const std::size_t length = whole_element(std::string_view(answer).substr(at));
                at += length;
                end += length;
                ends.push_back(end);
            }
        return ends;
    }
    // Against a peer that says so many bytes of its answers, and then closes or says nothing more.
    static int run(Peer &peer, std::size_t left, bool closes)
    {
        std::size_t next = 0;
        return GetParam().run(peer.ld(), 1ms, [&] {
            const std::string &answer = GetParam().answers.at(next++);
            const std::size_t length = std::min(left, answer.size());
            peer.send(answer.substr(0, length));
            left -= length;
            if (closes && length < answer.size())
                peer.finish();
        });
    }
    static int whole_messages(std::size_t said)
    {
        const std::vector<std::size_t> all = ends();
        return static_cast<int>(std::upper_bound(all.begin(), all.end(), said) - all.begin());
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Exchange, EveryExchange, testing::ValuesIn(every_exchange()),
                         [](const auto &exchange) { return exchange.param.name; });

TEST_P(EveryExchange, gives_what_came_whole_when_the_connection_is_closed_after_any_byte)
{
    for (std::size_t said = 0; said < ends().back(); ++said) {
        SCOPED_TRACE(said);
        Peer peer;
        EXPECT_EQ(run(peer, said, true), whole_messages(said));
        EXPECT_EQ(ldap_refresh_server(peer.ld()), LDAP_SERVER_DOWN);
    }
    Peer peer;
    EXPECT_EQ(run(peer, ends().back(), true), whole_messages(ends().back()));
}

TEST_P(EveryExchange, gives_what_came_whole_when_the_server_falls_silent_after_any_byte)
{
    for (std::size_t said = 0; said < ends().back(); ++said) {
        SCOPED_TRACE(said);
        Peer peer;
        peer.limit_waits(1ms);
        EXPECT_EQ(run(peer, said, false), whole_messages(said));
        EXPECT_EQ(ldap_refresh_server(peer.ld()), LDAP_TIMEOUT);
    }
}

TEST_P(EveryExchange, gives_nothing_that_did_not_come_when_the_connection_is_reset_after_any_byte)
{
    for (std::size_t said = 0; said < ends().back(); ++said) {
        SCOPED_TRACE(said);
        const ResettingServer server(GetParam().answers, said);
        EXPECT_LE(GetParam().run(server.ld(), 10s, [] {}), whole_messages(said));
        EXPECT_EQ(ldap_refresh_server(server.ld()), LDAP_SERVER_DOWN);
    }
}

TEST_P(EveryExchange, passes_over_messages_to_nobody_s_request)
{
    Peer peer;
    std::size_t next = 0;
    const int read = GetParam().run(peer.ld(), 1ms, [&] {
        for (const int id : {7, 99, INT_MAX})
            peer.send(extended_response(id, {.code = LDAP_BUSY, .name = "1.2.3"}));
        peer.send(intermediate_response(98, LDAPX_EVENT_NOTIFICATION, "nothing"));
        peer.send(GetParam().answers.at(next++));
    });
    EXPECT_EQ(read, static_cast<int>(ends().size()));
}
