// greirige partition against the sandbox: the main job as an administrator does it.

#include <gtest/gtest.h>

#include "sandbox.h"
#include "tool.h"

using namespace tool_test;
using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::people;
using sandbox_test::Sandbox;
using sandbox_test::server1;
using support::Finished;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "200"});
    return one;
}

Finished anonymously(const Arguments &arguments)
{
    Arguments all{"-x", "-H", sandbox().url()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return greirige(all);
}

Finished as_admin(const Arguments &arguments)
{
    Arguments all{"-D", admin_dn, "-w", "secret"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return anonymously(all);
}

long long entries_of(const std::string &dn)
{
    return document(as_admin({"--json", "partition", "count", dn}))["partitions"][0]["entries"];
}

std::string roots()
{
    return sandbox()
        .client("ldapsearch", {"-LLL", "-b", base, "(objectClass=partitionRoot)", "dn"})
        .out;
}

TEST(Sandbox, partition_is_split_counted_found_and_merged_back)
{
    const long long whole = entries_of(base);
    EXPECT_EQ(as_admin({"partition", "split", people}).out,
              people + " is the root of a partition\n");
    EXPECT_NE(roots().find("dn: " + people + "\n"), std::string::npos);
    EXPECT_GT(entries_of(people), 0);
    EXPECT_EQ(entries_of(base) + entries_of(people), whole);
    EXPECT_EQ(as_admin({"--yes", "partition", "merge", people}).out,
              people + " belongs to its parent partition\n");
    EXPECT_EQ(roots().find("dn: " + people + "\n"), std::string::npos);
    EXPECT_EQ(entries_of(base), whole);
}

TEST(Sandbox, operation_of_somebody_who_may_not_is_refused)
{
    const Finished finished = anonymously({"partition", "split", people});
    EXPECT_EQ(finished.status, 1);
    EXPECT_TRUE(finished.err.starts_with("greirige: cannot split the partition at \"" + people +
                                         "\" on ldap://127.0.0.1:"))
        << finished.err;
    EXPECT_NE(finished.err.find(": Insufficient access (50), the server says \""),
              std::string::npos)
        << finished.err;
}

TEST(Sandbox, wrong_password_is_a_refused_bind)
{
    const Finished finished =
        anonymously({"-D", admin_dn, "-w", "wrong", "partition", "count", base});
    EXPECT_EQ(finished.status, 3);
    EXPECT_NE(finished.err.find("Invalid credentials (49)"), std::string::npos) << finished.err;
}

TEST(Sandbox, count_of_a_missing_partition_beside_another_is_done_in_part)
{
    const Finished finished = as_admin({"partition", "count", base, "ou=nowhere," + base});
    EXPECT_EQ(finished.status, 4);
    EXPECT_NE(finished.err.find("No such object (32), the nearest entry that exists is \"" + base),
              std::string::npos)
        << finished.err;
}

TEST(Sandbox, orphan_partitions_come_and_go)
{
    EXPECT_EQ(as_admin({"partition", "split-orphan", "o=lost", server1}).status, 0);
    EXPECT_EQ(as_admin({"partition", "split-orphan", "o=lost", server1}).status, 1);
    EXPECT_EQ(as_admin({"--yes", "partition", "remove-orphan", "o=lost", server1}).status, 0);
    EXPECT_EQ(as_admin({"--yes", "partition", "remove-orphan", "o=lost", server1}).status, 1);
}

TEST(Sandbox, abort_without_a_running_operation_is_refused)
{
    const Finished finished = as_admin({"--yes", "partition", "abort", base});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("no operation that could be aborted"), std::string::npos)
        << finished.err;
}

} // namespace
