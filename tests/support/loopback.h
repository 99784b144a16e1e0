// TCP on loopback, for the servers and clients that tests make themselves.
//
//     const Socket listener = listening_socket();
//     const Socket client = connected_socket(port_of(listener));
//
// What fails is a std::system_error.
#pragma once

namespace support {

// Closes its descriptor, which no child process inherits.
class Socket {
public:
    explicit Socket(int file = -1) : file_(file) {}
    ~Socket()
    {
        close();
    }
    Socket(Socket &&other) noexcept;
    Socket &operator=(Socket &&) = delete;

    int get() const // -1 when it is closed
    {
        return file_;
    }
    void close();

private:
    int file_;
};

// Has a port that nobody else gets. Whoever connects to it is refused.
Socket bound_socket();
Socket listening_socket();
Socket connected_socket(int port);

int port_of(const Socket &socket);
void connect_to(int port, const Socket &socket);

} // namespace support
