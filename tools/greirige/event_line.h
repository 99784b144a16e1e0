// One line for each thing that a watch reports: readable text, or a JSON object.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "greirige/events.hpp"

namespace tool {

using Time = std::chrono::system_clock::time_point;

class EventLines {
public:
    explicit EventLines(bool json) : json_(json) {}

    // Without the newline; each is gone when the next one is made.
    std::string_view event(const greirige::Event &event, Time received);
    // A message of the stream that is no event that can be decoded.
    std::string_view undecodable(const greirige::Error &error, Time received);
    // What happened in between may be missing.
    std::string_view gap(Time from, Time to, std::string_view reason);

private:
    void begin(Time time, std::string_view kind);
    std::string_view end();
    std::string utc(Time time);

    bool json_;
    std::string line_;
    std::chrono::sys_seconds second_ = std::chrono::sys_seconds::min();
    std::string second_text_;
};

} // namespace tool
