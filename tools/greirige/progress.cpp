#include "progress.h"

#include <array>
#include <cmath>
#include <cstdio>

#include <unistd.h>

#include "error.h"

namespace tool {

namespace {

using namespace std::chrono_literals;

constexpr auto interval_on_a_terminal = 200ms;
constexpr auto interval_elsewhere = 30s;

std::string with_one_decimal(double number)
{
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.1f", number));
    return text.data();
}

std::string two_digits(std::uint64_t number)
{
    std::string digits(number < 10 ? 1 : 0, '0');
    return digits.append(std::to_string(number));
}

} // namespace

std::string grouped(std::uint64_t number)
{
    const std::string digits = std::to_string(number);
    std::string text;
    for (std::size_t at = 0; at < digits.size(); ++at) {
        if (at > 0 && (digits.size() - at) % 3 == 0)
            text += ',';
        text += digits[at];
    }
    return text;
}

std::string byte_size(std::uint64_t bytes)
{
    auto size = static_cast<double>(bytes);
    if (bytes < 1000)
        return std::to_string(bytes) + " bytes";
    const char *unit = "kB";
    size /= 1000;
    for (const char *larger : {"MB", "GB", "TB"})
        if (size >= 999.95) {
            size /= 1000;
            unit = larger;
        }
    return with_one_decimal(size) + ' ' + unit;
}

std::string duration(double seconds)
{
    if (seconds < 9.95)
        return with_one_decimal(seconds) + " s";
    const auto whole = static_cast<std::uint64_t>(std::llround(seconds));
    if (whole < 60)
        return std::to_string(whole) + " s";
    const std::string tail = two_digits(whole % 60);
    if (whole < 3600)
        return std::to_string(whole / 60) + ':' + tail + " min";
    return std::to_string(whole / 3600) + ':' + two_digits(whole / 60 % 60) + ':' + tail + " h";
}

Progress::Progress(std::optional<std::uint64_t> size)
    : size_(size), terminal_(isatty(STDERR_FILENO) == 1),
      next_(begin_ + (terminal_ ? interval_on_a_terminal : Clock::duration(interval_elsewhere)))
{
}

void Progress::show(std::uint64_t records, std::uint64_t bytes)
{
    if (!first_records_) {
        first_records_ = records;
        first_bytes_ = bytes;
    }
    const auto now = Clock::now();
    if (now < next_)
        return;
    next_ = now + (terminal_ ? interval_on_a_terminal : Clock::duration(interval_elsewhere));
    if (!terminal_) {
        complain(text(records, bytes));
        return;
    }
    // Back to the first column, and away with what a longer line leaves behind.
    const std::string line = text(records, bytes) + "\x1b[K";
    static_cast<void>(std::fputc('\r', stderr));
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
    static_cast<void>(std::fflush(stderr));
    shown_ = true;
}

void Progress::clear()
{
    if (shown_)
        static_cast<void>(std::fputs("\r\x1b[K", stderr));
    shown_ = false;
}

std::string Progress::text(std::uint64_t records, std::uint64_t bytes) const
{
    const double seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
    const auto rate = static_cast<double>(records - *first_records_) / seconds;
    std::string text = grouped(records) + " records, " + byte_size(bytes);
    if (size_)
        text += " of " + byte_size(*size_);
    text += ", " + grouped(static_cast<std::uint64_t>(rate)) + "/s";
    if (size_ && bytes > first_bytes_ && *size_ >= bytes)
        text += ", " +
                duration(seconds * static_cast<double>(*size_ - bytes) /
                         static_cast<double>(bytes - first_bytes_)) +
                " left";
    return text;
}

} // namespace tool
