// How far a long operation is: a line that changes on a terminal, a line now and then elsewhere.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

class Progress {
public:
    // The size of the input, for the time that is left; nothing when it is not known.
    explicit Progress(std::optional<std::uint64_t> size);
    ~Progress()
    {
        clear();
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // So many records have been dealt with, which end after so many bytes of the input. Cheap
    // enough to be told often.
    void show(std::uint64_t records, std::uint64_t bytes);
    // Takes the line off the terminal, so that something else can be written.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::string text(std::uint64_t records, std::uint64_t bytes) const;

    std::optional<std::uint64_t> size_;
    bool terminal_;
    Clock::time_point begin_ = Clock::now();
    Clock::time_point next_;
    std::optional<std::uint64_t> first_records_; // where this run began
    std::uint64_t first_bytes_ = 0;
    bool shown_ = false;
};

// "12,345"
std::string grouped(std::uint64_t number);
// "17.3 MB"
std::string byte_size(std::uint64_t bytes);
// "0.5 s", "7 s", "2:05 min", "1:02:05 h"
std::string duration(double seconds);

} // namespace tool
