// Replicas on a real tree, through the library's functions.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::concat;
using support::integer;
using support::octets;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

int add(const Session &session, std::string dn, std::string server, int type, int flags = 0)
{
    return ldap_add_replica(session.get(), dn.data(), server.data(),
                            static_cast<LDAP_REPLICA_TYPE>(type), flags);
}
int remove(const Session &session, std::string dn, std::string server)
{
    return ldap_remove_replica(session.get(), dn.data(), server.data(), 0);
}
int retype(const Session &session, std::string dn, std::string server, int type, int flags = 0)
{
    return ldap_change_replica_type(session.get(), dn.data(), server.data(),
                                    static_cast<LDAP_REPLICA_TYPE>(type), flags);
}
int split(const Session &session, std::string dn)
{
    return ldap_split_partition(session.get(), dn.data(), 0);
}
int merge(const Session &session, std::string dn)
{
    return ldap_merge_partitions(session.get(), dn.data(), 0);
}

struct Information {
    int code;
    LDAPReplicaInfo info;
};
Information information(const Session &session, std::string dn, std::string server)
{
    Information answer{0, {}};
    answer.code = ldap_get_replica_info(session.get(), dn.data(), server.data(), &answer.info);
    return answer;
}

std::vector<std::string> replicas(const Session &session, std::string server)
{
    char **list = nullptr;
    const int code = ldap_list_replicas(session.get(), server.data(), &list);
    std::vector<std::string> names;
    if (code != LDAP_SUCCESS)
        names.push_back("code " + std::to_string(code));
    for (char **name = list; name != nullptr && *name != nullptr; ++name)
        names.emplace_back(*name);
    ber_memvfree(reinterpret_cast<void **>(list));
    return names;
}

using Names = std::vector<std::string>;

// Every test leaves the tree as it found it: one partition, whose master server1 holds.
class Replicas : public testing::Test {
protected:
    Session admin = sandbox().admin();

    void TearDown() override
    {
        EXPECT_EQ(replicas(admin, server1), Names{base});
        EXPECT_EQ(replicas(admin, server2), Names{});
        EXPECT_EQ(replicas(admin, server3), Names{});
    }
};

TEST_F(Replicas, TheFirstServerHoldsTheMasterOfTheWholeTree)
{
    const auto [code, info] = information(admin, base, server1);
    ASSERT_EQ(code, LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(info.replicaType, LDAP_RT_MASTER);
    EXPECT_EQ(info.state, 0);
    EXPECT_EQ(info.flags, 0);
    EXPECT_EQ(info.localReplicaID, 1);
    EXPECT_STREQ(info.namingContextDN, base.c_str());
    EXPECT_NE(info.rootID, 0);
    EXPECT_NEAR(info.modificationTime, static_cast<double>(std::time(nullptr)), 120);
    EXPECT_EQ(information(admin, base, server2).code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(Replicas, AnAddedReplicaIsListedDescribedAndFoundBySearches)
{
    ASSERT_EQ(add(admin, base, server2, LDAP_RT_READONLY, 5), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(replicas(admin, server2), Names{base});
    const auto [code, info] = information(admin, base, server2);
    ASSERT_EQ(code, LDAP_SUCCESS);
    EXPECT_EQ(info.replicaType, LDAP_RT_READONLY);
    EXPECT_EQ(info.flags, 5);
    EXPECT_EQ(info.rootID, information(admin, base, server1).info.rootID) << "the same root";
    EXPECT_NE(info.localReplicaID, information(admin, base, server1).info.localReplicaID);
    EXPECT_EQ(search(admin, base, "(heldReplica=*type=read-only*)"), Names{server2});
    EXPECT_EQ(search(admin, base, "(heldReplica=*partition=dc=example,dc=com)").size(), 2U);

    ASSERT_EQ(remove(admin, base, server2), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(information(admin, base, server2).code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(Replicas, AReplicaIsAddedAndRemovedOnce)
{
    ASSERT_EQ(add(admin, base, server2, LDAP_RT_SECONDARY), LDAP_SUCCESS);
    EXPECT_EQ(add(admin, "DC=Example, dc=COM", "CN=server2,ou=servers," + base, LDAP_RT_READONLY),
              LDAP_ALREADY_EXISTS)
        << "however the names are written";
    EXPECT_EQ(diagnostic(admin), server2 + " holds a replica of " + base);
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
    EXPECT_EQ(remove(admin, base, server2), LDAP_NO_SUCH_OBJECT);
}

TEST_F(Replicas, APartitionHasJustOneMaster)
{
    EXPECT_EQ(add(admin, base, server2, LDAP_RT_MASTER), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_NE(diagnostic(admin).find(server1 + " holds the master"), std::string::npos);
    EXPECT_EQ(remove(admin, base, server1), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(retype(admin, base, server1, LDAP_RT_SECONDARY), LDAP_UNWILLING_TO_PERFORM);

    ASSERT_EQ(add(admin, base, server2, LDAP_RT_SECONDARY), LDAP_SUCCESS);
    ASSERT_EQ(retype(admin, base, server2, LDAP_RT_MASTER), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(information(admin, base, server2).info.replicaType, LDAP_RT_MASTER);
    EXPECT_EQ(information(admin, base, server1).info.replicaType, LDAP_RT_SECONDARY);
    ASSERT_EQ(retype(admin, base, server1, LDAP_RT_MASTER), LDAP_SUCCESS);
    EXPECT_EQ(information(admin, base, server2).info.replicaType, LDAP_RT_SECONDARY);
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
}

TEST_F(Replicas, AChangeOfTypeSetsFlagsAndAdvancesTheModificationTime)
{
    ASSERT_EQ(add(admin, base, server2, LDAP_RT_SECONDARY, 1), LDAP_SUCCESS);
    LDAPReplicaInfo before = information(admin, base, server2).info;
    for (int type = LDAP_RT_SECONDARY; type < LDAP_RT_COUNT; ++type) {
        ASSERT_EQ(retype(admin, base, server2, type, -type), LDAP_SUCCESS) << diagnostic(admin);
        const LDAPReplicaInfo after = information(admin, base, server2).info;
        EXPECT_EQ(after.replicaType, type);
        EXPECT_EQ(after.flags, -type);
        EXPECT_GT(after.modificationTime, before.modificationTime);
        EXPECT_EQ(after.purgeTime, before.purgeTime);
        EXPECT_EQ(after.localReplicaID, before.localReplicaID);
        before = after;
    }
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
}

TEST_F(Replicas, ThereAreSixTypes)
{
    for (const int type : {-1, static_cast<int>(LDAP_RT_COUNT), 7, 2147483647, -2147483647}) {
        EXPECT_EQ(add(admin, base, server2, type), LDAP_CONSTRAINT_VIOLATION) << type;
        EXPECT_EQ(retype(admin, base, server1, type), LDAP_CONSTRAINT_VIOLATION) << type;
    }
    EXPECT_NE(diagnostic(admin).find("no replica type -2147483647"), std::string::npos);
}

TEST_F(Replicas, WhatIsNamedMustBeThere)
{
    const std::string nowhere = "cn=nowhere,ou=servers," + base;
    for (const int code : {add(admin, base, nowhere, 1), remove(admin, base, nowhere),
                           retype(admin, base, nowhere, 1), information(admin, base, nowhere).code})
        EXPECT_EQ(code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(replicas(admin, nowhere), Names{"code 32"});
    char *matched = nullptr;
    ldap_get_option(admin.get(), LDAP_OPT_MATCHED_DN, &matched);
    EXPECT_STREQ(matched, ("ou=servers," + base).c_str());
    ldap_memfree(matched);

    EXPECT_EQ(add(admin, "ou=nowhere," + base, server2, 1), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(add(admin, sales, server2, 1), LDAP_UNWILLING_TO_PERFORM) << "not a partition";
    EXPECT_EQ(information(admin, sales, server1).code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(add(admin, base, sales, 1), LDAP_OBJECT_CLASS_VIOLATION) << "not a server";
    EXPECT_EQ(add(admin, base, "garbage", 1), LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(add(admin, base, "", 1), LDAP_OBJECT_CLASS_VIOLATION);
    EXPECT_EQ(retype(admin, base, server2, 1), LDAP_NO_SUCH_OBJECT) << "holds none";
    EXPECT_NE(diagnostic(admin).find(server2 + " holds no replica"), std::string::npos);
}

TEST_F(Replicas, OnlyWhoMayChangeTheServerMayChangeItsReplicas)
{
    ASSERT_EQ(add(admin, base, server2, LDAP_RT_SECONDARY), LDAP_SUCCESS);
    const Session somebody = sandbox().as(sandbox().somebody());
    const Session nobody = sandbox().anonymous();
    for (const Session *session : {&somebody, &nobody}) {
        EXPECT_EQ(add(*session, base, server3, 1), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(remove(*session, base, server2), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(retype(*session, base, server2, 2), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(retype(*session, base, server2, LDAP_RT_MASTER), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(information(*session, base, server2).info.replicaType, LDAP_RT_SECONDARY)
            << "everybody may read it";
        EXPECT_EQ(replicas(*session, server2), Names{base});
    }
    EXPECT_EQ(information(admin, base, server1).info.replicaType, LDAP_RT_MASTER);
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
}

TEST_F(Replicas, ANewPartitionBeginsWithTheReplicasOfItsParentAndEndsWithItsOwn)
{
    ASSERT_EQ(add(admin, base, server2, LDAP_RT_READONLY, 9), LDAP_SUCCESS);
    ASSERT_EQ(split(admin, people), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(replicas(admin, server1), (Names{base, people}));
    EXPECT_EQ(replicas(admin, server2), (Names{base, people}));
    EXPECT_EQ(replicas(admin, server3), Names{});
    EXPECT_EQ(information(admin, people, server1).info.replicaType, LDAP_RT_MASTER);
    const LDAPReplicaInfo info = information(admin, people, server2).info;
    EXPECT_EQ(info.replicaType, LDAP_RT_READONLY);
    EXPECT_EQ(info.flags, 9);
    EXPECT_STREQ(info.namingContextDN, people.c_str());
    EXPECT_NE(info.rootID, information(admin, base, server2).info.rootID);

    ASSERT_EQ(remove(admin, people, server2), LDAP_SUCCESS);
    EXPECT_EQ(replicas(admin, server2), Names{base}) << "the parent's stays";
    ASSERT_EQ(add(admin, people, server3, LDAP_RT_SPARSE_READ), LDAP_SUCCESS);
    ASSERT_EQ(merge(admin, people), LDAP_SUCCESS);
    EXPECT_EQ(replicas(admin, server1), Names{base});
    EXPECT_EQ(replicas(admin, server3), Names{});
    EXPECT_EQ(information(admin, people, server1).code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
}

TEST_F(Replicas, ARenamedPartitionAndARenamedServerKeepTheirReplicas)
{
    ASSERT_EQ(split(admin, sales), LDAP_SUCCESS);
    const std::string trade = "ou=trade," + people;
    const std::string moved = "cn=moved,ou=servers," + base;
    const auto rename = [&](const std::string &dn, const std::string &rdn) {
        return ldap_rename_s(admin.get(), dn.c_str(), rdn.c_str(), nullptr, 1, nullptr, nullptr);
    };
    ASSERT_EQ(rename(sales, "ou=trade"), LDAP_SUCCESS);
    ASSERT_EQ(rename(server1, "cn=moved"), LDAP_SUCCESS);
    EXPECT_EQ(replicas(admin, moved), (Names{base, trade}));
    EXPECT_STREQ(information(admin, trade, moved).info.namingContextDN, trade.c_str());
    ASSERT_EQ(rename(moved, "cn=server1"), LDAP_SUCCESS);
    ASSERT_EQ(rename(trade, "ou=sales"), LDAP_SUCCESS);
    EXPECT_EQ(merge(admin, sales), LDAP_SUCCESS);
}

TEST_F(Replicas, ManyChangesAtOnceLeaveOneReplica)
{
    constexpr int clients = 8;
    std::vector<std::thread> threads;
    std::vector<int> codes(clients);
    for (int i = 0; i < clients; ++i)
        threads.emplace_back([&codes, i] {
            const Session session = sandbox().admin();
            codes.at(static_cast<std::size_t>(i)) =
                add(session, base, server2, LDAP_RT_SECONDARY, i);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(std::count(codes.begin(), codes.end(), LDAP_SUCCESS), 1);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), LDAP_ALREADY_EXISTS), clients - 1);
    EXPECT_EQ(search(admin, server2, "(heldReplica=*)", "heldReplica").size(), 1U);
    EXPECT_EQ(remove(admin, base, server2), LDAP_SUCCESS);
}

TEST_F(Replicas, AValueThatIsNotTheRequestIsAProtocolErrorThatChangesNothing)
{
    struct Case {
        std::string name;
        std::string value;
    };
    const Case cases[] = {
        {LDAPX_ADD_REPLICA_REQUEST, concat(integer(0), integer(1), octets(server2), octets(base))},
        {LDAPX_CHANGE_REPLICA_TYPE_REQUEST,
         concat(integer(0), integer(0), octets(server1), octets(base))},
        {LDAPX_REMOVE_REPLICA_REQUEST, concat(integer(0), octets(server1), octets(base))},
        {LDAPX_GET_REPLICA_INFO_REQUEST, concat(octets(server1), octets(base))},
        {LDAPX_LIST_REPLICAS_REQUEST, octets(server1)},
    };
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    int id = 2;
    for (const Case &each : cases) {
        std::vector<std::string> bad = support::cuts(each.value);
        bad.push_back(each.value + integer(0));
        bad.push_back(each.value + '\0');
        bad.push_back(support::sequence(each.value));
        for (const std::string &value : bad) {
            client.send(extended(id, each.name, value));
            EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR)
                << each.name << " " << support::hex(value);
            ++id;
        }
    }
}

TEST(DelayedOperations, ReplicasFollowWhenTheSplitAndTheMergeAreDone)
{
    Sandbox slow({"--operation-delay", "300", "--entries", "100"});
    const Session admin = slow.admin();
    const auto becomes = [&](const Names &expected) {
        for (int i = 0; i < 200 && replicas(admin, server1) != expected; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return replicas(admin, server1) == expected;
    };
    ASSERT_EQ(split(admin, people), LDAP_SUCCESS);
    EXPECT_EQ(replicas(admin, server1), Names{base});
    EXPECT_TRUE(becomes({base, people}));
    int code = LDAP_BUSY; // until the split has done with the replicas
    for (int i = 0; i < 100 && code == LDAP_BUSY; ++i)
        code = merge(admin, people);
    ASSERT_EQ(code, LDAP_SUCCESS);
    EXPECT_EQ(information(admin, people, server1).info.state, 1) << "merging";
    EXPECT_EQ(add(admin, people, server2, LDAP_RT_READONLY), LDAP_BUSY);
    EXPECT_TRUE(becomes({base}));
}

TEST(TreesOfOthers, WithoutServersThereIsNothingToHoldAReplica)
{
    support::TemporaryDirectory directory;
    const std::string ldif = directory.path() + "/tree.ldif";
    std::ofstream(ldif) << "dn: o=acme\nobjectClass: organization\no: acme\n\n"
                           "dn: cn=s,o=acme\nobjectClass: device\ncn: s\n";
    Sandbox other({"--ldif", ldif});
    const Session admin = connect(other.url(), "cn=admin,o=acme", "secret");
    EXPECT_EQ(add(admin, "o=acme", "cn=s,o=acme", 0), LDAP_OBJECT_CLASS_VIOLATION);
    ASSERT_EQ(support::run({"/usr/bin/ldapadd", "-x", "-H", other.url(), "-D", "cn=admin,o=acme",
                            "-w", "secret"},
                           {.stdin_text = "dn: cn=new,o=acme\nobjectClass: directoryServer\n"})
                  .status,
              0);
    EXPECT_EQ(add(admin, "o=acme", "cn=new,o=acme", LDAP_RT_READONLY), LDAP_UNWILLING_TO_PERFORM)
        << "the first replica is the master";
    EXPECT_EQ(add(admin, "o=acme", "cn=new,o=acme", LDAP_RT_MASTER), LDAP_SUCCESS);
    EXPECT_EQ(replicas(admin, "cn=new,o=acme"), Names{"o=acme"});
}

} // namespace
