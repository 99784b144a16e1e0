// greirige load of files that are larger than anything it may keep.

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace tool_test;
using namespace support;

namespace {

constexpr int batch = 500;

// A server that takes a load of this many records, of which the first of each batch fails.
void prepare(TcpPeer &peer, int records)
{
    peer.answer(LDAPX_LBURP_START_REQUEST,
                {.name = LDAPX_LBURP_START_RESPONSE, .value = sequence(integer(batch))});
    const Response response{
        .code = LDAP_OTHER,
        .name = LDAPX_LBURP_OPERATION_RESPONSE,
        .value = sequence(integer(1), sequence(enumerated(LDAP_BUSY), octets(""), octets("")))};
    for (int answers = 0; answers < records / batch; ++answers)
        peer.answer(LDAPX_LBURP_OPERATION_REQUEST, response);
    peer.answer(LDAPX_LBURP_END_REQUEST, {.name = LDAPX_LBURP_END_RESPONSE});
}

void write_people(const std::string &path, int records)
{
    std::ofstream file(path);
    for (int number = 0; number < records; ++number)
        file << "dn: cn=" << number << ",o=x\nobjectClass: person\ncn: " << number
             << "\nsn: Example\ndescription: Generated entry number " << number << "\n\n";
}

// The most memory that a process has used when it ends, in kilobytes.
long peak_of(pid_t process)
{
    long peak = 0;
    for (;;) {
        std::ifstream status("/proc/" + std::to_string(process) + "/status");
        long now = 0;
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("VmHWM:"))
                now = std::stol(line.substr(6));
        if (now == 0) // it has ended
            return peak;
        peak = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// What a load of so many records takes, with everything that it can keep.
long peak_with(int records)
{
    const TemporaryDirectory directory;
    write_people(directory.path() + "/people.ldif", records);
    TcpPeer peer;
    prepare(peer, records);
    ProcessOptions options = isolated();
    options.directory = directory.path();
    options.timeout = std::chrono::seconds(100);
    Child child(
        command(peer, {"load", "-c", "-S", "r.ldif", "--journal", "j", "--json", "people.ldif"}),
        options);
    const long peak = peak_of(child.pid());
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 4) << finished.err.substr(0, 1000);
    EXPECT_EQ(document(finished)["records"], records);
    EXPECT_EQ(document(finished)["failed"], records / batch);
    EXPECT_EQ(document(finished)["complete"], true);
    return peak;
}

} // namespace

TEST(Memory, of_a_load_does_not_grow_with_the_file)
{
    const long small = peak_with(20'000);
    const long large = peak_with(200'000);
    EXPECT_GT(small, 4'000);
    EXPECT_LT(large, small + 2'000) << "kilobytes; " << small << " for the tenth";
}
