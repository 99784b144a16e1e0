// Partitions on a real tree, through the library's functions.

#include "sandbox.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;

namespace {

Sandbox &sandbox()
{
    static Sandbox one;
    return one;
}

Sandbox &slow_sandbox() // splits and merges take longer than any test
{
    static Sandbox one({"--operation-delay", "600000", "--entries", "100"});
    return one;
}

Sandbox &brisk_sandbox() // they take just so long that one can see them run
{
    static Sandbox one({"--operation-delay", "300", "--entries", "100"});
    return one;
}

int split(const Session &session, std::string dn)
{
    return ldap_split_partition(session.get(), dn.data(), 0);
}
int merge(const Session &session, std::string dn)
{
    return ldap_merge_partitions(session.get(), dn.data(), 0);
}
int abort_operation(const Session &session, std::string dn)
{
    return ldap_abort_partition_operation(session.get(), dn.data(), 0);
}
int split_orphan(const Session &session, std::string dn, std::string name)
{
    return ldap_split_orphan_partition(session.get(), dn.data(), name.data());
}
int remove_orphan(const Session &session, std::string dn, std::string name)
{
    return ldap_remove_orphan_partition(session.get(), dn.data(), name.data());
}

struct Counted {
    int code;
    unsigned long entries;
};
Counted count(const Session &session, std::string dn)
{
    unsigned long entries = 0;
    const int code = ldap_partition_entry_count(session.get(), dn.data(), &entries);
    return {code, entries};
}

std::vector<std::string> roots(const Session &session)
{
    std::vector<std::string> all =
        search(session, base, "(objectClass=partitionRoot)", "partitionState");
    std::sort(all.begin(), all.end());
    return all;
}

std::string matched_dn(const Session &session)
{
    char *text = nullptr;
    ldap_get_option(session.get(), LDAP_OPT_MATCHED_DN, &text);
    const std::unique_ptr<char, void (*)(void *)> owner(text, ldap_memfree);
    return text != nullptr ? text : "";
}

// Waits for the state that an operation on this entry is to reach.
bool reaches(const Session &session, const std::string &filter, std::size_t entries)
{
    for (int i = 0; i < 200; ++i) {
        if (search(session, base, filter).size() == entries)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

TEST(Partitions, TheWholeTreeIsOnePartitionAtFirst)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(roots(admin), std::vector<std::string>{"dc=example,dc=com: on"});
    EXPECT_EQ(count(admin, base).entries, 1200U);
}

TEST(Partitions, ASplitPartitionIsListedAndHoldsItsEntries)
{
    const Session admin = sandbox().admin();
    const std::size_t inside = search(admin, engineering, "(objectClass=*)").size();
    ASSERT_GT(inside, 100U);

    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(roots(admin),
              (std::vector<std::string>{"dc=example,dc=com: on", engineering + ": on"}));
    EXPECT_EQ(count(admin, engineering).entries, inside);
    EXPECT_EQ(count(admin, base).entries, 1200U - inside);

    ASSERT_EQ(merge(admin, engineering), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(roots(admin), std::vector<std::string>{"dc=example,dc=com: on"});
    EXPECT_EQ(count(admin, base).entries, 1200U);
}

TEST(Partitions, ANestedPartitionIsCountedOnceAndOutlivesTheMergeOfItsParent)
{
    const Session admin = sandbox().admin();
    const std::size_t inner = search(admin, engineering, "(objectClass=*)").size();
    const std::size_t outer = search(admin, people, "(objectClass=*)").size();
    ASSERT_EQ(split(admin, people), LDAP_SUCCESS);
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);

    EXPECT_EQ(count(admin, engineering).entries, inner);
    EXPECT_EQ(count(admin, people).entries, outer - inner);
    EXPECT_EQ(count(admin, base).entries, 1200U - outer);

    ASSERT_EQ(merge(admin, people), LDAP_SUCCESS);
    EXPECT_EQ(count(admin, engineering).entries, inner);
    EXPECT_EQ(count(admin, base).entries, 1200U - inner);
    ASSERT_EQ(merge(admin, engineering), LDAP_SUCCESS);
}

TEST(Partitions, AnEntryIsTheSameHoweverItsNameIsWritten)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(split(admin, "OU=Engineering , ou=PEOPLE,  dc=example,DC=com"), LDAP_SUCCESS);
    EXPECT_EQ(split(admin, engineering), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(merge(admin, "2.5.4.11=engineering;ou=people;dc=example;dc=com"), LDAP_SUCCESS);
}

TEST(Partitions, ANameOutsideAsciiWorksLikeAnyOther)
{
    const Session admin = sandbox().admin();
    const std::string dn = "ou=Éditions Ørsted\\, Łódź," + base;
    ASSERT_EQ(
        sandbox()
            .client_as_admin("ldapadd", {}, "dn: " + dn + "\nobjectClass: organizationalUnit\n")
            .status,
        0);
    EXPECT_EQ(split(admin, dn), LDAP_SUCCESS);
    EXPECT_EQ(count(admin, dn).entries, 1U);
    EXPECT_EQ(merge(admin, dn), LDAP_SUCCESS);
    EXPECT_EQ(sandbox().client_as_admin("ldapdelete", {dn}).status, 0);
}

TEST(Partitions, DeletingTheRootEntryRemovesThePartition)
{
    const Session admin = sandbox().admin();
    const std::string dn = "ou=short-lived," + base;
    ASSERT_EQ(
        sandbox()
            .client_as_admin("ldapadd", {}, "dn: " + dn + "\nobjectClass: organizationalUnit\n")
            .status,
        0);
    ASSERT_EQ(split(admin, dn), LDAP_SUCCESS);
    ASSERT_EQ(roots(admin).size(), 2U);
    ASSERT_EQ(sandbox().client_as_admin("ldapdelete", {dn}).status, 0);
    EXPECT_EQ(roots(admin).size(), 1U);
    EXPECT_EQ(count(admin, dn).code, LDAP_NO_SUCH_OBJECT);
}

TEST(Partitions, ARefusalSaysWhatIsWrong)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(split(admin, "ou=nowhere," + people), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(matched_dn(admin), people);
    EXPECT_EQ(split(admin, "no name at all"), LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(split(admin, ""), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(split(admin, base), LDAP_ALREADY_EXISTS);
    EXPECT_NE(diagnostic(admin).find("is the root of a partition already"), std::string::npos);

    EXPECT_EQ(merge(admin, sales), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_NE(diagnostic(admin).find(sales), std::string::npos);
    EXPECT_EQ(merge(admin, base), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(merge(admin, "ou=nowhere," + people), LDAP_NO_SUCH_OBJECT);

    EXPECT_EQ(count(admin, sales).code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(count(admin, "ou=nowhere," + people).code, LDAP_NO_SUCH_OBJECT);

    EXPECT_EQ(abort_operation(admin, base), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(abort_operation(admin, "ou=nowhere," + people), LDAP_NO_SUCH_OBJECT);
}

TEST(Partitions, OnlyWhoMayChangeTheEntryMayChangeThePartition)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);
    ASSERT_EQ(split_orphan(admin, server1, "o=guarded"), LDAP_SUCCESS);
    const Session somebody = sandbox().as(sandbox().somebody());
    const Session nobody = sandbox().anonymous();
    for (const Session *session : {&somebody, &nobody}) {
        EXPECT_EQ(split(*session, sales), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(merge(*session, engineering), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(split_orphan(*session, server1, "o=acme"), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(remove_orphan(*session, server1, "o=guarded"), LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(count(*session, engineering).code, LDAP_SUCCESS) << "everybody may read it";
        EXPECT_EQ(split(*session, "ou=payroll,dc=example,dc=com"),
                  session == &nobody ? LDAP_INSUFFICIENT_ACCESS : LDAP_NO_SUCH_OBJECT)
            << "what may not be seen is not there";
    }
    EXPECT_EQ(roots(admin).size(), 2U);
    EXPECT_EQ(remove_orphan(admin, server1, "o=guarded"), LDAP_SUCCESS);
    EXPECT_EQ(merge(admin, engineering), LDAP_SUCCESS);
}

TEST(Partitions, AMemberOfTheAdministratorsMaySplitAndMerge)
{
    const Session admin = sandbox().admin();
    const std::vector<std::string> members =
        search(admin, "cn=administrators,ou=groups,dc=example,dc=com", "(member=*)", "member");
    const std::string member = members.at(0).substr(members.at(0).find(": ") + 2);
    const Session session = sandbox().as(member);
    EXPECT_EQ(split(session, sales), LDAP_SUCCESS) << diagnostic(session);
    EXPECT_EQ(merge(session, sales), LDAP_SUCCESS) << diagnostic(session);
}

TEST(Partitions, AnOrphanPartitionIsRecordedOnItsServer)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(split_orphan(admin, server1, "o=acme"), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(search(admin, server1, "(orphanPartition=o=acme)", "orphanPartition"),
              std::vector<std::string>{server1 + ": o=acme"});

    EXPECT_EQ(split_orphan(admin, server1, "O = Acme"), LDAP_ALREADY_EXISTS) << "the same name";
    EXPECT_EQ(split_orphan(admin, server2, "o=acme"), LDAP_SUCCESS) << "another server";
    EXPECT_EQ(remove_orphan(admin, server1, "o=other"), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(remove_orphan(admin, server1, "o=ACME"), LDAP_SUCCESS);
    EXPECT_EQ(remove_orphan(admin, server1, "o=acme"), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(search(admin, base, "(orphanPartition=o=acme)").size(), 1U);
    EXPECT_EQ(remove_orphan(admin, server2, "o=acme"), LDAP_SUCCESS);
}

TEST(Partitions, AnOrphanPartitionNeedsAServerAndAName)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(split_orphan(admin, "cn=nowhere,ou=servers,dc=example,dc=com", "o=acme"),
              LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(matched_dn(admin), "ou=servers,dc=example,dc=com");
    EXPECT_EQ(split_orphan(admin, sales, "o=acme"), LDAP_OBJECT_CLASS_VIOLATION);
    EXPECT_EQ(split_orphan(admin, "garbage", "o=acme"), LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(split_orphan(admin, server1, "acme"), LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(split_orphan(admin, server1, ""), LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(remove_orphan(admin, "cn=nowhere,ou=servers,dc=example,dc=com", "o=acme"),
              LDAP_NO_SUCH_OBJECT);
}

// ---- Operations that take their time ---------------------------------------------------------

TEST(RunningOperations, ASplitIsBusyUntilItIsAborted)
{
    const Session admin = slow_sandbox().admin();
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);
    EXPECT_EQ(search(admin, people, "(partitionState=splitting)"),
              std::vector<std::string>{engineering});

    EXPECT_EQ(split(admin, engineering), LDAP_BUSY);
    EXPECT_EQ(merge(admin, engineering), LDAP_BUSY);
    EXPECT_EQ(split(admin, sales), LDAP_BUSY) << "the partition above is occupied too";
    EXPECT_EQ(count(admin, engineering).code, LDAP_UNWILLING_TO_PERFORM) << "not a partition yet";
    EXPECT_EQ(count(admin, base).entries, 100U);
    EXPECT_EQ(abort_operation(admin, sales), LDAP_UNWILLING_TO_PERFORM);

    ASSERT_EQ(abort_operation(admin, engineering), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(search(admin, people, "(objectClass=partitionRoot)").size(), 0U);
    EXPECT_EQ(abort_operation(admin, engineering), LDAP_UNWILLING_TO_PERFORM);
}

TEST(RunningOperations, AnOperationCanBeAbortedAtThePartitionAboveToo)
{
    const Session admin = slow_sandbox().admin();
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);
    EXPECT_EQ(abort_operation(admin, base), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(search(admin, people, "(objectClass=partitionRoot)").size(), 0U);
}

TEST(RunningOperations, ARefusedAbortLeavesTheOperationRunning)
{
    const Session admin = slow_sandbox().admin();
    const Session somebody = slow_sandbox().as(slow_sandbox().somebody());
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);
    EXPECT_EQ(abort_operation(somebody, engineering), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(split(admin, engineering), LDAP_BUSY);
    EXPECT_EQ(abort_operation(admin, engineering), LDAP_SUCCESS);
}

TEST(RunningOperations, ASplitEndsByItselfAndAnAbortedMergeChangesNothing)
{
    const Session admin = brisk_sandbox().admin();
    ASSERT_EQ(split(admin, engineering), LDAP_SUCCESS);
    ASSERT_TRUE(reaches(admin, "(&(ou=engineering)(partitionState=on))", 1));
    ASSERT_EQ(merge(admin, engineering), LDAP_SUCCESS);
    EXPECT_EQ(search(admin, people, "(partitionState=merging)").size(), 1U);
    EXPECT_EQ(count(admin, engineering).code, LDAP_SUCCESS) << "a partition as long as it merges";
    ASSERT_EQ(abort_operation(admin, engineering), LDAP_SUCCESS);
    EXPECT_EQ(search(admin, people, "(partitionState=on)").size(), 1U);
    ASSERT_EQ(merge(admin, engineering), LDAP_SUCCESS);
    EXPECT_TRUE(reaches(admin, "(&(ou=engineering)(objectClass=partitionRoot))", 0));
}

TEST(RunningOperations, AnEntryThatIsRenamedMeanwhileIsStillTheOne)
{
    const Session admin = brisk_sandbox().admin();
    ASSERT_EQ(split(admin, sales), LDAP_SUCCESS);
    ASSERT_EQ(ldap_rename_s(admin.get(), sales.c_str(), "ou=trade", nullptr, 1, nullptr, nullptr),
              LDAP_SUCCESS);
    EXPECT_TRUE(reaches(admin, "(&(ou=trade)(partitionState=on))", 1));
    ASSERT_EQ(merge(admin, "ou=trade," + people), LDAP_SUCCESS);
    EXPECT_TRUE(reaches(admin, "(&(ou=trade)(objectClass=partitionRoot))", 0));
    ASSERT_EQ(ldap_rename_s(admin.get(), ("ou=trade," + people).c_str(), "ou=sales", nullptr, 1,
                            nullptr, nullptr),
              LDAP_SUCCESS);
}

TEST(RunningOperations, AnEntryThatIsDeletedMeanwhileLeavesNothingRunning)
{
    const Session admin = brisk_sandbox().admin();
    const std::string dn = "ou=short-lived," + base;
    const std::string entry = "dn: " + dn + "\nobjectClass: organizationalUnit\n";
    ASSERT_EQ(brisk_sandbox().client_as_admin("ldapadd", {}, entry).status, 0);
    ASSERT_EQ(split(admin, dn), LDAP_SUCCESS);
    ASSERT_EQ(brisk_sandbox().client_as_admin("ldapdelete", {dn}).status, 0);
    int code = LDAP_BUSY;
    for (int i = 0; i < 100 && code == LDAP_BUSY; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        code = split(admin, engineering);
    }
    EXPECT_EQ(code, LDAP_SUCCESS);
    EXPECT_EQ(abort_operation(admin, engineering), LDAP_SUCCESS);
}

// Runs last: with a sanitizer, what was leaked or written astray in all of the above shows here.
TEST(AfterAll, ItEndsCleanly)
{
    EXPECT_TRUE(sandbox().ends_cleanly());
    EXPECT_TRUE(slow_sandbox().ends_cleanly());
    EXPECT_TRUE(brisk_sandbox().ends_cleanly());
}

} // namespace
