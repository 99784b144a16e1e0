// Background processes and the server refresh: they run, and a search sees it.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

const std::string processes = "cn=processes,cn=system";

struct Process {
    std::string name;
    int (*start)(LDAP *);
    std::string request;
    std::string report;
};
const Process all[] = {
    {"backlink", wrapper_ldap_trigger_backlink, LDAPX_TRIGGER_BACKLINK_REQUEST,
     "21 entries refer to others"},
    {"janitor", wrapper_ldap_trigger_janitor, LDAPX_TRIGGER_JANITOR_REQUEST,
     "0 replicas of vanished partitions removed"},
    {"limber", wrapper_ldap_trigger_limber, LDAPX_TRIGGER_LIMBER_REQUEST, "3 servers known"},
    {"skulker", wrapper_ldap_trigger_skulker, LDAPX_TRIGGER_SKULKER_REQUEST, ""},
    {"schema-sync", wrapper_ldap_trigger_schema_sync, LDAPX_TRIGGER_SCHEMA_SYNC_REQUEST, ""},
    {"partition-purge", wrapper_ldap_trigger_partition_purge, LDAPX_TRIGGER_PARTITION_PURGE_REQUEST,
     "1 replicas purged"},
    {"refresh", ldap_refresh_server, LDAPX_REFRESH_SERVER_REQUEST, "1 partitions, 1 replicas"},
};

std::string dn_of(const std::string &name)
{
    return "cn=" + name + "," + processes;
}

std::string value(const Session &session, const std::string &name, const std::string &attribute)
{
    const std::vector<std::string> found =
        search(session, dn_of(name), "(objectClass=backgroundProcess)", attribute);
    return found.empty() ? "" : found.front().substr(dn_of(name).size() + 2);
}

bool has_run(const Session &session, const std::string &name, int times)
{
    const std::string filter =
        "(&(processState=idle)(processRuns=" + std::to_string(times) + ")(processEnded=*))";
    for (int i = 0; i < 200; ++i) {
        if (!search(session, dn_of(name), filter).empty())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

TEST(BackgroundProcesses, EachRunsOnItsOwnAndLeavesATrace)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(search(admin, processes, "(&(processState=idle)(processRuns=0))").size(), 7U);
    for (const Process &process : all) {
        ASSERT_EQ(process.start(admin.get()), LDAP_SUCCESS) << process.name << diagnostic(admin);
        EXPECT_EQ(value(admin, process.name, "processState"), "running");
        EXPECT_EQ(process.start(admin.get()), LDAP_BUSY) << process.name;
        EXPECT_EQ(diagnostic(admin), process.name + " is running: wait until it ends");
    }
    for (const Process &process : all) {
        EXPECT_TRUE(has_run(admin, process.name, 1)) << process.name;
        const std::string report = value(admin, process.name, "processReport");
        EXPECT_EQ(report.find("failed"), std::string::npos) << process.name << ": " << report;
        EXPECT_FALSE(report.empty()) << process.name;
        if (!process.report.empty()) {
            EXPECT_EQ(report, process.report) << process.name;
        }
        EXPECT_LE(value(admin, process.name, "processStarted"),
                  value(admin, process.name, "processEnded"));
    }
    ASSERT_EQ(ldap_trigger_back_process(admin.get(), 3), LDAP_SUCCESS);
    EXPECT_TRUE(has_run(admin, "limber", 2));
    EXPECT_TRUE(has_run(admin, "janitor", 1)) << "the others have not run again";
}

TEST(BackgroundProcesses, AnybodySeesTheTraceAndOnlyAdministratorsStartThem)
{
    const Session somebody = sandbox().as(sandbox().somebody());
    const Session nobody = sandbox().anonymous();
    const std::string before = value(nobody, "backlink", "processRuns");
    EXPECT_FALSE(before.empty());
    for (const Session *session : {&somebody, &nobody})
        for (const Process &process : all)
            EXPECT_EQ(process.start(session->get()), LDAP_INSUFFICIENT_ACCESS) << process.name;
    EXPECT_NE(diagnostic(nobody).find("bind first"), std::string::npos);
    EXPECT_NE(diagnostic(somebody).find("has no right"), std::string::npos);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(value(nobody, "backlink", "processRuns"), before);
    EXPECT_EQ(value(nobody, "backlink", "processState"), "idle");

    const std::vector<std::string> members =
        search(nobody, "cn=administrators,ou=groups," + base, "(member=*)", "member");
    const Session member = sandbox().as(members.at(0).substr(members.at(0).find(": ") + 2));
    EXPECT_EQ(ldap_refresh_server(member.get()), LDAP_SUCCESS) << diagnostic(member);
}

TEST(BackgroundProcesses, ARequestValueIsAProtocolError)
{
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    int id = 2;
    for (const Process &process : all) {
        client.send(extended(id++, process.request, ""));
        EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << process.name;
    }
}

TEST(BackgroundProcesses, TheJanitorRemovesWhatADeletedPartitionLeaves)
{
    Sandbox own({"--entries", "100"});
    const Session admin = own.admin();
    std::string dn = "ou=short-lived," + base;
    ASSERT_EQ(
        own.client_as_admin("ldapadd", {}, "dn: " + dn + "\nobjectClass: organizationalUnit\n")
            .status,
        0);
    ASSERT_EQ(ldap_split_partition(admin.get(), dn.data(), 0), LDAP_SUCCESS);
    ASSERT_EQ(own.client_as_admin("ldapdelete", {dn}).status, 0);
    EXPECT_EQ(search(admin, server1, "(heldReplica=*)", "heldReplica").size(), 2U);
    ASSERT_EQ(wrapper_ldap_trigger_janitor(admin.get()), LDAP_SUCCESS);
    ASSERT_TRUE(has_run(admin, "janitor", 1));
    EXPECT_EQ(search(admin, server1, "(heldReplica=*)", "heldReplica").size(), 1U);
    EXPECT_EQ(value(admin, "janitor", "processReport"),
              "1 replicas of vanished partitions removed");
}

TEST(BackgroundProcesses, APurgeAdvancesThePurgeTimeOfEveryReplica)
{
    Sandbox own({"--entries", "100"});
    const Session admin = own.admin();
    std::string dn = base;
    std::string server = server1;
    LDAPReplicaInfo before{};
    LDAPReplicaInfo after{};
    ASSERT_EQ(ldap_get_replica_info(admin.get(), dn.data(), server.data(), &before), LDAP_SUCCESS);
    ASSERT_EQ(wrapper_ldap_trigger_partition_purge(admin.get()), LDAP_SUCCESS);
    ASSERT_TRUE(has_run(admin, "partition-purge", 1));
    ASSERT_EQ(ldap_get_replica_info(admin.get(), dn.data(), server.data(), &after), LDAP_SUCCESS);
    EXPECT_GT(after.purgeTime, before.purgeTime);
    EXPECT_EQ(after.modificationTime, before.modificationTime);
}

TEST(SystemEntries, LieBesideTheTree)
{
    const Session admin = sandbox().admin();
    unsigned long entries = 0;
    std::string dn = base;
    ASSERT_EQ(ldap_partition_entry_count(admin.get(), dn.data(), &entries), LDAP_SUCCESS);
    EXPECT_EQ(entries, 100U);
    EXPECT_EQ(support::run({SANDBOX_PROGRAM, "--port", "0", "--base", "ou=x,cn=system"}).status, 2);
}

} // namespace
