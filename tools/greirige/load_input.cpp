#include "load_input.h"

#include <algorithm>

#include "error.h"
#include "signals.h"
#include "text.h"

namespace tool {

LoadInput::Passed LoadInput::pass_over_what_is_done(const LoadJournal &journal)
{
    const LoadJournal::State &state = journal.state();
    Passed passed;
    std::uint64_t hash = 0;
    std::uint64_t hash_in_doubt = 0;
    while (next_ordinal_ < state.next) {
        auto next = read();
        if (!next)
            break;
        next->in_doubt = state.in_doubt.contains(next->ordinal);
        const bool failed = state.failed.contains(next->ordinal);
        if (next->in_doubt)
            hash_in_doubt += next->hash;
        else if (!failed && !state.rejected.contains(next->ordinal))
            hash += next->hash;
        if (next->in_doubt || failed) {
            pending_.push_back(*std::move(next));
        } else {
            passed.position = next->record.position;
            ++passed.records;
        }
    }
    if (next_ordinal_ < state.next || hash != state.hash || hash_in_doubt != state.in_doubt_hash)
        throw Failure(ExitStatus::failed,
                      "--journal " + in_quotes(journal.path()) +
                          ": the input has changed where it was loaded already (among its first " +
                          counted(static_cast<long>(state.next), "record") +
                          "): nothing was sent. Only records that failed and those after them can "
                          "be changed between two runs");
    return passed;
}

std::optional<NumberedRecord> LoadInput::next()
{
    if (pending_.empty())
        return read();
    NumberedRecord next = std::move(pending_.front());
    pending_.pop_front();
    return next;
}

std::optional<NumberedRecord> LoadInput::read()
{
    auto record = reader_.next();
    if (!record)
        return std::nullopt;
    after_last_ = record->place;
    after_last_->line =
        record->first_line +
        static_cast<std::uint64_t>(std::count(record->text.begin(), record->text.end(), '\n'));
    NumberedRecord next{*std::move(record), next_ordinal_++};
    next.hash = hash_of(next.ordinal, next.record.text);
    return next;
}

std::optional<LdifPlace> LoadInput::place_of_next()
{
    if (interrupted())
        return after_last_;
    try {
        if (const auto record = reader_.next())
            return record->place;
    } catch (const std::exception &) { // the next run will say it
    }
    return std::nullopt;
}

} // namespace tool
