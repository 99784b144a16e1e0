#include "signals.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace tool {

namespace {

constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t signal_received = 0;
volatile std::sig_atomic_t limit_exceeded = 0;
volatile std::sig_atomic_t handshaking_socket = -1;
volatile std::sig_atomic_t session_socket = -1;

// The handlers call nothing but shutdown(2), which a handler may.

extern "C" void note_signal(int number)
{
    signal_received = number;
    if (handshaking_socket >= 0)
        shutdown(handshaking_socket, SHUT_RDWR);
    if (session_socket >= 0)
        shutdown(session_socket, SHUT_RD); // an Unbind can still be written
}

extern "C" void note_limit(int)
{
    limit_exceeded = 1;
    if (handshaking_socket >= 0)
        shutdown(handshaking_socket, SHUT_RDWR);
}

void set_timer(long seconds)
{
    const itimerval timer{.it_interval = {.tv_sec = 0, .tv_usec = 0},
                          .it_value = {.tv_sec = seconds, .tv_usec = 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// Until there is something to read, one of our signals comes, or the time is over.
void wait_for(int file, const timespec *limit)
{
    // Blocked, a signal cannot come between the look at the flag and the wait.
    sigset_t ours;
    sigset_t before;
    sigemptyset(&ours);
    for (const int number : ending_signals)
        sigaddset(&ours, number);
    sigprocmask(SIG_BLOCK, &ours, &before);
    pollfd input{.fd = file, .events = POLLIN, .revents = 0};
    while (!interrupted() && ppoll(&input, 1, limit, &before) < 0 && errno == EINTR)
        ;
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = note_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // not SA_RESTART: waiting calls must end
    for (const int number : ending_signals) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) // as nohup(1) and background shells leave it
            sigaction(number, &action, nullptr);
    }
    action.sa_handler = note_limit;
    action.sa_flags = 0;
    sigaction(SIGALRM, &action, nullptr);
    // A server or a reader of our output that goes away is an error to report, not a death.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

bool interrupted()
{
    return signal_received != 0;
}

void end_reads_on_signal(int socket)
{
    session_socket = socket;
}

void wait_for_input(int file)
{
    wait_for(file, nullptr);
    leave_if_interrupted();
}

void pause_for(std::chrono::milliseconds time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const timespec limit{.tv_sec = seconds.count(),
                         .tv_nsec = std::chrono::nanoseconds(time - seconds).count()};
    wait_for(-1, &limit);
}

void leave_if_interrupted()
{
    if (interrupted())
        throw Interrupted{};
}

void end_by_signal()
{
    const int number = signal_received;
    static_cast<void>(std::signal(number, SIG_DFL));
    static_cast<void>(raise(number));
    std::_Exit(128 + number);
}

HandshakeLimit::~HandshakeLimit()
{
    set_timer(0);
    handshaking_socket = -1;
}

void HandshakeLimit::begin(int socket) const
{
    limit_exceeded = 0;
    handshaking_socket = socket;
    if (seconds_ > 0)
        set_timer(seconds_);
}

bool HandshakeLimit::exceeded() const
{
    return seconds_ > 0 && limit_exceeded != 0;
}

} // namespace tool
