#include "secret.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "error.h"
#include "text.h"

namespace tool {

Secret::Secret(std::string_view bytes)
{
    for (const char byte : bytes)
        append(byte);
}

Secret::Secret(Secret &&other) noexcept
    : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0))
{
}

Secret &Secret::operator=(Secret &&other) noexcept
{
    wipe();
    bytes_ = std::move(other.bytes_);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
    return *this;
}

Secret::~Secret()
{
    wipe();
}

void Secret::append(char byte)
{
    if (size_ + 1 >= capacity_) {
        const std::size_t larger = capacity_ == 0 ? 64 : 2 * capacity_;
        auto bytes = std::make_unique<char[]>(larger);
        if (bytes_) {
            std::memcpy(bytes.get(), bytes_.get(), size_);
            explicit_bzero(bytes_.get(), capacity_);
        }
        bytes_ = std::move(bytes);
        capacity_ = larger;
    }
    bytes_[size_++] = byte;
    bytes_[size_] = '\0';
}

void Secret::wipe()
{
    if (bytes_)
        explicit_bzero(bytes_.get(), capacity_);
    size_ = 0;
}

const char *Secret::text() const
{
    return bytes_ ? bytes_.get() : "";
}

berval Secret::value() const
{
    return {.bv_len = size_, .bv_val = const_cast<char *>(text())};
}

bool take_password(int argc, char **argv,
                   const std::function<bool(const std::string &)> &takes_value, Secret &password)
{
    bool found = false;
    const auto take = [&](char *value) {
        password = Secret(value);
        for (; *value != '\0'; ++value)
            *value = 'x';
        found = true;
    };
    for (int at = 1; at < argc; ++at) {
        char *word = argv[at];
        if (word == nullptr || std::strcmp(word, "--") == 0)
            break;
        char *next = at + 1 < argc ? argv[at + 1] : nullptr;
        if (std::strncmp(word, "--password=", 11) == 0) {
            take(word + 11);
        } else if (word[0] == '-' && word[1] == '-') {
            if (next != nullptr && std::strcmp(word, "--password") == 0)
                take(next);
            if (std::strchr(word, '=') == nullptr && takes_value(word))
                ++at;
        } else if (word[0] == '-') {
            // A cluster of letters; the first that takes a value takes the rest, or the next word.
            for (char *letter = word + 1; *letter != '\0'; ++letter) {
                if (!takes_value({'-', *letter}))
                    continue;
                char *value = letter[1] != '\0' ? letter + 1 : next;
                if (*letter == 'w' && value != nullptr)
                    take(value);
                if (letter[1] == '\0')
                    ++at;
                break;
            }
        }
    }
    return found;
}

Secret read_password_file(const std::string &path)
{
    const auto fail = [&] {
        throw UsageError("cannot read the password file " + in_quotes(path) + ": " +
                         std::strerror(errno));
    };
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        fail();
    Secret password;
    char part[256];
    ssize_t got = 0;
    while ((got = read(file, part, sizeof part)) > 0)
        for (ssize_t at = 0; at < got; ++at)
            password.append(part[at]);
    const int error = errno;
    explicit_bzero(part, sizeof part);
    struct stat status = {};
    const bool open_to_others = fstat(file, &status) == 0 && (status.st_mode & 077) != 0;
    close(file);
    errno = error;
    if (got < 0)
        fail();
    if (open_to_others)
        complain("warning: others may read or write the password file " + in_quotes(path));
    return password;
}

} // namespace tool
