#include "new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

std::string directory_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

UsageError exists(const std::string &path)
{
    return UsageError(in_quotes(path) + " exists already (--overwrite replaces it)");
}

} // namespace

void check_new_file(const std::string &path, bool replace)
{
    struct stat status = {};
    const bool is_there = lstat(path.c_str(), &status) == 0;
    if (is_there && !replace)
        throw exists(path);
    if (is_there && !S_ISREG(status.st_mode))
        throw UsageError(in_quotes(path) + " is not an ordinary file and cannot be replaced");
}

NewFile::NewFile(std::string path, bool replace) : path_(std::move(path)), replace_(replace)
{
    check_new_file(path_, replace_);
    std::string name = path_ + ".XXXXXX";
    file_ = mkostemp(name.data(), O_CLOEXEC); // mode 0600
    if (file_ < 0)
        throw UsageError("cannot write " + in_quotes(path_) + ": " + std::strerror(errno));
    temporary_ = name;
}

NewFile::~NewFile()
{
    if (file_ >= 0)
        close(file_);
    if (!temporary_.empty())
        unlink(temporary_.c_str());
}

void NewFile::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(file_, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            fail("write");
        bytes.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
}

void NewFile::commit()
{
    if (fsync(file_) != 0 || close(std::exchange(file_, -1)) != 0)
        fail("write");
    take_name();
    // The name itself is on the disk when its directory is. Some file systems cannot be asked.
    const int directory = open(directory_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        static_cast<void>(fsync(directory));
        close(directory);
    }
}

void NewFile::take_name()
{
    const char *from = temporary_.c_str();
    const char *to = path_.c_str();
    bool taken = false;
    if (replace_) {
        taken = std::rename(from, to) == 0;
    } else {
        taken = renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0;
        // Not every file system can do that; those that cannot have links.
        if (!taken && (errno == EINVAL || errno == ENOSYS)) {
            taken = link(from, to) == 0;
            if (taken)
                unlink(from);
        }
    }
    if (!taken && errno == EEXIST)
        throw exists(path_);
    if (!taken)
        fail("create");
    temporary_.clear();
}

void NewFile::fail(const char *what) const
{
    throw Failure(ExitStatus::failed, std::string("cannot ") + what + ' ' + in_quotes(path_) +
                                          ": " + std::strerror(errno));
}

} // namespace tool
