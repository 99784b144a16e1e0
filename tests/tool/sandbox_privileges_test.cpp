// Effective privileges, against what slapd then really allows.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"
#include "support/ber.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::concat;
using support::octets;
using support::sequence;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

constexpr int none = 0x00;
constexpr int auth = 0x03;
constexpr int read = 0x1f;
constexpr int write = 0x7f;
constexpr int manage = 0xff;

struct Answer {
    int code;
    std::vector<int> privileges;
    bool operator==(const Answer &) const = default;
};
void PrintTo(const Answer &answer, std::ostream *out)
{
    *out << "code " << answer.code << ", " << testing::PrintToString(answer.privileges);
}

Answer rights(const Session &session, std::string subject, std::string target,
              std::vector<std::string> attributes)
{
    std::vector<char *> names;
    for (std::string &attribute : attributes)
        names.push_back(attribute.data());
    names.push_back(nullptr);
    std::vector<int> privileges(attributes.size() + 1);
    int count = 0;
    const int code = ldap_get_effective_privileges_list_ext(
        session.get(), subject.data(), target.data(), names.data(), privileges.data(),
        static_cast<int>(privileges.size()), &count);
    privileges.resize(code == LDAP_SUCCESS ? static_cast<std::size_t>(count) : 0);
    return {code, privileges};
}

Answer right(const Session &session, std::string subject, std::string target, std::string attribute)
{
    int privileges = -1;
    const int code = ldap_get_effective_privileges(session.get(), target.data(), subject.data(),
                                                   attribute.data(), &privileges);
    return {code, {privileges}};
}

std::string first_member(const std::string &group)
{
    const std::string found =
        search(sandbox().admin(), "cn=" + group + ",ou=groups," + base, "(member=*)", "member")
            .at(0);
    return found.substr(found.find(": ") + 2);
}

TEST(Privileges, AreThoseThatSlapdGrantsInTheOrderOfTheQuestion)
{
    const Session admin = sandbox().admin();
    const std::string somebody = sandbox().somebody();
    const std::string other = first_member("helpdesk");
    const std::vector<std::string> asked = {"cn", "userPassword", "telephoneNumber",
                                            "cn", "entry",        "children"};
    EXPECT_EQ(rights(admin, somebody, somebody, asked),
              (Answer{0, {read, write, write, read, read, read}}))
        << "oneself";
    EXPECT_EQ(rights(admin, somebody, other, asked),
              (Answer{0, {read, none, read, read, read, read}}))
        << "somebody else";
    EXPECT_EQ(rights(admin, "", somebody, asked), (Answer{0, {read, auth, read, read, read, read}}))
        << "anonymous";
    EXPECT_EQ(rights(admin, first_member("administrators"), somebody, asked),
              (Answer{0, {write, write, write, write, write, write}}));
    EXPECT_EQ(rights(admin, admin_dn, somebody, asked),
              (Answer{0, {manage, manage, manage, manage, manage, manage}}));
    EXPECT_EQ(right(admin, somebody, somebody, "telephoneNumber"), (Answer{0, {write}}));
    EXPECT_EQ(right(admin, somebody, other, "telephoneNumber"), (Answer{0, {read}}));
}

TEST(Privileges, AgreeWithWhatSlapdThenAllows)
{
    const std::string somebody = sandbox().somebody();
    const Session session = sandbox().as(somebody);
    for (const char *attribute : {"telephoneNumber", "mobile", "title", "description"}) {
        std::string name = attribute;
        std::string text = "12345";
        char *values[] = {text.data(), nullptr};
        LDAPMod change{};
        change.mod_op = LDAP_MOD_REPLACE;
        change.mod_type = name.data();
        change.mod_values = values;
        LDAPMod *changes[] = {&change, nullptr};
        const bool allowed = ldap_modify_ext_s(session.get(), somebody.c_str(), changes, nullptr,
                                               nullptr) == LDAP_SUCCESS;
        const Answer answer = right(session, somebody, somebody, attribute);
        ASSERT_EQ(answer.code, LDAP_SUCCESS) << diagnostic(session);
        EXPECT_EQ((answer.privileges.at(0) & 0x60) == 0x60, allowed) << attribute;
    }
}

TEST(Privileges, FollowTheTreeAsItIsNow)
{
    const Session admin = sandbox().admin();
    const std::string somebody = sandbox().somebody();
    const std::string group = "cn=administrators,ou=groups," + base;
    ASSERT_EQ(right(admin, somebody, people, "description"), (Answer{0, {read}}));
    const auto change = [&](const std::string &how) {
        return sandbox()
            .client_as_admin("ldapmodify", {},
                             "dn: " + group + "\nchangetype: modify\n" + how +
                                 ": member\nmember: " + somebody + "\n")
            .status;
    };
    ASSERT_EQ(change("add"), 0);
    EXPECT_EQ(right(admin, somebody, people, "description"), (Answer{0, {write}}));
    ASSERT_EQ(change("delete"), 0);
    EXPECT_EQ(right(admin, somebody, people, "description"), (Answer{0, {read}}));
}

TEST(Privileges, OfAHiddenEntryAreForThoseWhoSeeIt)
{
    const Session admin = sandbox().admin();
    const std::string payroll = "ou=payroll," + base;
    EXPECT_EQ(right(admin, sandbox().somebody(), payroll, "ou"), (Answer{0, {none}}));
    EXPECT_EQ(right(admin, first_member("payroll"), payroll, "ou"), (Answer{0, {write}}));
    EXPECT_EQ(right(sandbox().anonymous(), "", payroll, "ou").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(right(sandbox().anonymous(), "", people, "ou"), (Answer{0, {read}}));
}

TEST(Privileges, WhatIsNamedMustBeThere)
{
    const Session admin = sandbox().admin();
    const std::string somebody = sandbox().somebody();
    EXPECT_EQ(right(admin, "cn=nobody," + people, people, "cn").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(diagnostic(admin), "there is no subject cn=nobody," + people);
    EXPECT_EQ(right(admin, somebody, "cn=nowhere," + people, "cn").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(right(admin, "garbage", people, "cn").code, LDAP_INVALID_DN_SYNTAX);
    EXPECT_EQ(right(admin, somebody, "", "cn").code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(rights(admin, somebody, people, {"cn", "nosuchattribute", "sn"}).code,
              LDAP_UNDEFINED_TYPE);
    EXPECT_EQ(diagnostic(admin), "there is no attribute type \"nosuchattribute\"");
    for (const char *name : {"", "-d", "-D x", "cn/read", "cn:x", "cn read", "*", "+", "@person"})
        EXPECT_EQ(right(admin, somebody, people, name).code, LDAP_UNDEFINED_TYPE) << name;
    EXPECT_EQ(right(admin, somebody, people, "cn;lang-en"), (Answer{0, {read}}));
    EXPECT_EQ(right(admin, somebody, people, "2.5.4.3"), (Answer{0, {read}}));
    EXPECT_EQ(rights(admin, somebody, people, {}), (Answer{0, {}}));
    EXPECT_EQ(rights(admin, somebody, people, std::vector<std::string>(1001, "cn")).code,
              LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(rights(admin, somebody, people, std::vector<std::string>(1000, "cn")),
              (Answer{0, std::vector<int>(1000, read)}));
}

TEST(Privileges, ManyQuestionsAtOnceAreAllAnswered)
{
    std::vector<std::thread> threads;
    std::vector<Answer> answers(12);
    for (std::size_t i = 0; i < answers.size(); ++i)
        threads.emplace_back([&answers, i] {
            answers[i] = right(sandbox().admin(), "", people, i % 2 == 0 ? "ou" : "userPassword");
        });
    for (std::thread &thread : threads)
        thread.join();
    for (std::size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(answers[i], (Answer{0, {i % 2 == 0 ? read : auth}}));
    EXPECT_EQ(sandbox().children().size(), 1U) << "slapd alone is left";
}

TEST(Privileges, AToolThatHangsIsEndedAndHoldsUpNobody)
{
    support::TemporaryDirectory directory;
    const std::string script = directory.path() + "/slapd";
    std::ofstream(script) << "#!/bin/sh\n"
                             "if [ \"$2\" = acl ]; then exec sleep 600; fi\n"
                             "exec /usr/sbin/slapd \"$@\"\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    Sandbox slow({"--entries", "100", "--slapd", script});
    const Session admin = slow.admin();
    Answer answer{};
    std::thread waiting([&] { answer = right(slow.admin(), "", people, "ou"); });
    while (slow.children().size() < 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(search(admin, people, "(ou=people)").size(), 1U) << "others are served meanwhile";
    waiting.join();
    EXPECT_EQ(answer.code, LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_EQ(slow.children().size(), 1U);
}

TEST(Privileges, AValueThatIsNotTheRequestIsAProtocolError)
{
    struct Case {
        std::string name;
        std::string value;
    };
    const Case cases[] = {
        {LDAPX_GET_EFFECTIVE_PRIVILEGES_REQUEST, concat(octets(people), octets(""), octets("cn"))},
        {LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
         concat(octets(""), octets(people), sequence(octets("cn"), octets("sn")))},
    };
    RawClient client(sandbox().port());
    int id = 1;
    for (const Case &each : cases) {
        std::vector<std::string> bad = support::cuts(each.value);
        bad.push_back(each.value + octets(""));
        bad.push_back(sequence(each.value));
        for (const std::string &value : bad) {
            client.send(extended(id++, each.name, value));
            EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR)
                << each.name << " " << support::hex(value);
        }
    }
}

} // namespace
