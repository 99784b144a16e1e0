#include "ber.h"

namespace sandbox::ber {

namespace {

std::string hex(unsigned value)
{
    constexpr char digits[] = "0123456789abcdef";
    return {'0', 'x', digits[(value >> 4) & 0xf], digits[value & 0xf]};
}

constexpr unsigned byte_at(std::string_view bytes, std::size_t index)
{
    return static_cast<unsigned char>(bytes[index]);
}

} // namespace

bool read_header(std::string_view bytes, Header &header)
{
    if (bytes.empty())
        return false;
    const unsigned tag = byte_at(bytes, 0);
    if ((tag & 0x1f) == 0x1f)
        throw Malformed("tag " + hex(tag) + " opens a tag of several bytes, which LDAP never uses");
    if (bytes.size() < 2)
        return false;

    const unsigned first = byte_at(bytes, 1);
    std::size_t length = first;
    std::size_t length_bytes = 0;
    if (first == 0x80)
        throw Malformed("indefinite length");
    if (first > 0x80) {
        length_bytes = first & 0x7f;
        if (length_bytes > sizeof(std::size_t))
            throw Malformed("length of " + std::to_string(length_bytes) + " bytes");
        if (bytes.size() < 2 + length_bytes)
            return false;
        length = 0;
        for (std::size_t i = 0; i < length_bytes; ++i)
            length = length << 8 | byte_at(bytes, 2 + i);
        // Half the address space: the sum of a header's and its content's size cannot wrap.
        if (length > SIZE_MAX / 2)
            throw Malformed("length larger than any message");
    }
    header = {static_cast<Tag>(tag), 2 + length_bytes, length};
    return true;
}

Tag Reader::next_tag() const
{
    return rest_.empty() ? Tag{0} : static_cast<Tag>(byte_at(rest_, 0));
}

Element Reader::element()
{
    Header header;
    if (!read_header(rest_, header) || header.size() > rest_.size())
        throw Malformed(rest_.empty() ? "an element is missing" : "an element is cut short");
    const Element found{header.tag, rest_.substr(header.header_size, header.content_size),
                        rest_.substr(0, header.size())};
    rest_.remove_prefix(header.size());
    return found;
}

Element Reader::element(Tag tag)
{
    if (!at_end() && next_tag() != tag)
        throw Malformed("tag " + hex(next_tag()) + " where " + hex(tag) + " is expected");
    return element();
}

std::int32_t Reader::integer(Tag tag)
{
    const std::string_view content = octets(tag);
    if (content.empty() || content.size() > 4)
        throw Malformed("integer of " + std::to_string(content.size()) + " bytes");
    std::uint32_t value = (byte_at(content, 0) & 0x80) != 0 ? UINT32_MAX : 0;
    for (std::size_t i = 0; i < content.size(); ++i)
        value = value << 8 | byte_at(content, i);
    return static_cast<std::int32_t>(value);
}

bool Reader::boolean(Tag tag)
{
    const std::string_view content = octets(tag);
    if (content.size() != 1)
        throw Malformed("boolean of " + std::to_string(content.size()) + " bytes");
    return content[0] != 0;
}

void Reader::finish() const
{
    if (!at_end())
        throw Malformed(std::to_string(rest_.size()) + " bytes after the last element");
}

std::string element(Tag tag, std::string_view content)
{
    std::string bytes(1, static_cast<char>(tag));
    const std::size_t size = content.size();
    if (size < 0x80) {
        bytes += static_cast<char>(size);
    } else {
        unsigned count = 1;
        while (count < sizeof size && size >> (8 * count) != 0)
            ++count;
        bytes += static_cast<char>(0x80 | count);
        while (count-- > 0)
            bytes += static_cast<char>(size >> (8 * count) & 0xff);
    }
    return bytes.append(content);
}

std::string integer(std::int64_t value, Tag tag)
{
    // The shortest two's complement form: drop leading bytes that only repeat the sign.
    int count = 8;
    while (count > 1 && (value >> (8 * count - 9) == 0 || value >> (8 * count - 9) == -1))
        --count;
    std::string content;
    while (count-- > 0)
        content += static_cast<char>(value >> (8 * count) & 0xff);
    return element(tag, content);
}

std::string boolean(bool value, Tag tag)
{
    return element(tag, value ? std::string_view("\xff", 1) : std::string_view("\0", 1));
}

} // namespace sandbox::ber
