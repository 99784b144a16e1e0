// A scripted server's stream of events, and the lines that greirige watch makes of it.
//
//     peer.answer_raw(LDAPX_MONITOR_EVENTS_REQUEST, event_message(value) + closing({}));
//     for (const auto &object : objects(greirige(peer, {"watch", "--json"}).out)) ...
#pragma once

#include <string>
#include <vector>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

namespace tool_test {

// With -x the tool's first message is the bind and its second the registration.
constexpr int registration_id = 2;

inline std::string event_message(const std::string &value, int id = registration_id)
{
    return support::intermediate_response(id, LDAPX_EVENT_NOTIFICATION, value);
}

// The response that ends the stream.
inline std::string closing(support::Response response, int id = registration_id)
{
    if (!response.name)
        response.name = LDAPX_MONITOR_EVENTS_RESPONSE;
    return support::extended_response(id, response);
}

inline const std::string time_pattern = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";

inline std::vector<std::string> lines(const std::string &output)
{
    std::vector<std::string> all;
    for (std::size_t at = 0; at < output.size();) {
        const std::size_t end = std::min(output.find('\n', at), output.size());
        all.push_back(output.substr(at, end - at));
        at = end + 1;
    }
    return all;
}

// Each line as the JSON object that it must be.
inline std::vector<nlohmann::ordered_json> objects(const std::string &output)
{
    std::vector<nlohmann::ordered_json> all;
    for (const std::string &line : lines(output))
        all.push_back(nlohmann::ordered_json::parse(line));
    return all;
}

inline std::string from_base64(const std::string &text)
{
    const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    unsigned group = 0;
    unsigned bits = 0;
    for (const char c : text.substr(0, text.find('='))) {
        group = group << 6 | static_cast<unsigned>(digits.find(c));
        bits += 6;
        if (bits >= 8)
            bytes += static_cast<char>(group >> (bits -= 8) & 0xff);
    }
    return bytes;
}

} // namespace tool_test
