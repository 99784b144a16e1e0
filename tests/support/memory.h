// Counts and fails the memory allocations of one piece of a test, those inside libldap, liblber
// and the C library's strdup included. For tests declared with MEMORY in greirige_test(); such a
// program's malloc, calloc, realloc and free are replaced, so sanitizer builds leave it out.
//
//     Usage usage = measure([&] { rc = ldap_split_partition(peer.ld(), dn, 0); });
//     EXPECT_EQ(usage.kept, 0) << usage.describe();
//
// Only the calling thread is looked at, and only while the callable runs: keep test code that
// allocates out of it. kept is what was allocated less what was released, so a block that is
// handed out counts 1 and the release of an older block -1.
//
// The out-of-memory sweep runs a body again and again, each time with the next allocation
// failing, in a child process, so that a crash is a result like any other:
//
//     auto body = [&](Step &step) {
//         Peer peer;                                     // not counted, never fails
//         peer.respond({.name = LDAPX_SPLIT_PARTITION_RESPONSE});
//         peer.finish();                                 // so that a lost response ends the wait
//         step.run([&] { return ldap_split_partition(peer.ld(), dn, 0); });
//     };
//     for (const Outcome &outcome : sweep(Fail::once, body)) ...
//
// outcomes[n - 1] is the run whose nth allocation failed; the last one is the run that was left
// alone. lost counts the operation's blocks that were still there when the body was over: release
// in the body what the operation hands out, and let the session end there.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace support {

struct Block {
    std::size_t number = 0; // 1 is the first allocation of the measured piece
    std::size_t size = 0;
};

struct Usage {
    std::size_t allocations = 0; // asked for, failed ones included
    long kept = 0;
    std::vector<Block> blocks; // allocated in the measured piece and not released in it
    bool struck = false;       // the planned failure has happened
    std::size_t largest = 0;   // block that was asked for
    std::string describe() const;
};

enum class Fail { never, once, from_then_on };

// While it lives, this thread's allocations are counted, and from the nth on made to fail. Use
// measure() where a callable will do. One at a time.
class Measurement {
public:
    explicit Measurement(Fail mode = Fail::never, std::size_t nth = 0);
    ~Measurement();
    Measurement(const Measurement &) = delete;
    Measurement &operator=(const Measurement &) = delete;
    // From here on nothing fails, and what is allocated does not count; releases still do.
    void only_releases();
    Usage stop();
};

template <class Callable>
Usage measure(Callable &&callable)
{
    Measurement measurement;
    callable();
    return measurement.stop();
}

template <class Callable>
Usage measure_failing(Fail mode, std::size_t nth, Callable &&callable)
{
    Measurement measurement(mode, nth);
    callable();
    return measurement.stop();
}

struct Outcome {
    int rc = 0;           // what the operation returned
    std::size_t lost = 0; // its blocks that nothing released until the body was over
    std::size_t allocations = 0;
    bool struck = false;
    std::string died; // empty, or the signal and the last line on standard error

    bool operator==(const Outcome &) const = default;
    std::string describe() const;
    friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
    {
        return out << outcome.describe();
    }
};

class Step {
public:
    Step(Fail mode, std::size_t nth) : mode_(mode), nth_(nth) {}
    // Runs the operation, which returns a result code, under the failure. Once in a body.
    void run(const std::function<int()> &operation);
    // After the body.
    Outcome outcome();

private:
    Fail mode_;
    std::size_t nth_;
    int rc_ = 0;
    std::optional<Measurement> measurement_;
};

// Runs the body once in a child process, the nth allocation failing.
Outcome run_failing(Fail mode, std::size_t nth, const std::function<void(Step &)> &body);
std::vector<Outcome> sweep(Fail mode, const std::function<void(Step &)> &body);

} // namespace support
