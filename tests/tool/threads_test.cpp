// Sixteen threads, each with a session of its own, do all operations at once on one directory.
// Program and library are compiled with ThreadSanitizer, whatever the rest of the build is.

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "greirige.hpp"
#include "sandbox.h"

using namespace std::chrono_literals;

namespace {

using greirige::Server;

constexpr int workers = 16;
constexpr int rounds = 5;
constexpr int entry_add = 1; // the sandbox's event type

// What went wrong in a thread; said by the test when all have ended.
struct Failed {
    std::string what;
};

void require(bool condition, const std::string &what)
{
    if (!condition)
        throw Failed{what};
}

// What the server runs one at a time, others ask for too: tries again while it is busy.
template <class Call>
void when_not_busy(Call call)
{
    greirige::Result<void> result = call();
    while (!result && result.error().code == LDAP_BUSY) {
        std::this_thread::sleep_for(10ms);
        result = call();
    }
    result.value();
}

// Applies updates as a bulk load; all of them must succeed.
void apply(greirige::Session session, const std::vector<greirige::Update> &updates)
{
    const auto fail = [](const greirige::BulkFailure &failure) {
        throw Failed{failure.dn + ": " + to_string(failure.error)};
    };
    auto load = greirige::BulkLoad::start(session, fail).value();
    for (const greirige::Update &update : updates)
        load.submit(update).value();
    require(load.finish().value().answered == updates.size(), "an update without an outcome");
}

// One thread's round through the catalogue, below a unit that no other thread touches.
class Worker {
public:
    Worker(greirige::Session session, std::string base, int number)
        : session_(session), base_(std::move(base)), name_("unit" + std::to_string(number)),
          unit_("ou=" + name_ + "," + base_), entry_("cn=two," + unit_),
          server_("cn=server1,ou=servers," + base_)
    {
    }

    void round()
    {
        load();
        partitions();
        replicas();
        questions();
        filters();
        backup();
        events();
        unload();
    }

private:
    void load()
    {
        const std::string first = "cn=one," + unit_;
        apply(session_,
              {greirige::AddEntry{unit_, {{"objectClass", {"organizationalUnit"}}}},
               greirige::AddEntry{first, {{"objectClass", {"person"}}, {"sn", {"One"}}}},
               greirige::ModifyEntry{
                   first, {{greirige::ChangeKind::replace, greirige::Attribute{"sn", {"Two"}}}}},
               greirige::RenameEntry{first, "cn=two"}});
    }
    void partitions()
    {
        when_not_busy([&] { return session_.split_partition(unit_); });
        require(session_.partition_entry_count(unit_).value() == 2, "another count of entries");
        when_not_busy([&] { return session_.merge_partitions(unit_); });
    }
    void replicas()
    {
        require(!session_.list_replicas(Server(server_)).value().empty(), "no replica");
        require(session_.replica_info(base_, Server(server_)).value().partition_dn == base_,
                "another partition's replica");
        session_.request_partition_sync(base_, Server(server_)).value();
    }
    void questions()
    {
        const std::string self = "cn=admin," + base_;
        require(session_.bind_dn().value() == self, "bound as somebody else");
        const auto rights =
            session_.effective_privileges_list(entry_, greirige::Subject(self), {"cn", "sn"})
                .value();
        require(rights.size() == 2 && rights[0].privileges == 255, "other rights");
        require(session_.dn_from_dns(name_ + ".example.com").value() == unit_, "another name");
        when_not_busy([&] { return session_.trigger(greirige::BackgroundProcess::janitor); });
    }
    // All threads set the same server's filter to the same.
    void filters()
    {
        const std::string text = "person$cn$sn$$$";
        session_.set_replication_filter(Server(server_), text).value();
        require(session_.replication_filter_text(Server(server_)).value() == text,
                "another filter");
    }
    void backup()
    {
        const greirige::Password password("secret word");
        const greirige::Backup kept = session_.backup_object(entry_, password).value();
        apply(session_, {greirige::DeleteEntry{entry_}});
        session_.restore_object(entry_, password, kept).value();
    }
    // Its own change comes back as an event, among those of the others.
    void events()
    {
        auto stream = greirige::EventStream::open(session_, {{entry_add, 0}}).value();
        const std::string dn = "cn=seen," + unit_;
        apply(session_, {greirige::AddEntry{dn, {{"objectClass", {"person"}}, {"sn", {"Seen"}}}}});
        for (bool seen = false; !seen;) {
            const auto event = stream.next(20s).value();
            require(event.has_value(), "no event came");
            const auto *entry = event->get_if<greirige::EntryEvent>();
            seen = entry != nullptr && entry->entry_dn == dn;
        }
        apply(session_, {greirige::DeleteEntry{dn}});
    }
    void unload()
    {
        apply(session_, {greirige::DeleteEntry{entry_}, greirige::DeleteEntry{unit_}});
    }

    greirige::Session session_;
    std::string base_, name_, unit_, entry_, server_;
};

} // namespace

TEST(Threads, every_operation_works_in_sixteen_threads_at_once)
{
    sandbox_test::Sandbox sandbox;
    // Made here: libldap sets itself up in the first session, without a lock.
    std::vector<sandbox_test::Session> sessions;
    for (int number = 0; number < workers; ++number)
        sessions.push_back(sandbox.admin());
    std::vector<std::string> failures(workers);
    std::vector<std::thread> threads;
    for (int number = 0; number < workers; ++number)
        threads.emplace_back([&, number] {
            const auto index = static_cast<std::size_t>(number);
            std::string &failure = failures[index];
            try {
                Worker worker(greirige::Session(sessions[index].get()), sandbox_test::base, number);
                for (int round = 0; round < rounds; ++round)
                    worker.round();
            } catch (const Failed &failed) {
                failure = failed.what;
            } catch (const std::exception &error) {
                failure = error.what();
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    for (const std::string &failure : failures)
        EXPECT_EQ(failure, "");
}
