// What a load has confirmed, on disk, so that one that was interrupted can be resumed.
//
// Records are numbered from 0 in the order of the input. A line is written, and is on the disk,
// before records are sent, and another one when their outcomes are known. Records that were sent
// and have no outcome are in doubt: the process, the connection or the machine went away between
// the two lines. The journal holds sums of hashes of what was loaded, so that a resumed load
// notices when the input has changed where it matters; where records failed, and after the last
// one that was sent, it may be corrected.
//
// The file is text, one JSON object on each line; a line that was cut by the end of the process is
// no line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"

namespace tool {

using Ordinals = std::vector<std::uint64_t>;

// A hash that finds changes that nobody makes on purpose (FNV-1a); what comes after it goes on from
// it.
constexpr std::uint64_t hash_of_nothing = 0xcbf29ce484222325;
std::uint64_t hash_of(std::string_view bytes, std::uint64_t before = hash_of_nothing);
// Of a record's number and text. Sums of them do not depend on the order.
std::uint64_t hash_of(std::uint64_t ordinal, const std::string &text);

// What a file held when it was last written.
struct Written {
    std::uint64_t size = 0;
    std::uint64_t hash = hash_of_nothing;
};

class LoadJournal {
public:
    // What a journal belongs to.
    struct Load {
        std::string server;
        std::vector<std::string> files;
        std::uint64_t start_line = 0;
    };
    // What it says when it is opened; nothing of it changes afterwards.
    struct State {
        std::uint64_t next = 0; // the first record that was never sent
        std::uint64_t hash = 0; // the sum over those before it that are done
        std::set<std::uint64_t> in_doubt;
        std::uint64_t in_doubt_hash = 0;      // the sum over these
        std::set<std::uint64_t> failed;       // and not in the file of rejects: to be tried again
        std::set<std::uint64_t> rejected;     // failed, and in the file of rejects
        Written rejects;                      // of that file
        std::map<std::uint64_t, Json> before; // what was noted when a record in doubt was sent
        bool resumed = false;                 // there was a journal
        bool finished = false;                // with nothing left to do
    };
    struct Outcome {
        Ordinals failed;
        Ordinals rejected;
        std::uint64_t hash = 0; // the sum over those that succeeded
        Written rejects;
    };

    // Reads the journal that is there, or begins one. Throws a Failure when it belongs to another
    // load, cannot be read or is in use.
    LoadJournal(std::string path, const Load &load);
    ~LoadJournal();
    LoadJournal(const LoadJournal &) = delete;
    LoadJournal &operator=(const LoadJournal &) = delete;

    const State &state() const
    {
        return state_;
    }
    const std::string &path() const
    {
        return path_;
    }

    // These records, with this sum, are going to be sent; what it returns names them.
    // Of the sum so much belongs to records that were in doubt and are sent again.
    std::uint64_t sent(const Ordinals &records, std::uint64_t hash, std::uint64_t hash_of_doubtful,
                       const Json &before);
    void done(std::uint64_t group, const Outcome &outcome);
    void finish();

private:
    struct Group {
        Ordinals records;
        std::uint64_t hash = 0;
    };

    [[noreturn]] void fail(const std::string &why) const;
    void read(const Load &load);
    void take(const Json &line, const Load &load, bool first);
    void write(const Json &line);

    std::string path_;
    int file_ = -1;
    State state_;
    std::uint64_t next_group_ = 1;
    std::map<std::uint64_t, Group> open_; // only while the journal is read
};

} // namespace tool
