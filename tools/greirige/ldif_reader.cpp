#include "ldif_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ldap.h>

#include <ldif.h>

#include "error.h"
#include "signals.h"
#include "text.h"

namespace tool {

namespace {

constexpr std::size_t buffer_size = 256UL * 1024;
constexpr std::size_t largest_record = 256UL * 1024 * 1024;
constexpr std::size_t deepest_include = 32;

[[noreturn]] void cannot_read(const std::string &file)
{
    throw UsageError("cannot read " + in_quotes(file) + ": " + std::strerror(errno));
}

bool begins_with(std::string_view line, std::string_view word)
{
    return line.size() >= word.size() && strncasecmp(line.data(), word.data(), word.size()) == 0;
}

std::string value_of(std::string_view line)
{
    line.remove_prefix(line.find(':') + 1);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    return std::string(line.substr(0, line.find_last_not_of(' ') + 1));
}

struct CloseStream {
    void operator()(std::FILE *stream) const
    {
        static_cast<void>(std::fclose(stream));
    }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

} // namespace

std::string to_string(const LdifPlace &place)
{
    return printable(*place.file) + ':' + std::to_string(place.line);
}

// One file, line by line.
class LdifReader::Input {
public:
    Input(std::string name, int file) : name_(std::make_shared<std::string>(std::move(name)))
    {
        file_ = file;
    }
    Input(std::string name, Stream stream) : Input(std::move(name), fileno(stream.get()))
    {
        stream_ = std::move(stream);
    }

    // The next line without its end (LF or CR LF); false at the end of the file.
    bool take(std::string &line)
    {
        line.clear();
        for (;;) {
            const char *begin = buffer_.data() + begin_;
            const auto *end = static_cast<const char *>(std::memchr(begin, '\n', end_ - begin_));
            const std::size_t length =
                end != nullptr ? static_cast<std::size_t>(end - begin) : end_ - begin_;
            line.append(begin, length);
            begin_ += length;
            if (end != nullptr) {
                ++begin_;
                break;
            }
            if (line.size() > largest_record)
                throw LdifError(place(line_ + 1), "the line is longer than any record may be");
            if (!fill()) {
                if (line.empty())
                    return false;
                break;
            }
        }
        ++line_;
        if (line.ends_with('\r'))
            line.pop_back();
        return true;
    }

    LdifPlace place(std::uint64_t line) const
    {
        return {name_, line};
    }
    std::uint64_t line() const
    {
        return line_;
    }
    // How many bytes have been taken.
    std::uint64_t taken() const
    {
        return read_ - (end_ - begin_);
    }

private:
    bool fill()
    {
        wait_for_input(file_);
        ssize_t got = 0;
        do {
            got = read(file_, buffer_.data(), buffer_.size());
        } while (got < 0 && errno == EINTR && !interrupted());
        leave_if_interrupted();
        if (got < 0)
            throw Failure(ExitStatus::failed,
                          "cannot read " + in_quotes(*name_) + ": " + std::strerror(errno));
        begin_ = 0;
        end_ = static_cast<std::size_t>(got);
        read_ += end_;
        return got > 0;
    }

    std::shared_ptr<const std::string> name_;
    Stream stream_; // not read from: it only closes the file
    int file_ = -1;
    std::uint64_t line_ = 0;
    std::uint64_t read_ = 0;
    std::vector<char> buffer_ = std::vector<char>(buffer_size);
    std::size_t begin_ = 0; // what has been read and not taken
    std::size_t end_ = 0;
};

LdifReader::LdifReader(std::vector<std::string> files, std::uint64_t start_line)
    : files_(std::move(files)), start_line_(start_line)
{
    // What cannot be opened is better told now than in the middle of a load.
    for (const std::string &name : files_) {
        const Stream stream(name == "-" ? nullptr : std::fopen(name.c_str(), "re"));
        if (!stream && name != "-")
            cannot_read(name);
        struct stat status = {};
        if (fstat(stream ? fileno(stream.get()) : STDIN_FILENO, &status) != 0)
            cannot_read(name);
        if (S_ISDIR(status.st_mode)) {
            errno = EISDIR;
            cannot_read(name);
        }
        if (S_ISREG(status.st_mode) && size_)
            *size_ += static_cast<std::uint64_t>(status.st_size);
        else
            size_.reset();
    }
}

LdifReader::~LdifReader() = default;

bool LdifReader::open_next()
{
    if (next_file_ == files_.size())
        return false;
    const std::string &name = files_[next_file_++];
    if (name == "-") {
        inputs_.push_back(std::make_unique<Input>("standard input", STDIN_FILENO));
        return true;
    }
    Stream stream(std::fopen(name.c_str(), "re"));
    if (!stream)
        cannot_read(name);
    inputs_.push_back(std::make_unique<Input>(name, std::move(stream)));
    return true;
}

void LdifReader::include(const std::string &line)
{
    const std::string url = value_of(line);
    const LdifPlace place = inputs_.back()->place(inputs_.back()->line());
    if (inputs_.size() == deepest_include)
        throw LdifError(place, "too many files include one another");
    errno = 0;
    Stream stream(ldif_open_url(url.c_str()));
    if (!stream)
        throw LdifError(place, "cannot include " + in_quotes(url) + ": " +
                                   (errno != 0 ? std::strerror(errno) : "not a file: URL"));
    const std::string name = begins_with(url, "file://") ? url.substr(7) : url;
    inputs_.push_back(std::make_unique<Input>(name, std::move(stream)));
}

bool LdifReader::is_passed_over(std::uint64_t last_line) const
{
    return next_file_ == 1 && inputs_.size() == 1 && last_line < start_line_;
}

std::optional<LdifRecord> LdifReader::next()
{
    LdifRecord record;
    std::string line;
    bool in_comment = false;
    const auto start_over = [&] {
        record.text.clear();
        record.place.line = 0;
    };
    for (;;) {
        if (inputs_.empty() && !open_next())
            return std::nullopt;
        Input &input = *inputs_.back();
        const bool ended = !input.take(line);
        if (ended || line.empty()) {
            const bool complete = record.place.line != 0 && !is_passed_over(input.line());
            if (inputs_.size() == 1)
                record.position = position_ + input.taken();
            if (ended) {
                if (inputs_.size() == 1)
                    position_ += input.taken();
                inputs_.pop_back();
            }
            if (complete)
                return record;
            start_over();
            continue;
        }
        if (record.place.line == 0) { // its first line has not come yet
            const bool comment = line.starts_with('#') || (in_comment && line.starts_with(' '));
            in_comment = comment;
            if (!comment && begins_with(line, "version:")) {
                if (value_of(line) != "1" && !is_passed_over(input.line()))
                    throw LdifError(input.place(input.line()),
                                    "version " + in_quotes(value_of(line)) +
                                        " of LDIF is not known, only version 1");
                start_over();
                continue;
            }
            if (!comment && begins_with(line, "include:")) {
                if (!is_passed_over(input.line()))
                    include(line);
                start_over();
                continue;
            }
            if (record.text.empty())
                record.first_line = input.line();
            if (!comment)
                record.place = input.place(input.line());
        }
        record.text.append(line).append(1, '\n');
        if (record.text.size() > largest_record)
            throw LdifError(input.place(record.first_line),
                            "the record is larger than " +
                                std::to_string(largest_record / (1024 * 1024)) + " MiB");
    }
}

} // namespace tool
