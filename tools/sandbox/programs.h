// Programs that the sandbox asks while it goes on serving: a few at a time, each for a limited
// time, the others wait.
#pragma once

#include "process.h"

#include <asio.hpp>

#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

class Programs {
public:
    struct Outcome {
        bool timed_out = false; // killed
        int status = 0;         // as waitpid gives it
        std::string output;     // standard output and standard error
    };
    using Ended = std::function<void(const Outcome &)>;

    // Outputs are kept in the directory while they are written.
    Programs(asio::io_context &loop, std::filesystem::path directory);

    // Starts the program, or lets it wait. False when too many are waiting.
    bool run(std::vector<std::string> command, Ended ended);
    // To be called when a child of this process has ended.
    void reap();

private:
    static constexpr std::size_t most_running = 2;
    static constexpr std::size_t most_waiting = 200;
    static constexpr std::chrono::seconds patience{5};

    struct Waiting {
        std::vector<std::string> command;
        Ended ended;
    };
    struct Running {
        Running(asio::io_context &loop, const Waiting &program, std::filesystem::path to)
            : output(std::move(to)), child(program.command, output), ended(program.ended),
              limit(loop, patience)
        {
        }
        std::filesystem::path output;
        Child child;
        Ended ended;
        asio::steady_timer limit;
    };
    using Place = std::list<Running>::iterator;

    void start_next();
    void finish(Place place, bool timed_out);

    asio::io_context &loop_;
    std::filesystem::path directory_;
    std::size_t last_ = 0;
    std::deque<Waiting> waiting_;
    std::list<Running> running_;
};

} // namespace sandbox
