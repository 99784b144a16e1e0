// The listener: accepts clients on loopback and gives each its connection.
#pragma once

#include "connection.h"

#include <asio.hpp>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace sandbox {

class Gateway {
public:
    Gateway(asio::io_context &loop, const Service &service, std::string slapd_socket);

    // Takes an address; std::system_error when it cannot be had. Port 0 takes a free one. With TLS
    // from the first byte (ldaps), or without.
    void bind(const asio::ip::address &address, std::uint16_t port, bool tls);
    void listen();
    // Where it listens: "ldap://127.0.0.1:3890/", in the order of bind().
    std::vector<std::string> urls() const;

    // Accepts no more and ends every connection.
    void stop();

private:
    using Tcp = asio::ip::tcp;

    struct Listener {
        Tcp::acceptor acceptor;
        asio::steady_timer pause;
        bool tls;
    };

    void accept(Listener &listener);
    void open(Tcp::socket client, bool tls);

    asio::io_context &loop_;
    const Service &service_;
    std::string slapd_socket_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::set<std::shared_ptr<Connection>> connections_;
    std::uint32_t last_client_ = 0;
};

} // namespace sandbox
