#include "rejects.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

constexpr std::string_view mark = "# rejected: ";

} // namespace

Rejects::Rejects(std::string path, std::uint64_t keep) : path_(std::move(path))
{
    // Records may hold passwords.
    const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0)
        throw UsageError("-S " + in_quotes(path_) + ": " + std::strerror(errno));
    file_.reset(fdopen(file, "w"));
    const off_t there = lseek(file, 0, SEEK_END);
    if (there >= 0 && static_cast<std::uint64_t>(there) < keep)
        throw UsageError("-S " + in_quotes(path_) +
                         ": records that had failed before the load was "
                         "interrupted are gone from the file");
    // What is no file, /dev/stdout for example, has no size to cut.
    if (there >= 0 && (ftruncate(file, static_cast<off_t>(keep)) != 0 && errno != EINVAL))
        fail();
    if (there >= 0)
        lseek(file, static_cast<off_t>(keep), SEEK_SET);
    size_ = keep;
}

void Rejects::write(const LdifRecord &record, const std::string &reason)
{
    std::string text(mark);
    text += to_string(record.place) + ": " + reason + '\n';
    // Reasons of earlier attempts say nothing any more.
    std::string_view rest = record.text;
    while (rest.starts_with(mark))
        rest.remove_prefix(rest.find('\n') + 1);
    text.append(rest).append(1, '\n');
    if (std::fwrite(text.data(), 1, text.size(), file_.get()) != text.size())
        fail();
    size_ += text.size();
}

std::uint64_t Rejects::sync()
{
    if (std::fflush(file_.get()) != 0 || (fdatasync(fileno(file_.get())) != 0 && errno != EINVAL))
        fail();
    return size_;
}

void Rejects::fail() const
{
    throw Failure(ExitStatus::failed,
                  "cannot write " + in_quotes(path_) + ": " + std::strerror(errno));
}

} // namespace tool
