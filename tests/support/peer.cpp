#include "peer.h"

#include "ber.h"

#include <cerrno>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <openldap.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

using namespace std::chrono_literals;

namespace {

std::string message(int id, const std::string &operation)
{
    return sequence(integer(id), operation);
}

std::string optional_octets(const std::optional<std::string> &value, unsigned long tag)
{
    return value ? octets(*value, tag) : std::string();
}

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

std::string extended_response(int id, const Response &response)
{
    return message(
        id, element(0x78, concat(enumerated(response.code), octets(response.matched_dn),
                                 octets(response.diagnostic), optional_octets(response.name, 0x8a),
                                 optional_octets(response.value, 0x8b))));
}

std::string intermediate_response(int id, const std::optional<std::string> &name,
                                  const std::optional<std::string> &value)
{
    return message(
        id, element(0x79, concat(optional_octets(name, 0x80), optional_octets(value, 0x81))));
}

Request parse_request(const std::string &message)
{
    Reader outer(message);
    std::string content = outer.take(0x30);
    Reader reader(content);
    Request request;
    request.id = static_cast<int>(reader.take_integer());
    request.operation = reader.next_tag();
    request.body = reader.take(request.operation);
    if (reader.next_tag() == 0xa0)
        request.controls = reader.take(0xa0);
    if (!reader.at_end() || !outer.at_end())
        throw std::runtime_error("bytes left after a request: " + hex(message));
    if (request.operation == 0x77) {
        Reader extended(request.body);
        request.name = extended.take(0x80);
        if (extended.next_tag() == 0x81)
            request.value = extended.take(0x81);
        if (!extended.at_end())
            throw std::runtime_error("bytes left in an extended request: " + hex(message));
    }
    return request;
}

struct Peer::State {
    LDAP *ld = nullptr;
    int fd = -1; // the peer's end
    int next_id = 1;

    std::mutex mutex; // guards the six below once the thread runs
    std::string incoming;
    std::string outgoing;
    std::size_t written = 0; // of outgoing
    bool finishing = false;
    bool reading = false;
    bool stopping = false;

    int wake = -1;
    std::thread thread;

    // Both take what the socket gives without waiting. True: the other end is still there.
    bool read_some();
    void write_some();
    void start_thread();
    void run();
    void stop();
};

bool Peer::State::read_some()
{
    char buffer[65536];
    for (;;) {
        ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0)
            incoming.append(buffer, static_cast<std::size_t>(got));
        else if (got == 0 || errno != EINTR)
            return got != 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

void Peer::State::write_some()
{
    while (written < outgoing.size()) {
        ssize_t put = ::send(fd, outgoing.data() + written, outgoing.size() - written,
                             MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put > 0)
            written += static_cast<std::size_t>(put);
        else if (errno == EAGAIN || errno == EWOULDBLOCK)
            return;
        else if (errno != EINTR)
            break; // the session has closed: nobody is left to read it
    }
    outgoing.clear();
    written = 0;
    if (finishing)
        shutdown(fd, SHUT_WR);
}

void Peer::State::start_thread()
{
    if (thread.joinable()) {
        eventfd_write(wake, 1);
        return;
    }
    wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake == -1)
        fail("eventfd");
    thread = std::thread([this] { run(); });
}

void Peer::State::run()
{
    for (;;) {
        pollfd waiting[] = {{wake, POLLIN, 0}, {fd, 0, 0}};
        {
            std::lock_guard lock(mutex);
            if (stopping)
                return;
            if (reading)
                waiting[1].events |= POLLIN;
            if (!outgoing.empty())
                waiting[1].events |= POLLOUT;
        }
        if (waiting[1].events == 0)
            waiting[1].fd = -1; // or a hang-up would be reported for ever
        poll(waiting, 2, -1);
        eventfd_t ignored;
        eventfd_read(wake, &ignored);
        std::lock_guard lock(mutex);
        if (reading && !read_some())
            reading = false;
        if (!outgoing.empty())
            write_some();
    }
}

void Peer::State::stop()
{
    if (thread.joinable()) {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        eventfd_write(wake, 1);
        thread.join();
        ::close(wake);
    }
    if (fd != -1) {
        read_some(); // what was sent can still be taken
        ::close(fd);
    }
    fd = -1;
}

Peer::Peer() : state_(std::make_unique<State>())
{
    // The LDAP library writes to a closed connection without MSG_NOSIGNAL.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1)
        fail("socketpair");
    state_->fd = ends[0];
    int rc = ldap_init_fd(ends[1], LDAP_PROTO_IPC, nullptr, &state_->ld);
    if (rc != LDAP_SUCCESS) {
        ::close(ends[0]);
        ::close(ends[1]);
        throw std::runtime_error(std::string("ldap_init_fd: ") + ldap_err2string(rc));
    }
    int version = LDAP_VERSION3;
    ldap_set_option(ld(), LDAP_OPT_PROTOCOL_VERSION, &version);
    set_timeout(20s);
}

Peer::~Peer()
{
    state_->stop(); // first, so that the farewell cannot block on a full socket
    ldap_unbind_ext(state_->ld, nullptr, nullptr);
}

LDAP *Peer::ld() const
{
    return state_->ld;
}

int Peer::session_code() const
{
    int code = 0;
    ldap_get_option(ld(), LDAP_OPT_RESULT_CODE, &code);
    return code;
}

void Peer::set_timeout(std::chrono::milliseconds wait) const
{
    timeval limit{};
    limit.tv_sec = wait.count() / 1000;
    limit.tv_usec = wait.count() % 1000 * 1000;
    ldap_set_option(ld(), LDAP_OPT_TIMEOUT, &limit);
}

void Peer::limit_waits(std::chrono::milliseconds limit) const
{
    int descriptor = -1;
    ldap_get_option(ld(), LDAP_OPT_DESC, &descriptor);
    const timeval wait{limit / 1s, static_cast<suseconds_t>(limit % 1s / 1us)};
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0)
        fail("setsockopt");
    set_timeout(limit);
}

void Peer::respond(const Response &response)
{
    send(extended_response(response.id ? *response.id : state_->next_id++, response));
}

void Peer::respond_intermediate(const std::optional<std::string> &name,
                                const std::optional<std::string> &value, std::optional<int> id)
{
    send(intermediate_response(id.value_or(state_->next_id), name, value));
}

void Peer::send(const std::string &raw)
{
    std::lock_guard lock(state_->mutex);
    if (state_->fd == -1 || state_->finishing)
        throw std::logic_error("the peer has closed");
    state_->outgoing += raw;
    state_->write_some();
    if (!state_->outgoing.empty())
        state_->start_thread();
}

void Peer::finish()
{
    std::lock_guard lock(state_->mutex);
    state_->finishing = true;
    if (state_->fd != -1)
        state_->write_some();
}

void Peer::close()
{
    state_->stop();
}

void Peer::read_ahead()
{
    std::lock_guard lock(state_->mutex);
    state_->reading = true;
    state_->start_thread();
}

Request Peer::take_request()
{
    auto deadline = std::chrono::steady_clock::now() + 5s;
    for (;;) {
        {
            std::lock_guard lock(state_->mutex);
            bool open = state_->fd != -1 && state_->read_some();
            if (std::size_t size = whole_element(state_->incoming)) {
                Request request = parse_request(state_->incoming.substr(0, size));
                state_->incoming.erase(0, size);
                return request;
            }
            if (!open)
                throw std::runtime_error("no request came: the session is closed");
        }
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("no request came");
        std::this_thread::sleep_for(1ms);
    }
}

bool Peer::quiet()
{
    std::lock_guard lock(state_->mutex);
    if (state_->fd != -1)
        state_->read_some();
    return state_->incoming.empty();
}

Message Peer::result(int msgid) const
{
    timeval limit{5, 0};
    LDAPMessage *message = nullptr;
    if (ldap_result(ld(), msgid, LDAP_MSG_ONE, &limit, &message) <= 0)
        throw std::runtime_error("no message came with this id");
    return Message(message);
}

} // namespace support
