#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>

#include "error.h"
#include "signals.h"
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
    Row titles;
    for (const Column &column : columns_of_table)
        titles.push_back(column.title);
    std::vector<std::size_t> widths(titles.size());
    for (std::size_t at = 0; at < widths.size(); ++at) {
        widths[at] = columns(titles[at]);
        for (const Row &row : rows)
            widths[at] = std::max(widths[at], columns(row[at]));
    }
    const auto write_row = [&](const Row &row) {
        std::string text;
        for (std::size_t at = 0; at < widths.size(); ++at) {
            const bool right = columns_of_table[at].right;
            const std::string space = padding(widths[at], row[at]);
            text.append(right ? space : row[at]).append(right ? row[at] : space).append("  ");
        }
        text.erase(text.find_last_not_of(' ') + 1);
        line(text);
    };
    write_row(titles);
    for (const Row &row : rows)
        write_row(row);
}

void Output::fields(const std::vector<std::pair<std::string, std::string>> &fields)
{
    std::size_t width = 0;
    for (const auto &[label, value] : fields)
        width = std::max(width, columns(label));
    for (const auto &[label, value] : fields)
        line(std::string(label).append(padding(width, label)).append("  ").append(value));
}

bool Output::reader_is_gone() const
{
    pollfd output{.fd = fileno(stream_), .events = 0, .revents = 0};
    return poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0;
}

void Output::write(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stream_) == text.size() &&
        std::fflush(stream_) == 0)
        return;
    const int error = errno;
    leave_if_interrupted();
    if (error == EPIPE)
        throw ReaderGone();
    throw Failure(ExitStatus::failed,
                  std::string("cannot write the output: ") + std::strerror(error));
}

} // namespace tool
