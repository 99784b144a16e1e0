#include "text.h"

#include <array>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cwchar>

namespace tool {

namespace {

constexpr std::string_view base64_digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Reads one character off the front; nothing when it is not well-formed.
std::optional<char32_t> take_character(std::string_view &bytes)
{
    const auto byte = [&](std::size_t at) {
        return static_cast<unsigned char>(bytes[at]);
    };
    const unsigned char first = byte(0);
    std::size_t length = 1;
    char32_t character = first;
    char32_t smallest = 0;
    if (first >= 0x80) {
        if (first < 0xc0 || first > 0xf4)
            return std::nullopt;
        length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
        smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
        character = first & (0x7fU >> length);
    }
    if (bytes.size() < length)
        return std::nullopt;
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xc0) != 0x80)
            return std::nullopt;
        character = character << 6 | (byte(at) & 0x3fU);
    }
    const bool surrogate = character >= 0xd800 && character < 0xe000;
    if (character < smallest || surrogate || character > 0x10ffff)
        return std::nullopt;
    bytes.remove_prefix(length);
    return character;
}

bool moves_the_cursor(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character < 0xa0) ||
           (character >= 0x2028 && character <= 0x202e) ||
           (character >= 0x2066 && character <= 0x2069);
}

void append_hex_pairs(std::string &text, std::string_view bytes)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += '\\';
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
}

} // namespace

std::optional<std::u32string> decode_utf8(std::string_view bytes)
{
    std::u32string characters;
    while (!bytes.empty()) {
        const auto character = take_character(bytes);
        if (!character)
            return std::nullopt;
        characters += *character;
    }
    return characters;
}

bool is_utf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        const bool ascii = static_cast<unsigned char>(bytes[0]) < 0x80;
        if (ascii)
            bytes.remove_prefix(1);
        else if (!take_character(bytes))
            return false;
    }
    return true;
}

bool append_json_string(std::string &json, std::string_view bytes)
{
    const std::size_t begin = json.size();
    json += '"';
    while (!bytes.empty()) {
        const std::string_view before = bytes;
        const auto character = take_character(bytes);
        if (!character) {
            json.resize(begin);
            return false;
        }
        if (*character == '"' || *character == '\\') {
            json += '\\';
            json += before[0];
        } else if (moves_the_cursor(*character)) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x",
                          static_cast<unsigned>(*character));
            json += escape.data();
        } else {
            json += before.substr(0, before.size() - bytes.size());
        }
    }
    json += '"';
    return true;
}

std::string base64(std::string_view bytes)
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t here = std::min<std::size_t>(3, bytes.size() - at);
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < here ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= here ? base64_digits[group >> (18 - 6 * i) & 0x3f] : '=';
    }
    return text;
}

std::optional<std::string> decode_base64(std::string_view text)
{
    std::size_t padding = 0;
    while (padding < 2 && text.ends_with('=')) {
        text.remove_suffix(1);
        ++padding;
    }
    if ((text.size() + padding) % 4 != 0)
        return std::nullopt;
    std::string bytes;
    std::uint32_t group = 0;
    unsigned bits = 0;
    for (const char c : text) {
        const auto digit = base64_digits.find(c);
        if (digit == std::string_view::npos)
            return std::nullopt;
        group = group << 6 | static_cast<std::uint32_t>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(static_cast<unsigned char>(group >> bits));
        }
    }
    return bytes;
}

std::string printable(std::string_view bytes)
{
    std::string text;
    std::string_view rest = bytes;
    while (!rest.empty()) {
        const std::string_view before = rest;
        const auto character = take_character(rest);
        if (!character)
            return "base64:" + base64(bytes);
        const std::string_view taken = before.substr(0, before.size() - rest.size());
        if (moves_the_cursor(*character))
            append_hex_pairs(text, taken);
        else
            text += taken;
    }
    return text;
}

std::string in_quotes(std::string_view bytes)
{
    return '"' + printable(bytes) + '"';
}

void append_quoted(std::string &line, std::string_view bytes)
{
    const std::string text = printable(bytes);
    line += '"';
    for (const char c : text)
        if (c == '"')
            line += "\\22";
        else
            line += c;
    line += '"';
}

std::size_t columns(std::string_view text)
{
    // wcwidth() knows only the characters of the locale; whatever the user's locale is, ours is
    // UTF-8. Nothing else depends on it.
    static const bool utf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    std::size_t sum = 0;
    while (!text.empty()) {
        const auto character = take_character(text);
        if (!character)
            return sum + text.size();
        const int width = utf8 ? wcwidth(static_cast<wchar_t>(*character)) : 1;
        sum += width < 0 ? 1U : static_cast<std::size_t>(width);
    }
    return sum;
}

std::string counted(long number, std::string_view noun)
{
    return std::to_string(number) + ' ' + std::string(noun) + (number == 1 ? "" : "s");
}

} // namespace tool
