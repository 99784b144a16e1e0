// OpenLDAP's own clients through the gateway, unchanged and several at once.

#include "sandbox.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace sandbox_test;
using support::Finished;

namespace {

Sandbox &sandbox()
{
    static Sandbox one;
    return one;
}

std::size_t count_of(const std::string &text, const std::string &word)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++count;
    return count;
}

std::string person_ldif(const std::string &uid)
{
    return "dn: uid=" + uid + "," + sales + "\nobjectClass: inetOrgPerson\nuid: " + uid +
           "\ncn: Test Person\nsn: Person\nuserPassword: first\n";
}

// A client and its arguments, run through the gateway and directly on slapd's socket.
std::pair<Finished, Finished> both_ways(const std::string &program,
                                        const std::vector<std::string> &arguments)
{
    std::vector<std::string> direct = {"/usr/bin/" + program, "-x", "-H", sandbox().slapd_url()};
    direct.insert(direct.end(), arguments.begin(), arguments.end());
    return {sandbox().client(program, arguments), support::run(direct)};
}

TEST(Clients, SeeTheSameWithAndWithoutTheGateway)
{
    const std::vector<std::string> admin = {"-D", admin_dn, "-w", "secret"};
    std::vector<std::vector<std::string>> searches = {
        {"-LLL", "-b", base},
        {"-LLL", "-b", base, "*", "+"},
        {"-LLL", "-b", "", "-s", "base", "*", "+"},
        {"-LLL", "-b", "cn=subschema", "-s", "base", "+"},
        {"-LLL", "-b", base, "(jpegPhoto=*)"},
        {"-LLL", "-b", base, "(cn=*ł*)", "cn"},
        {"-LLL", "-b", base, "-s", "one", "1.1"},
        {"-LLL", "-b", "ou=nowhere," + base},
        {"-LLL", "-b", "no name"},
        {"-LLL", "-b", base, "(bad filter"},
        {"-b", base, "-z", "3"},
        {"-LLL", "-b", base, "-E", "pr=100/noprompt"},
        {"-LLL", "-b", base, "-E", "!1.2.3.4"},
    };
    const std::size_t anonymous = searches.size();
    for (std::size_t i = 0; i < anonymous; ++i) {
        searches.push_back(admin);
        searches.back().insert(searches.back().end(), searches[i].begin(), searches[i].end());
    }
    for (const auto &arguments : searches) {
        const auto [through, direct] = both_ways("ldapsearch", arguments);
        EXPECT_EQ(through.status, direct.status) << testing::PrintToString(arguments);
        EXPECT_EQ(through.out, direct.out) << testing::PrintToString(arguments);
        EXPECT_EQ(through.err, direct.err) << testing::PrintToString(arguments);
    }
    EXPECT_GT(both_ways("ldapsearch", searches[0]).first.out.size(), 400000U);
    EXPECT_EQ(both_ways("ldapsearch", searches[2]).first.out.empty(), false);
}

TEST(Clients, APagedSearchBringsEverythingOnce)
{
    const Finished whole = sandbox().client("ldapsearch", {"-LLL", "-b", base, "1.1"});
    const Finished paged =
        sandbox().client("ldapsearch", {"-LLL", "-b", base, "-E", "pr=7/noprompt", "1.1"});
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(paged.status, 0);
    EXPECT_EQ(count_of(whole.out, "dn: "), count_of(paged.out, "dn: "));
    EXPECT_GT(count_of(paged.out, "dn: "), 1100U);
}

TEST(Clients, AddModifyCompareRenameAndDeleteAnEntry)
{
    const std::string dn = "uid=walker," + sales;
    Finished done = sandbox().client_as_admin("ldapadd", {}, person_ldif("walker"));
    EXPECT_EQ(done.status, 0) << done.err;
    done = sandbox().client_as_admin("ldapadd", {}, person_ldif("walker"));
    EXPECT_EQ(done.status, LDAP_ALREADY_EXISTS);

    done = sandbox().client_as_admin("ldapmodify", {},
                                     "dn: " + dn +
                                         "\nchangetype: modify\nreplace: title\n"
                                         "title: Captain\n-\nadd: l\nl: Malmö\n");
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(sandbox().client("ldapcompare", {dn, "title:captain"}).status, LDAP_COMPARE_TRUE);
    EXPECT_EQ(sandbox().client("ldapcompare", {dn, "title:cook"}).status, LDAP_COMPARE_FALSE);
    EXPECT_EQ(sandbox().client("ldapmodify", {}, "dn: " + dn + "\nreplace: l\nl: x\n").status,
              LDAP_STRONG_AUTH_REQUIRED);

    done = sandbox().client_as_admin("ldapmodrdn", {"-r", dn, "uid=runner"});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(search(sandbox().admin(), base, "(title=Captain)"),
              std::vector<std::string>{"uid=runner," + sales});
    EXPECT_EQ(sandbox().client_as_admin("ldapdelete", {dn}).status, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(sandbox().client_as_admin("ldapdelete", {"uid=runner," + sales}).status, 0);
    EXPECT_TRUE(search(sandbox().admin(), base, "(title=Captain)").empty());
}

TEST(Clients, ABinaryValueComesBackAsItWent)
{
    const support::TemporaryDirectory directory;
    std::string picture;
    for (int i = 0; i < 3000000; ++i)
        picture += static_cast<char>(i * 7 + i / 251);
    picture.replace(0, 4, "\xff\xd8\xff\xe0");
    std::ofstream(directory.path() + "/in", std::ios::binary) << picture;
    const Finished added = sandbox().client_as_admin(
        "ldapadd", {}, person_ldif("seen") + "jpegPhoto:< file://" + directory.path() + "/in\n");
    ASSERT_EQ(added.status, 0) << added.err;
    const Finished found =
        sandbox().client("ldapsearch", {"-LLL", "-b", base, "-t", "-T", directory.path(),
                                        "(uid=seen)", "jpegPhoto"});
    ASSERT_EQ(found.status, 0);
    const std::string url = "jpegPhoto:< file://";
    std::string path = found.out.substr(found.out.find(url) + url.size());
    std::ifstream file(path.substr(0, path.find('\n')), std::ios::binary);
    std::ostringstream returned;
    returned << file.rdbuf();
    EXPECT_TRUE(returned.str() == picture) << returned.str().size() << " bytes";
    EXPECT_EQ(sandbox().client_as_admin("ldapdelete", {"uid=seen," + sales}).status, 0);
}

TEST(Clients, LearnWhoTheyAre)
{
    EXPECT_EQ(sandbox().client("ldapwhoami", {}).out, "anonymous\n");
    EXPECT_EQ(sandbox().client_as_admin("ldapwhoami", {}).out, "dn:" + admin_dn + "\n");
    EXPECT_EQ(sandbox().client("ldapwhoami", {"-D", admin_dn, "-w", "wrong"}).status,
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(sandbox().client_as_admin("ldapexop", {"whoami"}).status, 0);
    EXPECT_NE(sandbox().client_as_admin("ldapexop", {"1.2.3.4.5"}).status, 0);
}

TEST(Clients, ChangeAPassword)
{
    const std::string dn = "uid=keeper," + sales;
    ASSERT_EQ(sandbox().client_as_admin("ldapadd", {}, person_ldif("keeper")).status, 0);
    const auto bind = [&](const std::string &password) {
        return sandbox().client("ldapwhoami", {"-D", dn, "-w", password}).status;
    };
    EXPECT_EQ(bind("first"), 0);
    const Finished own =
        sandbox().client("ldappasswd", {"-D", dn, "-w", "first", "-a", "first", "-s", "second"});
    EXPECT_EQ(own.status, 0) << own.err;
    EXPECT_EQ(bind("first"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind("second"), 0);
    EXPECT_EQ(sandbox().client_as_admin("ldappasswd", {"-s", "third", dn}).status, 0);
    EXPECT_EQ(bind("third"), 0);
    const std::string other = sandbox().somebody();
    const Finished others =
        sandbox().client("ldappasswd", {"-D", dn, "-w", "third", "-s", "x", other});
    EXPECT_NE(others.status, 0) << other;
    EXPECT_NE(others.out.find("(50)"), std::string::npos) << others.out << others.err;
    EXPECT_EQ(sandbox().client_as_admin("ldapdelete", {dn}).status, 0);
}

TEST(Clients, BindWithSaslAndAreKnownByTheirEntry)
{
    const Session admin = sandbox().admin();
    const std::string member =
        search(admin, "cn=administrators,ou=groups," + base, "(member=*)", "member").at(0);
    const std::string dn = member.substr(member.find(": ") + 2);
    const std::string uid = dn.substr(4, dn.find(',') - 4);
    for (const char *mechanism : {"SCRAM-SHA-256", "DIGEST-MD5", "CRAM-MD5"}) {
        const std::vector<std::string> bind = {"-Q", "-H", sandbox().url(), "-Y", mechanism, "-U",
                                               uid,  "-w", "password"};
        std::vector<std::string> whoami = {"/usr/bin/ldapwhoami"};
        whoami.insert(whoami.end(), bind.begin(), bind.end());
        EXPECT_EQ(support::run(whoami).out, "dn:" + dn + "\n") << mechanism;

        // The sandbox's own operations know them too: this one may split.
        std::vector<std::string> split = {"/usr/bin/ldapexop"};
        split.insert(split.end(), bind.begin(), bind.end());
        split.push_back(LDAPX_SPLIT_PARTITION_REQUEST ":" + std::string("\x02\x01\x01\x04", 4) +
                        static_cast<char>(sales.size()) + sales);
        const Finished done = support::run(split);
        EXPECT_EQ(done.status, 0) << mechanism << done.err;
        std::string root = sales;
        EXPECT_EQ(ldap_merge_partitions(admin.get(), root.data(), 0), LDAP_SUCCESS);
    }
}

TEST(Clients, AnExtendedOperationOfOursCanBeSentByHand)
{
    const Finished done =
        sandbox().client("ldapexop", {LDAPX_PARTITION_ENTRY_COUNT_REQUEST ":\x04\x11" + base});
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_NE(done.out.find("oid: " LDAPX_PARTITION_ENTRY_COUNT_RESPONSE), std::string::npos)
        << done.out;
}

TEST(Clients, ManyAtOnceGetEachItsOwn)
{
    const auto start = [](const std::string &program, std::vector<std::string> arguments,
                          const std::string &input = {}) {
        arguments.insert(arguments.begin(), {"/usr/bin/" + program, "-x", "-H", sandbox().url(),
                                             "-D", admin_dn, "-w", "secret"});
        return support::Child(arguments, {.stdin_text = input});
    };
    const std::string whole =
        sandbox().client_as_admin("ldapsearch", {"-LLL", "-b", "ou=groups," + base}).out;
    std::vector<support::Child> readers;
    std::vector<support::Child> writers;
    for (int i = 0; i < 6; ++i) {
        std::string ldif;
        for (int n = 0; n < 100; ++n)
            ldif += person_ldif("many" + std::to_string(i) + "-" + std::to_string(n)) + "\n";
        writers.push_back(start("ldapadd", {}, ldif));
        readers.push_back(start("ldapsearch", {"-LLL", "-b", "ou=groups," + base}));
    }
    for (support::Child &reader : readers)
        EXPECT_EQ(reader.wait().out, whole);
    for (support::Child &writer : writers)
        EXPECT_EQ(writer.wait().status, 0);
    EXPECT_EQ(search(sandbox().admin(), sales, "(uid=many*)").size(), 600U);

    std::vector<support::Child> removers;
    for (int i = 0; i < 6; ++i) {
        std::string names;
        for (int n = 0; n < 100; ++n)
            names += "uid=many" + std::to_string(i) + "-" + std::to_string(n) + "," + sales + "\n";
        removers.push_back(start("ldapdelete", {}, names));
    }
    for (support::Child &remover : removers)
        EXPECT_EQ(remover.wait().status, 0);
    EXPECT_TRUE(search(sandbox().admin(), sales, "(uid=many*)").empty());
}

TEST(SampleTree, HoldsWhatItPromises)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(search(admin, base, "(objectClass=*)").size(), 1200U);
    EXPECT_GT(search(admin, base, "(objectClass=inetOrgPerson)").size(), 1100U);
    EXPECT_EQ(search(admin, base, "(objectClass=directoryServer)").size(), 3U);
    EXPECT_EQ(search(admin, "ou=groups," + base, "(objectClass=groupOfNames)").size(), 11U);
    EXPECT_FALSE(search(admin, base, "(cn=Zoë*)").empty()) << "names outside ASCII";
    // Every member of every group is an entry.
    for (const std::string &member : search(admin, "ou=groups," + base, "(member=*)", "member"))
        EXPECT_EQ(search(admin, member.substr(member.find(": ") + 2), "(uid=*)").size(), 1U);
}

TEST(SampleTree, KeepsPasswordsAndThePayrollFromThoseWhoShouldNotSeeThem)
{
    const Session nobody = sandbox().anonymous();
    EXPECT_TRUE(search(nobody, base, "(uid=*)", "userPassword").empty());
    EXPECT_THROW(search(nobody, "ou=payroll," + base, "(cn=*)"), std::runtime_error);
    EXPECT_FALSE(search(sandbox().admin(), "ou=payroll," + base, "(cn=*)", "description").empty());

    const std::string clerk =
        search(nobody, "cn=payroll,ou=groups," + base, "(member=*)", "member").at(0);
    const Session allowed = sandbox().as(clerk.substr(clerk.find(": ") + 2));
    EXPECT_EQ(search(allowed, "ou=payroll," + base, "(cn=record*)").size(), 10U);
}

// Runs last: with a sanitizer, what was leaked or written astray in all of the above shows here.
TEST(AfterAll, ItEndsCleanly)
{
    EXPECT_TRUE(sandbox().ends_cleanly());
}

} // namespace
