// The command-line tool against the sandbox: replicas, synchronisation, filters, identities,
// rights, names, background processes.

#include "sandbox.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace sandbox_test;
using support::Finished;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

using Arguments = std::vector<std::string>;

Finished anonymously(Arguments arguments)
{
    arguments.insert(arguments.begin(), {TOOL_PROGRAM, "-x", "-H", sandbox().url()});
    return support::run(arguments);
}

Finished as_admin(Arguments arguments)
{
    arguments.insert(arguments.begin(), {"-D", admin_dn, "-w", "secret", "--yes"});
    return anonymously(std::move(arguments));
}

std::string output(const Finished &finished)
{
    EXPECT_EQ(finished.status, 0) << finished.err;
    return finished.out;
}

TEST(Tool, ReplicasAreAddedShownRetypedListedAndRemoved)
{
    output(as_admin({"partition", "split", people}));
    EXPECT_EQ(output(as_admin({"replica", "add", people, server2, "read-only"})),
              server2 + " holds a read-only replica of " + people + "\n");
    EXPECT_EQ(output(anonymously({"replica", "list", server2})), people + "\n");
    const std::string info = output(anonymously({"replica", "info", people, server2}));
    EXPECT_NE(info.find(people), std::string::npos) << info;
    EXPECT_NE(info.find("read-only"), std::string::npos) << info;
    output(as_admin({"replica", "retype", people, server2, "master"}));
    EXPECT_NE(output(anonymously({"replica", "info", people, server1})).find("secondary"),
              std::string::npos);
    output(as_admin({"replica", "remove", people, server1}));
    EXPECT_EQ(output(anonymously({"replica", "list", server1})), base + "\n");
    output(as_admin({"partition", "merge", people}));
}

TEST(Tool, ARefusedReplicaIsExplained)
{
    const Finished finished = as_admin({"replica", "add", base, server2, "master"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find(server1 + " holds the master of " + base), std::string::npos)
        << finished.err;
    EXPECT_EQ(anonymously({"replica", "add", base, server2, "read-only"}).status, 1);
}

TEST(Tool, WhoamiShowsTheIdentity)
{
    EXPECT_EQ(output(as_admin({"whoami"})), admin_dn + "\n");
    EXPECT_EQ(output(anonymously({"whoami"})), "anonymous\n");
}

TEST(Tool, TriggersAndRefreshStartProcesses)
{
    for (const char *name :
         {"backlink", "janitor", "limber", "skulker", "schema-sync", "partition-purge"})
        EXPECT_EQ(output(as_admin({"trigger", name})),
                  "the background process " + std::string(name) + " is started\n");
    EXPECT_EQ(output(as_admin({"refresh"})), "the server refreshes itself\n");
    EXPECT_EQ(search(sandbox().anonymous(), "cn=processes,cn=system", "(processStarted=*)").size(),
              7U);
    EXPECT_EQ(anonymously({"trigger", "janitor"}).status, 1);
}

TEST(Tool, SynchronisationIsAskedForAndRecorded)
{
    output(as_admin({"replica", "add", base, server2, "secondary"}));
    EXPECT_EQ(output(as_admin({"sync", "receive", base, server2})),
              server2 + " receives all updates of " + base + "\n");
    output(as_admin({"sync", "receive", base, server2, server1}));
    output(as_admin({"sync", "send", base}));
    output(as_admin({"sync", "partition", base, server1}));
    output(as_admin({"sync", "schema", base, "--delay", "3600"}));
    const Session session = sandbox().anonymous();
    EXPECT_EQ(search(session, "cn=synchronisation,cn=system", "(requestState=done)").size(), 4U);
    EXPECT_EQ(search(session, "cn=synchronisation,cn=system",
                     "(&(requestKind=schema)(requestState=waiting)(requestDelay=3600))")
                  .size(),
              1U);
    output(as_admin({"replica", "remove", base, server2}));
    EXPECT_EQ(as_admin({"sync", "partition", base, server2}).status, 1);
}

TEST(Tool, AFilterIsSetAndShown)
{
    output(as_admin({"filter", "set", server1, "inetOrgPerson cn sn", "groupOfNames"}));
    EXPECT_EQ(output(anonymously({"filter", "get", server1})),
              "inetOrgPerson cn sn\ngroupOfNames\n");
    EXPECT_EQ(output(anonymously({"filter", "get", server1, "--raw"})),
              "inetOrgPerson$cn$sn$$groupOfNames$$$\n");
    EXPECT_EQ(anonymously({"filter", "set", server1, "person"}).status, 1);
}

TEST(Tool, RightsAreShownAttributeByAttribute)
{
    const std::string somebody = sandbox().somebody();
    const std::string shown =
        output(anonymously({"rights", people, somebody, "description", "userPassword"}));
    EXPECT_NE(shown.find("31"), std::string::npos) << shown;
    EXPECT_NE(shown.find("description"), std::string::npos) << shown;
    EXPECT_EQ(anonymously({"rights", people, somebody, "nosuchattribute"}).status, 1);
}

TEST(Tool, NamesAreResolved)
{
    EXPECT_EQ(output(anonymously({"name", "from-dns", "people.example.com"})), people + "\n");
    EXPECT_EQ(output(anonymously({"name", "from-native", "server1.servers.example"})),
              server1 + "\n");
    EXPECT_EQ(anonymously({"name", "from-native", "nobody.people.example"}).status, 1);
}

} // namespace
