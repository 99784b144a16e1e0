// Bytes from the server and from the command line, made fit for people, terminals and JSON.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// The characters of a UTF-8 text; nothing when the bytes are not UTF-8 (RFC 3629).
std::optional<std::u32string> decode_utf8(std::string_view bytes);

bool is_utf8(std::string_view bytes);

// Appends a UTF-8 text as a string of JSON; false and nothing when the bytes are not UTF-8.
bool append_json_string(std::string &json, std::string_view bytes);

std::string base64(std::string_view bytes);
std::optional<std::string> decode_base64(std::string_view text);

// For a line of output: UTF-8 as it is, but control characters and direction overrides as \hh (the
// hex pairs of RFC 4514), so that no server can draw on a terminal. Bytes that are not UTF-8
// become base64:... as a whole.
std::string printable(std::string_view bytes);

// printable() between double quotes, for messages.
std::string in_quotes(std::string_view bytes);

// The same where such texts stand side by side: quotes in the text are escaped too.
void append_quoted(std::string &line, std::string_view bytes);

// How many columns of a terminal a printable() text takes.
std::size_t columns(std::string_view text);

// "1 second", "60 seconds".
std::string counted(long number, std::string_view noun);

} // namespace tool
