#include "event_line.h"

#include <array>
#include <charconv>
#include <ctime>
#include <optional>
#include <type_traits>
#include <variant>
#include <vector>

#include <arpa/inet.h>

#include "event_members.h"
#include "text.h"

namespace tool {

namespace {

using namespace greirige;

void append_number(std::string &text, std::int64_t number, int base = 10)
{
    std::array<char, 24> digits{};
    const auto written = std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
    text.append(digits.data(), written.ptr);
}

std::string hex(EventTag tag)
{
    std::string text = "0x";
    append_number(text, static_cast<std::int64_t>(tag), 16);
    return text;
}

// What the bytes of an address say. The numbers of address types are the server's; the length
// tells an IP address all the same.
std::optional<std::string> address_text(std::string_view bytes)
{
    const bool written = bytes.find_first_not_of("0123456789abcdefABCDEF.:[]") == bytes.npos;
    const int family = bytes.size() == 4                ? AF_INET
                       : bytes.size() == 16 && !written ? AF_INET6
                                                        : AF_UNSPEC;
    if (family == AF_UNSPEC)
        return is_utf8(bytes) ? std::optional<std::string>(bytes) : std::nullopt;
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(family, bytes.data(), text.data(), text.size());
    return text.data();
}

class Values {
public:
    Values(std::string &line, bool json) : line_(line), json_(json) {}

    void put(const Member &member, std::uint32_t number)
    {
        name(member);
        append_number(line_, number);
    }
    void put(const Member &member, std::int32_t number)
    {
        name(member);
        append_number(line_, number);
    }
    void put(const Member &member, bool truth)
    {
        name(member);
        line_ += truth ? "true" : "false";
    }
    void put(const Member &member, std::string_view text)
    {
        const bool element = member.name.empty();
        if (!json_ && text.empty() && !element)
            return;
        name(member);
        if (!json_)
            append_quoted(line_, text);
        else if (!append_json_string(line_, text))
            line_.append(R"({"base64":")").append(base64(text)).append("\"}");
    }
    void put(const Member &member, const Text &text)
    {
        if (text)
            put(member, *text);
        else
            put_nothing(member);
    }
    void put(const Member &member, Bytes bytes)
    {
        if (!member.count.empty())
            put({member.count}, static_cast<std::uint32_t>(bytes.size()));
        if (bytes.empty())
            return put_nothing(member);
        const std::string_view data(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        const std::optional<std::string> read = member.address ? address_text(data) : std::nullopt;
        const std::string_view text = read ? *read : data;
        if (!json_)
            return put(member, text);
        put_object(member, [&] {
            put({"base64"}, std::string_view(base64(data)));
            if (is_utf8(text))
                put({"text"}, text);
        });
    }
    void put(const Member &member, const TimeStamp &stamp)
    {
        put_object(member, [&] {
            put({"seconds"}, stamp.seconds);
            put({"replicaNumber"}, stamp.replica);
            put({"event"}, stamp.event);
        });
    }
    void put(const Member &member, const Address &address)
    {
        put_object(member, [&] { put_members(address); });
    }
    void put(const Member &member, const Referral &referral)
    {
        put_object(member, [&] {
            put({"type"}, referral.type);
            put({"address", "length", true}, referral.data);
        });
    }
    void put(const Member &member, const std::optional<Connection> &connection)
    {
        if (!connection)
            return put_nothing(member);
        put_object(member, [&] {
            put({"connection"}, connection->connection);
            put({"time"}, connection->time);
            put({"inetAddr"}, connection->address);
        });
    }
    void put(const Member &member, const ConfigValue &value)
    {
        if (std::holds_alternative<std::monostate>(value))
            return put_nothing(member);
        put_object(member,
                   [&] { std::visit([this](const auto &held) { put_union(held); }, value); });
    }
    void put(const Member &member, const DebugParameter &parameter)
    {
        put_object(member, [&] {
            put({"type"}, parameter.type);
            put_object({"value"}, [&] {
                std::visit([this](const auto &held) { put_union(held); }, parameter.value);
            });
        });
    }
    template <class Element>
    void put(const Member &member, const std::vector<Element> &list)
    {
        put_list(member, list);
    }
    template <class Element, std::size_t Size>
    void put(const Member &member, const std::array<Element, Size> &list)
    {
        put_list(member, list);
    }

    // A record as its members.
    template <class View>
    void put_members(const View &view)
    {
        std::size_t index = 0;
        for_each_field(view, [&](std::string_view, const auto &value) {
            put(members_of<View>.at(index++), value);
        });
    }
    void put_members(const NetAddressEvent &event)
    {
        put_members(event.address);
    }
    void put_members(const Address &address)
    {
        put({"type"}, address.type);
        put({"data", "length", true}, address.data);
    }

    template <class Fill>
    void put_object(const Member &member, Fill &&fill)
    {
        name(member);
        line_ += '{';
        fill();
        line_ += '}';
    }
    void put_nothing(const Member &member)
    {
        if (!json_)
            return;
        name(member);
        line_ += "null";
    }

private:
    void name(const Member &member)
    {
        if (!line_.empty() && line_.back() != '{' && line_.back() != '[')
            line_ += json_ ? ',' : ' ';
        if (member.name.empty())
            return;
        if (json_)
            line_.append(1, '"').append(member.name).append("\":");
        else
            line_.append(member.name).append(1, '=');
    }
    template <class List>
    void put_list(const Member &member, const List &list)
    {
        if (!member.count.empty())
            put({member.count}, static_cast<std::uint32_t>(list.size()));
        if (!json_ && list.empty())
            return;
        name(member);
        line_ += '[';
        for (const auto &element : list)
            put_element(element);
        line_ += ']';
    }
    template <class Element>
    void put_element(const Element &element)
    {
        put({""}, element);
    }
    // The place of an element says something too: it is kept where nothing is there.
    void put_element(const Text &text)
    {
        if (text || json_)
            return put({""}, text);
        name({""});
        line_ += '-';
    }

    // The member of a union that is set.
    void put_union(std::monostate) {}
    void put_union(std::int32_t number)
    {
        put({"integer"}, number);
    }
    void put_union(bool truth)
    {
        put({"boolean"}, truth);
    }
    void put_union(const Text &text)
    {
        put({"utf8Str"}, text);
    }
    void put_union(Bytes bytes)
    {
        put_object({"binary"}, [&] { put({"data", "size"}, bytes); });
    }
    void put_union(const Address &address)
    {
        put({"netAddress"}, address);
    }
    void put_union(const TimeStamp &stamp)
    {
        put({"timeStamp"}, stamp);
    }
    void put_union(const std::vector<TimeStamp> &stamps)
    {
        put_object({"timeStampVector"}, [&] { put({"timeStamps", "count"}, stamps); });
    }

    std::string &line_;
    bool json_;
};

} // namespace

std::string_view EventLines::event(const Event &event, Time received)
{
    const std::string_view kind = to_string(event.tag());
    Values values(line_, json_);
    begin(received, kind);
    values.put({"eventType"}, event.type());
    values.put({"eventResult"}, event.result());
    if (json_)
        values.put({"kind"}, kind);
    if (event.tag() == EventTag::none)
        values.put_nothing({"tag"});
    else if (json_ || kind == "unknown")
        values.put({"tag"}, std::string_view(hex(event.tag())));

    const auto put_data = [&](const auto &data) {
        if (!json_)
            values.put_members(data);
        else if (std::is_same_v<decltype(data), const NoData &>)
            values.put_nothing({"eventData"});
        else
            values.put_object({"eventData"}, [&] { values.put_members(data); });
    };
    std::visit(put_data, event.data());
    if (event.address())
        values.put({"address"}, *event.address());
    else
        values.put_nothing({"address"});
    return end();
}

std::string_view EventLines::undecodable(const Error &error, Time received)
{
    Values values(line_, json_);
    begin(received, "error");
    const auto put_error = [&] {
        values.put({"code"}, error.code);
        values.put({"message"}, std::string_view(error.text));
    };
    if (json_)
        values.put_object({"error"}, put_error);
    else
        put_error();
    return end();
}

std::string_view EventLines::gap(Time from, Time to, std::string_view reason)
{
    Values values(line_, json_);
    begin(to, "gap");
    const auto put_gap = [&] {
        values.put({"from"}, std::string_view(utc(from)));
        values.put({"to"}, std::string_view(utc(to)));
        values.put({"reason"}, reason);
    };
    if (json_)
        values.put_object({"gap"}, put_gap);
    else
        put_gap();
    return end();
}

void EventLines::begin(Time time, std::string_view kind)
{
    line_ = json_ ? R"({"received":")" : "";
    line_ += utc(time);
    if (json_)
        line_ += '"';
    else
        line_.append(1, ' ').append(kind);
}

std::string_view EventLines::end()
{
    if (json_)
        line_ += '}';
    return line_;
}

// "2026-11-21T00:22:27.123456Z"; events come many in a second, whose text is kept.
std::string EventLines::utc(Time time)
{
    using namespace std::chrono;
    const auto second = floor<seconds>(time);
    if (second != second_) {
        second_ = second;
        const std::time_t number = system_clock::to_time_t(second);
        std::tm parts{};
        gmtime_r(&number, &parts);
        std::array<char, 32> text{};
        second_text_.assign(text.data(),
                            std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.", &parts));
    }
    const std::string fraction =
        std::to_string(duration_cast<microseconds>(time - second).count() + 1000000);
    return second_text_ + fraction.substr(1) + 'Z';
}

} // namespace tool
