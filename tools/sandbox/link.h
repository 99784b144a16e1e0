// One end of a byte stream in the event loop: received bytes wait in a buffer until they are
// consumed, sent bytes are queued and written in order. Reading goes on only when it is asked
// for, so whoever owns the link decides how much it may hold. A link can turn to TLS on the way.
#pragma once

#include <asio.hpp>
#include <asio/ssl.hpp>

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

class Link : public std::enable_shared_from_this<Link> {
public:
    using Socket = asio::generic::stream_protocol::socket;

    struct Events {
        std::function<void()> received;                 // there is more input
        std::function<void()> drained;                  // no longer congested
        std::function<void(const std::string &)> ended; // by the other side, or broken: why
    };

    explicit Link(Socket socket);

    void start(Events events);

    // The server's side of TLS from here on: what has been sent goes in clear, what is received
    // next is the other side's hello. Calls `done` when both have agreed, and ends when they do
    // not.
    void start_tls(asio::ssl::context &context, std::function<void()> done);
    bool is_secure() const
    {
        return tls_.has_value();
    }
    bool is_securing() const
    {
        return static_cast<bool>(secured_);
    }

    // Asks for the next bytes. Asking again before they have come changes nothing.
    void receive();
    std::string_view input() const
    {
        return std::string_view(input_).substr(consumed_);
    }
    void consume(std::size_t size);

    void send(std::string_view bytes);
    std::size_t queued() const
    {
        return waiting_.size() + writing_.size();
    }
    // More is queued than the other side seems to take: stop producing until it has drained.
    bool congested() const
    {
        return queued() > high_water;
    }

    // Closes when everything queued has been sent and the other side has closed too, or has had
    // a second for it: a reset would destroy what it has not read yet.
    void finish();
    void close();
    bool is_open() const
    {
        return socket_.is_open() && !finishing_;
    }

private:
    static constexpr std::size_t high_water = 256 * 1024;
    static constexpr std::size_t low_water = 64 * 1024;

    template <class Handler>
    void read_some(Handler handler);
    template <class Handler>
    void write_all(Handler handler);
    void write();
    void handshake();
    void linger();
    void end(const std::string &why);

    Socket socket_;
    std::optional<asio::ssl::stream<Socket &>> tls_;
    asio::ssl::context *context_ = nullptr;
    std::function<void()> secured_; // set while TLS is to begin, or beginning
    asio::steady_timer patience_;
    Events events_;
    std::array<char, 32 * 1024> chunk_{};
    std::string input_;
    std::size_t consumed_ = 0;
    std::string waiting_;
    std::string writing_;
    bool reading_ = false;
    bool was_congested_ = false;
    bool finishing_ = false;
};

} // namespace sandbox
