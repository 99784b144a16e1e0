#include "process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace support {

using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        reset();
    }
    int get() const
    {
        return fd_;
    }
    bool open() const
    {
        return fd_ != -1;
    }
    void reset()
    {
        if (fd_ != -1)
            close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor read, write;
    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1)
            fail("pipe");
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
    }
};

// A terminal's two sides, as a person sits before it and as a program sees it.
struct Terminal {
    Descriptor master, slave;
    Terminal()
    {
        master = Descriptor(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!master.open() || grantpt(master.get()) == -1 || unlockpt(master.get()) == -1)
            fail("terminal");
        slave = Descriptor(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!slave.open())
            fail("terminal");
    }
};

void never_block(const Descriptor &descriptor)
{
    fcntl(descriptor.get(), F_SETFL, fcntl(descriptor.get(), F_GETFL) | O_NONBLOCK);
}

std::vector<char *> pointers(std::vector<std::string> &strings)
{
    std::vector<char *> all;
    all.reserve(strings.size() + 1);
    for (std::string &string : strings)
        all.push_back(string.data());
    all.push_back(nullptr);
    return all;
}

std::vector<std::string> environment_of(const ProcessOptions &options)
{
    std::vector<std::string> all;
    for (char **variable = environ; *variable != nullptr; variable++) {
        std::string entry = *variable;
        std::string name = entry.substr(0, entry.find('='));
        if (!options.environment.contains(name) &&
            std::find(options.unset.begin(), options.unset.end(), name) == options.unset.end())
            all.push_back(entry);
    }
    for (const auto &[name, value] : options.environment)
        all.push_back(std::string(name).append("=").append(value));
    return all;
}

} // namespace

struct Child::State {
    std::string name;
    pid_t pid = -1;
    std::optional<int> status; // as waitpid gave it
    std::chrono::milliseconds timeout{};
    std::string unwritten;
    bool terminal = false;
    Descriptor in, out, err;
    std::string out_text, err_text;
    std::size_t taken = 0; // of out_text, by read_line
    std::size_t seen = 0;  // of err_text, by wait_for

    void start(const std::vector<std::string> &arguments, const ProcessOptions &options);
    // Moves what can be moved until the deadline or until there is something new.
    void transfer(Clock::time_point deadline);
    void write_input();
    bool ended();
    void kill_group();
};

void Child::State::start(const std::vector<std::string> &arguments, const ProcessOptions &options)
{
    if (arguments.empty())
        throw std::invalid_argument("no program");
    name = arguments[0];
    timeout = options.timeout;
    unwritten = options.stdin_text;
    terminal = options.terminal;

    // Everything that allocates happens before the fork: the test may have other threads.
    std::vector<std::string> argument_strings = arguments;
    std::vector<std::string> environment_strings = environment_of(options);
    std::vector<char *> argv = pointers(argument_strings);
    std::vector<char *> envp = pointers(environment_strings);

    Pipe output;
    Pipe failure; // carries errno when the program cannot be started
    std::optional<Pipe> input;
    std::optional<Pipe> error;
    std::optional<Terminal> tty;
    if (terminal) {
        tty.emplace();
    } else {
        input.emplace();
        error.emplace();
    }
    int standard[3] = {tty ? tty->slave.get() : input->read.get(), output.write.get(),
                       tty ? tty->slave.get() : error->write.get()};

    pid_t parent = getpid();
    pid = fork();
    if (pid == -1)
        fail("fork");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        setsid(); // its own group, and no terminal but the one it may be given
        if (terminal)
            ioctl(tty->slave.get(), TIOCSCTTY, 0);
        static_cast<void>(std::signal(SIGPIPE, SIG_DFL));
        for (int fd = 0; fd < 3; fd++)
            if (dup2(standard[fd], fd) == -1)
                _exit(127);
        if (options.directory.empty() || chdir(options.directory.c_str()) == 0)
            execvpe(argv[0], argv.data(), envp.data());
        int code = errno;
        static_cast<void>(!write(failure.write.get(), &code, sizeof code));
        _exit(127);
    }

    failure.write.reset();
    int code = 0;
    if (read(failure.read.get(), &code, sizeof code) == sizeof code) {
        waitpid(pid, nullptr, 0);
        pid = -1;
        throw std::system_error(code, std::generic_category(), name);
    }
    out = std::move(output.read);
    if (terminal) {
        err = std::move(tty->master);
    } else {
        in = std::move(input->write);
        err = std::move(error->read);
        never_block(in);
    }
    never_block(out);
    never_block(err);
    static_cast<void>(
        std::signal(SIGPIPE, SIG_IGN)); // a child that does not read its input is no reason to die
    write_input();
}

void Child::State::write_input()
{
    Descriptor &to = terminal ? err : in;
    while (to.open() && !unwritten.empty()) {
        ssize_t put = write(to.get(), unwritten.data(), unwritten.size());
        if (put > 0)
            unwritten.erase(0, static_cast<std::size_t>(put));
        else if (errno == EAGAIN)
            return;
        else if (errno != EINTR)
            unwritten.clear();
    }
    if (!terminal)
        in.reset();
}

namespace {

void read_output(Descriptor &from, std::string &to)
{
    char buffer[65536];
    while (from.open()) {
        ssize_t got = read(from.get(), buffer, sizeof buffer);
        if (got > 0)
            to.append(buffer, static_cast<std::size_t>(got));
        else if (got == -1 && errno == EAGAIN)
            return;
        else if (got == 0 || errno != EINTR)
            from.reset(); // a terminal whose program has ended answers EIO
    }
}

} // namespace

void Child::State::transfer(Clock::time_point deadline)
{
    bool writing = !unwritten.empty();
    pollfd waiting[] = {
        {in.get(), static_cast<short>(in.open() ? POLLOUT : 0), 0},
        {out.get(), POLLIN, 0},
        {err.get(), static_cast<short>(terminal && writing ? POLLIN | POLLOUT : POLLIN), 0}};
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    // A child can end while a grandchild holds its pipes open: look again now and then.
    poll(waiting, 3, static_cast<int>(std::clamp<long long>(left, 0, 20)));
    if (writing)
        write_input();
    read_output(out, out_text);
    read_output(err, err_text);
}

bool Child::State::ended()
{
    int raw = 0;
    if (!status && waitpid(pid, &raw, WNOHANG) == pid)
        status = raw;
    return status.has_value();
}

void Child::State::kill_group()
{
    if (pid == -1)
        return;
    kill(-pid, SIGKILL);
    if (!status) {
        int raw = 0;
        while (waitpid(pid, &raw, 0) == -1 && errno == EINTR)
            ;
        status = raw;
    }
}

Child::Child(const std::vector<std::string> &argv, const ProcessOptions &options)
    : state_(std::make_unique<State>())
{
    state_->start(argv, options);
}

Child::~Child()
{
    if (state_)
        state_->kill_group();
}

Child::Child(Child &&) noexcept = default;

Child &Child::operator=(Child &&other) noexcept
{
    std::swap(state_, other.state_);
    return *this;
}

pid_t Child::pid() const
{
    return state_->pid;
}

void Child::signal(int number)
{
    if (!state_->ended())
        kill(state_->pid, number);
}

std::string Child::read_line(std::chrono::milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    for (;;) {
        std::size_t end = state_->out_text.find('\n', state_->taken);
        if (end != std::string::npos) {
            std::string line = state_->out_text.substr(state_->taken, end - state_->taken);
            state_->taken = end + 1;
            return line;
        }
        state_->out_text.erase(0, std::exchange(state_->taken, 0));
        if (!state_->out.open() || Clock::now() >= deadline)
            throw std::runtime_error(state_->name +
                                     ": no line came; standard error: " + state_->err_text);
        state_->transfer(deadline);
    }
}

void Child::wait_for(const std::string &text, std::chrono::milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    for (;;) {
        std::size_t found = state_->err_text.find(text, state_->seen);
        if (found != std::string::npos) {
            state_->seen = found + text.size();
            return;
        }
        if (!state_->err.open() || Clock::now() >= deadline)
            throw std::runtime_error(state_->name + ": \"" + text +
                                     "\" was not shown; the terminal shows: " + state_->err_text);
        state_->transfer(deadline);
    }
}

void Child::type(const std::string &text)
{
    state_->unwritten += text;
    state_->write_input();
}

Finished Child::wait()
{
    Finished finished;
    auto deadline = Clock::now() + state_->timeout;
    while (!state_->ended()) {
        if (Clock::now() >= deadline) {
            finished.timed_out = true;
            break;
        }
        state_->transfer(deadline);
    }
    state_->kill_group(); // what the child may have left behind
    state_->transfer(Clock::now());
    int raw = *state_->status;
    finished.status = WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw);
    finished.out = std::exchange(state_->out_text, {}).substr(std::exchange(state_->taken, 0));
    finished.err = std::exchange(state_->err_text, {});
    return finished;
}

Finished run(const std::vector<std::string> &argv, const ProcessOptions &options)
{
    return Child(argv, options).wait();
}

TemporaryDirectory::TemporaryDirectory()
{
    path_ = (std::filesystem::temp_directory_path() / "greirige-test-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr)
        fail("mkdtemp");
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace support
