// The records of a load, numbered as its journal numbers them.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ldif_reader.h"
#include "load_journal.h"

namespace tool {

struct NumberedRecord {
    LdifRecord record;
    std::uint64_t ordinal = 0;
    std::uint64_t hash = 0; // of both
    bool in_doubt = false;  // it was sent before the load was interrupted
};

class LoadInput {
public:
    LoadInput(const std::vector<std::string> &files, std::uint64_t start_line)
        : reader_(files, start_line)
    {
    }

    std::optional<std::uint64_t> size() const
    {
        return reader_.size();
    }

    // Finds the place where an earlier run ended, and sees that the input is still the same: a
    // Failure where it is not. What was in doubt then, and what failed, comes next.
    struct Passed {
        std::uint64_t records = 0;
        std::uint64_t position = 0;
    };
    Passed pass_over_what_is_done(const LoadJournal &journal);

    std::optional<NumberedRecord> next();

    // Where the record stands that next() would give, or a line before it where that cannot be read
    // any more.
    std::optional<LdifPlace> place_of_next();

private:
    std::optional<NumberedRecord> read();

    LdifReader reader_;
    std::deque<NumberedRecord> pending_;
    std::uint64_t next_ordinal_ = 0;
    std::optional<LdifPlace> after_last_;
};

} // namespace tool
