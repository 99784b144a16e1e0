// One client: its connection, a connection to slapd of its own, and what passes between them.
//
// Every message goes on unchanged, except the extended operations of ours, which are answered
// here with the message id of the request. Messages are told apart by their first bytes, so one
// that is larger than what is looked at goes on piece by piece, and reading stops on one side
// while the other does not take what is there: memory stays bounded whatever a client sends.
#pragma once

#include "link.h"
#include "message.h"
#include "operations.h"
#include "traffic.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace sandbox {

// What all connections have in common.
struct Service {
    const Operations &operations;
    std::size_t max_message;
    std::function<void(const std::string &)> log; // one line per operation; may be empty
    Traffic *traffic = nullptr;                   // who is told what passes, if anybody
    asio::ssl::context *tls = nullptr;            // for StartTLS; NULL: not offered
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(const Service &service, Link::Socket client, Link::Socket slapd, Client who);

    // With TLS from the first byte, or when the client asks for it.
    void start(bool tls_at_once, std::function<void()> ended);
    // Ends the connection; the client is told why when there is something to tell.
    void end(const Result &notice = {});

    void answer(const Call &call, const Result &result, const std::optional<std::string> &value);
    void notify(const Call &call, std::string_view name, std::string_view value);
    // The client takes what is sent, and our own messages need not wait for another one to pass.
    bool has_room() const
    {
        return !client_->congested() && response_rest_ == 0;
    }

    // What the families of operations keep for this client until it leaves.
    std::shared_ptr<void> kept(const void *family) const;
    void keep(const void *family, std::shared_ptr<void> state);

private:
    using Clock = std::chrono::steady_clock;

    // A request that slapd has not answered yet.
    struct Exchange {
        std::string request; // its first bytes; all of them while somebody watches
        std::size_t entries = 0;
        Clock::time_point begun = Clock::now();
        std::time_t begun_at = std::time(nullptr);
        std::string identity{}; // of the client, then
        bool has_images = false;
    };

    bool is_open() const;
    bool may_take_requests() const;
    void take_requests();
    void take_responses();
    bool take_request(const MessageHead &head);
    bool take_response(const MessageHead &head);

    bool take_extended(const Message &message);
    void perform(const Message &message, const std::string &name, std::optional<std::string> value);
    bool start_tls(const Message &message);
    bool cancel(const Message &message, const std::optional<std::string> &value);
    std::string begin_bind(std::string_view bytes);
    void begin_abandon(const Message &message);
    void begin_change(const Message &message);
    std::size_t forget(std::int32_t id);

    void bind_answered(std::string_view bytes);
    void ask_identity();
    void identity_answered(const Message &message);
    void finished(std::int32_t id, const Message &message);
    void give_room();

    bool is_watched() const;
    void report(std::int32_t id, const Exchange &exchange, const Message &answer) const;
    void report(std::int32_t id, std::string_view operation, std::string_view controls,
                const Result &result, std::time_t begun) const;
    void report_entry(std::int32_t id, const Exchange &exchange, std::string_view bytes) const;
    void report_extended(std::int32_t id, const std::string &name,
                         const std::optional<std::string> &value, const Result &result,
                         std::chrono::steady_clock::time_point begun) const;

    void send_to_client(std::string_view bytes);
    void log(std::int32_t id, const std::string &what, const Result &result,
             Clock::time_point begun, std::size_t entries = 0) const;

    const Service &service_;
    std::shared_ptr<const Client> who_;
    std::shared_ptr<Link> client_;
    std::shared_ptr<Link> slapd_;
    std::function<void()> ended_;

    std::map<std::int32_t, Exchange> exchanges_;
    std::size_t kept_ = 0; // bytes of requests in exchanges_
    std::map<std::int32_t, std::shared_ptr<Call>> calls_;
    std::map<const void *, std::shared_ptr<void>> states_;

    // What is still to come of the message that is passing on, in each direction. Our own
    // messages to the client wait in aside_ until the one that is passing has passed.
    std::size_t request_rest_ = 0;
    std::size_t response_rest_ = 0;
    std::string aside_;

    // The DN that slapd knows the client by. While a bind is under way nothing else is taken from
    // the client, as RFC 4511 (section 4.2.1) asks of it; after a successful one slapd is asked
    // who that is, under a message id that the client does not use, before the client hears of it.
    std::string identity_;
    bool binding_ = false;
    std::string bind_response_;
    std::int32_t identity_request_ = 0;
};

} // namespace sandbox
