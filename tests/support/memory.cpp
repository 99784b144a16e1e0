#include "memory.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tally.h"

// The C library's allocator under its other names.
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void *block);
// Writes what coverage has counted, where the program counts it.
[[gnu::weak]] void __gcov_dump();
}

namespace {

support::Tally injected{"failed allocations"};

struct Live {
    void *address;
    std::size_t number;
    std::size_t size;
};

// One thread's measurement. Plain data, so that the first use in a thread allocates nothing.
struct Counter {
    bool active;    // releases are followed
    bool recording; // allocations are counted and may fail
    support::Fail mode;
    std::size_t nth;
    bool struck;
    std::size_t allocations;
    long kept;
    Live *live;
    std::size_t used, room;
    std::size_t largest;
};
thread_local Counter counter;

// Counts one request for memory. False: it must fail.
bool granted(std::size_t size)
{
    if (!counter.recording)
        return true;
    counter.allocations++;
    counter.largest = std::max(counter.largest, size);
    bool fails = counter.mode != support::Fail::never && counter.allocations >= counter.nth &&
                 (counter.mode == support::Fail::from_then_on || !counter.struck);
    if (fails) {
        counter.struck = true;
        errno = ENOMEM;
    }
    return !fails;
}

void *noted(void *block, std::size_t size)
{
    if (!counter.recording || block == nullptr)
        return block;
    if (counter.used == counter.room) {
        counter.room = counter.room * 2 + 64;
        counter.live =
            static_cast<Live *>(__libc_realloc(counter.live, counter.room * sizeof(Live)));
    }
    counter.live[counter.used++] = {block, counter.allocations, size};
    counter.kept++;
    return block;
}

void forgotten(void *block)
{
    if (!counter.active || block == nullptr)
        return;
    counter.kept--;
    for (std::size_t i = counter.used; i-- > 0;) // most blocks do not live long
        if (counter.live[i].address == block) {
            std::memmove(counter.live + i, counter.live + i + 1,
                         (--counter.used - i) * sizeof(Live));
            return;
        }
}

} // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

void *malloc(std::size_t size) noexcept
{
    return granted(size) ? noted(__libc_malloc(size), size) : nullptr;
}

void *calloc(std::size_t count, std::size_t size) noexcept
{
    return granted(count * size) ? noted(__libc_calloc(count, size), count * size) : nullptr;
}

void *realloc(void *block, std::size_t size) noexcept
{
    if (!granted(size))
        return nullptr;
    void *moved = __libc_realloc(block, size);
    if (moved != nullptr || size == 0)
        forgotten(block);
    return noted(moved, size);
}

void free(void *block) noexcept
{
    forgotten(block);
    __libc_free(block);
}

void *memalign(std::size_t alignment, std::size_t size) noexcept
{
    return granted(size) ? noted(__libc_memalign(alignment, size), size) : nullptr;
}

void *aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    return memalign(alignment, size);
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size) noexcept
{
    void *made = memalign(alignment, size);
    if (made == nullptr)
        return ENOMEM;
    *block = made;
    return 0;
}

// The C library's own wants memory for its message, and without any says nothing that would tell
// one failure from another.
[[noreturn]] void __assert_fail(const char *assertion, const char *file, unsigned line,
                                const char *function) noexcept
{
    static_cast<void>(file), static_cast<void>(line);
    for (const char *part : {function, ": Assertion `", assertion, "' failed.\n"})
        static_cast<void>(!write(STDERR_FILENO, part, std::strlen(part)));
    std::abort();
}

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace support {

std::string Usage::describe() const
{
    std::string text = std::to_string(allocations) + " allocations, " + std::to_string(kept) +
                       " more than released;";
    for (const Block &block : blocks)
        text +=
            " #" + std::to_string(block.number) + " of " + std::to_string(block.size) + " bytes;";
    return text;
}

Measurement::Measurement(Fail mode, std::size_t nth)
{
    if (counter.active)
        throw std::logic_error("one measurement inside another");
    counter = {true, true, mode, nth, false, 0, 0, counter.live, 0, counter.room, 0};
}

Measurement::~Measurement()
{
    counter.active = counter.recording = false;
    __libc_free(counter.live);
    counter.live = nullptr;
    counter.used = counter.room = 0;
}

// The state is the thread's and not the object's.
// NOLINTBEGIN(readability-convert-member-functions-to-static)
void Measurement::only_releases()
{
    counter.recording = false;
}

Usage Measurement::stop()
{
    counter.active = counter.recording = false;
    injected.count += counter.struck;
    Usage usage{counter.allocations, counter.kept, {}, counter.struck, counter.largest};
    for (std::size_t i = 0; i < counter.used; i++)
        usage.blocks.push_back({counter.live[i].number, counter.live[i].size});
    return usage;
}
// NOLINTEND(readability-convert-member-functions-to-static)

std::string Outcome::describe() const
{
    return died.empty() ? "rc " + std::to_string(rc) + ", " + std::to_string(lost) + " lost" : died;
}

void Step::run(const std::function<int()> &operation)
{
    if (measurement_)
        throw std::logic_error("a second operation in one body");
    measurement_.emplace(mode_, nth_);
    rc_ = operation();
    measurement_->only_releases();
}

Outcome Step::outcome()
{
    if (!measurement_)
        throw std::logic_error("no operation in the body");
    Usage usage = measurement_->stop();
    return {rc_, usage.blocks.size(), usage.allocations, usage.struck, {}};
}

namespace {

// What the child leaves for its parent in shared memory.
struct Report {
    bool complete;
    int rc;
    std::size_t lost;
    std::size_t allocations;
    bool struck;
    char failure[256];
};

[[noreturn]] void run_child(Report &report, int log, Fail mode, std::size_t nth,
                            const std::function<void(Step &)> &body)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    dup2(log, STDERR_FILENO);
    alarm(30); // a wait that never ends is a death too
    try {
        Step step(mode, nth);
        body(step);
        Outcome outcome = step.outcome();
        report = {true, outcome.rc, outcome.lost, outcome.allocations, outcome.struck, {}};
    } catch (const std::exception &error) {
        std::strncpy(report.failure, error.what(), sizeof report.failure - 1);
    }
    if (__gcov_dump != nullptr)
        __gcov_dump();
    _exit(0);
}

std::string last_line(int log)
{
    std::string text(4096, '\0');
    ssize_t size = pread(log, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text.substr(text.rfind('\n') + 1); // npos + 1 is 0
}

} // namespace

Outcome run_failing(Fail mode, std::size_t nth, const std::function<void(Step &)> &body)
{
    void *shared =
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int log = memfd_create("stderr", MFD_CLOEXEC);
    if (shared == MAP_FAILED || log == -1)
        throw std::runtime_error("no shared memory for a child process");
    auto &report = *new (shared) Report{};
    pid_t child = fork();
    if (child == -1)
        throw std::runtime_error("no child process");
    if (child == 0)
        run_child(report, log, mode, nth, body);

    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR)
        ;
    Outcome outcome{report.rc, report.lost, report.allocations, report.struck, {}};
    if (WIFSIGNALED(status)) {
        outcome.struck = true;
        outcome.died = std::string(strsignal(WTERMSIG(status))) + ": " + last_line(log);
    } else if (!report.complete) {
        outcome.struck = true;
        outcome.died = std::string("failed: ") + report.failure;
    }
    munmap(shared, sizeof(Report));
    close(log);
    injected.count += outcome.struck;
    return outcome;
}

std::vector<Outcome> sweep(Fail mode, const std::function<void(Step &)> &body)
{
    std::vector<Outcome> outcomes;
    do {
        outcomes.push_back(run_failing(mode, outcomes.size() + 1, body));
        if (outcomes.size() > 100000)
            throw std::runtime_error("a sweep without an end");
    } while (outcomes.back().struck);
    return outcomes;
}

} // namespace support
