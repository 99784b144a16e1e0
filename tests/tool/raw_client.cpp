#include "raw_client.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

using namespace support;
using Clock = std::chrono::steady_clock;

namespace sandbox_test {

namespace {

int left(Clock::time_point until)
{
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    return rest.count() > 0 ? static_cast<int>(rest.count()) : 0;
}

std::string ldap_message(int id, const std::string &body)
{
    return sequence(integer(id), body);
}

// The content of a message's operation.
std::string body_of(const std::string &message)
{
    const std::string content = Reader(message).take(0x30);
    Reader reader(content);
    reader.take_integer();
    return reader.take(reader.next_tag());
}

} // namespace

RawClient::RawClient(int port) : socket_(connected_socket(port))
{
    fcntl(socket_.get(), F_SETFL, O_NONBLOCK);
}

bool RawClient::send(std::string_view bytes, std::chrono::milliseconds patience)
{
    const auto until = Clock::now() + patience;
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        pollfd ready{socket_.get(), POLLOUT, 0};
        if ((errno != EAGAIN && errno != EWOULDBLOCK) || poll(&ready, 1, left(until)) != 1)
            return false;
    }
    return true;
}

bool RawClient::fill(Clock::time_point until)
{
    pollfd ready{socket_.get(), POLLIN, 0};
    if (ended_ || poll(&ready, 1, left(until)) != 1)
        return false;
    char chunk[65536];
    const ssize_t size = recv(socket_.get(), chunk, sizeof chunk, 0);
    if (size <= 0) {
        ended_ = true;
        return false;
    }
    input_.append(chunk, static_cast<std::size_t>(size));
    return true;
}

std::string RawClient::receive(std::chrono::milliseconds patience)
{
    const auto until = Clock::now() + patience;
    std::size_t size = 0;
    while ((size = whole_element(input_)) == 0)
        if (!fill(until))
            return {};
    std::string message = input_.substr(0, size);
    input_.erase(0, size);
    return message;
}

bool RawClient::is_closed(std::chrono::milliseconds patience)
{
    const auto until = Clock::now() + patience;
    while (fill(until))
        input_.clear();
    return ended_;
}

void RawClient::reset()
{
    const linger at_once{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    socket_.close();
}

std::string simple_bind(int id, const std::string &dn, const std::string &password)
{
    return ldap_message(id, element(0x60, concat(integer(3), octets(dn), octets(password, 0x80))));
}

std::string sasl_bind(int id, const std::string &mechanism)
{
    return ldap_message(id, element(0x60, concat(integer(3), octets(""),
                                                 element(0xa3, octets(mechanism) + octets("")))));
}

std::string whole_search(int id, const std::string &base)
{
    return ldap_message(
        id, element(0x63, concat(octets(base), enumerated(2), enumerated(0), integer(0), integer(0),
                                 boolean(false), octets("objectClass", 0x87), sequence())));
}

std::string who_am_i(int id)
{
    return ldap_message(id, element(0x77, octets("1.3.6.1.4.1.4203.1.11.3", 0x80)));
}

std::string unbind(int id)
{
    return ldap_message(id, element(0x42, ""));
}

std::string abandon(int id, int other)
{
    return ldap_message(id, integer(other, 0x50));
}

std::string extended(int id, const std::string &name, const std::string &value)
{
    return ldap_message(id, element(0x77, concat(octets(name, 0x80), octets(value, 0x81))));
}

int message_id(const std::string &message)
{
    const std::string content = Reader(message).take(0x30);
    return static_cast<int>(Reader(content).take_integer());
}

unsigned char operation(const std::string &message)
{
    const std::string content = Reader(message).take(0x30);
    Reader reader(content);
    reader.take_integer();
    return reader.next_tag();
}

int result_code(const std::string &message)
{
    const std::string body = body_of(message);
    return static_cast<int>(Reader(body).take_integer(0x0a));
}

std::string response_value(const std::string &message)
{
    const std::string body = body_of(message);
    Reader reader(body);
    while (!reader.at_end()) {
        const unsigned char tag = reader.next_tag();
        const std::string content = reader.take(tag);
        if (tag == 0x8b)
            return content;
    }
    return {};
}

bool is_notice(const std::string &message, int code)
{
    return !message.empty() && message_id(message) == 0 && operation(message) == 0x78 &&
           result_code(message) == code &&
           body_of(message).find("1.3.6.1.4.1.1466.20036") != std::string::npos;
}

} // namespace sandbox_test
