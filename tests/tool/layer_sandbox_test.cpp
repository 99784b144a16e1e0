// The C++ layer against the sandbox: every function does what it says, seen by the function itself
// and by an ordinary search.

#include "sandbox.h"

#include <greirige.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace greirige;
using namespace std::chrono_literals;
using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::engineering;
using sandbox_test::people;
using sandbox_test::Sandbox;
using sandbox_test::search;
using sandbox_test::server1;
using sandbox_test::server2;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

template <class T>
std::string why(const Result<T> &result)
{
    return result ? "" : to_string(result.error());
}

class Layer : public testing::Test {
protected:
    const sandbox_test::Session admin = sandbox().admin();
    const Session session{admin.get()};

    // Waits until the search finds so many entries.
    bool finds(const std::string &below, const std::string &filter, std::size_t entries)
    {
        for (int i = 0; i < 300 && search(admin, below, filter).size() != entries; ++i)
            std::this_thread::sleep_for(20ms);
        return search(admin, below, filter).size() == entries;
    }
};

TEST_F(Layer, splits_counts_and_merges_partitions)
{
    const auto whole = session.partition_entry_count(base);
    ASSERT_TRUE(whole) << why(whole);
    EXPECT_EQ(*whole, 100U);
    const auto split = session.split_partition(people);
    ASSERT_TRUE(split) << why(split);
    EXPECT_EQ(search(admin, people, "(objectClass=partitionRoot)"), std::vector{people});
    const auto above = session.partition_entry_count(base);
    const auto below = session.partition_entry_count(people);
    ASSERT_TRUE(above && below);
    EXPECT_GT(*below, 0U);
    EXPECT_EQ(*above + *below, *whole);
    const auto merged = session.merge_partitions(people);
    EXPECT_TRUE(merged) << why(merged);
    EXPECT_EQ(session.partition_entry_count(base).value(), *whole);
    const auto again = session.merge_partitions(people);
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_FALSE(again.error().diagnostic.empty());
}

TEST_F(Layer, aborts_the_operation_that_runs_on_a_partition)
{
    Sandbox slow({"--operation-delay", "600000", "--entries", "100"});
    const sandbox_test::Session other = slow.admin();
    const Session there(other.get());
    ASSERT_TRUE(there.split_partition(engineering));
    EXPECT_EQ(search(other, people, "(partitionState=splitting)"), std::vector{engineering});
    const auto aborted = there.abort_partition_operation(engineering);
    EXPECT_TRUE(aborted) << why(aborted);
    EXPECT_TRUE(search(other, people, "(objectClass=partitionRoot)").empty());
}

TEST_F(Layer, splits_off_and_removes_orphan_partitions)
{
    const auto split = session.split_orphan_partition("o=acme", Server(server1));
    ASSERT_TRUE(split) << why(split);
    EXPECT_EQ(search(admin, server1, "(orphanPartition=o=acme)").size(), 1U);
    const auto removed = session.remove_orphan_partition("o=acme", Server(server1));
    EXPECT_TRUE(removed) << why(removed);
    EXPECT_TRUE(search(admin, server1, "(orphanPartition=o=acme)").empty());
}

TEST_F(Layer, adds_shows_retypes_lists_and_removes_replicas)
{
    const auto added = session.add_replica(base, Server(server2), ReplicaType::read_only);
    ASSERT_TRUE(added) << why(added);
    const auto info = session.replica_info(base, Server(server2));
    ASSERT_TRUE(info) << why(info);
    EXPECT_EQ(info->partition_dn, base);
    EXPECT_EQ(info->type, ReplicaType::read_only);
    EXPECT_GT(info->modification_time, 0);
    EXPECT_EQ(session.list_replicas(Server(server2)).value(), std::vector{base});
    const auto retyped = session.change_replica_type(base, Server(server2), ReplicaType::secondary);
    EXPECT_TRUE(retyped) << why(retyped);
    EXPECT_EQ(session.replica_info(base, Server(server2)).value().type, ReplicaType::secondary);
    const auto removed = session.remove_replica(base, Server(server2));
    EXPECT_TRUE(removed) << why(removed);
    EXPECT_TRUE(session.list_replicas(Server(server2)).value().empty());
}

TEST_F(Layer, makes_servers_synchronise)
{
    ASSERT_TRUE(session.add_replica(base, Server(server2), ReplicaType::secondary));
    const auto modified = [&] {
        return session.replica_info(base, Server(server2)).value().modification_time;
    };
    const auto requested = [&](const std::string &kind) {
        return search(admin, "cn=synchronisation,cn=system", "(requestKind=" + kind + ")").size();
    };
    const int before = modified();
    const auto received = session.receive_all_updates(base, Server(server2), Origin(server1));
    EXPECT_TRUE(received) << why(received);
    EXPECT_GT(modified(), before);
    EXPECT_TRUE(session.receive_all_updates(base, Server(server2)));
    EXPECT_EQ(requested("receive"), 2U);
    const auto sent = session.send_all_updates(base);
    EXPECT_TRUE(sent) << why(sent);
    EXPECT_TRUE(session.send_all_updates(base, Origin(server2)));
    EXPECT_GE(requested("send"), 2U);
    const auto partition = session.request_partition_sync(base, Server(server2), 3600);
    EXPECT_TRUE(partition) << why(partition);
    EXPECT_TRUE(
        finds("cn=synchronisation,cn=system", "(&(requestState=waiting)(requestDelay=3600))", 1));
    const auto schema = session.request_schema_sync(base);
    EXPECT_TRUE(schema) << why(schema);
    EXPECT_TRUE(finds("cn=synchronisation,cn=system", "(requestKind=schema)", 1));
    EXPECT_TRUE(session.remove_replica(base, Server(server2)));
}

TEST_F(Layer, sets_and_reads_the_replication_filter_as_a_list_and_as_text)
{
    const std::vector<FilterClass> filter{{"inetOrgPerson", {"cn", "sn"}}, {"groupOfNames", {}}};
    const std::string text = "inetOrgPerson$cn$sn$$groupOfNames$$$";
    const auto set = session.set_replication_filter(Server(server1), filter);
    ASSERT_TRUE(set) << why(set);
    EXPECT_EQ(session.replication_filter(Server(server1)).value(), filter);
    EXPECT_EQ(session.replication_filter_text(Server(server1)).value(), text);
    EXPECT_EQ(search(admin, base, "(replicationFilter=*)", "replicationFilter"),
              std::vector{server1 + ": " + text});
    ASSERT_TRUE(session.set_replication_filter(Server(server1), "person$cn$$$"));
    EXPECT_EQ(session.replication_filter(Server(server1)).value(),
              (std::vector<FilterClass>{{"person", {"cn"}}}));
    EXPECT_EQ(format_filter(parse_filter(text).value()).value(), text);
}

TEST_F(Layer, tells_the_identity)
{
    EXPECT_EQ(session.bind_dn().value(), admin_dn);
    const sandbox_test::Session nobody = sandbox().anonymous();
    EXPECT_EQ(Session(nobody.get()).bind_dn().value(), "");
}

TEST_F(Layer, tells_the_rights_on_attributes)
{
    constexpr int write = 0x7f;
    const std::string somebody = sandbox().somebody();
    EXPECT_EQ(session.effective_privileges(somebody, Subject(somebody), "telephoneNumber").value(),
              write);
    const auto rights =
        session.effective_privileges_list(somebody, Subject(somebody), {"telephoneNumber", "cn"});
    ASSERT_TRUE(rights) << why(rights);
    ASSERT_EQ(rights->size(), 2U);
    EXPECT_EQ((*rights)[0], (AttributeRights{"telephoneNumber", write}));
    EXPECT_EQ((*rights)[1].attribute, "cn");
    EXPECT_NE((*rights)[1].privileges, write);
    const auto missing =
        session.effective_privileges("cn=nowhere," + base, Subject(somebody), "cn");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(missing.error().where, "effective_privileges");
}

TEST_F(Layer, turns_names_into_dns)
{
    EXPECT_EQ(session.dn_from_native(u"people.example").value(), people);
    EXPECT_EQ(session.dn_from_dns("people.example.com").value(), people);
    EXPECT_EQ(session.dn_from_dns("nowhere.example.com").error().code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(Layer, starts_every_background_process_and_the_refresh)
{
    const auto has_run = [&](std::string_view name) {
        return finds("cn=processes,cn=system",
                     "(&(cn=" + std::string(name) + ")(processState=idle)(processRuns=1))", 1);
    };
    for (const BackgroundProcess process :
         {BackgroundProcess::backlink, BackgroundProcess::janitor, BackgroundProcess::limber,
          BackgroundProcess::skulker, BackgroundProcess::schema_sync,
          BackgroundProcess::partition_purge}) {
        const auto started = session.trigger(process);
        EXPECT_TRUE(started) << why(started);
        EXPECT_TRUE(has_run(to_string(process))) << to_string(process);
    }
    const auto refreshed = session.refresh_server();
    EXPECT_TRUE(refreshed) << why(refreshed);
    EXPECT_TRUE(has_run("refresh"));
}

std::string unit(const std::string &name)
{
    return "ou=" + name + "," + people;
}
AddEntry new_unit(const std::string &name)
{
    return {unit(name), {{"objectClass", {"organizationalUnit"}}, {"ou", {name}}}};
}

TEST_F(Layer, loads_updates_of_every_kind_and_names_those_that_fail)
{
    std::vector<BulkFailure> failures;
    BulkOptions options;
    options.operations = 2;
    options.window = 2;
    auto load = BulkLoad::start(
        session, [&](const BulkFailure &failure) { failures.push_back(failure); }, options);
    ASSERT_TRUE(load) << why(load);
    EXPECT_GT(load->transaction_size(), 0);
    EXPECT_EQ(load->limits().operations, 2U);
    const auto submit = [&](const Update &update, std::uint64_t tag) {
        const auto taken = load->submit(update, tag);
        EXPECT_TRUE(taken) << why(taken);
    };
    submit(new_unit("loaded"), 1);
    submit(new_unit("gone"), 2);
    submit(new_unit("loaded"), 3); // exists already
    submit(ModifyEntry{unit("loaded"), {{ChangeKind::add, {"description", {"by bulk"}}}}}, 4);
    submit(RenameEntry{unit("loaded"), "ou=renamed", true, base}, 5);
    ASSERT_TRUE(load->settle());
    EXPECT_EQ(search(admin, base, "(description=by bulk)"), std::vector{"ou=renamed," + base});
    EXPECT_EQ(load->progress().answered, 5U);
    submit(DeleteEntry{unit("gone")}, 6);
    ASSERT_TRUE(load->flush());
    submit(DeleteEntry{"ou=renamed," + base}, 7);
    const auto done = load->finish();
    ASSERT_TRUE(done) << why(done);
    EXPECT_EQ(done->submitted, 7U);
    EXPECT_EQ(done->answered, 7U);
    EXPECT_EQ(done->failed, 1U);
    ASSERT_EQ(failures.size(), 1U);
    EXPECT_EQ(failures[0].tag, 3U);
    EXPECT_EQ(failures[0].number, 2U);
    EXPECT_EQ(failures[0].dn, unit("loaded"));
    EXPECT_EQ(failures[0].error.code, LDAP_ALREADY_EXISTS);
    EXPECT_TRUE(search(admin, base, "(|(ou=gone)(ou=loaded)(ou=renamed))").empty());
}

constexpr int entry_add = 1;
constexpr int entry_delete = 2;

TEST_F(Layer, streams_events_as_they_happen)
{
    auto stream = EventStream::open(session, {{entry_add, 0}, {entry_delete, 0}});
    ASSERT_TRUE(stream) << why(stream);
    const sandbox_test::Session other = sandbox().admin();
    auto load = BulkLoad::start(Session(other.get()), [](const BulkFailure &) {});
    ASSERT_TRUE(load && load->submit(new_unit("seen")) && load->submit(DeleteEntry{unit("seen")}));
    ASSERT_TRUE(load->finish());

    const auto first = stream->next(10s);
    ASSERT_TRUE(first) << why(first);
    ASSERT_TRUE(*first);
    EXPECT_EQ((*first)->type(), entry_add);
    const auto *entry = (*first)->get_if<EntryEvent>();
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->entry_dn, unit("seen"));
    EXPECT_EQ(entry->perpetrator_dn, admin_dn);
    for (const Result<Event> &event : stream->until(EventStream::Clock::now() + 10s)) {
        ASSERT_TRUE(event) << why(event);
        EXPECT_EQ(event->type(), entry_delete);
        break;
    }
    EXPECT_FALSE(stream->next(0s).value()) << "nothing else happened";
    EXPECT_FALSE(stream->ended());
    stream->cancel();
    EXPECT_TRUE(stream->ended());
    EXPECT_FALSE(stream->end_of_stream());
    EXPECT_TRUE(session.bind_dn()) << "the session goes on";
}

TEST_F(Layer, streams_the_events_that_a_filter_lets_through)
{
    auto stream =
        EventStream::open_filtered(session, {{entry_add, 0, "(entryDN=" + unit("wanted") + ")"}});
    ASSERT_TRUE(stream) << why(stream);
    const sandbox_test::Session other = sandbox().admin();
    auto load = BulkLoad::start(Session(other.get()), [](const BulkFailure &) {});
    ASSERT_TRUE(load);
    for (const char *name : {"unwanted", "wanted"})
        ASSERT_TRUE(load->submit(new_unit(name)));
    for (const char *name : {"unwanted", "wanted"})
        ASSERT_TRUE(load->submit(DeleteEntry{unit(name)}));
    ASSERT_TRUE(load->finish());
    const auto event = stream->next(10s);
    ASSERT_TRUE(event) << why(event);
    ASSERT_TRUE(*event);
    EXPECT_EQ((*event)->get_if<EntryEvent>()->entry_dn, unit("wanted"));
    EXPECT_FALSE(stream->next(200ms).value());
}

TEST_F(Layer, tells_what_the_server_would_not_monitor)
{
    auto stream = EventStream::open(session, {{entry_add, 0}, {31337, 0}});
    ASSERT_TRUE(stream) << why(stream);
    const auto refused = stream->next(10s);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_TRUE(stream->ended());
    ASSERT_TRUE(stream->end_of_stream());
    EXPECT_EQ(stream->end_of_stream()->rejected, (std::vector<EventSpecifier>{{31337, 0}}));
}

TEST_F(Layer, backs_up_and_restores_an_object)
{
    const std::string somebody = sandbox().somebody();
    const auto backup = session.backup_object(somebody, Password("word"));
    ASSERT_TRUE(backup) << why(backup);
    EXPECT_NE(backup->data.find('\0'), std::string::npos);
    EXPECT_FALSE(backup->chunks.empty());
    const auto next = session.backup_object(somebody, Password("word"), backup->state);
    ASSERT_TRUE(next) << why(next);
    EXPECT_EQ(next->state, backup->state) << "nothing has changed";

    const std::vector<std::string> names = search(admin, somebody, "(cn=*)", "cn");
    ASSERT_EQ(ldap_delete_ext_s(admin.get(), somebody.c_str(), nullptr, nullptr), LDAP_SUCCESS);
    const auto wrong = session.restore_object(somebody, Password("another"), *backup);
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().code, LDAP_INVALID_CREDENTIALS);
    const auto restored = session.restore_object(somebody, Password("word"), *backup);
    ASSERT_TRUE(restored) << why(restored);
    EXPECT_EQ(search(admin, somebody, "(cn=*)", "cn"), names);
}

} // namespace
