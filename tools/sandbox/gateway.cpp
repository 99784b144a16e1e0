#include "gateway.h"

#include <utility>

namespace sandbox {

namespace {

std::string text_of(const asio::ip::tcp::endpoint &endpoint)
{
    const std::string address = endpoint.address().to_string();
    return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
           std::to_string(endpoint.port());
}

} // namespace

Gateway::Gateway(asio::io_context &loop, const Service &service, std::string slapd_socket)
    : loop_(loop), service_(service), slapd_socket_(std::move(slapd_socket))
{
}

void Gateway::bind(const asio::ip::address &address, std::uint16_t port, bool tls)
{
    const Tcp::endpoint endpoint(address, port);
    auto listener =
        std::make_unique<Listener>(Listener{Tcp::acceptor(loop_), asio::steady_timer(loop_), tls});
    listener->acceptor.open(endpoint.protocol());
    listener->acceptor.set_option(asio::socket_base::reuse_address(true));
    listener->acceptor.bind(endpoint);
    // Listening at once makes an address in use show now and not after the tree has been loaded;
    // clients that come meanwhile wait.
    listener->acceptor.listen();
    listeners_.push_back(std::move(listener));
}

void Gateway::listen()
{
    for (const auto &listener : listeners_)
        accept(*listener);
}

std::vector<std::string> Gateway::urls() const
{
    std::vector<std::string> urls;
    for (const auto &listener : listeners_)
        urls.push_back((listener->tls ? "ldaps://" : "ldap://") +
                       text_of(listener->acceptor.local_endpoint()) + "/");
    return urls;
}

void Gateway::accept(Listener &listener)
{
    listener.acceptor.async_accept([this, &listener](std::error_code error, Tcp::socket client) {
        if (!listener.acceptor.is_open())
            return;
        if (!error) {
            open(std::move(client), listener.tls);
            return accept(listener);
        }
        // Out of descriptors, most likely: wait for a connection to end.
        listener.pause.expires_after(std::chrono::milliseconds(100));
        listener.pause.async_wait([this, &listener](std::error_code stopped) {
            if (!stopped && listener.acceptor.is_open())
                accept(listener);
        });
    });
}

void Gateway::open(Tcp::socket client, bool tls)
{
    std::error_code error;
    const Tcp::endpoint peer = client.remote_endpoint(error);
    if (error)
        return; // it has left already
    client.set_option(Tcp::no_delay(true), error);

    Link::Socket slapd(loop_);
    slapd.connect(asio::local::stream_protocol::endpoint(slapd_socket_), error);
    const auto connection = std::make_shared<Connection>(
        service_, std::move(client), std::move(slapd), Client{++last_client_, peer, text_of(peer)});
    connections_.insert(connection);
    connection->start(
        tls, [this, weak = std::weak_ptr(connection)] { connections_.erase(weak.lock()); });
    if (error)
        connection->end({LDAP_UNAVAILABLE, "cannot reach slapd: " + error.message(), {}});
}

void Gateway::stop()
{
    for (const auto &listener : listeners_) {
        listener->pause.cancel();
        listener->acceptor.close();
    }
    for (const auto &connection : std::set(connections_))
        connection->end({LDAP_UNAVAILABLE, "the sandbox is stopping", {}});
}

} // namespace sandbox
