// Synchronisation requests: what they record, and what becomes of the replicas.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::concat;
using support::integer;
using support::octets;

namespace {

const std::string requests = "cn=synchronisation,cn=system";

Sandbox &sandbox() // server1 holds the master, server2 a secondary, server3 nothing
{
    static Sandbox *one = [] {
        auto *made = new Sandbox({"--entries", "100"});
        const Session admin = made->admin();
        std::string dn = base;
        std::string server = server2;
        EXPECT_EQ(ldap_add_replica(admin.get(), dn.data(), server.data(), LDAP_RT_SECONDARY, 0),
                  LDAP_SUCCESS);
        return made;
    }();
    return *one;
}

int receive(const Session &session, std::string dn, std::string to, std::string from = {})
{
    return ldap_receive_all_updates(session.get(), dn.data(), to.data(),
                                    from.empty() ? nullptr : from.data());
}
int send(const Session &session, std::string dn, std::string from = {})
{
    return ldap_send_all_updates(session.get(), dn.data(), from.empty() ? nullptr : from.data());
}
int partition(const Session &session, std::string server, std::string dn, int delay)
{
    return ldap_request_partition_sync(session.get(), server.data(), dn.data(), delay);
}
int schema(const Session &session, std::string dn, int delay)
{
    return ldap_request_schema_sync(session.get(), dn.data(), delay);
}

LDAPReplicaInfo information(const Session &session, std::string server)
{
    std::string dn = base;
    LDAPReplicaInfo info{};
    EXPECT_EQ(ldap_get_replica_info(session.get(), dn.data(), server.data(), &info), LDAP_SUCCESS);
    return info;
}

std::size_t recorded(const Session &session, const std::string &filter = "(requestKind=*)")
{
    return search(session, requests, filter).size();
}

bool becomes(const Session &session, const std::string &filter, std::size_t entries)
{
    for (int i = 0; i < 300 && recorded(session, filter) != entries; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return recorded(session, filter) == entries;
}

TEST(Synchronisation, ReceivingUpdatesBringsTheReceiverUpToDate)
{
    const Session admin = sandbox().admin();
    const int before1 = information(admin, server1).modificationTime;
    const int before2 = information(admin, server2).modificationTime;
    ASSERT_EQ(receive(admin, base, server2, server1), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_GT(information(admin, server2).modificationTime, before2);
    EXPECT_EQ(information(admin, server1).modificationTime, before1);
    const std::string exact =
        "(&(requestKind=receive)(requestState=done)(requestedPartition=" + base +
        ")(requestedServer=" + server2 + ")(sourceServer=" + server1 + ")(requestedBy=" + admin_dn +
        ")(requestedAt=*)(doneAt=*)(requestDelay=0))";
    EXPECT_EQ(recorded(admin, exact), 1U);
    ASSERT_EQ(receive(admin, base, server2), LDAP_SUCCESS);
    EXPECT_EQ(recorded(admin, exact), 2U) << "the master is the source when none is named";
}

TEST(Synchronisation, SendingUpdatesBringsTheOthersUpToDate)
{
    const Session admin = sandbox().admin();
    const int before1 = information(admin, server1).modificationTime;
    const int before2 = information(admin, server2).modificationTime;
    ASSERT_EQ(send(admin, base), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_GT(information(admin, server2).modificationTime, before2);
    EXPECT_EQ(information(admin, server1).modificationTime, before1);
    ASSERT_EQ(send(admin, base, server2), LDAP_SUCCESS);
    EXPECT_GT(information(admin, server1).modificationTime, before1);
    EXPECT_EQ(recorded(admin,
                       "(&(requestKind=send)(requestState=done)(requestedServer=" + server1 + "))"),
              1U);
}

TEST(Synchronisation, ADelayIsWaitedForInSeconds)
{
    const Session admin = sandbox().admin();
    const int before = information(admin, server2).modificationTime;
    const auto begun = std::chrono::steady_clock::now();
    ASSERT_EQ(partition(admin, server2, base, 1), LDAP_SUCCESS) << diagnostic(admin);
    ASSERT_EQ(schema(admin, base, 1), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(recorded(admin, "(&(requestState=waiting)(requestDelay=1))"), 2U);
    LDAPReplicaInfo info = information(admin, server2);
    EXPECT_EQ(info.state, 2) << "updating";
    EXPECT_EQ(info.modificationTime, before);
    EXPECT_EQ(information(admin, server1).state, 0);
    EXPECT_EQ(search(admin, base, "(heldReplica=*state=updating*)").size(), 1U);

    ASSERT_TRUE(becomes(admin, "(requestState=waiting)", 0));
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(990));
    info = information(admin, server2);
    EXPECT_EQ(info.state, 0);
    EXPECT_GT(info.modificationTime, before);
    EXPECT_EQ(recorded(admin, "(&(requestKind=schema)(requestState=done)(doneAt=*))"), 1U);
}

TEST(Synchronisation, TheSkulkerDoesWhatIsWaiting)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(partition(admin, server2, base, 2000000000), LDAP_SUCCESS);
    ASSERT_EQ(partition(admin, server2, base, 3600), LDAP_SUCCESS);
    EXPECT_EQ(recorded(admin, "(requestState=waiting)"), 2U);
    ASSERT_EQ(wrapper_ldap_trigger_skulker(admin.get()), LDAP_SUCCESS);
    EXPECT_TRUE(becomes(admin, "(requestState=waiting)", 0));
    EXPECT_EQ(information(admin, server2).state, 0);
    const std::string skulker = "cn=skulker,cn=processes,cn=system";
    for (int i = 0; i < 100 && search(admin, skulker, "(processState=idle)").empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(search(admin, skulker, "(processReport=*)", "processReport"),
              std::vector<std::string>{skulker + ": 2 waiting requests done"});
}

TEST(Synchronisation, ARefusalSaysWhyAndRecordsNothing)
{
    const Session admin = sandbox().admin();
    const std::size_t before = recorded(admin);
    EXPECT_EQ(receive(admin, base, server3), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(diagnostic(admin), server3 + " holds no replica of \"" + base + "\"");
    EXPECT_EQ(receive(admin, base, server2, server3), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(receive(admin, base, server2, server2), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(receive(admin, "ou=people," + base, server2), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(receive(admin, "ou=nowhere," + base, server2), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(receive(admin, base, "ou=people," + base), LDAP_OBJECT_CLASS_VIOLATION);
    EXPECT_EQ(send(admin, base, server3), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(send(admin, "ou=people," + base), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(partition(admin, server3, base, 0), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(partition(admin, server1, base, -1), LDAP_CONSTRAINT_VIOLATION);
    EXPECT_EQ(schema(admin, base, -2147483647), LDAP_CONSTRAINT_VIOLATION);
    EXPECT_EQ(schema(admin, "ou=people," + base, 0), LDAP_UNWILLING_TO_PERFORM);

    const Session somebody = sandbox().as(sandbox().somebody());
    const Session nobody = sandbox().anonymous();
    for (const Session *session : {&somebody, &nobody}) {
        EXPECT_EQ(receive(*session, base, server2), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(send(*session, base), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(partition(*session, server1, base, 0), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(schema(*session, base, 0), LDAP_INSUFFICIENT_ACCESS);
    }
    EXPECT_EQ(recorded(admin), before);
}

TEST(Synchronisation, AValueThatIsNotTheRequestIsAProtocolError)
{
    struct Case {
        std::string name;
        std::string value;
    };
    const Case cases[] = {
        {LDAPX_RECEIVE_ALL_UPDATES_REQUEST,
         concat(octets(base), octets(server2), octets("unusedParam"))},
        {LDAPX_SEND_ALL_UPDATES_REQUEST, concat(octets(base), octets(server1))},
        {LDAPX_REQUEST_PARTITION_SYNC_REQUEST, concat(octets(server1), octets(base), integer(0))},
        {LDAPX_REQUEST_SCHEMA_SYNC_REQUEST, concat(octets(base), integer(0))},
    };
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    int id = 2;
    for (const Case &each : cases) {
        std::vector<std::string> bad = support::cuts(each.value);
        bad.push_back(each.value + integer(0));
        bad.push_back(support::sequence(each.value));
        for (const std::string &value : bad) {
            client.send(extended(id++, each.name, value));
            EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR)
                << each.name << " " << support::hex(value);
        }
    }
}

} // namespace
