// What commands print on standard output: aligned text for people, or JSON.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace tool {

using Json = nlohmann::ordered_json;

// A text as a JSON value: a string, or {"base64": "..."} when its bytes are not UTF-8.
Json json_text(std::string_view bytes);

struct Column {
    std::string title;
    bool right = false; // aligned to the right, as numbers are
};
using Row = std::vector<std::string>;

class Output {
public:
    explicit Output(bool json) : json_(json) {}

    bool json() const
    {
        return json_;
    }

    // The command's one JSON document.
    void document(const Json &document);
    // One JSON object on a line of its own, at once: for commands that report as things happen.
    void stream(const Json &object);
    // One line of text.
    void line(std::string_view text);
    void table(const std::vector<Column> &columns, const std::vector<Row> &rows);
    // "label  value" lines, the values aligned.
    void fields(const std::vector<std::pair<std::string, std::string>> &fields);

    // The other end of the pipe that it goes to is closed.
    bool reader_is_gone() const;

private:
    void write(std::string_view text);

    bool json_;
    std::FILE *stream_ = stdout;
};

} // namespace tool
