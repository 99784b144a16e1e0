// Child processes for tests of programs.
//
//     Finished finished = run({tool, "partition", "count", "o=x"}, {.stdin_text = "secret\n"});
//     EXPECT_EQ(finished.status, 0) << finished.err;
//
//     Child server({sandbox, "--port", "0"});          // runs until it ends or is destroyed
//     std::string line = server.read_line();           // from its standard output
//     server.signal(SIGTERM);
//     EXPECT_EQ(server.wait().status, 0);
//
// A child runs with this process's environment and directory unless told otherwise, in a process
// group of its own. Destroying a Child kills the group; so does a timeout; and should the test
// program itself be killed, the kernel kills the child (not the child's own children). Make a
// Child on a thread that outlives it. With .terminal, standard input and standard error are a
// terminal, and stdin_text is what is typed there.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

namespace support {

struct ProcessOptions {
    std::string stdin_text{};                         // then end of file
    std::map<std::string, std::string> environment{}; // on top of this process's own
    std::vector<std::string> unset{};                 // left out of it
    std::string directory{};                          // empty: this one
    std::chrono::milliseconds timeout = std::chrono::seconds(30);
    bool terminal = false;
};

struct Finished {
    int status = 0; // the exit status, or 128 + the signal that ended the child
    bool timed_out = false;
    std::string out;
    std::string err; // with .terminal: everything that the terminal showed
};

class Child {
public:
    explicit Child(const std::vector<std::string> &argv, const ProcessOptions &options = {});
    ~Child();
    Child(Child &&) noexcept;
    Child &operator=(Child &&) noexcept;

    pid_t pid() const;
    void signal(int number);
    // The next line of standard output, without its end. Throws when none comes in time, with
    // what standard error says.
    std::string read_line(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // With .terminal: waits until the terminal shows this text, after what the last call waited
    // for; throws when it does not come. And what is typed then.
    void wait_for(const std::string &text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void type(const std::string &text);
    // Waits for the end; kills the child when the options' timeout, counted from here, is over.
    // What read_line() returned is not in out again.
    Finished wait();

private:
    struct State;
    std::unique_ptr<State> state_;
};

Finished run(const std::vector<std::string> &argv, const ProcessOptions &options = {});

// A fresh directory, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    const std::string &path() const
    {
        return path_;
    }

private:
    std::string path_;
};

} // namespace support
