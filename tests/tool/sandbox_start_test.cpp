// How the sandbox starts, what it says when it cannot, and that it leaves nothing behind.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::Finished;
using support::TemporaryDirectory;

namespace {

// Runs a sandbox that is expected to end by itself, with a temporary directory to look into.
struct Attempt {
    TemporaryDirectory directory;
    Finished finished;

    explicit Attempt(std::vector<std::string> options,
                     std::map<std::string, std::string> environment = {})
    {
        if (std::find(options.begin(), options.end(), "--port") == options.end())
            options.insert(options.begin(), {"--port", "0"});
        options.insert(options.begin(), SANDBOX_PROGRAM);
        environment["TMPDIR"] = directory.path();
        finished = support::run(options, {.environment = environment});
    }
    bool left_nothing() const
    {
        return std::filesystem::is_empty(directory.path());
    }
};

std::string file_in(const TemporaryDirectory &directory, const std::string &name,
                    const std::string &content)
{
    const std::string path = directory.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

const std::string company = "dn: o=Company\nobjectClass: organization\no: Company\n\n";

// True when all of them are gone within a few seconds.
bool all_gone(const std::vector<pid_t> &processes)
{
    for (int i = 0; i < 250; ++i) {
        bool any = false;
        for (const pid_t process : processes)
            any = any || is_alive(process);
        if (!any)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

TEST(Starting, TheFirstLineTellsTheAddressAndTheNextWhatIsThere)
{
    Sandbox sandbox;
    EXPECT_TRUE(std::regex_match(sandbox.url(), std::regex("ldap://127\\.0\\.0\\.1:[0-9]+/")))
        << sandbox.url();
    EXPECT_EQ(sandbox.process().read_line(),
              "base:          dc=example,dc=com (a sample tree of 1200 entries)");
    EXPECT_EQ(sandbox.process().read_line(), "administrator: cn=admin,dc=example,dc=com");
    EXPECT_EQ(sandbox.process().read_line(), "password:      secret");
    EXPECT_EQ(search(sandbox.admin(), base, "(ou=people)").size(), 1U) << "at once";
}

TEST(Starting, ItsDirectoryIsForNobodyElse)
{
    Sandbox sandbox({"--entries", "100"});
    ASSERT_EQ(sandbox.left_behind().size(), 1U);
    const auto mode = std::filesystem::status(sandbox.left_behind()[0]).permissions();
    EXPECT_EQ(mode & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
              std::filesystem::perms::none);
}

TEST(Starting, ListensOnSeveralLoopbackAddresses)
{
    Sandbox sandbox({"--entries", "100", "--address", "127.0.0.1", "--address", "::1"});
    const std::string second = sandbox.process().read_line();
    ASSERT_TRUE(std::regex_match(second, std::regex("listening on ldap://\\[::1\\]:[0-9]+/")))
        << second;
    const Session session = connect(second.substr(second.find("ldap:")));
    EXPECT_EQ(search(session, base, "(ou=people)").size(), 1U);
    EXPECT_EQ(search(sandbox.anonymous(), base, "(ou=people)").size(), 1U);
}

TEST(Starting, AnAddressThatIsNotLoopbackIsWrongUsage)
{
    for (const char *address : {"0.0.0.0", "192.0.2.1", "localhost", "::"}) {
        const Attempt attempt({"--address", address});
        EXPECT_EQ(attempt.finished.status, 2) << address;
        EXPECT_NE(attempt.finished.err.find("is not a loopback address"), std::string::npos)
            << attempt.finished.err;
        EXPECT_TRUE(attempt.left_nothing());
    }
}

TEST(Starting, APortInUseIsSaidWithAWayOut)
{
    Sandbox first({"--entries", "100"});
    const std::string port = std::to_string(first.port());
    const Attempt attempt({"--port", port});
    EXPECT_EQ(attempt.finished.status, 1);
    EXPECT_EQ(attempt.finished.err,
              "greirige-sandbox: cannot listen on 127.0.0.1:" + port +
                  ": address already in use (is another server there? --port 0 takes any free "
                  "port)\n");
    EXPECT_EQ(attempt.finished.out, "");
    EXPECT_TRUE(attempt.left_nothing());
    EXPECT_EQ(search(first.admin(), base, "(ou=people)").size(), 1U);
}

TEST(Starting, AMissingSlapdIsSaidWithHowToInstallIt)
{
    const Attempt attempt({"--slapd", "/nowhere/slapd"});
    EXPECT_EQ(attempt.finished.status, 1);
    EXPECT_NE(attempt.finished.err.find("there is no /nowhere/slapd"), std::string::npos);
    EXPECT_NE(attempt.finished.err.find("apt-get install slapd"), std::string::npos);
    EXPECT_TRUE(attempt.left_nothing());
}

TEST(Starting, FindsSlapdWithoutAPath)
{
    Attempt attempt({"--slapd", "no-such-slapd"}, {{"PATH", ""}});
    EXPECT_EQ(attempt.finished.status, 1);
    const TemporaryDirectory directory;
    support::Child sandbox({SANDBOX_PROGRAM, "--port", "0", "--entries", "100"},
                           {.environment = {{"PATH", ""}, {"TMPDIR", directory.path()}}});
    EXPECT_EQ(sandbox.read_line().rfind("listening on ", 0), 0U);
}

TEST(Starting, ASlapdThatCannotRunIsSaidInItsOwnWords)
{
    const TemporaryDirectory directory;
    const std::string broken =
        file_in(directory, "slapd", "#!/bin/sh\necho 'the disk is on fire' >&2\nexit 1\n");
    std::filesystem::permissions(broken, std::filesystem::perms::owner_all);
    const Attempt attempt({"--slapd", broken});
    EXPECT_EQ(attempt.finished.status, 1);
    EXPECT_NE(attempt.finished.err.find("the disk is on fire"), std::string::npos)
        << attempt.finished.err;
    EXPECT_TRUE(attempt.left_nothing());
}

TEST(Starting, ATemporaryDirectoryThatCannotServeIsSaid)
{
    const TemporaryDirectory directory;
    const std::string deep = directory.path() + "/" + std::string(90, 'd');
    std::filesystem::create_directory(deep);
    const Finished too_long =
        support::run({SANDBOX_PROGRAM, "--port", "0"}, {.environment = {{"TMPDIR", deep}}});
    EXPECT_EQ(too_long.status, 1);
    EXPECT_NE(too_long.err.find("too long for a socket"), std::string::npos) << too_long.err;
    EXPECT_TRUE(std::filesystem::is_empty(deep));
    const Finished nowhere = support::run({SANDBOX_PROGRAM, "--port", "0"},
                                          {.environment = {{"TMPDIR", deep + "/nowhere"}}});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_NE(nowhere.err.find("No such file or directory"), std::string::npos) << nowhere.err;
}

TEST(Usage, HelpShowsEveryOptionAndExamples)
{
    const Finished help = support::run({SANDBOX_PROGRAM, "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *word :
         {"--port", "--address", "--ldif", "--base", "--entries", "--admin-dn",
          "--admin-password-file", "--schema", "--slapd", "--max-message", "--operation-delay",
          "--lburp-transaction-size", "--backup-password-file", "--verbose", "--version",
          "Examples:", "Exit status:"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    const Finished version = support::run({SANDBOX_PROGRAM, "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "greirige-sandbox " + std::string(ldapx_version()) + "\n");
}

TEST(Usage, WhatCannotBeMeantIsRefused)
{
    for (const std::vector<std::string> &options :
         std::vector<std::vector<std::string>>{{"--prot", "389"},
                                               {"--port", "70000"},
                                               {"--port", "ldap"},
                                               {"--entries", "5"},
                                               {"--base", "example"},
                                               {"--admin-dn", "cn=admin,o=elsewhere"},
                                               {"--max-message", "12"},
                                               {"stray"}}) {
        const Attempt attempt(options);
        EXPECT_EQ(attempt.finished.status, 2) << options[0];
        EXPECT_FALSE(attempt.finished.err.empty());
        EXPECT_EQ(attempt.finished.out, "");
        EXPECT_TRUE(attempt.left_nothing());
    }
}

// ---- A tree of one's own -----------------------------------------------------------------------

TEST(OwnTree, TakesItsNamingContextFromTheFirstEntry)
{
    const TemporaryDirectory directory;
    const std::string ldif =
        file_in(directory, "own.ldif",
                "version: 1\n\n# ours\n\ndn: O=Bücher\\, Łódź\nobjectClass: organization\n"
                "description: folded over\n  two lines\n\n"
                "dn:: b3U9w4ksTz1Cw7xjaGVyXCwgxYHDs2TFug==\nobjectClass: organizationalUnit\n");
    Sandbox sandbox({"--ldif", ldif});
    const std::string base = "O=Bücher\\, Łódź";
    EXPECT_EQ(sandbox.process().read_line(), "base:          " + base + " (" + ldif + ")");
    const Session admin = connect(sandbox.url(), "cn=admin," + base, "secret");
    EXPECT_EQ(search(admin, base, "(objectClass=*)").size(), 2U);
    const std::string description = search(admin, base, "(o=*)", "description").at(0);
    EXPECT_NE(description.find(": folded over two lines"), std::string::npos) << description;
    unsigned long entries = 0;
    std::string root = base;
    EXPECT_EQ(ldap_partition_entry_count(admin.get(), root.data(), &entries), LDAP_SUCCESS)
        << "the whole tree is a partition";
    EXPECT_EQ(entries, 2U);
}

TEST(OwnTree, MayMarkItsPartitionsItself)
{
    const TemporaryDirectory directory;
    const std::string ldif =
        file_in(directory, "own.ldif",
                company + "dn: ou=East,o=Company\nobjectClass: organizationalUnit\n"
                          "objectClass: partitionRoot\npartitionState: on\n\n"
                          "dn: ou=West,o=Company\nobjectClass: organizationalUnit\n"
                          "objectClass: partitionRoot\npartitionState: splitting\n");
    Sandbox sandbox({"--ldif", ldif});
    const Session admin = connect(sandbox.url(), "cn=admin,o=Company", "secret");
    std::string east = "ou=East,o=Company";
    EXPECT_EQ(ldap_merge_partitions(admin.get(), east.data(), 0), LDAP_SUCCESS);
    std::string west = "ou=West,o=Company";
    EXPECT_EQ(ldap_split_partition(admin.get(), west.data(), 0), LDAP_SUCCESS)
        << "a split that nobody finishes can be made again: " << diagnostic(admin);
}

TEST(OwnTree, MayBringItsSchemaAndItsAdministrator)
{
    const TemporaryDirectory directory;
    const std::string schema = file_in(
        directory, "ship.schema",
        "attributetype ( 1.2.3.4.5.1 NAME 'tonnage' SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 )\n"
        "objectclass ( 1.2.3.4.5.2 NAME 'ship' SUP top STRUCTURAL MUST cn MAY tonnage )\n");
    const std::string ldif =
        file_in(directory, "ships.ldif",
                company + "dn: cn=Anna,o=Company\nobjectClass: ship\ncn: Anna\ntonnage: 900\n");
    const std::string password = file_in(directory, "password", "quo\"te\\ and $ and {x}\nmore\n");
    Sandbox sandbox({"--ldif", ldif, "--schema", schema, "--admin-dn",
                     "cn=Captain \\\"C\\\",o=Company", "--admin-password-file", password});
    const Session captain =
        connect(sandbox.url(), "cn=Captain \\\"C\\\",o=Company", "quo\"te\\ and $ and {x}");
    EXPECT_EQ(search(captain, "o=Company", "(objectClass=ship)").size(), 1U);

    const Attempt unreadable({"--admin-password-file", directory.path() + "/nowhere"});
    EXPECT_EQ(unreadable.finished.status, 1);
    EXPECT_NE(unreadable.finished.err.find("no password can be read from"), std::string::npos);
    const Attempt nonsense({"--schema", ldif});
    EXPECT_EQ(nonsense.finished.status, 1);
    EXPECT_NE(nonsense.finished.err.find("slapd refuses its configuration"), std::string::npos);
    EXPECT_TRUE(nonsense.left_nothing());
}

TEST(OwnTree, AnErrorNamesFileLineAndReasonAndLeavesNothing)
{
    struct Case {
        const char *title;
        std::string content;
        std::string complaint; // after the file's name
    };
    const std::string unit = "dn: ou=a,o=Company\nobjectClass: organizationalUnit\nou: a\n";
    const std::vector<Case> cases = {
        {"no entry", "# nothing\n", ": there is no entry in it"},
        {"no LDIF", "hello, world\n", ":1: neither"},
        {"no dn", "objectClass: top\n", ":1: a record begins with \"dn:\""},
        {"no name", "dn: company\nobjectClass: organization\n", ":1: not a distinguished name"},
        {"a line without a colon", company + unit + "oops\n", ":8: neither"},
        {"bad base64", company + unit + "description:: %%%\n",
         ":8: the value of description is not"},
        {"bad base64 in a folded line", company + "dn:: b3\n Q!\n", ":5: the value of dn is not"},
        {"a change record", company + "dn: ou=a,o=Company\nchangetype: modify\nadd: l\nl: x\n",
         ":6: a change record"},
        {"a continuation of nothing", company + " more\n", ":5: a continuation line"},
        {"an unknown attribute", company + unit + "colour: blue\n", ":5: "},
        {"an unknown class", company + "dn: cn=a,o=Company\nobjectClass: nonesuch\ncn: a\n",
         ":5: "},
        {"a missing attribute",
         company + "# a comment\n\n\n" + "dn: cn=a,o=Company\nobjectClass: person\ncn: a\n",
         ":8: object class 'person' requires attribute 'sn'"},
        {"no class", company + "dn: cn=a,o=Company\ncn: a\n", ":5: no objectClass attribute"},
        {"a value of the wrong syntax", company + unit + "seeAlso: me\n", ":5: "},
        {"another naming context", company + "dn: ou=a,o=Other\nobjectClass: organizationalUnit\n",
         ":5: entry ou=a,o=Other is not below the first entry"},
        {"a missing parent",
         company + unit + "\ndn: ou=c,ou=b,o=Company\nobjectClass: organizationalUnit\n",
         ":9: the entry above it is missing: ou=b,o=company"},
        {"an entry twice", company + unit + "\n" + unit, ":9: there is an entry of this name"},
    };
    const TemporaryDirectory directory;
    for (const Case &bad : cases) {
        const std::string ldif = file_in(directory, "bad.ldif", bad.content);
        const Attempt attempt({"--ldif", ldif});
        EXPECT_EQ(attempt.finished.status, 1) << bad.title;
        EXPECT_EQ(attempt.finished.err.rfind("greirige-sandbox: " + ldif + bad.complaint, 0), 0U)
            << bad.title << ": " << attempt.finished.err;
        EXPECT_TRUE(attempt.left_nothing()) << bad.title;
    }
    const Attempt missing({"--ldif", directory.path() + "/nowhere.ldif"});
    EXPECT_EQ(missing.finished.status, 1);
    EXPECT_NE(missing.finished.err.find("nowhere.ldif: No such file or directory"),
              std::string::npos)
        << missing.finished.err;
}

TEST(OwnTree, TheSampleTreeGrowsOnAnyKindOfBase)
{
    for (const std::string base : {"o=Größe & Söhne", "ou=here,o=there", "c=DE", "l=Malmö,c=SE"}) {
        Sandbox sandbox({"--base", base, "--entries", "100"});
        const Session admin = connect(sandbox.url(), "cn=admin," + base, "secret");
        EXPECT_EQ(search(admin, base, "(objectClass=*)").size(), 100U) << base;
    }
    EXPECT_EQ(Attempt({"--base", "cn=odd"}).finished.status, 1);
}

TEST(OwnTree, AHundredThousandEntriesAreCountedOneByOne)
{
    Sandbox sandbox({"--entries", "100000"});
    const Session admin = sandbox.admin();
    unsigned long entries = 0;
    std::string root = base;
    ASSERT_EQ(ldap_partition_entry_count(admin.get(), root.data(), &entries), LDAP_SUCCESS);
    EXPECT_EQ(entries, 100000U);
    std::string part = "ou=support,ou=people,dc=example,dc=com";
    ASSERT_EQ(ldap_split_partition(admin.get(), part.data(), 0), LDAP_SUCCESS);
    unsigned long inside = 0;
    EXPECT_EQ(ldap_partition_entry_count(admin.get(), part.data(), &inside), LDAP_SUCCESS);
    EXPECT_EQ(ldap_partition_entry_count(admin.get(), root.data(), &entries), LDAP_SUCCESS);
    EXPECT_GT(inside, 12000U);
    EXPECT_EQ(entries + inside, 100000U);
}

// ---- Ending ------------------------------------------------------------------------------------

TEST(Ending, ASignalEndsItCleanlyAndLeavesNothing)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Sandbox sandbox({"--entries", "100"});
        const std::vector<pid_t> children = sandbox.children();
        ASSERT_FALSE(children.empty());
        RawClient client(sandbox.port());
        client.send(who_am_i(1));
        ASSERT_EQ(message_id(client.receive()), 1);
        sandbox.process().signal(signal);
        EXPECT_TRUE(is_notice(client.receive(), LDAP_UNAVAILABLE)) << "clients are told";
        EXPECT_EQ(sandbox.process().wait().status, 0) << signal;
        EXPECT_TRUE(client.is_closed());
        EXPECT_TRUE(sandbox.left_behind().empty()) << signal;
        EXPECT_TRUE(all_gone(children)) << signal;
    }
}

TEST(Ending, ASignalWhileLoadingEndsItCleanlyToo)
{
    const TemporaryDirectory directory;
    for (const int milliseconds : {50, 150, 300}) {
        support::Child sandbox({SANDBOX_PROGRAM, "--port", "0", "--entries", "100000"},
                               {.environment = {{"TMPDIR", directory.path()}}});
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        sandbox.signal(SIGTERM);
        const Finished finished = sandbox.wait();
        // Before it has taken its signals over, the signal does what it always does.
        EXPECT_TRUE(finished.status == 0 || finished.status == 128 + SIGTERM) << finished.err;
        EXPECT_EQ(finished.out, "");
        EXPECT_TRUE(std::filesystem::is_empty(directory.path())) << milliseconds;
    }
}

TEST(Ending, EvenByForceLeavesNoProcess)
{
    Sandbox sandbox({"--entries", "100"});
    const std::vector<pid_t> children = sandbox.children();
    ASSERT_FALSE(children.empty());
    kill(sandbox.process().pid(), SIGKILL);
    EXPECT_EQ(sandbox.process().wait().status, 128 + SIGKILL);
    EXPECT_TRUE(all_gone(children));
}

TEST(Ending, WithoutItsSlapdItSaysSoAndLeavesNothing)
{
    Sandbox sandbox({"--entries", "100"});
    RawClient client(sandbox.port());
    client.send(who_am_i(1));
    ASSERT_EQ(message_id(client.receive()), 1);
    for (const pid_t child : sandbox.children())
        kill(child, SIGKILL);
    const Finished finished = sandbox.process().wait();
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("slapd has ended"), std::string::npos) << finished.err;
    EXPECT_TRUE(client.is_closed());
    EXPECT_TRUE(sandbox.left_behind().empty());
}

TEST(Ending, AReaderOfItsOutputThatLeavesIsNoReasonTo)
{
    const TemporaryDirectory directory;
    // The first line goes to a file for us, the others to nobody: head has left.
    const std::string first = directory.path() + "/first";
    support::Child shell({"/bin/bash", "-c",
                          SANDBOX_PROGRAM " --port 0 --entries 100 --verbose | head -1 > " + first},
                         {.environment = {{"TMPDIR", directory.path()}}});
    std::string line;
    for (int i = 0; i < 500 && line.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::ifstream file(first);
        std::getline(file, line);
    }
    ASSERT_FALSE(line.empty());
    for (int i = 0; i < 3; ++i) {
        const Session session = connect(line.substr(line.find("ldap:")));
        EXPECT_EQ(search(session, base, "(ou=people)").size(), 1U);
    }
}

// ---- Watching ----------------------------------------------------------------------------------

TEST(Watching, VerboseWritesOneLineForEachOperation)
{
    Sandbox sandbox({"--entries", "100", "--verbose"});
    for (int i = 0; i < 3; ++i)
        sandbox.process().read_line();
    Session admin = sandbox.admin();
    search(admin, base, "(ou=people)");
    std::string dn = "ou=nowhere," + base;
    ldap_split_partition(admin.get(), dn.data(), 0);
    ldap_delete_ext_s(admin.get(), dn.c_str(), nullptr, nullptr);
    for (
        const char *pattern :
        {R"re(127\.0\.0\.1:\d+ op 1 bind "cn=admin,dc=example,dc=com": 0 Success, [\d.]+ ms)re",
         R"re(127\.0\.0\.1:\d+ op 2 search "dc=example,dc=com": 0 Success, 1 entry, [\d.]+ ms)re",
         R"re(127\.0\.0\.1:\d+ op 3 split partition: 32 No such object, [\d.]+ ms)re",
         R"re(127\.0\.0\.1:\d+ op 4 delete "ou=nowhere,dc=example,dc=com": 32 No such object, .*)re"}) {
        const std::string line = sandbox.process().read_line();
        EXPECT_TRUE(std::regex_match(line, std::regex(pattern))) << line;
    }
}

} // namespace
