// A relay between clients and a server on loopback that makes the way longer, or ends it.
//
//     DelayingRelay relay(server_port, 5ms);           // 10 ms are added to each round trip
//     run({tool, "-H", relay.url(), ...});
//
// Every byte arrives this much later than it would, however many are under way: the relay changes
// how long the line is, not how wide. It can also be told to cut the line, as a router or a server
// that dies would.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace support {

class DelayingRelay {
public:
    DelayingRelay(int server_port, std::chrono::microseconds each_way);
    ~DelayingRelay();
    DelayingRelay(const DelayingRelay &) = delete;
    DelayingRelay &operator=(const DelayingRelay &) = delete;

    int port() const;
    std::string url() const; // "ldap://127.0.0.1:40123"

    // Ends the connections, both ways at once, as soon as so many bytes in all have reached the
    // server, or the clients; what is under way is lost. Only once.
    void cut_after_requests(std::size_t bytes);
    void cut_after_answers(std::size_t bytes);
    bool was_cut() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace support
