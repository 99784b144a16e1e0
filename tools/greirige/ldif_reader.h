// The records of LDIF files (RFC 2849), one after the other, so that a file may be larger than
// memory. Where a record ends is found here, because only here file and line are known that a
// message about it must name: libldap's own reader counts on through files that include others.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

struct LdifPlace {
    std::shared_ptr<const std::string> file;
    std::uint64_t line = 0;
};

// "people.ldif:17"
std::string to_string(const LdifPlace &place);

// Something that cannot be read as LDIF.
class LdifError : public std::runtime_error {
public:
    LdifError(LdifPlace where, const std::string &reason)
        : std::runtime_error(reason), place(std::move(where))
    {
    }
    LdifPlace place;
};

struct LdifRecord {
    // Its lines as they stand in the file, each ended by a line feed, with the comments that stand
    // right before it, without a version line.
    std::string text;
    std::uint64_t first_line = 0; // of the text
    LdifPlace place;              // its first line that is no comment
    std::uint64_t position = 0;   // how many bytes of the input end with it, as far as it is known
};

class LdifReader {
public:
    // "-" is standard input. Throws a UsageError for a file that cannot be opened.
    // Of the first file, records that end before this line are passed over.
    explicit LdifReader(std::vector<std::string> files, std::uint64_t start_line = 0);
    ~LdifReader();
    LdifReader(const LdifReader &) = delete;
    LdifReader &operator=(const LdifReader &) = delete;

    // The next record; nothing at the end. Throws an LdifError for what is no part of a record and
    // wrong (a version, an include), a Failure when a file cannot be read, Interrupted when a
    // signal comes while it waits.
    std::optional<LdifRecord> next();

    // How many bytes there are; nothing when that is not known.
    std::optional<std::uint64_t> size() const
    {
        return size_;
    }

private:
    class Input;

    bool open_next();
    void include(const std::string &line);
    bool is_passed_over(std::uint64_t last_line) const;

    std::vector<std::string> files_;
    std::size_t next_file_ = 0;
    std::uint64_t start_line_;
    std::optional<std::uint64_t> size_ = 0;
    std::uint64_t position_ = 0;
    std::vector<std::unique_ptr<Input>> inputs_; // the file and what it includes, innermost last
};

} // namespace tool
