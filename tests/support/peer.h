// A scripted LDAP peer: a session of the LDAP library over a socket pair whose other end answers
// exactly what the test says.
//
//     Peer peer;
//     peer.respond({.name = LDAPX_SPLIT_PARTITION_RESPONSE});
//     EXPECT_EQ(ldap_split_partition(peer.ld(), dn, 0), 0);
//     EXPECT_EQ(peer.take_request().value, bytes("02 01 00 04 03 6f 3d 78"));
//     EXPECT_TRUE(peer.quiet());
//
// The LDAP library numbers its messages 1, 2, 3, ... on a session, so responses are written
// before the synchronous call is made and an ordinary test needs no thread. respond() answers
// the messages in that order; give an id to answer another. respond_intermediate() belongs to
// the message that respond() would answer next and can be repeated.
//
// Asynchronous operations: call the request function, respond (before or after), fetch the
// message with peer.result(msgID) and hand message.get() to the parse function with freeIt 0.
//
// Odd peers: send() writes any bytes (cut a message with extended_response(...).substr()),
// finish() closes the peer's direction after them (end of file), close() ends both directions,
// saying nothing at all is a stall (shorten the wait with set_timeout()). send() never blocks: what
// the socket has no room for is written by a thread. Requests larger than the socket's buffer
// (about 200 KiB) need read_ahead() before the call.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <ldap.h>

namespace support {

// What the session sent. Only an ExtendedRequest (operation 0x77) has a name.
struct Request {
    int id = 0;
    unsigned char operation = 0;                        // tag of the protocol operation
    std::string body;                                   // its content, undecoded
    std::string name;                                   // requestName
    std::optional<std::string> value = std::nullopt;    // requestValue, if it was there
    std::optional<std::string> controls = std::nullopt; // content of [0] Controls, if it was there
};

// What the peer answers; everything left out takes its default.
struct Response {
    int code = 0;
    std::optional<std::string> name = std::nullopt;
    std::optional<std::string> value = std::nullopt;
    std::string diagnostic{};
    std::string matched_dn{};
    std::optional<int> id = std::nullopt; // message id; the next unanswered one when left out
};

// The bytes of whole LDAP messages.
std::string extended_response(int id, const Response &response);
std::string intermediate_response(int id, const std::optional<std::string> &name,
                                  const std::optional<std::string> &value);
// Decodes one message of a client; throws std::runtime_error when it is none.
Request parse_request(const std::string &message);

struct FreeMessage {
    void operator()(LDAPMessage *message) const
    {
        ldap_msgfree(message);
    }
};
using Message = std::unique_ptr<LDAPMessage, FreeMessage>;

class Peer {
public:
    Peer(); // an LDAPv3 session, not bound; every wait on it ends after 20 seconds
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    LDAP *ld() const;
    int session_code() const; // the session's result code
    void set_timeout(std::chrono::milliseconds wait) const;
    // The same, also where a response has begun: libldap's own limit ends there, so the socket gets
    // one too.
    void limit_waits(std::chrono::milliseconds limit) const;

    void respond(const Response &response);
    void respond_intermediate(const std::optional<std::string> &name,
                              const std::optional<std::string> &value,
                              std::optional<int> id = std::nullopt);
    void send(const std::string &raw);
    void finish();
    void close();
    void read_ahead();

    // The next message that the session sent; throws when none comes within five seconds.
    Request take_request();
    // Nothing that was not taken has been sent.
    bool quiet();
    // The next message of this id through ldap_result; throws when none comes.
    Message result(int msgid) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace support
