#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "text.h"

namespace tool {

namespace {

std::string padding(std::size_t width, std::string_view text)
{
    const std::size_t taken = columns(text);
    return std::string(width > taken ? width - taken : 0, ' ');
}

} // namespace

Json json_text(std::string_view bytes)
{
    if (decode_utf8(bytes))
        return std::string(bytes);
    return Json{{"base64", base64(bytes)}};
}

void Output::document(const Json &document)
{
    write(document.dump(2) + '\n');
}

void Output::stream(const Json &object)
{
    write(object.dump() + '\n');
}

void Output::line(std::string_view text)
{
    write(std::string(text) + '\n');
}

void Output::table(const std::vector<Column> &columns_of_table, const std::vector<Row> &rows)
{
    std::vector<std::size_t> widths;
    for (std::size_t at = 0; at < columns_of_table.size(); ++at) {
        std::size_t width = columns(columns_of_table[at].title);
        for (const Row &row : rows)
            width = std::max(width, columns(row[at]));
        widths.push_back(width);
    }
    const auto write_row = [&](const auto &cell) {
        std::string text;
        for (std::size_t at = 0; at < widths.size(); ++at) {
            const std::string &value = cell(at);
            const std::string space = padding(widths[at], value);
            text += columns_of_table[at].right ? space + value : value + space;
            text += "  ";
        }
        text.erase(text.find_last_not_of(' ') + 1);
        line(text);
    };
    write_row([&](std::size_t at) -> const std::string & { return columns_of_table[at].title; });
    for (const Row &row : rows)
        write_row([&](std::size_t at) -> const std::string & { return row[at]; });
}

void Output::fields(const std::vector<std::pair<std::string, std::string>> &fields)
{
    std::size_t width = 0;
    for (const auto &[label, value] : fields)
        width = std::max(width, columns(label));
    for (const auto &[label, value] : fields)
        line(label + padding(width, label) + "  " + value);
}

void Output::write(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        throw Failure(ExitStatus::failed,
                      std::string("cannot write the output: ") + std::strerror(errno));
}

} // namespace tool
