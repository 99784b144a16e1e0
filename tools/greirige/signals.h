// Signals and time limits that end a wait for the server.
#pragma once

#include <chrono>

namespace tool {

// SIGINT, SIGTERM and SIGHUP no longer end the process at once: they end the wait for the server,
// and the call that waited fails. A second signal of the same kind ends the process.
void catch_signals();
bool interrupted();

// From now on a signal also ends what is still to be read from this socket, so that no wait that
// begins just after the signal misses it. -1: from no socket.
void end_reads_on_signal(int socket);

// Waits until there is something to read. Misses no signal; throws Interrupted when one comes.
void wait_for_input(int file);

// Waits so long, or less when one of the signals above comes. Misses none.
void pause_for(std::chrono::milliseconds time);

// Thrown when a call failed because a signal ended it.
struct Interrupted {
    bool reported = false; // what that leaves has been told
};
void leave_if_interrupted();

// Ends the process the way the signal would have, so that shells and parents can tell.
[[noreturn]] void end_by_signal();

// A limit for TLS handshakes. libldap 2.5 with GnuTLS repeats a read that would block over and
// over, whatever the session's time limits are and whatever signals come, so a server that stops
// in the middle of a handshake would hold the tool for ever. When the time is over, or when one
// of the signals above comes, the socket is shut down and the handshake fails. One at a time.
class HandshakeLimit {
public:
    explicit HandshakeLimit(long seconds) : seconds_(seconds) {} // 0 or less: no limit
    ~HandshakeLimit();
    HandshakeLimit(const HandshakeLimit &) = delete;
    HandshakeLimit &operator=(const HandshakeLimit &) = delete;

    // The time begins (again) for a handshake on this socket.
    void begin(int socket) const;
    bool exceeded() const;

private:
    long seconds_;
};

} // namespace tool
