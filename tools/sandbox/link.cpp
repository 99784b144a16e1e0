#include "link.h"

#include <utility>

namespace sandbox {

Link::Link(Socket socket) : socket_(std::move(socket)), patience_(socket_.get_executor()) {}

void Link::start(Events events)
{
    events_ = std::move(events);
}

template <class Handler>
void Link::read_some(Handler handler)
{
    if (tls_)
        tls_->async_read_some(asio::buffer(chunk_), std::move(handler));
    else
        socket_.async_read_some(asio::buffer(chunk_), std::move(handler));
}

template <class Handler>
void Link::write_all(Handler handler)
{
    if (tls_)
        asio::async_write(*tls_, asio::buffer(writing_), std::move(handler));
    else
        asio::async_write(socket_, asio::buffer(writing_), std::move(handler));
}

void Link::receive()
{
    if (reading_ || is_securing() || !is_open())
        return;
    reading_ = true;
    read_some([self = shared_from_this()](std::error_code error, std::size_t size) {
        self->reading_ = false;
        if (!self->is_open())
            return;
        if (error)
            return self->end(error == asio::error::eof ? "closed by the other side"
                                                       : error.message());
        self->input_.append(self->chunk_.data(), size);
        if (self->events_.received)
            self->events_.received();
    });
}

void Link::consume(std::size_t size)
{
    consumed_ += size;
    // Move what is left to the front only when that is cheap beside what has been consumed.
    if (consumed_ == input_.size() || consumed_ > input_.size() / 2) {
        input_.erase(0, consumed_);
        consumed_ = 0;
    }
}

void Link::send(std::string_view bytes)
{
    if (!is_open())
        return;
    waiting_.append(bytes);
    was_congested_ = was_congested_ || congested();
    write();
}

void Link::write()
{
    if (!writing_.empty() || (is_securing() && tls_))
        return;
    if (waiting_.empty()) {
        if (finishing_)
            linger();
        else if (is_securing())
            handshake();
        return;
    }
    writing_.swap(waiting_);
    write_all([self = shared_from_this()](std::error_code error, std::size_t) {
        self->writing_.clear();
        if (!self->socket_.is_open())
            return;
        if (error)
            return self->end(error.message());
        self->write();
        if (self->was_congested_ && self->queued() < low_water) {
            self->was_congested_ = false;
            if (self->events_.drained)
                self->events_.drained();
        }
    });
}

void Link::finish()
{
    if (!is_open())
        return;
    if (is_securing())
        return close(); // in the middle of the handshake nothing can be said
    finishing_ = true;
    events_ = {};
    patience_.expires_after(std::chrono::seconds(1));
    patience_.async_wait([self = shared_from_this()](std::error_code error) {
        if (!error)
            self->close();
    });
    write();
}

void Link::start_tls(asio::ssl::context &context, std::function<void()> done)
{
    context_ = &context;
    secured_ = std::move(done);
    write();
}

// Everything that was to go in clear has gone.
void Link::handshake()
{
    tls_.emplace(socket_, *context_);
    tls_->async_handshake(asio::ssl::stream_base::server,
                          [self = shared_from_this()](std::error_code error) {
                              const auto secured = std::exchange(self->secured_, {});
                              if (!self->is_open())
                                  return;
                              if (error)
                                  return self->end("TLS: " + error.message());
                              self->write();
                              secured();
                          });
}

// Everything has been sent: say so, and read until the other side closes.
void Link::linger()
{
    if (tls_)
        return tls_->async_shutdown(
            [self = shared_from_this()](std::error_code) { self->close(); });
    std::error_code ignored;
    socket_.shutdown(asio::socket_base::shutdown_send, ignored);
    if (reading_)
        socket_.cancel(ignored);
    socket_.async_read_some(asio::buffer(chunk_),
                            [self = shared_from_this()](std::error_code error, std::size_t) {
                                if (error && error != asio::error::operation_aborted)
                                    self->close();
                                else if (self->socket_.is_open())
                                    self->linger();
                            });
}

void Link::end(const std::string &why)
{
    const auto ended = std::move(events_.ended);
    close();
    if (ended)
        ended(why);
}

void Link::close()
{
    std::error_code ignored;
    socket_.close(ignored);
    patience_.cancel();
    events_ = {};
    secured_ = {};
}

} // namespace sandbox
