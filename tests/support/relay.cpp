#include "support/relay.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <deque>
#include <limits>
#include <list>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/loopback.h"

namespace support {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t never = std::numeric_limits<std::size_t>::max();
constexpr std::size_t most_on_the_line = 64UL * 1024 * 1024; // then the sender has to wait

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void make_ready(int file)
{
    const int on = 1;
    setsockopt(file, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    fcntl(file, F_SETFL, O_NONBLOCK);
}

// What goes one way.
struct Direction {
    struct Piece {
        Clock::time_point due;
        std::string bytes;
    };
    int from;
    int to;
    std::deque<Piece> line{};
    std::size_t on_the_line = 0;
    bool ended = false;          // the sender has said all
    Clock::time_point end_due{}; // when the receiver learns that
    bool closed = false;

    Direction(int sender, int receiver) : from(sender), to(receiver) {}

    bool wants_more() const
    {
        return !ended && on_the_line < most_on_the_line;
    }
    // When there is something to do; nothing to do: never.
    Clock::time_point next() const
    {
        if (!line.empty())
            return line.front().due;
        return ended && !closed ? end_due : Clock::time_point::max();
    }
    bool blocked = false; // the receiver takes no more

    void take(std::chrono::microseconds delay)
    {
        std::array<char, 65536> buffer{};
        const ssize_t got = recv(from, buffer.data(), buffer.size(), 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        const auto due = Clock::now() + delay;
        if (got <= 0) {
            ended = true;
            end_due = due;
            return;
        }
        line.push_back({due, std::string(buffer.data(), static_cast<std::size_t>(got))});
        on_the_line += static_cast<std::size_t>(got);
    }
    // How many bytes have arrived. No more than limit.
    std::size_t give(std::size_t limit)
    {
        std::size_t arrived = 0;
        blocked = false;
        while (!line.empty() && line.front().due <= Clock::now() && arrived < limit) {
            std::string &bytes = line.front().bytes;
            const ssize_t put =
                send(to, bytes.data(), std::min(bytes.size(), limit - arrived), MSG_NOSIGNAL);
            if (put < 0) {
                blocked = errno == EAGAIN;
                if (!blocked) { // the receiver is gone
                    line.clear();
                    ended = closed = true;
                }
                return arrived;
            }
            arrived += static_cast<std::size_t>(put);
            on_the_line -= static_cast<std::size_t>(put);
            bytes.erase(0, static_cast<std::size_t>(put));
            if (bytes.empty())
                line.pop_front();
        }
        if (line.empty() && ended && !closed && end_due <= Clock::now()) {
            shutdown(to, SHUT_WR);
            closed = true;
        }
        return arrived;
    }
};

struct Connection {
    Socket client;
    Socket server;
    Direction requests{client.get(), server.get()};
    Direction answers{server.get(), client.get()};

    Connection(Socket from, Socket to) : client(std::move(from)), server(std::move(to)) {}
    bool is_over() const
    {
        return requests.closed && answers.closed;
    }
};

} // namespace

struct DelayingRelay::State {
    int server_port;
    std::chrono::microseconds delay;
    Socket listener = listening_socket();
    std::array<int, 2> wake{}; // a pipe: the relay is to look at what it was told
    std::atomic<bool> stop = false;
    std::atomic<bool> was_cut = false;
    std::atomic<std::size_t> requests_left = never;
    std::atomic<std::size_t> answers_left = never;
    std::list<Connection> connections{};
    std::thread thread{};

    State(int to, std::chrono::microseconds each_way) : server_port(to), delay(each_way) {}

    void accept_one()
    {
        Socket client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() < 0)
            return;
        try {
            Socket server = connected_socket(server_port);
            make_ready(client.get());
            make_ready(server.get());
            connections.emplace_back(std::move(client), std::move(server));
        } catch (const std::system_error &) { // the client sees its connection end
        }
    }

    // False when the line is to be cut.
    static bool pass(Direction &direction, std::atomic<std::size_t> &left)
    {
        const std::size_t limit = left;
        const std::size_t arrived = direction.give(limit);
        if (limit != never)
            left = limit - arrived;
        return limit == never || arrived < limit;
    }

    void work()
    {
        std::vector<pollfd> files;
        while (!stop) {
            files.assign({{wake[0], POLLIN, 0}, {listener.get(), POLLIN, 0}});
            auto next = Clock::time_point::max();
            for (Connection &connection : connections)
                for (Direction *direction : {&connection.requests, &connection.answers}) {
                    files.push_back({direction->from,
                                     static_cast<short>(direction->wants_more() ? POLLIN : 0), 0});
                    files.push_back(
                        {direction->to, static_cast<short>(direction->blocked ? POLLOUT : 0), 0});
                    if (!direction->wants_more())
                        files[files.size() - 2].fd = -1; // a hang-up would be told over and over
                    if (!direction->blocked) {
                        files.back().fd = -1;
                        next = std::min(next, direction->next());
                    }
                }
            wait(files, next);
            if ((files[1].revents & POLLIN) != 0)
                accept_one();
            bool cut = false;
            for (Connection &connection : connections) {
                for (Direction *direction : {&connection.requests, &connection.answers})
                    if (direction->wants_more())
                        direction->take(delay);
                cut = cut || !pass(connection.requests, requests_left) ||
                      !pass(connection.answers, answers_left);
            }
            if (cut) {
                was_cut = true; // before anybody can notice
                requests_left = answers_left = never;
                connections.clear();
            }
            connections.remove_if([](const Connection &each) { return each.is_over(); });
        }
    }

    void wait(std::vector<pollfd> &files, Clock::time_point until)
    {
        timespec time{};
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max(until - Clock::now(), Clock::duration::zero()));
        time.tv_sec = static_cast<time_t>(left.count() / 1000000000);
        time.tv_nsec = static_cast<long>(left.count() % 1000000000);
        const bool forever = until == Clock::time_point::max();
        if (ppoll(files.data(), files.size(), forever ? nullptr : &time, nullptr) < 0)
            return;
        std::array<char, 16> told{};
        if ((files[0].revents & POLLIN) != 0 && read(wake[0], told.data(), told.size()) < 0)
            return;
    }

    void tell() const
    {
        if (write(wake[1], "", 1) < 0)
            fail("write");
    }
};

DelayingRelay::DelayingRelay(int server_port, std::chrono::microseconds each_way)
    : state_(std::make_unique<State>(server_port, each_way))
{
    if (pipe2(state_->wake.data(), O_CLOEXEC) != 0)
        fail("pipe");
    state_->thread = std::thread([this] { state_->work(); });
}

DelayingRelay::~DelayingRelay()
{
    state_->stop = true;
    state_->tell();
    state_->thread.join();
    for (const int end : state_->wake)
        close(end);
}

int DelayingRelay::port() const
{
    return port_of(state_->listener);
}

std::string DelayingRelay::url() const
{
    return "ldap://127.0.0.1:" + std::to_string(port());
}

void DelayingRelay::cut_after_requests(std::size_t bytes)
{
    state_->requests_left = bytes;
    state_->tell();
}

void DelayingRelay::cut_after_answers(std::size_t bytes)
{
    state_->answers_left = bytes;
    state_->tell();
}

bool DelayingRelay::was_cut() const
{
    return state_->was_cut;
}

} // namespace support
