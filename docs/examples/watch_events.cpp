// watch_events - shows what happens in a directory, one line for each event.
//
//   watch_events SECONDS [TYPE [FILTER]]
//
// The event types and the filters are the server's; the type is 0 without one. It watches for so
// many seconds.
// Exit status: 0 done, 1 the operation failed, 2 wrong usage, 3 no session.

#include "connect.hpp"

#include <charconv>
#include <chrono>
#include <iostream>
#include <string_view>
#include <type_traits>

namespace {

// A server's text may hold anything, and the terminal would obey it.
std::string printable(std::string_view text)
{
    std::string safe(text);
    for (char &c : safe)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            c = '?';
    return safe;
}

// The kind of the event, its result and those of its fields that are text or numbers.
void print(const greirige::Event &event)
{
    std::cout << event.type() << ' ' << to_string(event.tag()) << " result=" << event.result();
    const auto print_field = [](std::string_view name, const auto &value) {
        using Value = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, greirige::Text>) {
            if (value)
                std::cout << ' ' << name << "=\"" << printable(*value) << '"';
        } else if constexpr (std::is_integral_v<Value>) {
            std::cout << ' ' << name << '=' << value;
        }
    };
    std::visit([&](const auto &view) { for_each_field(view, print_field); }, event.data());
    std::cout << std::endl;
}

greirige::Result<void> watch(greirige::Session session, std::chrono::seconds time,
                             const greirige::FilteredEventSpecifier &wanted)
{
    auto stream = wanted.filter.empty()
                      ? greirige::EventStream::open(session, {{wanted.type, wanted.status}})
                      : greirige::EventStream::open_filtered(session, {wanted});
    if (!stream)
        return stream.error();

    const auto deadline = greirige::EventStream::Clock::now() + time;
    for (const greirige::Result<greirige::Event> &event : stream->until(deadline)) {
        if (event)
            print(*event);
        else if (stream->ended()) // the server refused, or is gone
            return event.error();
        else // an event that cannot be read: the next one may be
            std::cerr << "watch_events: " << to_string(event.error()) << '\n';
    }
    return {};
}

bool read_number(std::string_view text, int &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

} // namespace

int main(int argc, char **argv)
{
    int seconds = 0;
    greirige::FilteredEventSpecifier wanted;
    if (argc < 2 || argc > 4 || !read_number(argv[1], seconds) ||
        (argc > 2 && !read_number(argv[2], wanted.type))) {
        std::cerr << "usage: watch_events SECONDS [TYPE [FILTER]]\n";
        return 2;
    }
    if (argc > 3)
        wanted.filter = argv[3];

    auto connection = example::connect();
    if (!connection) {
        std::cerr << "watch_events: " << to_string(connection.error()) << '\n';
        return 3;
    }
    auto watched =
        watch(greirige::Session(connection->get()), std::chrono::seconds(seconds), wanted);
    if (!watched) {
        std::cerr << "watch_events: " << to_string(watched.error()) << '\n';
        return 1;
    }
    return 0;
}
