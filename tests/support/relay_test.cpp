// The relay that delays, against a server that sends everything back.

#include "support/loopback.h"
#include "support/relay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace support;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

// Sends back what it receives, on one connection, and counts it.
class Echo {
public:
    Echo()
    {
        thread_ = std::thread([this] { serve(); });
    }
    ~Echo()
    {
        shutdown(listener_.get(), SHUT_RDWR);
        if (thread_.joinable())
            thread_.join();
    }
    Echo(const Echo &) = delete;
    Echo &operator=(const Echo &) = delete;

    int port() const
    {
        return port_of(listener_);
    }
    // How much it has received when the connection is over. There must have been one, which may
    // still wait to be accepted.
    std::size_t received()
    {
        if (thread_.joinable())
            thread_.join();
        return received_;
    }

private:
    void serve()
    {
        const Socket connection(accept(listener_.get(), nullptr, nullptr));
        if (connection.get() < 0)
            return;
        std::array<char, 65536> buffer{};
        for (ssize_t got = 0;
             (got = recv(connection.get(), buffer.data(), buffer.size(), 0)) > 0;) {
            received_ += static_cast<std::size_t>(got);
            if (send(connection.get(), buffer.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) <
                0)
                break;
        }
    }

    Socket listener_ = listening_socket();
    std::size_t received_ = 0;
    std::thread thread_;
};

class Client {
public:
    explicit Client(int port) : socket_(connected_socket(port))
    {
        const int on = 1;
        setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    void send(const std::string &bytes) const
    {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t now =
                ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (now < 0)
                return; // it was cut
            sent += static_cast<std::size_t>(now);
        }
    }
    // As much as this; less when the connection ends.
    std::string receive(std::size_t size) const
    {
        std::string bytes;
        std::array<char, 65536> buffer{};
        while (bytes.size() < size) {
            const ssize_t got =
                recv(socket_.get(), buffer.data(), std::min(buffer.size(), size - bytes.size()), 0);
            if (got <= 0)
                break;
            bytes.append(buffer.data(), static_cast<std::size_t>(got));
        }
        return bytes;
    }
    void end() const
    {
        shutdown(socket_.get(), SHUT_WR);
    }

private:
    Socket socket_;
};

} // namespace

TEST(Relay, adds_its_delay_to_each_round_trip)
{
    Echo echo;
    const DelayingRelay relay(echo.port(), 5ms);
    const Client client(relay.port());
    for (int trip = 0; trip < 5; ++trip) {
        const auto begin = Clock::now();
        client.send("hello");
        EXPECT_EQ(client.receive(5), "hello");
        EXPECT_GE(Clock::now() - begin, 10ms);
    }
}

TEST(Relay, delays_what_is_under_way_side_by_side)
{
    Echo echo;
    const DelayingRelay relay(echo.port(), 100ms);
    const Client client(relay.port());
    const auto begin = Clock::now();
    std::string all;
    for (int message = 0; message < 50; ++message) {
        const std::string text = "message " + std::to_string(message) + '\n';
        client.send(text);
        all += text;
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(client.receive(all.size()), all);
    const auto took = Clock::now() - begin;
    EXPECT_GE(took, 200ms);
    EXPECT_LT(took, 5s); // one after the other would be ten
}

TEST(Relay, without_a_delay_changes_nothing_of_large_data)
{
    Echo echo;
    const DelayingRelay relay(echo.port(), 0ms);
    const Client client(relay.port());
    std::string data(20'000'000, 'x');
    for (std::size_t at = 0; at < data.size(); at += 1000)
        data[at] = static_cast<char>('a' + at / 1000 % 26);
    std::thread sender([&] { client.send(data); });
    EXPECT_EQ(client.receive(data.size()), data);
    sender.join();
}

TEST(Relay, passes_the_end_of_a_connection_on_after_what_came_before_it)
{
    Echo echo;
    const DelayingRelay relay(echo.port(), 20ms);
    const Client client(relay.port());
    client.send("last words");
    client.end();
    EXPECT_EQ(client.receive(100), "last words");
    EXPECT_EQ(echo.received(), 10u);
    EXPECT_FALSE(relay.was_cut());
}

TEST(Relay, cuts_the_line_after_so_many_bytes_each_way)
{
    const std::string data(1000, 'x');
    {
        Echo echo;
        DelayingRelay relay(echo.port(), 1ms);
        relay.cut_after_requests(700);
        const Client client(relay.port());
        client.send(data);
        client.receive(data.size());
        EXPECT_EQ(echo.received(), 700u);
        EXPECT_TRUE(relay.was_cut());
    }
    Echo echo;
    DelayingRelay relay(echo.port(), 1ms);
    relay.cut_after_answers(300);
    const Client client(relay.port());
    client.send(data);
    EXPECT_EQ(client.receive(data.size()).size(), 300u);
    EXPECT_EQ(echo.received(), 1000u);
    EXPECT_TRUE(relay.was_cut());
}
