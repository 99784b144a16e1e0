// A BER writer and reader for tests that does not touch liblber, so that a mistake there cannot
// hide behind itself. Values are std::string holding bytes; an expression reads like the table of
// the value it writes:
//
//     sequence(integer(0), octets("o=x"))      30 08 02 01 00 04 03 6f 3d 78
//     element(0x85, bytes("01 02"))            85 02 01 02
//     octets("x", 0x80)                        80 01 78, an implicitly tagged string
//
// Everything is minimal and definite-length; element() with a width writes long length forms.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace support {

// "02 01 00" as three bytes; blanks may stand anywhere. And back, for messages.
std::string bytes(std::string_view hex);
std::string hex(std::string_view bytes);

// One element: tag (one byte, or several given as 0x7f2a), length, content. A width forces that
// many length bytes after the 0x80+width byte.
std::string element(unsigned long tag, std::string_view content, unsigned width = 0);
// Only the header of an element whose content would have this length: for lies about lengths.
std::string header(unsigned long tag, std::uint64_t length, unsigned width = 0);

std::string integer(long long value, unsigned long tag = 0x02);
std::string enumerated(long long value);
std::string boolean(bool value, unsigned long tag = 0x01);
std::string octets(std::string_view value, unsigned long tag = 0x04);
std::string null();

template <class... Parts>
std::string concat(const Parts &...parts)
{
    std::string all;
    (all.append(parts), ...);
    return all;
}
template <class... Parts>
std::string sequence(const Parts &...parts)
{
    return element(0x30, concat(parts...));
}
template <class... Parts>
std::string set(const Parts &...parts)
{
    return element(0x31, concat(parts...));
}

// Every proper prefix of a value, the empty one first: "cut at every byte".
std::vector<std::string> cuts(std::string_view value);

// Reads elements one after the other; throws std::runtime_error where there is none. Knows only
// one-byte tags.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool at_end() const
    {
        return rest_.empty();
    }
    unsigned char next_tag() const; // 0 at the end
    std::string take(unsigned char tag);
    long long take_integer(unsigned char tag = 0x02);
    std::string_view rest() const
    {
        return rest_;
    }

private:
    std::string_view rest_;
};

// The length of the first whole element at the start of these bytes, 0 while it is incomplete.
std::size_t whole_element(std::string_view bytes);

} // namespace support
