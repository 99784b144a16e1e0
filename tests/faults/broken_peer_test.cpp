// The connection breaks: it is closed, reset or silent before the response and after each byte of
// it. Every operation gives a code within the session's time limit, and the caller holds nothing.

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;
using namespace std::chrono_literals;

namespace {

// libldap's own time limit covers the wait for a response to begin; once it has begun, libldap
// reads until it is whole, however long that takes. So the socket needs a limit too.
void limit_waits(const Peer &peer, std::chrono::milliseconds limit)
{
    int descriptor = -1;
    ldap_get_option(peer.ld(), LDAP_OPT_DESC, &descriptor);
    const timeval wait{0, static_cast<suseconds_t>(limit / 1us)};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    peer.set_timeout(limit);
}

// A server on loopback that takes one connection, reads a request, says something and resets the
// connection.
class ResettingServer {
public:
    explicit ResettingServer(std::string says) : listening_(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto *any = reinterpret_cast<sockaddr *>(&address);
        if (bind(listening_, any, length) != 0 || listen(listening_, 1) != 0 ||
            getsockname(listening_, any, &length) != 0)
            throw std::runtime_error("no server on loopback");
        uri_ = "ldap://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this, says = std::move(says)] {
            const int client = accept(listening_, nullptr, nullptr);
            char request[4096]; // it is small, and written at once
            static_cast<void>(recv(client, request, sizeof request, 0));
            static_cast<void>(::send(client, says.data(), says.size(), MSG_NOSIGNAL));
            const linger at_once{1, 0};
            setsockopt(client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
            close(client);
        });
    }
    ~ResettingServer()
    {
        thread_.join();
        close(listening_);
    }
    ResettingServer(const ResettingServer &) = delete;
    ResettingServer &operator=(const ResettingServer &) = delete;

    const std::string &uri() const
    {
        return uri_;
    }

private:
    int listening_;
    std::string uri_;
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
        limit_waits(peer, 1ms);
        peer.send(whole.substr(0, length));
        expect_nothing(peer.ld(), LDAP_TIMEOUT);
    }
}

TEST_P(EveryOperation, ends_when_the_connection_is_reset)
{
    const std::string whole = response();
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, whole.size() - 1}) {
        SCOPED_TRACE(length);
        const ResettingServer server(whole.substr(0, length));
        LDAP *ld = nullptr;
        ASSERT_EQ(ldap_initialize(&ld, server.uri().c_str()), LDAP_SUCCESS);
        const int version = LDAP_VERSION3;
        ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        expect_nothing(ld, LDAP_SERVER_DOWN);
        ldap_unbind_ext_s(ld, nullptr, nullptr);
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
