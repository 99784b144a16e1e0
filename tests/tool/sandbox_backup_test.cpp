// Backup and restore of entries of a real tree, through the library's functions.

#include "monitor.h"
#include "sandbox.h"
#include "support/ber.h"
#include "support/updates.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::Changes;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

constexpr int entry_add = 1; // the number of the event

struct Copy {
    int code = -1;
    std::string text;
    std::string state;
    std::string data;
    std::string chunks;

    std::vector<std::size_t> chunk_sizes() const // without the count in front
    {
        std::vector<std::size_t> sizes;
        std::istringstream list(chunks);
        for (std::string number; std::getline(list, number, ';');)
            sizes.push_back(std::stoul(number));
        if (!sizes.empty())
            sizes.erase(sizes.begin());
        return sizes;
    }
};

// Reads the list that the library does not terminate: count + 1 numbers, each with its ";".
std::string chunk_list(const char *list)
{
    std::size_t left = std::stoul(std::string(list, std::strchr(list, ';'))) + 1;
    std::size_t length = 0;
    while (left > 0)
        left -= list[length++] == ';' ? 1U : 0U;
    return {list, length};
}

Copy backup(const Session &session, const std::string &dn, const std::string &password = "pw",
            const std::string &since = {})
{
    Copy copy;
    char *state = since.empty() ? nullptr : strdup(since.c_str());
    char *data = nullptr;
    char *chunks = nullptr;
    int size = 0;
    copy.code = ldap_backup_object(session.get(), dn.c_str(), password.c_str(), &state, &data,
                                   &chunks, &size);
    if (copy.code == LDAP_SUCCESS) {
        copy.state = state;
        copy.data.assign(data, static_cast<std::size_t>(size));
        copy.chunks = chunk_list(chunks);
    } else {
        copy.text = diagnostic(session);
    }
    ldapx_memfree(state);
    ldapx_memfree(data);
    ldapx_memfree(chunks);
    return copy;
}

int restore(const Session &session, const std::string &dn, const Copy &copy,
            const std::string &password = "pw")
{
    std::string data = copy.data;
    std::string chunks = copy.chunks;
    return ldap_restore_object(session.get(), dn.c_str(), password.c_str(), data.data(),
                               chunks.data(), static_cast<int>(data.size()));
}

// An entry with everything that slapd knows of it, its lines sorted; without the number that it
// gives every change, be it a restore.
std::string entry(const std::string &dn)
{
    std::string text = sandbox()
                           .client_as_admin("ldapsearch", {"-LLL", "-o", "ldif-wrap=no", "-s",
                                                           "base", "-b", dn, "*", "+"})
                           .out;
    std::istringstream lines(text);
    std::vector<std::string> sorted;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("entryCSN: ", 0) != 0)
            sorted.push_back(line);
    std::sort(sorted.begin(), sorted.end());
    text.clear();
    for (const std::string &line : sorted)
        text.append(line).append("\n");
    return text;
}

int remove(const Session &session, const std::string &dn)
{
    return ldap_delete_ext_s(session.get(), dn.c_str(), nullptr, nullptr);
}

int set_title(const Session &session, const std::string &dn, const std::string &title)
{
    Changes changes{{"title", {title}, LDAP_MOD_REPLACE}};
    return ldap_modify_ext_s(session.get(), dn.c_str(), changes.get(), nullptr, nullptr);
}

int add_person(const Session &session, const std::string &uid)
{
    Changes person{{"objectClass", {"inetOrgPerson"}},
                   {"uid", {uid}},
                   {"cn", {"Person " + uid}},
                   {"sn", {uid}},
                   {"userPassword", {"password"}},
                   {"mail", {"b@example.com", "a@example.com"}},
                   {"jpegPhoto",
                    {std::string("\xff\xd8\0\0\x01\xff\xd9", 7)},
                    LDAP_MOD_ADD | LDAP_MOD_BVALUES}};
    return ldap_add_ext_s(session.get(), ("uid=" + uid + "," + people).c_str(), person.get(),
                          nullptr, nullptr);
}

std::string dn_of(const std::string &uid)
{
    return "uid=" + uid + "," + people;
}

// A new person, and a copy of it.
Copy copy_of(const Session &session, const std::string &uid, const std::string &password = "pw")
{
    EXPECT_EQ(add_person(session, uid), LDAP_SUCCESS);
    Copy copy = backup(session, dn_of(uid), password);
    EXPECT_EQ(copy.code, LDAP_SUCCESS) << copy.text;
    return copy;
}

TEST(Backup, ADeletedEntryComesBackEqualInEveryAttribute)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "equal");
    const std::string before = entry(dn_of("equal"));
    ASSERT_NE(before.find("entryUUID"), std::string::npos);
    ASSERT_NE(before.find("jpegPhoto"), std::string::npos);
    ASSERT_NE(before.find("userPassword"), std::string::npos);
    ASSERT_EQ(remove(admin, dn_of("equal")), LDAP_SUCCESS);

    ASSERT_EQ(restore(admin, dn_of("equal"), copy), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(entry(dn_of("equal")), before);
    EXPECT_NO_THROW(sandbox().as(dn_of("equal")));
    EXPECT_NE(backup(admin, dn_of("equal")).state, copy.state); // a restore is a change
}

TEST(Backup, AChangedEntryIsChangedBackWithEverythingBelowItUntouched)
{
    const Session admin = sandbox().admin();
    const std::string dn = "ou=sales," + people;
    const Copy copy = backup(admin, dn);
    const std::string before = entry(dn);
    const std::size_t below = search(admin, dn, "(objectClass=*)").size();
    ASSERT_GT(below, 1U);
    Changes changes{{"description", {"another"}, LDAP_MOD_REPLACE}, {"l", {"Ulm"}, LDAP_MOD_ADD}};
    ASSERT_EQ(ldap_modify_ext_s(admin.get(), dn.c_str(), changes.get(), nullptr, nullptr), 0);
    ASSERT_NE(entry(dn), before);

    EXPECT_EQ(restore(admin, dn, copy), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(entry(dn), before);
    EXPECT_EQ(search(admin, dn, "(objectClass=*)").size(), below);
    EXPECT_EQ(restore(admin, dn, copy), LDAP_SUCCESS); // nothing is left to do
    EXPECT_EQ(entry(dn), before);
}

TEST(Backup, AChangeOfTheSameSecondIsTakenBackWithItsTime)
{
    const Session admin = sandbox().admin();
    for (const char *uid : {"timed1", "timed2", "timed3"}) { // a second may end in between
        const Copy copy = copy_of(admin, uid);
        const std::string before = entry(dn_of(uid));
        ASSERT_EQ(set_title(admin, dn_of(uid), "another"), LDAP_SUCCESS);
        std::this_thread::sleep_for(std::chrono::milliseconds(1001));
        EXPECT_EQ(restore(admin, dn_of(uid), copy), LDAP_SUCCESS) << diagnostic(admin);
        EXPECT_EQ(entry(dn_of(uid)), before);
    }
}

TEST(Backup, TheDataHoldsZeroBytesAndItsChunksAddUp)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "chunks");
    EXPECT_NE(copy.data.find('\0'), std::string::npos);
    EXPECT_NE(copy.data.find(std::string("\xff\xd8\0\0\x01\xff\xd9", 7)), std::string::npos);
    const std::vector<std::size_t> sizes = copy.chunk_sizes();
    EXPECT_GT(sizes.size(), 5U);
    EXPECT_EQ(copy.chunks.substr(0, copy.chunks.find(';')), std::to_string(sizes.size()));
    EXPECT_EQ(std::accumulate(sizes.begin(), sizes.end(), std::size_t{0}), copy.data.size());
}

TEST(Backup, AnEntryOfAnySizeComesBack)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(add_person(admin, "large"), LDAP_SUCCESS);
    std::string picture(3'000'000, '\0');
    for (std::size_t i = 0; i < picture.size(); ++i)
        picture[i] = static_cast<char>(i * 7 + i / 1000);
    Changes changes{{"jpegPhoto", {picture}, LDAP_MOD_REPLACE | LDAP_MOD_BVALUES}};
    ASSERT_EQ(
        ldap_modify_ext_s(admin.get(), dn_of("large").c_str(), changes.get(), nullptr, nullptr),
        LDAP_SUCCESS);
    const Copy copy = backup(admin, dn_of("large"));
    const std::string before = entry(dn_of("large"));
    ASSERT_EQ(remove(admin, dn_of("large")), LDAP_SUCCESS);
    EXPECT_EQ(restore(admin, dn_of("large"), copy), LDAP_SUCCESS) << diagnostic(admin);
    EXPECT_EQ(entry(dn_of("large")), before);
}

TEST(Backup, TheMarksAdvanceWithEveryChangeAndOnlyThen)
{
    const Session admin = sandbox().admin();
    const Copy first = copy_of(admin, "marks");
    const auto marks = [](const Copy &copy) {
        int mts = 0;
        int revision = 0;
        EXPECT_EQ(std::sscanf(copy.state.c_str(), "%d+%d", &mts, &revision), 2) << copy.state;
        EXPECT_GT(mts, 0);
        EXPECT_GT(revision, 0);
        return std::pair(mts, revision);
    };
    auto last = marks(first);
    EXPECT_EQ(marks(backup(admin, dn_of("marks"), "pw", first.state)), last);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(set_title(admin, dn_of("marks"), "title " + std::to_string(i)), LDAP_SUCCESS);
        const auto next = marks(backup(admin, dn_of("marks"), "pw", first.state));
        EXPECT_GT(next, last);
        last = next;
    }
}

TEST(Backup, AnotherPasswordThanThatOfTheBackupIsRefused)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "guarded", "right");
    ASSERT_EQ(remove(admin, dn_of("guarded")), LDAP_SUCCESS);
    for (const std::string wrong : {"wrong", "", "righ", "rightt", "Right"})
        EXPECT_EQ(restore(admin, dn_of("guarded"), copy, wrong), LDAP_INVALID_CREDENTIALS) << wrong;
    EXPECT_EQ(diagnostic(admin), "the copy was taken with another password");
    EXPECT_TRUE(search(admin, base, "(uid=guarded)").empty());
    EXPECT_EQ(copy.data.find("right"), std::string::npos);
    EXPECT_EQ(restore(admin, dn_of("guarded"), copy, "right"), LDAP_SUCCESS);

    const Copy open = copy_of(admin, "unguarded", "");
    EXPECT_EQ(restore(admin, dn_of("unguarded"), open, "x"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(restore(admin, dn_of("unguarded"), open, ""), LDAP_SUCCESS);
}

TEST(Backup, APasswordThatCannotBeKeptIsRefused)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(backup(admin, people, std::string(5000, 'x')).code, LDAP_INVALID_CREDENTIALS);
}

TEST(Backup, ASandboxWithABackupPasswordTakesNoOther)
{
    support::TemporaryDirectory directory;
    const std::string file = directory.path() + "/password";
    std::ofstream(file) << "the one\n";
    Sandbox guarded({"--entries", "100", "--backup-password-file", file});
    const Session admin = guarded.admin();
    EXPECT_EQ(backup(admin, people, "").code, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(backup(admin, people, "another").code, LDAP_INVALID_CREDENTIALS);
    const Copy copy = backup(admin, people, "the one");
    EXPECT_EQ(copy.code, LDAP_SUCCESS);
    EXPECT_EQ(restore(admin, people, copy, "another"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(restore(admin, people, copy, "the one"), LDAP_SUCCESS);

    const Copy foreign = backup(sandbox().admin(), people, "another");
    EXPECT_EQ(restore(admin, people, foreign, "the one"), LDAP_INVALID_CREDENTIALS);
}

TEST(Backup, OnlyWhoMayChangeTheEntryGetsACopyAndMayRestore)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "rights");
    const Session anonymous = sandbox().anonymous();
    const Session somebody = sandbox().as(sandbox().somebody());
    const Session self = sandbox().as(dn_of("rights")); // its password and telephone only
    for (const Session *session : {&anonymous, &somebody, &self}) {
        EXPECT_EQ(backup(*session, dn_of("rights")).code, LDAP_INSUFFICIENT_ACCESS);
        EXPECT_EQ(restore(*session, dn_of("rights"), copy), LDAP_INSUFFICIENT_ACCESS);
    }
    ASSERT_EQ(remove(admin, dn_of("rights")), LDAP_SUCCESS);
    EXPECT_EQ(restore(somebody, dn_of("rights"), copy), LDAP_INSUFFICIENT_ACCESS);
    EXPECT_TRUE(search(admin, base, "(uid=rights)").empty());

    const std::string member =
        search(admin, "cn=administrators,ou=groups," + base, "(cn=administrators)", "member").at(0);
    const Session administrator = sandbox().as(member.substr(member.find(": ") + 2));
    EXPECT_EQ(restore(administrator, dn_of("rights"), copy), LDAP_SUCCESS)
        << diagnostic(administrator);
    EXPECT_EQ(backup(administrator, dn_of("rights")).code, LDAP_SUCCESS);
}

TEST(Backup, WhatIsNotThereCannotBeBackedUp)
{
    const Session admin = sandbox().admin();
    EXPECT_EQ(backup(admin, dn_of("nobody")).code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(backup(admin, "not a name").code, LDAP_INVALID_DN_SYNTAX);
}

TEST(Backup, ARestoreWithoutAParentIsRefused)
{
    const Session admin = sandbox().admin();
    Changes unit{{"objectClass", {"organizationalUnit"}}};
    const std::string parent = "ou=orphans," + people;
    const std::string child = "ou=child," + parent;
    ASSERT_EQ(ldap_add_ext_s(admin.get(), parent.c_str(), unit.get(), nullptr, nullptr), 0);
    ASSERT_EQ(ldap_add_ext_s(admin.get(), child.c_str(), unit.get(), nullptr, nullptr), 0);
    const Copy copy = backup(admin, child);
    ASSERT_EQ(remove(admin, child), LDAP_SUCCESS);
    ASSERT_EQ(remove(admin, parent), LDAP_SUCCESS);
    EXPECT_EQ(restore(admin, child, copy), LDAP_NO_SUCH_OBJECT);
}

TEST(Backup, AnotherEntryIsNeverOverwritten)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "replaced");
    ASSERT_EQ(remove(admin, dn_of("replaced")), LDAP_SUCCESS);
    ASSERT_EQ(add_person(admin, "replaced"), LDAP_SUCCESS);
    const std::string other = entry(dn_of("replaced"));
    EXPECT_EQ(restore(admin, dn_of("replaced"), copy), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(entry(dn_of("replaced")), other);

    const Copy renamed = copy_of(admin, "oldname");
    ASSERT_EQ(ldap_rename_s(admin.get(), dn_of("oldname").c_str(), "uid=newname", nullptr, 1,
                            nullptr, nullptr),
              LDAP_SUCCESS);
    EXPECT_EQ(restore(admin, dn_of("oldname"), renamed), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(restore(admin, dn_of("newname"), renamed), LDAP_CONSTRAINT_VIOLATION);
    EXPECT_EQ(diagnostic(admin), "the copy is one of " + dn_of("oldname"));
}

TEST(Backup, ADamagedCopyIsRefusedWhateverByteIsWrong)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "damaged");
    ASSERT_EQ(remove(admin, dn_of("damaged")), LDAP_SUCCESS);
    for (std::size_t i = 0; i < copy.data.size(); ++i) {
        Copy altered = copy;
        altered.data[i] = static_cast<char>(altered.data[i] ^ (1 << i % 8));
        ASSERT_EQ(restore(admin, dn_of("damaged"), altered), LDAP_CONSTRAINT_VIOLATION) << i;
    }
    EXPECT_NE(diagnostic(admin).find("the copy is damaged: chunk"), std::string::npos);
    EXPECT_TRUE(search(admin, base, "(uid=damaged)").empty());
    EXPECT_EQ(restore(admin, dn_of("damaged"), copy), LDAP_SUCCESS);
}

TEST(Backup, ACutCopyIsRefusedEvenWhenItsSizesAddUp)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "cut");
    for (std::size_t size = 0; size < copy.data.size(); size += 3) {
        Copy cut = copy;
        cut.data.resize(size);
        EXPECT_EQ(restore(admin, dn_of("cut"), cut), LDAP_PROTOCOL_ERROR);
        cut.chunks = "1;" + std::to_string(size) + ";";
        ASSERT_EQ(restore(admin, dn_of("cut"), cut), LDAP_CONSTRAINT_VIOLATION) << size;
    }
    Copy empty = copy;
    empty.data = "";
    empty.chunks = "0;";
    EXPECT_EQ(restore(admin, dn_of("cut"), empty), LDAP_CONSTRAINT_VIOLATION);
    Copy other = copy; // the right number of bytes in other chunks
    other.chunks = "1;" + std::to_string(copy.data.size()) + ";";
    EXPECT_EQ(restore(admin, dn_of("cut"), other), LDAP_CONSTRAINT_VIOLATION);
}

TEST(Backup, ChunksThatDoNotAddUpAreRefused)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "sums");
    const std::string size = std::to_string(copy.data.size());
    for (const std::string &list :
         {std::string("0;"), "2;" + size + ";", "1;" + size + ";1;", "2;" + size + ";-1;",
          "-1;" + size + ";", std::string("1;1;")}) {
        Copy wrong = copy;
        wrong.chunks = list;
        EXPECT_EQ(restore(admin, dn_of("sums"), wrong), LDAP_PROTOCOL_ERROR) << list;
        EXPECT_NE(diagnostic(admin).find("restore object: "), std::string::npos);
    }
}

TEST(Backup, RequestsThatCannotBeReadAreRefusedAtEveryByte)
{
    const Session admin = sandbox().admin();
    const auto send = [&](const char *name, std::string value) {
        berval request{value.size(), value.data()};
        return ldap_extended_operation_s(admin.get(), name, &request, nullptr, nullptr, nullptr,
                                         nullptr);
    };
    const std::string backup_request =
        support::octets(people) + support::integer(0) + support::integer(0) + support::octets("pw");
    for (const std::string &cut : support::cuts(backup_request))
        ASSERT_EQ(send(LDAPX_BACKUP_OBJECT_REQUEST, cut), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(send(LDAPX_BACKUP_OBJECT_REQUEST, backup_request + "x"), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(send(LDAPX_BACKUP_OBJECT_REQUEST, backup_request), LDAP_SUCCESS);

    const auto restore_request = [](int announced) {
        return support::octets(people) + support::octets("pw") + support::integer(announced) +
               support::octets("data") +
               support::sequence(support::integer(1),
                                 support::set(support::sequence(support::integer(4))));
    };
    for (const std::string &cut : support::cuts(restore_request(4)))
        ASSERT_EQ(send(LDAPX_RESTORE_OBJECT_REQUEST, cut), LDAP_PROTOCOL_ERROR);
    for (const int wrong : {3, 5, -4, 0})
        EXPECT_EQ(send(LDAPX_RESTORE_OBJECT_REQUEST, restore_request(wrong)), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(send(LDAPX_RESTORE_OBJECT_REQUEST, restore_request(4)), LDAP_CONSTRAINT_VIOLATION);
}

TEST(Backup, ARestoreReachesMonitorsAsTheAdditionThatItIs)
{
    const Session admin = sandbox().admin();
    const Copy copy = copy_of(admin, "seen");
    ASSERT_EQ(remove(admin, dn_of("seen")), LDAP_SUCCESS);
    Monitor monitor(sandbox().admin(), {{entry_add}});
    ASSERT_EQ(restore(admin, dn_of("seen"), copy), LDAP_SUCCESS);
    const Event event = monitor.next();
    ASSERT_EQ(event.type, entry_add);
    EXPECT_STREQ(event.as<EVT_EntryInfo>()->entryDN, dn_of("seen").c_str());
}

} // namespace
