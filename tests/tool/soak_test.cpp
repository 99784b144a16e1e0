// The library for hours: events and operations in numbers, with memory that stays flat, here and
// in the directory.
//
// An ordinary run takes seconds. GREIRIGE_SOAK=full in the environment makes it ten million events
// and a million operations, which takes about half an hour.

#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include <malloc.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "greirige.hpp"
#include "sandbox.h"
#include "support/events.h"
#include "support/peer.h"

using namespace std::chrono_literals;
using sandbox_test::admin_dn;
using sandbox_test::base;

namespace {

bool full()
{
    const char *wish = std::getenv("GREIRIGE_SOAK");
    return wish != nullptr && std::string_view(wish) == "full";
}
const long events = full() ? 10'000'000 : 100'000;
const long operations = full() ? 1'000'000 : 5'000;

// Bytes that this process has allocated and not released.
std::size_t in_use()
{
    return mallinfo2().uordblks;
}

// What a process occupies, in KiB.
long resident(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::stol(line.substr(6));
    throw std::runtime_error("no such process");
}

// Memory that may not grow from here on: this process's, and another one's.
class Flat {
public:
    explicit Flat(pid_t other = 0)
        : other_(other), allocated_(in_use()), own_(resident(getpid())),
          theirs_(other == 0 ? 0 : resident(other))
    {
    }
    void check() const
    {
        // libldap keeps the buffers of the last messages; a heap is never packed quite the same.
        EXPECT_LE(in_use(), allocated_ + 64 * 1024);
        EXPECT_LE(resident(getpid()), own_ + 1024);
        if (other_ != 0) {
            EXPECT_LE(resident(other_), theirs_ + theirs_ / 10 + 1024);
        }
    }

private:
    pid_t other_;
    std::size_t allocated_;
    long own_;
    long theirs_;
};

} // namespace

TEST(Soak, events_of_every_kind_leave_nothing_behind)
{
    support::Peer peer;
    auto stream = greirige::EventStream::open(greirige::Session(peer.ld()), {{1, 0}}).value();
    const int id = peer.take_request().id;

    std::mt19937 random(1);
    std::string block;
    long in_block = 0;
    for (int round = 0; round < 40; ++round)
        for (const support::EventKind &kind : support::event_kinds()) {
            const std::string value =
                support::notification(round, 0, kind.tag, support::any_event(kind, random).bytes,
                                      round % 2 == 0 ? support::trailer_bytes() : "");
            block += support::intermediate_response(id, LDAPX_EVENT_NOTIFICATION, value);
            ++in_block;
        }

    std::optional<Flat> memory;
    for (long seen = 0; seen < events;) {
        peer.send(block);
        for (long left = in_block; left > 0; --left, ++seen)
            ASSERT_TRUE(stream.next(10s).value().has_value()) << seen;
        if (!memory && seen >= events / 10)
            memory.emplace();
    }
    memory->check();
}

TEST(Soak, operations_of_every_kind_leave_nothing_behind_here_and_in_the_directory)
{
    sandbox_test::Sandbox sandbox;
    const sandbox_test::Session ld = sandbox.admin();
    const greirige::Session session(ld.get());
    const std::string entry = "cn=soaked," + base;
    const greirige::Server server(sandbox_test::server1);
    const greirige::Password password("secret word");
    const auto load = [&](const greirige::Update &update) {
        auto bulk = greirige::BulkLoad::start(session, [](const greirige::BulkFailure &failure) {
                        ADD_FAILURE() << failure.dn << ": " << to_string(failure.error);
                    }).value();
        bulk.submit(update).value();
        bulk.finish().value();
    };

    std::optional<Flat> memory;
    for (long done = 0; done < operations;) {
        // The quick ones more often.
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(session.bind_dn().value(), admin_dn);
            EXPECT_EQ(session.replica_info(base, server).value().partition_dn, base);
            EXPECT_FALSE(session.list_replicas(server).value().empty());
            EXPECT_FALSE(session.partition_entry_count("ou=nowhere," + base));
            done += 4;
        }
        EXPECT_EQ(session.partition_entry_count(base).value(), 1200U);
        EXPECT_EQ(session.effective_privileges(base, greirige::Subject(admin_dn), "dc").value(),
                  255);
        EXPECT_EQ(session.dn_from_dns("example.com").value(), base);
        session.set_replication_filter(server, "person$cn$sn$$$").value();
        EXPECT_EQ(session.replication_filter_text(server).value(), "person$cn$sn$$$");
        load(greirige::AddEntry{entry, {{"objectClass", {"person"}}, {"sn", {"Soaked"}}}});
        const greirige::Backup backup = session.backup_object(entry, password).value();
        load(greirige::DeleteEntry{entry});
        session.restore_object(entry, password, backup).value();
        load(greirige::DeleteEntry{entry});
        session.request_partition_sync(base, server).value();
        done += 11;
        if (!memory && done >= operations / 10)
            memory.emplace(sandbox.process().pid());
    }
    memory->check();
}
