#include "ldif_check.h"

#include "dn.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <strings.h>

namespace sandbox {

namespace {

struct Line {
    std::size_t number = 0; // of its first physical line
    std::string text;       // unfolded; empty between records
};

std::string without_return(std::string line)
{
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

// Calls `take` for each logical line: continuation lines joined, comments left out.
void for_each_line(const std::string &path, const std::function<void(const Line &)> &take)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw CannotStart("cannot read " + path + ": " + std::strerror(errno));
    Line current; // number 0: none yet
    const auto flush = [&] {
        if (current.number > 0 && (current.text.empty() || current.text.front() != '#'))
            take(current);
        current.number = 0;
    };
    std::size_t number = 0;
    for (std::string physical; std::getline(file, physical);) {
        physical = without_return(std::move(physical));
        ++number;
        if (physical.empty() || physical.front() != ' ') {
            flush();
            current.number = number;
            current.text = physical;
        } else if (current.number > 0 && !current.text.empty()) {
            current.text.append(physical, 1);
        } else {
            throw CannotStart(path + ":" + std::to_string(number) +
                              ": a continuation line that continues nothing");
        }
    }
    if (file.bad())
        throw CannotStart("cannot read " + path + ": " + std::strerror(errno));
    flush();
}

std::optional<std::string> decode_base64(std::string_view text)
{
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0)
        return {};
    std::string bytes;
    std::uint32_t bits = 0;
    int have = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (c == '=' && ++padding <= 2)
            continue;
        const std::size_t digit = digits.find(c);
        if (digit == std::string_view::npos || padding > 0)
            return {};
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        have += 6;
        if (have >= 8) {
            have -= 8;
            bytes += static_cast<char>(bits >> have & 0xff);
        }
    }
    return bytes;
}

struct Pair {
    std::string name;
    std::string value;
};

// "name: value", "name:: base64", "name:< url" (whose value stays the URL).
Pair split(const std::string &path, const Line &line)
{
    const auto fail = [&](const std::string &reason) {
        throw CannotStart(path + ":" + std::to_string(line.number) + ": " + reason);
    };
    const std::size_t colon = line.text.find(':');
    if (colon == std::string::npos || colon == 0)
        fail("neither \"attribute: value\" nor a comment: " + line.text.substr(0, 60));
    const char kind = colon + 1 < line.text.size() ? line.text[colon + 1] : ' ';
    const std::size_t start =
        line.text.find_first_not_of(' ', kind == ':' || kind == '<' ? colon + 2 : colon + 1);
    Pair pair{line.text.substr(0, colon),
              start == std::string::npos ? std::string() : line.text.substr(start)};
    if (kind == ':') {
        const auto decoded = decode_base64(pair.value);
        if (!decoded)
            fail("the value of " + pair.name + " is not base64");
        pair.value = *decoded;
    }
    return pair;
}

bool begins_entry(const Line &line)
{
    return strncasecmp(line.text.c_str(), "dn:", 3) == 0;
}

bool is(const Pair &pair, const char *name)
{
    return strcasecmp(pair.name.c_str(), name) == 0;
}

} // namespace

LdifFile check_ldif(const std::string &path)
{
    LdifFile file{path, {}, 0};
    bool in_record = false;
    bool anything = false;
    for_each_line(path, [&](const Line &line) {
        const std::string where = path + ":" + std::to_string(line.number) + ": ";
        if (line.text.empty()) {
            in_record = false;
            return;
        }
        const Pair pair = split(path, line);
        if (in_record) {
            if (is(pair, "changetype"))
                throw CannotStart(where + "a change record; only entries can be loaded (send "
                                          "changes with ldapmodify once the sandbox runs)");
            return;
        }
        if (!anything && is(pair, "version")) {
            if (pair.value != "1")
                throw CannotStart(where + "version " + pair.value + " is not known");
            file.version_line = line.number;
            anything = true;
            return;
        }
        anything = true;
        if (!is(pair, "dn"))
            throw CannotStart(where + "a record begins with \"dn:\", not with \"" + pair.name +
                              ":\"");
        if (!normalised_dn(pair.value))
            throw CannotStart(where + "not a distinguished name: " + pair.value);
        if (file.first_dn.empty())
            file.first_dn = pair.value;
        in_record = true;
    });
    if (file.first_dn.empty())
        throw CannotStart(path + ": there is no entry in it");
    return file;
}

void copy_without_version(const LdifFile &file, const std::filesystem::path &copy)
{
    std::filesystem::copy_file(file.path, copy);
    std::fstream stream(copy, std::ios::in | std::ios::out | std::ios::binary);
    std::string skipped;
    for (std::size_t i = 1; i < file.version_line; ++i)
        std::getline(stream, skipped);
    stream.seekp(stream.tellg());
    stream.put('#');
    stream.close();
    if (!stream)
        throw CannotStart("cannot write " + copy.string());
}

std::size_t entry_line(const std::string &path, std::size_t from)
{
    std::size_t found = 0;
    for_each_line(path, [&](const Line &line) {
        if (found == 0 && line.number >= from && begins_entry(line))
            found = line.number;
    });
    return found;
}

std::size_t first_line_below(const std::string &path, const std::string &dn)
{
    const std::string tail = "," + normalised_dn(dn).value_or(dn);
    std::size_t found = 0;
    for_each_line(path, [&](const Line &line) {
        if (found != 0 || !begins_entry(line))
            return;
        const std::string name = normalised_dn(split(path, line).value).value_or("");
        if (name.size() > tail.size() &&
            strcasecmp(name.c_str() + name.size() - tail.size(), tail.c_str()) == 0)
            found = line.number;
    });
    return found;
}

} // namespace sandbox
