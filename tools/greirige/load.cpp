// greirige load: LDIF into the directory, by bulk update.
//
// Records are read, cut into groups of a batch's size and sent while earlier groups are under way.
// A group keeps its records until the outcome of each is known; then, in the order of the input,
// failures are told, written to the file of rejects and noted in the journal.

#include "commands.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "greirige/bulk.hpp"

#include "in_doubt.h"
#include "ldif_update.h"
#include "load_input.h"
#include "load_journal.h"
#include "progress.h"
#include "rejects.h"
#include "signals.h"
#include "text.h"

namespace tool {

namespace {

using greirige::BulkFailure;
using greirige::BulkLoad;
using greirige::Update;
using Clock = std::chrono::steady_clock;

// After a signal, answers to what has been sent are awaited so long.
constexpr auto patience_after_signal = std::chrono::seconds(5);

struct Arguments {
    std::vector<std::string> files;
    bool go_on = false;
    std::string rejects; // empty: none
    std::uint64_t start_line = 0;
    std::size_t batch = 0; // 0: as the server announces
    std::size_t window = greirige::BulkOptions().window;
    std::string journal; // empty: none
};

// What became of the records, by kind of change.
struct Counts {
    std::uint64_t records = 0;
    std::uint64_t added = 0;
    std::uint64_t deleted = 0;
    std::uint64_t modified = 0;
    std::uint64_t renamed = 0;
    std::uint64_t failed = 0;

    std::uint64_t loaded() const
    {
        return added + deleted + modified + renamed;
    }
    void add(const Update &update)
    {
        ++(std::holds_alternative<greirige::AddEntry>(update)      ? added
           : std::holds_alternative<greirige::DeleteEntry>(update) ? deleted
           : std::holds_alternative<greirige::ModifyEntry>(update) ? modified
                                                                   : renamed);
    }
    Json json() const
    {
        return {{"records", records},   {"added", added},     {"deleted", deleted},
                {"modified", modified}, {"renamed", renamed}, {"failed", failed}};
    }
};

std::string in_words(const Update &update)
{
    const std::string verb = std::holds_alternative<greirige::AddEntry>(update)      ? "add "
                             : std::holds_alternative<greirige::DeleteEntry>(update) ? "delete "
                             : std::holds_alternative<greirige::ModifyEntry>(update) ? "modify "
                                                                                     : "rename ";
    return verb + in_quotes(std::visit([](const auto &each) { return each.dn; }, update));
}

std::string records_of(std::uint64_t number)
{
    return grouped(number) + (number == 1 ? " record" : " records");
}

std::string were(std::uint64_t number)
{
    return number == 1 ? "was" : "were";
}

bool are_one_file(const std::string &a, const std::string &b)
{
    struct stat first = {};
    struct stat second = {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino && S_ISREG(first.st_mode);
}

// A record on its way.
struct Item : NumberedRecord {
    std::optional<Update> update = std::nullopt; // nothing where the record cannot be read
    bool found_done = false;                     // in doubt, and had been carried out
    Json before = {};                            // of an increment
    NamesUnderWay::Names names = {};
    int code = LDAP_SUCCESS;
    std::string failure = {}; // why it failed
};

struct Group {
    std::vector<Item> items;
    std::uint64_t journal_id = 0;
    std::uint64_t taken_before = 0;   // updates that were submitted before this group
    std::uint64_t taken = 0;          // and of this group
    std::uint64_t batches_before = 0; // that were sent
    bool sent = false;                // as a whole
};

class Load {
public:
    Load(Tool &tool, const Arguments &arguments)
        : tool_(tool), arguments_(arguments), input_(arguments.files, arguments.start_line),
          progress_(input_.size())
    {
        for (const std::string &file : arguments_.files)
            names_.push_back(file == "-" ? "standard input" : file);
    }

    ExitStatus check();
    ExitStatus run();

private:
    Operation operation() const;
    void check_files() const;
    // A load with this journal has been completed; nothing of it waits for another attempt.
    bool is_finished() const
    {
        return journal_ && journal_->state().finished && journal_->state().failed.empty();
    }
    void open_journal();
    void pass_over_what_is_done();
    void start();
    void transfer();

    // The next group, and its way to the server.
    bool gather();
    std::optional<Item> next_item();
    bool admit(Item &item);
    void look_at_what_is_in_doubt(Item &item);
    void note_in_journal();
    void send();
    void submit(Group &group);
    template <class Call>
    void wait_for(const Call &call);

    // What came of it.
    void note_failure(const BulkFailure &failure);
    void take_outcomes();
    void take_outcome(Item &item, LoadJournal::Outcome &outcome);
    void complain_about(const LdifPlace &place, const std::string &what);
    void wait_a_moment_for_outcomes();
    void report();
    std::uint64_t unknown() const;
    void report_what_is_unknown();
    void say_how_to_go_on();
    ExitStatus status() const;

    Tool &tool_;
    const Arguments &arguments_;
    std::vector<std::string> names_; // of the input files
    LoadInput input_;
    Progress progress_;
    std::optional<LoadJournal> journal_;
    std::optional<Rejects> rejects_;
    std::optional<BulkLoad> load_;
    long time_limit_ = -1;                 // of the session, in seconds
    std::optional<Clock::time_point> end_; // of the patience after a signal

    std::optional<Item> held_back_; // for the next group
    NamesUnderWay names_under_way_;
    Group gathering_;
    std::deque<Group> under_way_;

    bool stopped_ = false;  // something failed, and the load does not go on
    bool complete_ = false; // everything has been read and has its outcome
    Counts counts_;
    std::uint64_t resumed_after_ = 0; // records that an earlier run dealt with
    std::uint64_t found_done_ = 0;    // of those in doubt
    std::optional<std::uint64_t> first_failure_;
    std::uint64_t loaded_after_failure_ = 0;
    std::uint64_t failed_after_failure_ = 0;
    std::optional<LdifPlace> bad_place_; // of what could not be read
    std::string trouble_;                // why the load ended early, if not by a failed record
    std::uint64_t position_ = 0;
    Clock::time_point begin_ = Clock::now();
    double waited_ = 0; // seconds
};

Operation Load::operation() const
{
    std::string files;
    Json list = Json::array();
    for (const std::string &name : names_) {
        files += (files.empty() ? "" : ", ") + printable(name);
        list.push_back(json_text(name));
    }
    return {.name = "load", .doing = "load " + files, .done = {}, .details = {{"files", list}}};
}

// ---- Without a server ---------------------------------------------------------------------------

// -n: everything is read and counted.
ExitStatus Load::check()
{
    for (;;) {
        try {
            const auto next = input_.next();
            if (!next)
                break;
            ++counts_.records;
            counts_.add(read_update(next->record));
            progress_.show(counts_.records, next->record.position);
        } catch (const LdifError &error) {
            ++counts_.failed;
            complain_about(error.place, error.what());
            if (!arguments_.go_on)
                break;
        }
    }
    progress_.clear();
    if (tool_.output.json()) {
        Json json = tool_.document(operation());
        json["done"] = false;
        json["dryRun"] = true;
        json.update(counts_.json());
        tool_.output.document(json);
    } else {
        tool_.output.line("would load " + records_of(counts_.loaded()) + " on " + tool_.server() +
                          ": " + grouped(counts_.added) + " added, " + grouped(counts_.deleted) +
                          " deleted, " + grouped(counts_.modified) + " modified, " +
                          grouped(counts_.renamed) + " renamed");
    }
    return counts_.failed == 0 ? ExitStatus::done : ExitStatus::failed;
}

// ---- The whole ----------------------------------------------------------------------------------

ExitStatus Load::run()
{
    check_files();
    time_limit_ = seconds_of(tool_.ld(), LDAP_OPT_TIMEOUT);
    Tool::handle_signals_itself();
    open_journal();
    bool was_interrupted = false;
    try {
        pass_over_what_is_done();
        if (is_finished()) {
            complete_ = true;
        } else {
            start();
            transfer();
        }
    } catch (const Interrupted &) {
        was_interrupted = true;
        trouble_ = "interrupted";
        wait_a_moment_for_outcomes();
    } catch (const Lost &lost) {
        trouble_ = "cannot " + operation().doing + " on " + tool_.server() + ": " +
                   describe(tool_.ld(), lost.error);
    } catch (const LdifError &error) { // no record: a version, an include
        ++counts_.failed;
        trouble_ = to_string(error.place) + ": " + error.what();
        bad_place_ = error.place;
        wait_a_moment_for_outcomes();
    } catch (const Failure &failure) {
        if (!load_)
            throw;
        trouble_ = failure.what();
    }
    report();
    if (was_interrupted)
        throw Interrupted{.reported = true};
    return status();
}

void Load::check_files() const
{
    for (const std::string &file : arguments_.files)
        for (const std::string &written : {arguments_.rejects, arguments_.journal})
            if (!written.empty() && are_one_file(file, written))
                throw UsageError(in_quotes(written) + " is the input");
    if (!arguments_.rejects.empty() && (arguments_.rejects == arguments_.journal ||
                                        are_one_file(arguments_.rejects, arguments_.journal)))
        throw UsageError(in_quotes(arguments_.rejects) + " is the journal");
}

void Load::open_journal()
{
    if (!arguments_.journal.empty())
        journal_.emplace(arguments_.journal,
                         LoadJournal::Load{tool_.server(), names_, arguments_.start_line});
    if (!arguments_.rejects.empty() && !is_finished())
        rejects_.emplace(arguments_.rejects, journal_ ? journal_->state().rejects : Written());
}

void Load::pass_over_what_is_done()
{
    if (!journal_)
        return;
    const LoadInput::Passed passed = input_.pass_over_what_is_done(*journal_);
    resumed_after_ = passed.records;
    position_ = passed.position;
    const LoadJournal::State &state = journal_->state();
    if (state.resumed)
        tool_.say("resuming after " + records_of(resumed_after_) + ", " +
                  grouped(state.in_doubt.size()) + " are in doubt, " +
                  grouped(state.failed.size()) + " had failed");
}

void Load::start()
{
    load_.emplace(tool_.value(
        operation(),
        BulkLoad::start(tool_.session(),
                        [this](const BulkFailure &failure) { note_failure(failure); },
                        {.operations = arguments_.batch, .window = arguments_.window})));
    tool_.say("the server takes up to " + std::to_string(load_->transaction_size()) +
              " operations in a batch; batches of " + std::to_string(load_->limits().operations));
}

void Load::transfer()
{
    while (!stopped_ && gather())
        send();
    wait_for([this] { return load_->settle(); });
    take_outcomes();
    wait_for([this]() -> greirige::Result<void> {
        const auto done = load_->finish();
        return done ? greirige::Result<void>() : done.error();
    });
    complete_ = !stopped_;
    if (complete_ && journal_)
        journal_->finish();
}

// ---- To the server ------------------------------------------------------------------------------

std::optional<Item> Load::next_item()
{
    if (held_back_)
        return std::exchange(held_back_, std::nullopt);
    auto next = input_.next();
    if (!next)
        return std::nullopt;
    Item item;
    static_cast<NumberedRecord &>(item) = *std::move(next);
    return item;
}

// Fills a group up to a batch's limits. A record that cannot be read fails; unless the load goes
// on after failures, nothing of its group is sent.
bool Load::gather()
{
    const greirige::BulkOptions limits = load_->limits();
    std::vector<Item> &items = gathering_.items;
    std::size_t bytes = 0;
    while (items.size() < limits.operations && bytes < limits.bytes) {
        leave_if_interrupted();
        auto item = next_item();
        if (!item)
            break;
        try {
            if (!item->update)
                item->update = read_update(item->record);
        } catch (const LdifError &error) {
            if (!arguments_.go_on) {
                ++counts_.failed;
                complain_about(error.place, error.what());
                bad_place_ = item->record.place;
                stopped_ = true;
                return false;
            }
            item->record.place = error.place;
            item->failure = error.what();
        }
        if (item->update && journal_ && !admit(*item)) {
            held_back_ = std::move(item);
            break;
        }
        bytes += item->record.text.size();
        items.push_back(*std::move(item));
    }
    return !items.empty();
}

// So that a record in doubt can be told from one that was carried out, no two that touch the same
// entry are under way. False when the group must go first.
bool Load::admit(Item &item)
{
    if (names_under_way_.conflicts(*item.update)) {
        if (!gathering_.items.empty())
            return false;
        wait_for([this] { return load_->settle(); });
        take_outcomes();
    }
    if (item.in_doubt)
        look_at_what_is_in_doubt(item);
    else if (is_increment(*item.update))
        item.before = values_before(tool_.ld(), *item.update);
    item.names = names_under_way_.add(*item.update);
    return true;
}

void Load::look_at_what_is_in_doubt(Item &item)
{
    if (!is_increment(*item.update)) {
        item.found_done = has_been_done(tool_.ld(), *item.update);
        return;
    }
    const auto &before = journal_->state().before;
    const auto noted = before.find(item.ordinal);
    if (noted != before.end())
        item.before = noted->second;
    const auto done = has_been_incremented(tool_.ld(), *item.update, item.before);
    item.found_done = done.value_or(false);
    if (!done)
        item.failure = "it was sent before the load was interrupted, and it cannot be told whether "
                       "it was carried out";
}

void Load::note_in_journal()
{
    Ordinals ordinals;
    std::uint64_t hash = 0;
    std::uint64_t hash_of_doubtful = 0;
    Json before = Json::object();
    for (const Item &item : gathering_.items) {
        ordinals.push_back(item.ordinal);
        hash += item.hash;
        if (item.in_doubt)
            hash_of_doubtful += item.hash;
        if (!item.before.is_null())
            before[std::to_string(item.ordinal)] = item.before;
    }
    gathering_.journal_id = journal_->sent(ordinals, hash, hash_of_doubtful, before);
}

void Load::send()
{
    if (journal_)
        note_in_journal();
    gathering_.taken_before = load_->progress().submitted;
    gathering_.batches_before = load_->progress().batches;
    under_way_.push_back(std::exchange(gathering_, Group()));
    submit(under_way_.back());
    take_outcomes();
}

void Load::submit(Group &group)
{
    for (Item &item : group.items) {
        if (!item.failure.empty() || item.found_done)
            continue;
        const std::uint64_t before = load_->progress().submitted;
        wait_for([&]() -> greirige::Result<void> {
            auto taken = load_->submit(*item.update, item.ordinal);
            if (taken || (taken.error().code != LDAPX_PARAM_ERROR &&
                          taken.error().code != LDAPX_ENCODING_ERROR))
                return taken;
            item.code = taken.error().code;
            item.failure = describe(tool_.ld(), taken.error());
            return {};
        });
        group.taken += load_->progress().submitted - before;
    }
    wait_for([this] { return load_->flush(); });
    group.sent = true;
}

// Makes a call of the layer until it succeeds, for as long as the session's time limit allows and
// no signal comes. The layer's own waits are short, so that no signal is missed.
template <class Call>
void Load::wait_for(const Call &call)
{
    using std::chrono::seconds;
    const auto begin = Clock::now();
    const std::clock_t begin_of_work = std::clock();
    const auto answered = [this] {
        return load_->progress().answered;
    };
    auto last_answer = begin;
    for (std::uint64_t before = answered();;) {
        const timeval slice{.tv_sec = 1, .tv_usec = 0};
        ldap_set_option(tool_.ld(), LDAP_OPT_TIMEOUT, &slice);
        const greirige::Result<void> result = call();
        const timeval limit{.tv_sec = time_limit_, .tv_usec = 0};
        ldap_set_option(tool_.ld(), LDAP_OPT_TIMEOUT, &limit);
        const auto now = Clock::now();
        if (result) {
            waited_ += std::chrono::duration<double>(now - begin).count() -
                       static_cast<double>(std::clock() - begin_of_work) / CLOCKS_PER_SEC;
            return;
        }
        const bool patient =
            result.error().code == LDAP_TIMEOUT || result.error().code == LDAP_USER_CANCELLED;
        if (!patient)
            throw Lost{result.error()};
        if (!end_)
            leave_if_interrupted();
        if (answered() != std::exchange(before, answered()))
            last_answer = now;
        if ((time_limit_ > 0 && now - last_answer >= seconds(time_limit_)) ||
            (end_ && now >= *end_))
            throw Lost{result.error()};
    }
}

// ---- From the server ----------------------------------------------------------------------------

void Load::note_failure(const BulkFailure &failure)
{
    const std::string why = describe(tool_.ld(), failure.error);
    if (failure.number)
        for (Group &group : under_way_) {
            const auto item = std::lower_bound(
                group.items.begin(), group.items.end(), failure.tag,
                [](const Item &each, std::uint64_t ordinal) { return each.ordinal < ordinal; });
            if (item == group.items.end() || item->ordinal != failure.tag)
                continue;
            item->code = failure.error.code;
            item->failure = why;
            return;
        }
    // A failure that belongs to no record: nothing can be said of any that is under way.
    throw Failure(ExitStatus::failed,
                  "the server says that something failed that was not sent: " + why);
}

// Of the groups whose records all have been answered.
void Load::take_outcomes()
{
    while (!under_way_.empty()) {
        Group &group = under_way_.front();
        if (load_->progress().answered < group.taken_before + group.taken)
            return;
        LoadJournal::Outcome outcome;
        for (Item &item : group.items)
            take_outcome(item, outcome);
        if (rejects_)
            outcome.rejects = rejects_->sync();
        if (journal_)
            journal_->done(group.journal_id, outcome);
        under_way_.pop_front();
        progress_.show(resumed_after_ + counts_.records, position_);
    }
}

void Load::take_outcome(Item &item, LoadJournal::Outcome &outcome)
{
    names_under_way_.remove(item.names);
    ++counts_.records;
    position_ = std::max(position_, item.record.position);
    if (item.in_doubt && may_have_been_done(item.code) && !is_increment(*item.update) &&
        has_been_done(tool_.ld(), *item.update)) {
        item.failure.clear();
        item.found_done = true;
    }
    if (item.found_done)
        ++found_done_;
    if (item.failure.empty()) {
        counts_.add(*item.update);
        outcome.hash += item.hash;
        if (first_failure_)
            ++loaded_after_failure_;
        return;
    }
    ++counts_.failed;
    if (first_failure_)
        ++failed_after_failure_;
    else
        first_failure_ = item.ordinal;
    (rejects_ ? outcome.rejected : outcome.failed).push_back(item.ordinal);
    if (rejects_)
        rejects_->write(item.record, item.failure);
    // After the first failure that ends the load, the file of rejects tells the others.
    if (!stopped_ || !rejects_)
        complain_about(item.record.place,
                       item.update ? "cannot " + in_words(*item.update) + ": " + item.failure
                                   : item.failure);
    if (!arguments_.go_on)
        stopped_ = true;
}

void Load::complain_about(const LdifPlace &place, const std::string &what)
{
    progress_.clear();
    complain(to_string(place) + ": " + what);
}

// What has been sent will be carried out, most likely: so it is better to know.
void Load::wait_a_moment_for_outcomes()
{
    if (!load_)
        return;
    end_ = Clock::now() + patience_after_signal;
    try {
        wait_for([this] { return load_->settle(); });
    } catch (const Lost &) { // what came is taken below
    }
    take_outcomes();
}

// ---- The end ------------------------------------------------------------------------------------

ExitStatus Load::status() const
{
    if (complete_ && counts_.failed == 0)
        return ExitStatus::done;
    return counts_.loaded() + resumed_after_ > 0 ? ExitStatus::done_in_part : ExitStatus::failed;
}

void Load::report()
{
    progress_.clear();
    const double seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
    if (!trouble_.empty())
        complain(trouble_);
    if (unknown() > 0)
        report_what_is_unknown();
    if (first_failure_ && stopped_)
        complain("stopped at the first failure (-c goes on); of what had been sent after it, " +
                 records_of(loaded_after_failure_) + ' ' + were(loaded_after_failure_) +
                 " loaded and " + grouped(failed_after_failure_) + " failed");
    if (!complete_)
        say_how_to_go_on();

    const double share = seconds > 0 ? std::min(1.0, std::max(0.0, waited_ / seconds)) : 0;
    if (tool_.output.json()) {
        Json json = tool_.document(operation());
        json["complete"] = complete_;
        json.update(counts_.json());
        json["unknown"] = unknown();
        json["dealtWithBefore"] = resumed_after_;
        json["foundDone"] = found_done_;
        json["batches"] = load_ ? load_->progress().batches : 0;
        json["transactionSize"] = load_ ? load_->transaction_size() : 0;
        json["seconds"] = seconds;
        json["secondsWaited"] = waited_;
        tool_.output.document(json);
        return;
    }
    const auto rate = static_cast<std::uint64_t>(static_cast<double>(counts_.records) / seconds);
    tool_.output.line(records_of(counts_.loaded()) + " loaded in " + duration(seconds) + " (" +
                      grouped(rate) + "/s), " + grouped(counts_.failed) + " failed" +
                      (journal_ && journal_->state().resumed
                           ? ", " + grouped(resumed_after_) + " had been dealt with before"
                           : ""));
    tool_.say("the server was waited for " + std::to_string(std::lround(100 * share)) +
              " % of the time");
}

// How many records have been sent, perhaps, and have no outcome.
std::uint64_t Load::unknown() const
{
    std::uint64_t records = 0;
    for (const Group &group : under_way_)
        if (group.sent || load_->progress().batches > group.batches_before)
            records += group.items.size();
    return records;
}

void Load::report_what_is_unknown()
{
    const std::uint64_t records = unknown();
    std::uint64_t left = records;
    auto last = under_way_.begin();
    while ((left -= last->items.size()) > 0)
        ++last;
    const LdifPlace from = under_way_.front().items.front().record.place;
    const LdifPlace to = last->items.back().record.place;
    const std::uint64_t known = resumed_after_ + counts_.records;
    complain("whether " + records_of(records) + " that " + were(records) + " sent (" +
             to_string(from) + " to " + to_string(to) + ") " + were(records) +
             " carried out is not known; " + records_of(known) + " before " +
             (known == 1 ? "has its outcome" : "have their outcome"));
}

void Load::say_how_to_go_on()
{
    if (journal_) {
        complain("the same command goes on where this one ended");
        return;
    }
    if (names_.front() == "standard input")
        return;
    std::optional<LdifPlace> place;
    if (!under_way_.empty())
        place = under_way_.front().items.front().record.place;
    else if (!gathering_.items.empty())
        place = gathering_.items.front().record.place;
    else if (held_back_)
        place = held_back_->record.place;
    else
        place = bad_place_ ? bad_place_ : input_.place_of_next();
    if (place && *place->file == names_.front())
        complain("-j " + std::to_string(place->line) +
                 " goes on there (a load with --journal can be resumed)");
}

// ---- The command --------------------------------------------------------------------------------

const CLI::Validator from_one_on(
    [](const std::string &text) {
        const bool is_number = text.find_first_not_of("0123456789") == std::string::npos &&
                               text.find_first_not_of('0') != std::string::npos;
        return is_number ? std::string() : in_quotes(text) + " is not a number from 1 on";
    },
    "");

} // namespace

void add_load_command(CommandLine &line)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App &command =
        line.command("load", "Load LDIF by bulk update",
                     "greirige load -c -S rejects.ldif --journal load.journal people.ldif",
                     [arguments](Tool &tool) {
                         if (arguments->files.empty())
                             arguments->files = {"-"};
                         Load load(tool, *arguments);
                         return tool.dry_run() ? load.check() : load.run();
                     });
    command.add_option("FILE", arguments->files, "Entries and changes (standard input, also -)")
        ->type_name("");
    command.add_flag("-c,--continue", arguments->go_on, "Go on after records that fail");
    command
        .add_option("-S,--rejects", arguments->rejects, "Where records that fail are written to")
        ->type_name("FILE");
    command
        .add_option("-j,--line", arguments->start_line,
                    "Start with the record at this line of the first file")
        ->check(from_one_on)
        ->type_name("LINE");
    command
        .add_option("--batch", arguments->batch,
                    "Records in a batch (as many as the server announces)")
        ->check(from_one_on)
        ->type_name("N");
    command.add_option("--window", arguments->window, "Batches under way at a time (4)")
        ->check(from_one_on)
        ->type_name("N");
    command
        .add_option("--journal", arguments->journal,
                    "Notes what is done, so that the same command resumes the load")
        ->type_name("FILE");
}

} // namespace tool
