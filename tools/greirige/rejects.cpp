#include "rejects.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

constexpr std::string_view mark = "# rejected: ";

} // namespace

Rejects::Rejects(std::string path, const Written &noted) : path_(std::move(path))
{
    // Records may hold passwords.
    const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0)
        throw UsageError("-S " + in_quotes(path_) + ": " + std::strerror(errno));
    file_.reset(fdopen(file, "r+"));
    struct stat status = {};
    if (fstat(file, &status) != 0)
        fail();
    if (!S_ISREG(status.st_mode))
        return; // a terminal or a pipe, which has nothing to keep
    if (status.st_size > 0)
        find(noted);
    if (ftruncate(file, static_cast<off_t>(written_.size)) != 0 ||
        std::fseek(file_.get(), 0, SEEK_END) != 0)
        fail();
}

// What was noted must stand at the beginning of the file.
void Rejects::find(const Written &noted)
{
    std::array<char, 65536> buffer{};
    while (written_.size < noted.size) {
        const auto wanted = std::min<std::uint64_t>(buffer.size(), noted.size - written_.size);
        const std::size_t got = std::fread(buffer.data(), 1, wanted, file_.get());
        if (got == 0)
            break;
        written_ = {written_.size + got, hash_of({buffer.data(), got}, written_.hash)};
    }
    if (written_.size != noted.size || written_.hash != noted.hash)
        throw UsageError("-S " + in_quotes(path_) +
                         ": the file was changed since the load was interrupted (-S with another "
                         "file goes on)");
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
    written_ = {written_.size + text.size(), hash_of(text, written_.hash)};
}

Written Rejects::sync()
{
    if (std::fflush(file_.get()) != 0 || (fdatasync(fileno(file_.get())) != 0 && errno != EINVAL))
        fail();
    return written_;
}

void Rejects::fail() const
{
    throw Failure(ExitStatus::failed,
                  "cannot write " + in_quotes(path_) + ": " + std::strerror(errno));
}

} // namespace tool
