// Processes, signals and files that must not outlive the sandbox.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sandbox {

// The sandbox cannot start; the message says why and what to do.
struct CannotStart : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A signal asked for the end while the sandbox was still starting.
struct Interrupted {};

// SIGINT, SIGTERM, SIGHUP and SIGCHLD, read from a descriptor instead of interrupting whatever
// is being done: while starting they are waited for, later the event loop watches the descriptor.
class Signals {
public:
    Signals();
    ~Signals();
    Signals(const Signals &) = delete;
    Signals &operator=(const Signals &) = delete;

    int descriptor() const
    {
        return descriptor_;
    }
    // The next signal, 0 when there is none for so long.
    int wait(int milliseconds) const;
    static bool means_stop(int signal);

private:
    int descriptor_;
};

// A directory of our own, readable for nobody else, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    const std::filesystem::path &path() const
    {
        return path_;
    }

private:
    std::filesystem::path path_;
};

// A child that dies with its parent, however the parent ends, and at the latest with this object.
class Child {
public:
    // Its standard output and standard error go to the file `output`.
    Child(const std::vector<std::string> &command, const std::filesystem::path &output);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // True when it has ended; status() then tells how.
    bool has_ended();
    int status() const // as waitpid gives it
    {
        return status_;
    }
    // Waits for the end. Interrupted when a signal to stop comes first.
    int wait(const Signals &signals);

private:
    pid_t pid_;
    int status_ = 0;
    bool ended_ = false;
};

// A program's path: as given when it holds a slash, otherwise searched for in PATH and in the
// directories that administrators' programs live in. Empty when there is none.
std::string find_program(const std::string &name);

std::string read_file(const std::filesystem::path &path);
void write_file(const std::filesystem::path &path, const std::string &text);

} // namespace sandbox
