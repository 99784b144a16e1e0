// A scripted LDAP server on a loopback port, for tests of programs that connect by themselves. (For
// tests that have the session in hand, peer.h is simpler.)
//
//     TcpPeer peer;                                     // accepts every bind
//     peer.answer(LDAPX_SPLIT_PARTITION_REQUEST, {.name = LDAPX_SPLIT_PARTITION_RESPONSE});
//     Finished finished = run({tool, "-x", "-H", peer.uri(), "partition", "split", "o=x"});
//     EXPECT_EQ(peer.request(LDAPX_SPLIT_PARTITION_REQUEST).value, bytes("02 01 00 ..."));
//
// Everything is set before the program starts. An extended request without an answer gets none:
// the server stays silent. Several answers to one name are given one after the other.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/certificate.h"
#include "support/peer.h"

namespace support {

// The operations of RFC 4511 that a program sends besides extended requests.
constexpr unsigned char bind_request = 0x60;
constexpr unsigned char unbind_request = 0x42;
constexpr unsigned char extended_request = 0x77;

constexpr const char *start_tls = "1.3.6.1.4.1.1466.20037";

class TcpPeer {
public:
    TcpPeer();
    ~TcpPeer();
    TcpPeer(const TcpPeer &) = delete;
    TcpPeer &operator=(const TcpPeer &) = delete;

    std::string uri(const std::string &scheme = "ldap") const; // "ldap://127.0.0.1:40123"

    // To the next extended request of this name. The response's id is that of the request.
    void answer(const std::string &name, const Response &response);
    // Any bytes, and then perhaps the end of the connection.
    enum class Then { go_on, close };
    void answer_raw(const std::string &name, const std::string &bytes, Then then = Then::go_on);
    // The same bytes so many times.
    void answer_repeated(const std::string &name, const std::string &bytes, int times);
    void close_at(const std::string &name);
    // To binds, all that have no answer of their own: a result; nothing; any bytes; the end of the
    // connection.
    void answer_bind(const Response &response, const std::string &controls = "");
    void answer_bind_raw(const std::string &bytes);
    void ignore_binds();
    // To the bind of that number, counted from 1 over all connections.
    void answer_bind_number(int number, const Response &response);
    void ignore_bind_number(int number);
    void close_at_bind();
    // Sent to every client as soon as it connects.
    void greet(const std::string &bytes);
    // Takes whatever comes, on every connection, and never says a word; after these requests only.
    void say_nothing(int after = 0);
    // TLS from the first byte on (ldaps), or after a successful answer to StartTLS.
    void use_tls(const Certificate &certificate);

    // What has arrived, on all connections.
    std::vector<Request> requests() const;
    // The first bind, and the first extended request of this name; throws when there is none.
    Request bind() const;
    Request request(const std::string &name) const;
    int connections() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace support
