// greirige watch for a long time: a million events, and no more memory than after the first hundred
// thousand.

#include <csignal>
#include <fstream>
#include <iostream>
#include <regex>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "support/events.h"
#include "watch.h"

using namespace support;
using namespace tool_test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Memory of a process in KiB: VmRSS what it holds now, VmHWM the most it ever held.
long memory_of(pid_t process, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ':'))
            return std::stol(line.substr(name.size() + 1));
    throw std::runtime_error("no " + name + " of the process");
}

// One event of every kind, whole and with nothing that may be missing; messages that cannot be
// decoded, before and behind what the library allocates for them; answers that nobody asked for.
struct Block {
    std::string bytes;
    int lines = 0;
};

Block make_block()
{
    Block block;
    const auto add = [&](const std::string &message) {
        block.bytes += message;
        ++block.lines;
    };
    for (const EventKind &kind : event_kinds()) {
        const std::string full = full_event(kind).bytes;
        add(event_message(notification(1, 0, kind.tag, full, trailer_bytes())));
        add(event_message(notification(2, 0, kind.tag, least_event(kind).bytes)));
        add(event_message(notification(3, 0, kind.tag, full.substr(0, full.size() - 1))));
    }
    add(event_message(notification(4, 0, EVT_TAG_NET_ADDRESS, integer(1) + octets("1234"))));
    add(event_message(notification(5, 0, EVT_TAG_SKULK, "")));
    add(event_message(notification(6, 0, 0x6a, octets("unknown"))));
    add(event_message(""));
    add(intermediate_response(registration_id, "1.2.3", octets("no event")));
    block.bytes += extended_response(99, {.name = "1.2.3", .value = "of nobody"});
    return block;
}

// What the tool shows of a million messages, and its memory on the way.
struct Course {
    long after_100_000 = 0;
    long after_1_000_000 = 0;
    double per_second = 0;
};

Course watch_a_million(const Arguments &format)
{
    const Block block = make_block();
    TcpPeer peer;
    peer.answer_repeated(LDAPX_MONITOR_EVENTS_REQUEST, block.bytes, 1'010'000 / block.lines);
    Arguments arguments{"watch"};
    arguments.insert(arguments.end(), format.begin(), format.end());
    ProcessOptions options = isolated();
    options.timeout = 60s;
    Child tool(command(peer, arguments), options);

    Course course;
    const auto start = Clock::now();
    for (int line = 1; line <= 1'000'000; ++line) {
        const std::string text = tool.read_line(60s);
        if (text.find("eventType") == std::string::npos && text.find("error") == std::string::npos)
            ADD_FAILURE() << text;
        if (line == 100'000)
            course.after_100_000 = memory_of(tool.pid(), "VmRSS");
    }
    const std::chrono::duration<double> taken = Clock::now() - start;
    course.per_second = 1e6 / taken.count();
    course.after_1_000_000 = memory_of(tool.pid(), "VmHWM");
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.wait().status, 128 + SIGTERM);
    std::cout << "VmRSS after 100,000: " << course.after_100_000
              << " KiB, VmHWM after 1,000,000: " << course.after_1_000_000 << " KiB, "
              << static_cast<long>(course.per_second) << " events a second\n";
    return course;
}

TEST(MillionEvents, as_json_leave_the_memory_flat)
{
    const Course course = watch_a_million({"--json"});
    EXPECT_LE(course.after_1_000_000, course.after_100_000 + 128);
}

TEST(MillionEvents, as_text_leave_the_memory_flat)
{
    const Course course = watch_a_million({});
    EXPECT_LE(course.after_1_000_000, course.after_100_000 + 128);
}

} // namespace
