#include "process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sandbox {

namespace {

sigset_t watched_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&set, signal);
    return set;
}

[[noreturn]] void fail(const std::string &what)
{
    throw CannotStart(what + ": " + std::strerror(errno));
}

} // namespace

Signals::Signals()
{
    const sigset_t set = watched_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    // Whoever reads our output may leave; that is no reason to.
    std::signal(SIGPIPE, SIG_IGN);
    descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0)
        fail("cannot watch signals");
}

Signals::~Signals()
{
    close(descriptor_);
}

int Signals::wait(int milliseconds) const
{
    pollfd ready{descriptor_, POLLIN, 0};
    signalfd_siginfo info;
    if (poll(&ready, 1, milliseconds) == 1 &&
        read(descriptor_, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
        return static_cast<int>(info.ssi_signo);
    return 0;
}

bool Signals::means_stop(int signal)
{
    return signal == SIGINT || signal == SIGTERM || signal == SIGHUP;
}

TemporaryDirectory::TemporaryDirectory()
{
    const char *where = std::getenv("TMPDIR");
    std::string pattern = std::string(where != nullptr && *where != '\0' ? where : "/tmp");
    pattern += "/greirige-sandbox-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) // mode 0700
        fail("cannot make a temporary directory " + pattern);
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Child::Child(const std::vector<std::string> &command, const std::filesystem::path &output)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    const int log = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0)
        fail("cannot write " + output.string());
    const pid_t parent = getpid();

    pid_ = fork();
    if (pid_ == 0) {
        // Killed when the parent ends, even by SIGKILL. It may have ended already.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        setpgid(0, 0); // a Ctrl-C on the terminal is for the parent, which ends us in order
        const sigset_t set = watched_signals();
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
        std::signal(SIGPIPE, SIG_DFL);
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        close_range(STDERR_FILENO + 1, ~0U, 0); // clients' connections, among others
        execv(arguments[0], arguments.data());
        const char *reason = std::strerror(errno);
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, reason, std::strlen(reason));
        _exit(127);
    }
    close(log);
    if (pid_ < 0)
        fail("cannot start " + command.front());
}

Child::~Child()
{
    if (has_ended())
        return;
    kill(pid_, SIGKILL);
    while (waitpid(pid_, &status_, 0) < 0 && errno == EINTR)
        continue;
}

bool Child::has_ended()
{
    if (!ended_)
        ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
    return ended_;
}

int Child::wait(const Signals &signals)
{
    while (!has_ended())
        if (Signals::means_stop(signals.wait(100)))
            throw Interrupted();
    return status_;
}

std::string find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), X_OK) == 0 ? name : std::string();
    const char *path = std::getenv("PATH");
    std::istringstream directories(std::string(path != nullptr ? path : "") +
                                   ":/usr/sbin:/usr/local/sbin:/sbin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::string candidate = directory;
        candidate.append("/").append(name);
        if (!directory.empty() && access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return {};
}

std::string read_file(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file)
        fail("cannot write " + path.string());
}

} // namespace sandbox
