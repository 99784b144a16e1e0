#include "ber.h"

#include <cctype>
#include <stdexcept>

namespace support {

namespace {

std::string big_endian(std::uint64_t value, unsigned width)
{
    std::string out(width, '\0');
    for (unsigned i = 0; i < width; i++)
        out[width - 1 - i] = static_cast<char>(i < 8 ? value >> (8 * i) : 0);
    return out;
}

unsigned width_of(std::uint64_t value)
{
    unsigned width = 1;
    while (value >>= 8)
        width++;
    return width;
}

struct Header {
    std::size_t size = 0; // of tag and length together; 0: incomplete
    std::uint64_t length = 0;
};

Header read_header(std::string_view bytes)
{
    if (bytes.size() < 2)
        return {};
    auto first = static_cast<unsigned char>(bytes[1]);
    if (first < 0x80)
        return {2, first};
    std::size_t width = first & 0x7f;
    if (width == 0 || width > 8)
        throw std::runtime_error("a length that no request uses: " + hex(bytes.substr(0, 16)));
    if (bytes.size() < 2 + width)
        return {};
    Header header{2 + width, 0};
    for (char byte : bytes.substr(2, width))
        header.length = header.length << 8 | static_cast<unsigned char>(byte);
    return header;
}

} // namespace

std::string bytes(std::string_view hex)
{
    std::string digits;
    for (char c : hex) {
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (!std::isspace(static_cast<unsigned char>(c)))
            throw std::invalid_argument("not hexadecimal: " + std::string(hex));
    }
    if (digits.size() % 2 != 0)
        throw std::invalid_argument("half a byte: " + std::string(hex));
    std::string out;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        out += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return out;
}

std::string hex(std::string_view bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (char c : bytes) {
        auto byte = static_cast<unsigned char>(c);
        if (!out.empty())
            out += ' ';
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

std::string header(unsigned long tag, std::uint64_t length, unsigned width)
{
    std::string out = big_endian(tag, width_of(tag));
    if (width == 0 && length >= 0x80)
        width = width_of(length);
    if (width == 0)
        return out + static_cast<char>(length);
    return out + static_cast<char>(0x80 + width) + big_endian(length, width);
}

std::string element(unsigned long tag, std::string_view content, unsigned width)
{
    return header(tag, content.size(), width).append(content);
}

std::string integer(long long value, unsigned long tag)
{
    // Two's complement without the leading bytes that only repeat the sign.
    std::string content = big_endian(static_cast<std::uint64_t>(value), 8);
    while (content.size() > 1 && ((content[0] == '\0' && !(content[1] & 0x80)) ||
                                  (content[0] == '\xff' && (content[1] & 0x80))))
        content.erase(0, 1);
    return element(tag, content);
}

std::string enumerated(long long value)
{
    return integer(value, 0x0a);
}

std::string boolean(bool value, unsigned long tag)
{
    return element(tag, value ? "\xff" : std::string(1, '\0'));
}

std::string octets(std::string_view value, unsigned long tag)
{
    return element(tag, value);
}

std::string null()
{
    return element(0x05, "");
}

std::vector<std::string> cuts(std::string_view value)
{
    std::vector<std::string> all;
    for (std::size_t length = 0; length < value.size(); length++)
        all.emplace_back(value.substr(0, length));
    return all;
}

unsigned char Reader::next_tag() const
{
    return rest_.empty() ? 0 : static_cast<unsigned char>(rest_[0]);
}

std::string Reader::take(unsigned char tag)
{
    std::size_t size = whole_element(rest_);
    if (size == 0 || next_tag() != tag)
        throw std::runtime_error("expected an element " + hex({reinterpret_cast<char *>(&tag), 1}) +
                                 " at: " + hex(rest_.substr(0, 32)));
    std::size_t start = read_header(rest_).size;
    std::string content(rest_.substr(start, size - start));
    rest_.remove_prefix(size);
    return content;
}

long long Reader::take_integer(unsigned char tag)
{
    std::string content = take(tag);
    if (content.empty() || content.size() > 8)
        throw std::runtime_error("not an integer: " + hex(content));
    std::uint64_t value = content[0] & 0x80 ? ~std::uint64_t{0} : 0;
    for (char byte : content)
        value = value << 8 | static_cast<unsigned char>(byte);
    return static_cast<long long>(value);
}

std::size_t whole_element(std::string_view bytes)
{
    Header header = read_header(bytes);
    if (header.size == 0 || bytes.size() - header.size < header.length)
        return 0;
    return header.size + static_cast<std::size_t>(header.length);
}

} // namespace support
