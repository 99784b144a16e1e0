#include "tcp_peer.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/ber.h"
#include "support/loopback.h"

namespace support {

namespace {

struct Step {
    std::string bytes;
    bool close = false;
    int times = 1;
    bool start_tls = false;
};

std::string bind_response(int id, const Response &response, const std::string &controls)
{
    return sequence(integer(id),
                    element(0x61, concat(enumerated(response.code), octets(response.matched_dn),
                                         octets(response.diagnostic))),
                    controls.empty() ? "" : element(0xa0, controls));
}

// A connection's bytes, with or without TLS.
class Stream {
public:
    explicit Stream(int file) : file_(file) {}
    ~Stream()
    {
        SSL_free(ssl_);
        close(file_);
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    bool encrypt(SSL_CTX *context)
    {
        ssl_ = SSL_new(context);
        SSL_set_fd(ssl_, file_);
        return SSL_accept(ssl_) == 1;
    }
    bool send(const std::string &bytes)
    {
        if (bytes.empty())
            return true;
        if (ssl_ != nullptr)
            return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) > 0;
        return ::send(file_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Reads something away; false at the end.
    bool discard()
    {
        char buffer[4096];
        return recv(file_, buffer, sizeof buffer, 0) > 0;
    }
    // The next whole element; empty at the end.
    std::string receive()
    {
        std::size_t length = 0;
        while ((length = whole_element(pending_)) == 0) {
            char buffer[16384];
            const ssize_t got = ssl_ != nullptr ? SSL_read(ssl_, buffer, sizeof buffer)
                                                : recv(file_, buffer, sizeof buffer, 0);
            if (got <= 0)
                return {};
            pending_.append(buffer, static_cast<std::size_t>(got));
        }
        const std::string message = pending_.substr(0, length);
        pending_.erase(0, length);
        return message;
    }

private:
    int file_;
    SSL *ssl_ = nullptr;
    std::string pending_;
};

} // namespace

struct TcpPeer::State {
    Socket listener = listening_socket();
    std::thread accepting;

    mutable std::mutex mutex; // guards what follows
    std::list<std::thread> serving;
    std::list<int> files;
    std::vector<Request> requests;
    std::map<std::string, std::deque<std::function<Step(int id)>>> answers;
    std::function<Step(int id)> bind;
    std::map<int, std::function<Step(int id)>> numbered_binds;
    int binds = 0;
    std::string greeting;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)> tls{nullptr, SSL_CTX_free};
    bool tls_at_once = false;
    int mute_after = -1; // so many requests of a connection
    int connections = 0;
    int last = 0; // the port of the client behind which no other waits
    std::condition_variable last_has_come;

    void accept_all();
    void serve(int file);
    Step next_step(const Request &request);
};

TcpPeer::TcpPeer() : state_(std::make_unique<State>())
{
    answer_bind({});
    state_->accepting = std::thread([state = state_.get()] { state->accept_all(); });
}

TcpPeer::~TcpPeer()
{
    shutdown(state_->listener.get(), SHUT_RDWR);
    state_->accepting.join();
    {
        const std::lock_guard lock(state_->mutex);
        for (const int file : state_->files)
            shutdown(file, SHUT_RDWR);
    }
    for (std::thread &thread : state_->serving)
        thread.join();
}

void TcpPeer::State::accept_all()
{
    for (;;) {
        sockaddr_in client{};
        socklen_t length = sizeof client;
        const int file =
            accept4(listener.get(), reinterpret_cast<sockaddr *>(&client), &length, SOCK_CLOEXEC);
        if (file == -1)
            return;
        const std::lock_guard lock(mutex);
        if (ntohs(client.sin_port) == last) {
            close(file);
            last = 0;
            last_has_come.notify_one();
            continue;
        }
        ++connections;
        files.push_back(file);
        serving.emplace_back([this, file] { serve(file); });
    }
}

void TcpPeer::State::serve(int file)
{
    Stream stream(file);
    bool open = mute_after == 0 || !tls_at_once || stream.encrypt(tls.get());
    open = open && stream.send(greeting);
    for (int answered = 0; open; ++answered) {
        while (answered == mute_after && stream.discard())
            ;
        const std::string message = stream.receive();
        if (message.empty())
            break;
        try {
            const Step step = next_step(parse_request(message));
            for (int left = step.times; open && left > 0; --left)
                open = stream.send(step.bytes);
            open = open && !step.close;
            if (open && step.start_tls && mute_after != answered + 1)
                open = stream.encrypt(tls.get());
        } catch (const std::exception &error) { // what arrived is no request: the test shall see it
            const std::lock_guard lock(mutex);
            Request odd;
            odd.body = error.what();
            requests.push_back(odd);
            open = false;
        }
    }
    const std::lock_guard lock(mutex);
    files.remove(file);
}

Step TcpPeer::State::next_step(const Request &request)
{
    const std::lock_guard lock(mutex);
    requests.push_back(request);
    if (request.operation == bind_request) {
        const auto numbered = numbered_binds.find(++binds);
        return numbered != numbered_binds.end() ? numbered->second(request.id) : bind(request.id);
    }
    if (request.operation == unbind_request)
        return {.bytes = {}, .close = true};
    auto &left = answers[request.name];
    if (left.empty())
        return {};
    const Step step = left.front()(request.id);
    left.pop_front();
    return step;
}

std::string TcpPeer::uri(const std::string &scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port_of(state_->listener));
}

void TcpPeer::answer(const std::string &name, const Response &response)
{
    state_->answers[name].emplace_back([=](int id) -> Step {
        return {.bytes = extended_response(id, response),
                .start_tls = name == start_tls && response.code == 0};
    });
}

void TcpPeer::answer_raw(const std::string &name, const std::string &bytes, Then then)
{
    state_->answers[name].emplace_back(
        [=](int) -> Step { return {.bytes = bytes, .close = then == Then::close}; });
}

void TcpPeer::answer_repeated(const std::string &name, const std::string &bytes, int times)
{
    state_->answers[name].emplace_back(
        [=](int) -> Step { return {.bytes = bytes, .times = times}; });
}

void TcpPeer::close_at(const std::string &name)
{
    state_->answers[name].emplace_back([](int) -> Step { return {.bytes = {}, .close = true}; });
}

void TcpPeer::answer_bind(const Response &response, const std::string &controls)
{
    state_->bind = [=](int id) -> Step {
        return {.bytes = bind_response(id, response, controls)};
    };
}

void TcpPeer::answer_bind_raw(const std::string &bytes)
{
    state_->bind = [=](int) -> Step {
        return {.bytes = bytes};
    };
}

void TcpPeer::ignore_binds()
{
    state_->bind = [](int) -> Step {
        return {};
    };
}

void TcpPeer::answer_bind_number(int number, const Response &response)
{
    state_->numbered_binds[number] = [=](int id) -> Step {
        return {.bytes = bind_response(id, response, "")};
    };
}

void TcpPeer::ignore_bind_number(int number)
{
    state_->numbered_binds[number] = [](int) -> Step {
        return {};
    };
}

void TcpPeer::close_at_bind()
{
    state_->bind = [](int) -> Step {
        return {.bytes = {}, .close = true};
    };
}

void TcpPeer::greet(const std::string &bytes)
{
    state_->greeting = bytes;
}

void TcpPeer::say_nothing(int after)
{
    state_->mute_after = after;
}

void TcpPeer::use_tls(const Certificate &certificate)
{
    state_->tls.reset(SSL_CTX_new(TLS_server_method()));
    if (SSL_CTX_use_certificate_file(state_->tls.get(), certificate.certificate_file.c_str(),
                                     SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(state_->tls.get(), certificate.key_file.c_str(),
                                    SSL_FILETYPE_PEM) != 1)
        throw std::runtime_error("cannot use " + certificate.certificate_file);
    state_->tls_at_once = state_->answers.find(start_tls) == state_->answers.end();
}

std::vector<Request> TcpPeer::requests() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->requests;
}

Request TcpPeer::bind() const
{
    for (const Request &request : requests())
        if (request.operation == bind_request)
            return request;
    throw std::runtime_error("no bind has arrived");
}

Request TcpPeer::request(const std::string &name) const
{
    for (const Request &request : requests())
        if (request.operation == extended_request && request.name == name)
            return request;
    throw std::runtime_error("no request " + name + " has arrived");
}

int TcpPeer::connections() const
{
    // A client that has come and gone may still wait to be accepted. This one is accepted last.
    const Socket last = bound_socket();
    std::unique_lock lock(state_->mutex);
    state_->last = port_of(last);
    connect_to(port_of(state_->listener), last);
    state_->last_has_come.wait(lock, [this] { return state_->last == 0; });
    return state_->connections;
}

} // namespace support
