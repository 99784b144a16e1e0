// Passwords: where they come from, and that they do not stay.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <lber.h>

namespace tool {

// Bytes that are overwritten when they are no longer needed.
class Secret {
public:
    Secret() = default;
    explicit Secret(std::string_view bytes);
    Secret(Secret &&other) noexcept;
    Secret &operator=(Secret &&other) noexcept;
    ~Secret();

    void append(char byte);
    void wipe();
    // NUL-terminated; valid until the next change.
    const char *text() const;
    berval value() const;
    std::string_view view() const
    {
        return {text(), size_};
    }
    bool empty() const
    {
        return size_ == 0;
    }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

// Takes the value of -w (--password) off the command line before anything else copies it, and
// writes x over it, so that neither ps nor the parser ever shows it. takes_value says of an
// option, given as "-f" or "--flags", whether the next word belongs to it. False when there is no
// such option.
bool take_password(int argc, char **argv,
                   const std::function<bool(const std::string &)> &takes_value, Secret &password);

// The complete contents of a file, a newline at its end included.
Secret read_password_file(const std::string &path);

} // namespace tool
