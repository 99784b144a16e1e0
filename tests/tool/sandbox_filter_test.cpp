// Replication filters on server objects, through the library's functions.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace sandbox_test;
using support::octets;
using support::sequence;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

int set(const Session &session, const std::string &server, const std::string &filter)
{
    return ldap_set_replication_filter(session.get(), server.c_str(), filter.c_str());
}

std::string get(const Session &session, const std::string &server)
{
    char *filter = nullptr;
    const int code = ldap_get_replication_filter(session.get(), server.c_str(), &filter);
    const std::string text = code == LDAP_SUCCESS ? filter : "code " + std::to_string(code);
    ldapx_memfree(filter);
    return text;
}

TEST(ReplicationFilter, AServerBeginsWithAFilterWithoutClasses)
{
    EXPECT_EQ(get(sandbox().anonymous(), server3), "$");
}

TEST(ReplicationFilter, EachServerKeepsItsOwnWhereASearchSeesIt)
{
    const Session admin = sandbox().admin();
    const std::string filter = "inetOrgPerson$cn$sn$$groupOfNames$$$";
    ASSERT_EQ(set(admin, server1, filter), LDAP_SUCCESS) << diagnostic(admin);
    ASSERT_EQ(set(admin, server2, "device$$$"), LDAP_SUCCESS);
    EXPECT_EQ(get(admin, server1), filter);
    EXPECT_EQ(get(admin, server2), "device$$$");
    EXPECT_EQ(search(admin, base, "(replicationFilter=" + filter + ")", "replicationFilter"),
              std::vector<std::string>{server1 + ": " + filter});
    ASSERT_EQ(set(admin, server1, "$"), LDAP_SUCCESS);
    EXPECT_EQ(get(admin, server1), "$");
}

TEST(ReplicationFilter, SurvivesCharacterForCharacter)
{
    const Session admin = sandbox().admin();
    std::mt19937 random(1);
    const auto below = [&random](unsigned limit) {
        return static_cast<unsigned>(random() % limit);
    };
    for (int round = 0; round < 60; ++round) {
        std::string filter;
        const auto name = [&] {
            std::string text;
            for (unsigned length = 1 + below(20); text.size() < length;)
                if (const char c = static_cast<char>(1 + below(255)); c != '$')
                    text += c;
            return text + "$";
        };
        for (unsigned classes = below(6); classes > 0; --classes) {
            filter += name();
            for (unsigned attributes = below(6); attributes > 0; --attributes)
                filter += name();
            filter += "$";
        }
        filter += "$";
        ASSERT_EQ(set(admin, server1, filter), LDAP_SUCCESS) << diagnostic(admin);
        ASSERT_EQ(get(admin, server1), filter);
    }
    const std::string repeated = "b$x$x$X$$a$$b$$$";
    ASSERT_EQ(set(admin, server1, repeated), LDAP_SUCCESS);
    EXPECT_EQ(get(admin, server1), repeated) << "order and repetition too";
}

TEST(ReplicationFilter, IsForThoseWhoMayChangeTheServer)
{
    const Session somebody = sandbox().as(sandbox().somebody());
    const Session nobody = sandbox().anonymous();
    const std::string before = get(nobody, server2);
    EXPECT_EQ(set(somebody, server2, "person$$$"), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(set(nobody, server2, "person$$$"), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(get(nobody, server2), before);
}

TEST(ReplicationFilter, NeedsAServer)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(set(admin, "cn=nowhere," + base, "$"), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(get(admin, "cn=nowhere," + base), "code 32");
    EXPECT_EQ(set(admin, "ou=people," + base, "$"), LDAP_OBJECT_CLASS_VIOLATION);
    EXPECT_EQ(get(admin, "ou=people," + base), "code 65");
    EXPECT_EQ(get(admin, "garbage"), "code 34");
}

TEST(ReplicationFilter, ATextOfSomebodyElseThatIsNoneIsReported)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(sandbox()
                  .client_as_admin("ldapmodify", {},
                                   "dn: " + server2 +
                                       "\nchangetype: modify\nreplace: replicationFilter\n"
                                       "replicationFilter: person$cn\n")
                  .status,
              0);
    EXPECT_EQ(get(admin, server2), "code 80");
    EXPECT_NE(diagnostic(admin).find("is no filter"), std::string::npos);
    EXPECT_EQ(set(admin, server2, "$"), LDAP_SUCCESS);
}

TEST(ReplicationFilter, AValueThatIsNotTheRequestIsRefused)
{
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    int id = 2;
    const auto code = [&](const std::string &name, const std::string &value) {
        client.send(extended(id++, name, value));
        return result_code(client.receive());
    };
    const std::string good =
        octets(server1) + sequence(sequence(octets("person"), sequence(octets("cn"))));
    std::vector<std::string> bad = support::cuts(good);
    for (const std::string &value :
         {good + '\0', good + octets("x"), sequence(good), octets(server1),
          octets(server1) + sequence(octets("person")),
          octets(server1) + sequence(sequence(octets("person"))),
          octets(server1) + sequence(sequence(octets("a"), sequence(), octets("b")))})
        bad.push_back(value);
    for (const std::string &value : bad)
        EXPECT_EQ(code(LDAPX_SET_REPLICATION_FILTER_REQUEST, value), LDAP_PROTOCOL_ERROR)
            << support::hex(value);
    for (const std::string &value : support::cuts(octets(server1)))
        EXPECT_EQ(code(LDAPX_GET_REPLICATION_FILTER_REQUEST, value), LDAP_PROTOCOL_ERROR);
    for (const std::string &name : {std::string(), std::string("a$b"), std::string("a\0b", 3)}) {
        EXPECT_EQ(code(LDAPX_SET_REPLICATION_FILTER_REQUEST,
                       octets(server1) + sequence(sequence(octets(name), sequence()))),
                  LDAP_CONSTRAINT_VIOLATION);
        EXPECT_EQ(code(LDAPX_SET_REPLICATION_FILTER_REQUEST,
                       octets(server1) + sequence(sequence(octets("a"), sequence(octets(name))))),
                  LDAP_CONSTRAINT_VIOLATION);
    }
}

} // namespace
