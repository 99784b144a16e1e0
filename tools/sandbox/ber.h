// The Basic Encoding Rules (X.690) as LDAP uses them: definite lengths and one-byte tags.
//
// The reader looks at bytes that it does not own, copies nothing and never reads past them; what
// cannot be read is thrown as Malformed. The writers return whole elements, so that nesting them
// reads like the schema: sequence(integer(1), octets("o=x")).
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sandbox::ber {

using Tag = std::uint8_t;

inline constexpr Tag boolean_tag = 0x01;
inline constexpr Tag integer_tag = 0x02;
inline constexpr Tag octets_tag = 0x04;
inline constexpr Tag enumerated_tag = 0x0a;
inline constexpr Tag sequence_tag = 0x30;
inline constexpr Tag set_tag = 0x31;

struct Malformed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The tag and length that open an element.
struct Header {
    Tag tag = 0;
    std::size_t header_size = 0;
    std::size_t content_size = 0;

    std::size_t size() const
    {
        return header_size + content_size;
    }
};

// Reads an element's header off the front of bytes. False when the header is not complete yet.
bool read_header(std::string_view bytes, Header &header);

struct Element {
    Tag tag = 0;
    std::string_view content;
    std::string_view whole; // header and content
};

class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool at_end() const
    {
        return rest_.empty();
    }
    std::string_view rest() const
    {
        return rest_;
    }

    // The next element's tag, 0 at the end.
    Tag next_tag() const;

    Element element();
    Element element(Tag tag);
    Reader enter(Tag tag)
    {
        return Reader(element(tag).content);
    }
    std::string_view octets(Tag tag = octets_tag)
    {
        return element(tag).content;
    }
    std::string text(Tag tag = octets_tag)
    {
        return std::string(octets(tag));
    }
    std::int32_t integer(Tag tag = integer_tag);
    bool boolean(Tag tag = boolean_tag);

    // Requires that nothing is left.
    void finish() const;

private:
    std::string_view rest_;
};

std::string element(Tag tag, std::string_view content);
std::string integer(std::int64_t value, Tag tag = integer_tag);
std::string boolean(bool value, Tag tag = boolean_tag);

inline std::string octets(std::string_view value, Tag tag = octets_tag)
{
    return element(tag, value);
}
inline std::string enumerated(std::int64_t value)
{
    return integer(value, enumerated_tag);
}

template <class... Parts>
std::string constructed(Tag tag, const Parts &...parts)
{
    std::string content;
    (content.append(parts), ...);
    return element(tag, content);
}
template <class... Parts>
std::string sequence(const Parts &...parts)
{
    return constructed(sequence_tag, parts...);
}
template <class... Parts>
std::string set(const Parts &...parts)
{
    return constructed(set_tag, parts...);
}

} // namespace sandbox::ber
