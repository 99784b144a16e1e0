#include "loopback.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void require(bool done, const char *what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

Socket new_socket()
{
    Socket made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(made.get() != -1, "socket");
    return made;
}

} // namespace

Socket::Socket(Socket &&other) noexcept : file_(std::exchange(other.file_, -1)) {}

void Socket::close()
{
    if (file_ != -1)
        ::close(std::exchange(file_, -1));
}

Socket bound_socket()
{
    Socket made = new_socket();
    const sockaddr_in address = loopback(0);
    require(bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
            "bind");
    return made;
}

Socket listening_socket()
{
    Socket made = bound_socket();
    require(listen(made.get(), 16) == 0, "listen");
    return made;
}

Socket connected_socket(int port)
{
    Socket made = new_socket();
    connect_to(port, made);
    return made;
}

int port_of(const Socket &socket)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    require(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &length) == 0,
            "getsockname");
    return ntohs(address.sin_port);
}

void connect_to(int port, const Socket &socket)
{
    const sockaddr_in address = loopback(port);
    require(connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
                0,
            "connect");
}

} // namespace support
