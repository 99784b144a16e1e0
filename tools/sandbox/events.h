// The monitors: who asked for which events, and their delivery.
//
// Events come in the order in which they are published. Where something has to be looked up first,
// a place is reserved: what is published meanwhile waits behind it.
//
// A registration stands as long as its request is outstanding. It ends without a word when the
// client abandons it or leaves, with its closing response when the client cancels it, when the
// sandbox stops, or when the client does not take what is sent to it: what waits for a client is
// limited, so that none can cost the others memory or time.
//
// A registration is accepted or refused as a whole. When a single specifier cannot be served, the
// closing response comes at once and lists every such specifier, so that the client knows before
// it waits for events that will never come.
//
// Result codes of the closing response:
//   protocolError            the request value is not what the operation asks for
//   insufficientAccessRights the client is anonymous
//   unwillingToPerform       some specifiers are rejected; the response lists them
//   adminLimitExceeded       too much was waiting for a client that does not read
//   canceled                 the client cancelled it (RFC 3909)
//   unavailable              the sandbox is stopping
#pragma once

#include "event_encoding.h"
#include "event_filter.h"
#include "operations.h"

#include <asio.hpp>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sandbox {

struct EventOptions {
    std::size_t queue = 4 * 1024 * 1024; // bytes that may wait for one monitor
    bool with_addresses = false;         // events carry the address of the client behind them
    bool samples = false;                // a new monitor is sent one event of every kind
};

class Events {
public:
    Events(asio::io_context &loop, const EventOptions &options);

    void offer(Operations &operations);

    // Whether anybody is registered at all; for events of this type with this result.
    bool have_monitors() const
    {
        return !monitors_.empty();
    }
    bool are_wanted(EventType type, int result) const;
    void publish(const Event &event);

    // A place in the stream for events that are known later. It must be filled, once, or nothing
    // comes after it; `tell` publishes them when their turn has come.
    using Place = std::shared_ptr<std::function<void()>>;
    Place reserve();
    void fill(const Place &place, std::function<void()> tell);

    // Ends every registration: the sandbox is stopping.
    void close();

private:
    struct Monitor;
    struct Specifier;

    void start(std::shared_ptr<Call> call, bool filtered);
    void admit(std::shared_ptr<Call> call, const std::vector<Specifier> &specifiers);
    void publish_now(const Event &event);
    void send_samples(const std::shared_ptr<Monitor> &monitor);
    void deliver(const std::shared_ptr<Monitor> &monitor,
                 const std::shared_ptr<const std::string> &bytes);
    void flush(Monitor &monitor);
    void drop(const std::shared_ptr<Monitor> &monitor);
    void forget(const std::shared_ptr<Monitor> &monitor);
    void count_wishes();
    void tell(EventType type, const Monitor &monitor);

    asio::io_context &loop_;
    EventOptions options_;
    std::list<std::shared_ptr<Monitor>> monitors_;
    std::deque<Place> line_;  // from the first place that is not filled
    bool is_telling_ = false; // what is published comes now, ahead of the line
    // By event type: whether anybody wants its failures, its successes.
    std::array<std::array<bool, 2>, highest_event_type + 1> wishes_{};
};

} // namespace sandbox
