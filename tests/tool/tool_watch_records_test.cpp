// greirige watch: every record, member by member, from the bytes of a scripted server to the line
// that shows it.

#include <fstream>
#include <iterator>
#include <random>
#include <regex>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/events.h"
#include "watch.h"

using namespace support;
using namespace tool_test;
using Json = nlohmann::ordered_json;

namespace {

// ---- A line's values in the words of support/events.h ------------------------------------------

std::string in_apostrophes(std::string_view bytes)
{
    std::string text(1, '\'');
    for (const char c : bytes)
        if (c >= ' ' && c <= '~')
            text += c;
        else
            text.append(1, '\\').append(hex(std::string_view(&c, 1)));
    return text.append(1, '\'');
}

// A string, or an object with its bytes.
std::string string_text(const Json &value)
{
    if (value.is_null())
        return "NULL";
    return in_apostrophes(value.is_string() ? value.get<std::string>()
                                            : from_base64(value.at("base64")));
}

std::string bytes_text(const Json &object, const std::string &member, const std::string &count)
{
    const Json &value = object.at(member);
    const std::string bytes = value.is_null() ? "" : from_base64(value.at("base64"));
    EXPECT_EQ(object.at(count), bytes.size());
    return value.is_null() ? "NULL" : in_apostrophes(bytes);
}

std::string stamp_text(const Json &stamp)
{
    return stamp.at("seconds").dump() + '/' + stamp.at("replicaNumber").dump() + '/' +
           stamp.at("event").dump();
}

template <class Text>
std::string list_text(const Json &list, Text text_of)
{
    std::string text;
    for (const Json &item : list)
        text += (text.empty() ? "" : ", ") + text_of(item);
    return '[' + text + ']';
}

std::string address_text(const Json &address, const std::string &member = "data")
{
    return address.at("type").dump() + ' ' + bytes_text(address, member, "length");
}

std::string parameter_text(const Json &parameter)
{
    const int type = parameter.at("type");
    const Json &value = parameter.at("value");
    EXPECT_EQ(value.size(), 1U);
    const std::string text = std::to_string(type) + ' ';
    switch (type) {
    case 1:
    case 4:
        return text + value.at("integer").dump();
    case 2:
        return text + string_text(value.at("utf8Str"));
    case 3:
        return text + bytes_text(value.at("binary"), "data", "size");
    case 5:
        return text + address_text(value.at("netAddress"));
    case 6:
        return text + stamp_text(value.at("timeStamp"));
    default: {
        const Json &vector = value.at("timeStampVector");
        EXPECT_EQ(vector.at("count"), vector.at("timeStamps").size());
        return text + list_text(vector.at("timeStamps"), stamp_text);
    }
    }
}

std::string config_text(const Json &data)
{
    const Json &value = data.at("value");
    if (value.is_null())
        return "none";
    EXPECT_EQ(value.size(), 1U);
    switch (data.at("type").get<int>()) {
    case 1:
        return bytes_text(value.at("binary"), "data", "size");
    case 2:
        return value.at("boolean").dump();
    case 3:
        return string_text(value.at("utf8Str"));
    default:
        return value.at("integer").dump();
    }
}

std::string field_text(const Field &field, const Json &data)
{
    const Json &value = data.at(field.name);
    switch (field.form) {
    case Form::signed_number:
    case Form::unsigned_number:
    case Form::verb:
        return value.dump();
    case Form::time_stamp:
        return stamp_text(value);
    case Form::string:
    case Form::tagged_string:
    case Form::mechanism:
    case Form::new_dn:
    case Form::name:
    case Form::description:
        return string_text(value);
    case Form::value:
        return bytes_text(data, field.name, "size");
    case Form::server_address:
        return bytes_text(data, field.name, "addrSize");
    case Form::integers:
        return list_text(value, [](const Json &number) { return number.dump(); });
    case Form::texts:
    case Form::strings:
    case Form::control_strings:
    case Form::referral_strings:
        return list_text(value, string_text);
    case Form::referrals:
        EXPECT_EQ(data.at("referralCount"), value.size());
        return list_text(value,
                         [](const Json &referral) { return address_text(referral, "address"); });
    case Form::config_value:
        return config_text(data);
    case Form::parameters:
        EXPECT_EQ(data.at("paramCount"), value.size());
        return list_text(value, parameter_text);
    case Form::connection:
        return value.is_null() ? "NULL"
                               : value.at("connection").dump() + ' ' + value.at("time").dump() +
                                     ' ' + string_text(value.at("inetAddr"));
    }
    return "no such form";
}

// What the sample says, where a line says less: a list that is not there and an empty one are the
// same, a truth value is no number, and the slot that is never used is left out.
std::string expected_text(const Field &field, const std::string &text, const Json &data)
{
    const std::string value = text.substr(field.name.size() + 2);
    switch (field.form) {
    case Form::strings:
    case Form::control_strings:
    case Form::referral_strings:
    case Form::referrals:
    case Form::parameters:
        return value == "NULL" ? "[]" : value;
    case Form::texts:
        return value.substr(0, value.size() - std::string(", NULL]").size()) + ']';
    case Form::config_value:
        return data.at("type") == 2 ? (value == "0" ? "false" : "true") : value;
    default:
        return value;
    }
}

// The tool's objects for these events.
std::vector<Json> objects_of(const std::vector<std::string> &events)
{
    TcpPeer peer;
    std::string stream;
    for (const std::string &value : events)
        stream += event_message(value);
    peer.answer_raw(LDAPX_MONITOR_EVENTS_REQUEST, stream + closing({}));
    const Finished finished = greirige(peer, {"watch", "--json"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    return objects(finished.out);
}

class Record : public testing::TestWithParam<EventKind> {};

TEST_P(Record, is_shown_with_every_member)
{
    const EventKind &kind = GetParam();
    std::mt19937 random(4711);
    std::vector<Sample> samples{full_event(kind), least_event(kind)};
    for (int i = 0; i < 50; ++i)
        samples.push_back(any_event(kind, random));

    // Behind what is optional a trailer may be taken for it.
    std::vector<std::string> events;
    for (std::size_t i = 0; i < samples.size(); ++i)
        events.push_back(notification(static_cast<int>(i), -7, kind.tag, samples[i].bytes,
                                      i == 0 ? trailer_bytes() : ""));
    const std::vector<Json> lines = objects_of(events);
    ASSERT_EQ(lines.size(), samples.size());

    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(lines[i].dump());
        EXPECT_EQ(lines[i]["eventType"], i);
        EXPECT_EQ(lines[i]["eventResult"], -7);
        EXPECT_EQ(lines[i]["tag"], "0x" + hex(std::string(1, static_cast<char>(kind.tag))));
        const Json &data = lines[i]["eventData"];
        for (std::size_t at = 0; at < kind.fields.size(); ++at) {
            const Field &field = kind.fields[at];
            EXPECT_EQ(field_text(field, data), expected_text(field, samples[i].text[at], data))
                << field.name;
        }
        if (i == 0) {
            EXPECT_EQ(address_text(lines[i]["address"]), trailer_text());
        } else {
            EXPECT_EQ(lines[i]["address"], nullptr);
        }
    }
}

// The members of a record as ldap_events.h declares them.
std::vector<std::string> declared_members(const std::string &record)
{
    std::ifstream file(EVENTS_HEADER);
    std::string header{std::istreambuf_iterator<char>(file), {}};
    header = std::regex_replace(header, std::regex("/\\*[^]*?\\*/"), "");
    const std::size_t begin = header.find("typedef struct " + record + " {");
    std::string body = header.substr(begin, header.find("\n} " + record + ";", begin) - begin);
    // Of a union, only its own name.
    body = std::regex_replace(body, std::regex("union \\{[^]*\\n    \\}"), "union");
    std::vector<std::string> names;
    const std::regex declaration(R"((\w+)(\[\d+\])?;)");
    for (std::sregex_iterator at(body.begin(), body.end(), declaration), end; at != end; ++at)
        names.push_back((*at)[1]);
    return names;
}

TEST_P(Record, has_the_members_that_the_header_declares_in_its_order)
{
    const EventKind &kind = GetParam();
    const std::vector<Json> lines =
        objects_of({notification(1, 0, kind.tag, full_event(kind).bytes)});
    ASSERT_EQ(lines.size(), 1U);
    std::vector<std::string> shown;
    for (const auto &[name, value] : lines[0]["eventData"].items())
        shown.push_back(name);
    EXPECT_EQ(shown, declared_members(kind.name));
    EXPECT_GE(shown.size(), 2U);
}

TEST_P(Record, is_readable_as_text)
{
    const EventKind &kind = GetParam();
    TcpPeer peer;
    peer.answer_raw(LDAPX_MONITOR_EVENTS_REQUEST,
                    event_message(notification(5, 0, kind.tag, full_event(kind).bytes)) +
                        event_message(notification(5, 0, kind.tag, least_event(kind).bytes)) +
                        closing({}));
    const std::vector<std::string> shown = lines(greirige(peer, {"watch"}).out);
    ASSERT_EQ(shown.size(), 2U);
    for (const std::string &line : shown)
        EXPECT_TRUE(std::regex_search(
            line, std::regex("^" + time_pattern + " [a-z-]+ eventType=5 eventResult=0")))
            << line;
    for (const Field &field : kind.fields)
        EXPECT_NE(shown[0].find(' ' + field.name + '='), std::string::npos)
            << field.name << ": " << shown[0];
    EXPECT_EQ(shown[1].find("null"), std::string::npos) << shown[1];
    EXPECT_EQ(shown[1].find("=\"\""), std::string::npos) << "what is empty is left out";
}

struct RecordName {
    template <class Info>
    std::string operator()(const Info &kind) const
    {
        return kind.param.name;
    }
};

INSTANTIATE_TEST_SUITE_P(Each, Record, testing::ValuesIn(event_kinds()), RecordName());

} // namespace
