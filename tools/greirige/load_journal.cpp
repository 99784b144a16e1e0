#include "load_journal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

constexpr const char *kind_and_version = "greirige load 1";

// Ordinals in order as [[first, last], ...].
Json ranges_of(const Ordinals &ordinals)
{
    Json ranges = Json::array();
    for (const std::uint64_t ordinal : ordinals) {
        if (!ranges.empty() && ranges.back()[1] == ordinal - 1)
            ranges.back()[1] = ordinal;
        else
            ranges.push_back({ordinal, ordinal});
    }
    return ranges;
}

Ordinals ordinals_of(const Json &ranges)
{
    Ordinals ordinals;
    for (const Json &range : ranges)
        for (auto at = range.at(0).get<std::uint64_t>(); at <= range.at(1).get<std::uint64_t>();
             ++at)
            ordinals.push_back(at);
    return ordinals;
}

// A file that has just been made is there after a crash of the machine only when its directory
// says so.
void sync_directory_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
    const int file = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0)
        return; // it may be one that cannot be read
    static_cast<void>(fsync(file));
    close(file);
}

} // namespace

std::uint64_t hash_of(std::string_view bytes, std::uint64_t before)
{
    constexpr std::uint64_t prime = 0x100000001b3;
    for (const char c : bytes)
        before = (before ^ static_cast<unsigned char>(c)) * prime;
    return before;
}

std::uint64_t hash_of(std::uint64_t ordinal, const std::string &text)
{
    std::array<char, sizeof ordinal> number{};
    std::memcpy(number.data(), &ordinal, sizeof ordinal);
    return hash_of(text, hash_of({number.data(), number.size()}));
}

LoadJournal::LoadJournal(std::string path, const Load &load) : path_(std::move(path))
{
    file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file_ < 0)
        throw UsageError("--journal " + in_quotes(path_) + ": " + std::strerror(errno));
    try {
        if (flock(file_, LOCK_EX | LOCK_NB) != 0)
            fail(errno == EWOULDBLOCK ? "another load is using it" : std::strerror(errno));
        read(load);
        if (!state_.resumed) {
            write({{"journal", kind_and_version},
                   {"server", json_text(load.server)},
                   {"files", load.files},
                   {"startLine", load.start_line}});
            sync_directory_of(path_);
        }
    } catch (...) {
        close(file_);
        throw;
    }
}

LoadJournal::~LoadJournal()
{
    close(file_);
}

void LoadJournal::fail(const std::string &why) const
{
    throw Failure(ExitStatus::failed, "--journal " + in_quotes(path_) + ": " + why);
}

void LoadJournal::read(const Load &load)
{
    std::string text;
    std::array<char, 65536> buffer{};
    for (ssize_t got = 0; (got = ::read(file_, buffer.data(), buffer.size())) != 0;) {
        if (got < 0)
            fail(std::strerror(errno));
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
        try {
            take(Json::parse(text.begin() + static_cast<std::ptrdiff_t>(begin),
                             text.begin() + static_cast<std::ptrdiff_t>(end)),
                 load, begin == 0);
        } catch (const Json::exception &) {
            fail("it is not a journal, or damaged");
        }
        state_.resumed = true;
    }
    // The line that the end of the process cut.
    if (begin < text.size()) {
        if (!state_.resumed && !std::string(R"({"journal":")").starts_with(text.substr(0, 12)))
            fail("it is not a journal, or damaged");
        if (ftruncate(file_, static_cast<off_t>(begin)) != 0)
            fail(std::strerror(errno));
    }
    open_.clear();
}

void LoadJournal::take(const Json &line, const Load &load, bool first)
{
    if (first) {
        if (line.at("journal") != kind_and_version)
            fail("it is not a journal of this version");
        const auto refuse = [&](const char *what, const std::string &there,
                                const std::string &here) {
            fail(std::string("it belongs to a load ") + what + ' ' + there + ", not " + here +
                 " (for another load choose another journal)");
        };
        if (line.at("server") != json_text(load.server))
            refuse("into", line.at("server").dump(), in_quotes(load.server));
        if (line.at("files") != Json(load.files))
            refuse("of", line.at("files").dump(), Json(load.files).dump());
        if (line.at("startLine") != load.start_line)
            refuse("from line", line.at("startLine").dump(), std::to_string(load.start_line));
        return;
    }
    if (line.contains("sent")) {
        const auto id = line["sent"].get<std::uint64_t>();
        const Group group{ordinals_of(line.at("records")), line.at("hash").get<std::uint64_t>()};
        for (const std::uint64_t ordinal : group.records) {
            state_.failed.erase(ordinal);
            state_.in_doubt.insert(ordinal);
            state_.next = std::max(state_.next, ordinal + 1);
        }
        state_.in_doubt_hash += group.hash - line.value("again", std::uint64_t{0});
        const Json noted = line.value("before", Json::object());
        for (const auto &[ordinal, before] : noted.items())
            state_.before[std::stoull(ordinal)] = before;
        open_[id] = group;
        next_group_ = id + 1;
    } else if (line.contains("done")) {
        const auto id = line["done"].get<std::uint64_t>();
        for (const std::uint64_t ordinal : open_[id].records) {
            state_.in_doubt.erase(ordinal);
            state_.before.erase(ordinal);
        }
        state_.in_doubt_hash -= open_[id].hash;
        open_.erase(id);
        for (const std::uint64_t ordinal : ordinals_of(line.value("failed", Json::array())))
            state_.failed.insert(ordinal);
        for (const std::uint64_t ordinal : ordinals_of(line.value("rejected", Json::array())))
            state_.rejected.insert(ordinal);
        state_.hash += line.at("hash").get<std::uint64_t>();
        state_.rejects = {line.at("rejectsSize").get<std::uint64_t>(),
                          line.at("rejectsHash").get<std::uint64_t>()};
        state_.finished = false;
    } else if (line.contains("finished")) {
        state_.finished = true;
    } else {
        fail("it is not a journal, or damaged");
    }
}

void LoadJournal::write(const Json &line)
{
    const std::string text = line.dump() + '\n';
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t now = ::write(file_, text.data() + written, text.size() - written);
        if (now < 0 && errno != EINTR)
            fail(std::string("cannot write: ") + std::strerror(errno));
        written += now > 0 ? static_cast<std::size_t>(now) : 0;
    }
    if (fdatasync(file_) != 0)
        fail(std::string("cannot write: ") + std::strerror(errno));
}

std::uint64_t LoadJournal::sent(const Ordinals &records, std::uint64_t hash,
                                std::uint64_t hash_of_doubtful, const Json &before)
{
    const std::uint64_t id = next_group_++;
    Json line{{"sent", id}, {"records", ranges_of(records)}, {"hash", hash}};
    if (hash_of_doubtful != 0)
        line["again"] = hash_of_doubtful;
    if (!before.empty())
        line["before"] = before;
    write(line);
    return id;
}

void LoadJournal::done(std::uint64_t group, const Outcome &outcome)
{
    Json line{{"done", group},
              {"hash", outcome.hash},
              {"rejectsSize", outcome.rejects.size},
              {"rejectsHash", outcome.rejects.hash}};
    if (!outcome.failed.empty())
        line["failed"] = ranges_of(outcome.failed);
    if (!outcome.rejected.empty())
        line["rejected"] = ranges_of(outcome.rejected);
    write(line);
}

void LoadJournal::finish()
{
    write({{"finished", true}});
}

} // namespace tool
