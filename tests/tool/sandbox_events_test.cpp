// The sandbox's events, as monitors of the library see them.

#include "monitor.h"
#include "raw_client.h"

#include "support/ber.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace sandbox_test;
using support::integer;
using support::octets;
using support::sequence;

namespace {

enum Type : int {
    any = 0,
    entry_add = 1,
    entry_delete = 2,
    entry_rename = 3,
    entry_move = 4,
    entry_modify = 5,
    value_add = 10,
    value_delete = 11,
    monitor_start = 20,
    monitor_end = 21,
    bind = 100,
    connection_open = 101,
    connection_close = 102,
    search_done = 103,
    search_entry = 104,
    add = 105,
    remove_ = 106,
    modify = 107,
    compare = 108,
    rename_ = 109,
    abandoned = 110,
    extended_op = 111,
    system_extended = 112,
    response = 113,
    password = 114,
    unknown_operation = 115,
};

enum Status : int { all_results = 0, successes = 1, failures = 2 };

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "200"});
    return one;
}

std::string text(const char *string)
{
    return string != nullptr ? string : "(null)";
}

std::vector<std::string> list(char **strings)
{
    std::vector<std::string> found;
    for (; strings != nullptr && *strings != nullptr; ++strings)
        found.emplace_back(*strings);
    return found;
}

std::string value_of(const EVT_ValueInfo &record)
{
    return record.value != nullptr ? std::string(record.value, record.size) : "(none)";
}

// "number attribute value" of each value event.
std::vector<std::string> value_changes(const std::vector<Event> &events)
{
    std::vector<std::string> found;
    for (const Event &event : events)
        if (event.tag() == EVT_TAG_VALUE_INFO)
            found.push_back((event.type == value_add ? "+" : "-") +
                            text(event.as<EVT_ValueInfo>()->attributeName) + "=" +
                            value_of(*event.as<EVT_ValueInfo>()));
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<int> types(const std::vector<Event> &events)
{
    std::vector<int> found;
    for (const Event &event : events)
        found.push_back(event.type);
    return found;
}

// Short-lived entries, each test under a name of its own.
std::string unit(const std::string &name)
{
    return "ou=" + name + "," + base;
}
int add_unit(const Session &session, const std::string &name)
{
    std::string classes[] = {"organizationalUnit"};
    char *class_values[] = {classes[0].data(), nullptr};
    std::string type = "objectClass";
    LDAPMod change{LDAP_MOD_ADD, type.data(), {class_values}};
    LDAPMod *changes[] = {&change, nullptr};
    return ldap_add_ext_s(session.get(), unit(name).c_str(), changes, nullptr, nullptr);
}
int change(const Session &session, const std::string &dn, int operation, std::string attribute,
           std::vector<std::string> values, LDAPControl **controls = nullptr)
{
    std::vector<char *> pointers;
    for (std::string &value : values)
        pointers.push_back(value.data());
    pointers.push_back(nullptr);
    LDAPMod change{operation, attribute.data(), {values.empty() ? nullptr : pointers.data()}};
    LDAPMod *changes[] = {&change, nullptr};
    return ldap_modify_ext_s(session.get(), dn.c_str(), changes, controls, nullptr);
}
int remove_entry(const Session &session, const std::string &dn)
{
    return ldap_delete_ext_s(session.get(), dn.c_str(), nullptr, nullptr);
}

// ---- Changes ------------------------------------------------------------------------------------

TEST(Changes, AnAddedEntryIsReportedWithItsClassItsValuesAndWhoAddedIt)
{
    Monitor monitor(sandbox().admin(), {{entry_add}, {value_add}, {add}});
    const Session other = sandbox().admin();
    const auto before = static_cast<unsigned>(std::time(nullptr));
    ASSERT_EQ(add_unit(other, "added"), LDAP_SUCCESS);
    const std::vector<Event> events = monitor.all();
    ASSERT_EQ(types(events), (std::vector<int>{add, entry_add, value_add}));

    const auto *update = events[0].as<EVT_UpdateEventData>();
    ASSERT_NE(update->connectionData, nullptr);
    EXPECT_EQ(text(update->connectionData->inetAddr).substr(0, 10), "127.0.0.1:");
    EXPECT_GE(update->connectionData->time, before);
    EXPECT_GT(update->msgID, 0U);
    EXPECT_GE(update->time, before);
    EXPECT_EQ(update->operation, LDAP_REQ_ADD);
    EXPECT_EQ(text(update->bindDN), admin_dn);
    EXPECT_EQ(text(update->entryDN), unit("added"));
    EXPECT_EQ(text(update->className), "organizationalUnit");
    EXPECT_EQ(update->resultCode, LDAP_SUCCESS);
    EXPECT_EQ(update->controlOID, nullptr);

    const auto *entry = events[1].as<EVT_EntryInfo>();
    EXPECT_EQ(text(entry->perpetratorDN), admin_dn);
    EXPECT_EQ(text(entry->entryDN), unit("added"));
    EXPECT_EQ(text(entry->className), "organizationalUnit");
    EXPECT_EQ(entry->verb, static_cast<unsigned>(entry_add));
    EXPECT_GE(entry->creationTime.seconds, before);
    EXPECT_EQ(entry->newDN, nullptr);

    const auto *value = events[2].as<EVT_ValueInfo>();
    EXPECT_EQ(text(value->entryDN), unit("added"));
    EXPECT_EQ(text(value->attributeName), "objectClass");
    EXPECT_EQ(text(value->syntaxOID), "1.3.6.1.4.1.1466.115.121.1.38");
    EXPECT_EQ(value_of(*value), "organizationalUnit");
    EXPECT_EQ(value->verb, static_cast<unsigned>(value_add));
    EXPECT_GE(value->timeStamp.seconds, before);
    EXPECT_EQ(remove_entry(other, unit("added")), LDAP_SUCCESS);
}

TEST(Changes, ADeletedEntryIsReportedWithTheClassThatItHad)
{
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "deleted"), LDAP_SUCCESS);
    Monitor monitor(sandbox().admin(), {{entry_delete}, {remove_}, {value_delete}});
    ASSERT_EQ(remove_entry(other, unit("deleted")), LDAP_SUCCESS);
    const std::vector<Event> events = monitor.all();
    ASSERT_EQ(types(events), (std::vector<int>{remove_, entry_delete}));
    EXPECT_EQ(events[0].as<EVT_UpdateEventData>()->operation, LDAP_REQ_DELETE);
    EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->entryDN), unit("deleted"));
    EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->className), "organizationalUnit");
    EXPECT_GT(events[1].as<EVT_EntryInfo>()->creationTime.seconds, 0U);
}

TEST(Changes, AModificationIsReportedAsTheValuesThatCameAndWent)
{
    const Session other = sandbox().admin();
    const std::string dn = unit("modified");
    ASSERT_EQ(add_unit(other, "modified"), LDAP_SUCCESS);
    Monitor monitor(sandbox().admin(), {{entry_modify}, {modify}, {value_add}, {value_delete}});
    const auto changes = [&](int operation, const std::vector<std::string> &values) {
        EXPECT_EQ(change(other, dn, operation, "description", values), LDAP_SUCCESS);
        const std::vector<Event> events = monitor.all();
        EXPECT_GE(events.size(), 2U);
        if (events.size() >= 2) {
            EXPECT_EQ(events[0].type, modify);
            EXPECT_EQ(events[1].type, entry_modify);
            EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->className), "organizationalUnit");
        }
        return value_changes(events);
    };
    using Values = std::vector<std::string>;
    EXPECT_EQ(changes(LDAP_MOD_ADD, {"one", "two"}),
              (Values{"+description=one", "+description=two"}));
    EXPECT_EQ(changes(LDAP_MOD_DELETE, {"ONE"}), Values{"-description=one"})
        << "the value as it was, not as the client wrote it";
    EXPECT_EQ(changes(LDAP_MOD_REPLACE, {"two", "three"}), Values{"+description=three"});
    EXPECT_EQ(changes(LDAP_MOD_REPLACE, {"four"}),
              (Values{"+description=four", "-description=three", "-description=two"}));
    EXPECT_EQ(changes(LDAP_MOD_DELETE, {}), Values{"-description=four"});
    EXPECT_EQ(remove_entry(other, dn), LDAP_SUCCESS);
}

TEST(Changes, ARenameIsReportedWithBothNames)
{
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "before"), LDAP_SUCCESS);
    Monitor monitor(sandbox().admin(),
                    {{entry_rename}, {entry_move}, {rename_}, {value_add}, {value_delete}});
    ASSERT_EQ(ldap_rename_s(other.get(), unit("before").c_str(), "ou=after", nullptr, 1, nullptr,
                            nullptr),
              LDAP_SUCCESS);
    std::vector<Event> events = monitor.all();
    ASSERT_EQ(types(events), (std::vector<int>{rename_, entry_rename, value_delete, value_add}));
    const auto *rename = events[0].as<EVT_ModDNEventData>();
    EXPECT_EQ(text(rename->oldRDN), "ou=before");
    EXPECT_EQ(text(rename->newRDN), "ou=after");
    EXPECT_EQ(text(rename->className), "organizationalUnit");
    EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->entryDN), unit("before"));
    EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->newDN), unit("after"));
    EXPECT_EQ(value_changes(events), (std::vector<std::string>{"+ou=after", "-ou=before"}));

    ASSERT_EQ(ldap_rename_s(other.get(), unit("after").c_str(), "ou=after", people.c_str(), 0,
                            nullptr, nullptr),
              LDAP_SUCCESS);
    events = monitor.all();
    ASSERT_EQ(types(events), (std::vector<int>{rename_, entry_move}));
    EXPECT_EQ(text(events[1].as<EVT_EntryInfo>()->newDN), "ou=after," + people);
    EXPECT_EQ(remove_entry(other, "ou=after," + people), LDAP_SUCCESS);
}

TEST(Changes, AChangeThatFailedIsAnOperationAndNoChange)
{
    Monitor monitor(sandbox().admin(), {{any}});
    const Session other = sandbox().admin();
    monitor.all();
    EXPECT_EQ(add_unit(other, "people"), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(remove_entry(other, people), LDAP_NOT_ALLOWED_ON_NONLEAF);
    EXPECT_EQ(change(other, people, LDAP_MOD_ADD, "nonsense", {"x"}), LDAP_UNDEFINED_TYPE);
    EXPECT_EQ(
        ldap_rename_s(other.get(), unit("none").c_str(), "ou=x", nullptr, 1, nullptr, nullptr),
        LDAP_NO_SUCH_OBJECT);
    std::map<int, Event> found;
    for (Event &event : monitor.all())
        if (event.type != extended_op)
            found[event.type] = std::move(event);
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[add].result, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(found[add].as<EVT_UpdateEventData>()->resultCode, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(found[remove_].result, LDAP_NOT_ALLOWED_ON_NONLEAF);
    EXPECT_EQ(text(found[remove_].as<EVT_UpdateEventData>()->className), "organizationalUnit");
    EXPECT_EQ(found[modify].result, LDAP_UNDEFINED_TYPE);
    EXPECT_EQ(text(found[modify].as<EVT_UpdateEventData>()->className), "organizationalUnit");
    EXPECT_EQ(found[rename_].result, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(found[rename_].as<EVT_ModDNEventData>()->className, nullptr);
}

TEST(Changes, AnOperationThatChangesTheTreeIsReportedAndSoIsWhatItChanged)
{
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "split"), LDAP_SUCCESS);
    Monitor monitor(sandbox().admin(), {{any}});
    std::string dn = unit("split");
    ASSERT_EQ(ldap_split_partition(other.get(), dn.data(), 0), LDAP_SUCCESS);

    const Event changed = monitor.next(entry_modify);
    ASSERT_EQ(changed.type, entry_modify);
    EXPECT_EQ(text(changed.as<EVT_EntryInfo>()->perpetratorDN), admin_dn);
    EXPECT_EQ(text(changed.as<EVT_EntryInfo>()->entryDN), dn);
    const Event operation = monitor.next(system_extended);
    ASSERT_EQ(operation.type, system_extended);
    const auto *split = operation.as<EVT_SysExtOpEventData>();
    EXPECT_EQ(split->operation, 3U);
    EXPECT_EQ(text(split->extensionOID), LDAPX_SPLIT_PARTITION_REQUEST);
    EXPECT_EQ(text(split->value1), "0");
    EXPECT_EQ(text(split->value2), dn);
    EXPECT_EQ(split->value3, nullptr);
    EXPECT_EQ(text(split->bindDN), admin_dn);
    ASSERT_NE(split->connectionData, nullptr);
    EXPECT_EQ(ldap_merge_partitions(other.get(), dn.data(), 0), LDAP_SUCCESS);
    EXPECT_EQ(remove_entry(other, dn), LDAP_SUCCESS);
}

TEST(Changes, PasswordsNeverReachAMonitor)
{
    const Session other = sandbox().admin();
    const std::string person = search(other, people, "(uid=*)").at(0);
    Monitor monitor(sandbox().admin(), {{any}, {response}});
    monitor.all();
    ASSERT_EQ(change(other, person, LDAP_MOD_REPLACE, "userPassword", {"open sesame"}),
              LDAP_SUCCESS);
    berval identity{person.size(), const_cast<char *>(person.data())};
    std::string secret = "password";
    berval new_password{secret.size(), secret.data()};
    berval generated{};
    ASSERT_EQ(
        ldap_passwd_s(other.get(), &identity, nullptr, &new_password, &generated, nullptr, nullptr),
        LDAP_SUCCESS);
    std::vector<int> means;
    for (const Event &event : monitor.all()) {
        if (event.type == value_add || event.type == value_delete) {
            EXPECT_EQ(text(event.as<EVT_ValueInfo>()->attributeName), "userPassword");
            EXPECT_EQ(event.as<EVT_ValueInfo>()->value, nullptr);
            EXPECT_EQ(event.as<EVT_ValueInfo>()->verb, static_cast<unsigned>(event.type));
        }
        if (event.type == password) {
            const auto *changed = event.as<EVT_PasswordModifyEventData>();
            EXPECT_EQ(text(changed->entryDN), person);
            EXPECT_EQ(text(changed->bindDN), admin_dn);
            EXPECT_EQ(changed->resultCode, LDAP_SUCCESS);
            means.push_back(changed->passwordModifyType);
        }
    }
    EXPECT_EQ(means, (std::vector<int>{2, 1})) << "by a modify request, by Password Modify";
}

TEST(Changes, WhatAClientIsAnsweredIsTheSameWhetherSomebodyWatchesOrNot)
{
    Monitor monitor(sandbox().admin(), {{any}});
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "controls"), LDAP_SUCCESS);
    // Without controls of its own a client gets none.
    std::string attribute = "description";
    std::string value = "x";
    char *values[] = {value.data(), nullptr};
    LDAPMod change_{LDAP_MOD_ADD, attribute.data(), {values}};
    LDAPMod *changes[] = {&change_, nullptr};
    const auto controls_of = [&](LDAPControl **asked) {
        int id = 0;
        LDAPMessage *raw = nullptr;
        EXPECT_EQ(
            ldap_modify_ext(other.get(), unit("controls").c_str(), changes, asked, nullptr, &id),
            LDAP_SUCCESS);
        EXPECT_GT(ldap_result(other.get(), id, LDAP_MSG_ALL, nullptr, &raw), 0);
        int code = -1;
        LDAPControl **got = nullptr;
        EXPECT_EQ(ldap_parse_result(other.get(), raw, &code, nullptr, nullptr, nullptr, &got, 1),
                  LDAP_SUCCESS);
        EXPECT_EQ(code, LDAP_SUCCESS);
        std::vector<std::string> names;
        for (LDAPControl **each = got; each != nullptr && *each != nullptr; ++each)
            names.emplace_back((*each)->ldctl_oid);
        ldap_controls_free(got);
        return names;
    };
    EXPECT_EQ(controls_of(nullptr), std::vector<std::string>{});
    // A client that asks for an image itself gets it, and the event has what the request says.
    monitor.all();
    std::string oid = LDAP_CONTROL_PRE_READ;
    std::string wanted = sequence(octets("ou"));
    LDAPControl control{oid.data(), {wanted.size(), wanted.data()}, 1};
    LDAPControl *asked[] = {&control, nullptr};
    change_.mod_op = LDAP_MOD_DELETE;
    EXPECT_EQ(controls_of(asked), std::vector<std::string>{LDAP_CONTROL_PRE_READ});
    const std::vector<Event> events = monitor.all();
    EXPECT_EQ(value_changes(events), std::vector<std::string>{"-description=x"});
    const auto update = std::find_if(events.begin(), events.end(),
                                     [](const Event &event) { return event.type == modify; });
    ASSERT_NE(update, events.end());
    EXPECT_EQ(list(update->as<EVT_UpdateEventData>()->controlOID),
              std::vector<std::string>{LDAP_CONTROL_PRE_READ});
    EXPECT_EQ(text(update->as<EVT_UpdateEventData>()->className), "organizationalUnit");
    EXPECT_EQ(remove_entry(other, unit("controls")), LDAP_SUCCESS);
}

TEST(Changes, ALargeChangeIsReportedWhole)
{
    Monitor monitor(sandbox().admin(), {{value_add}});
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "large"), LDAP_SUCCESS);
    const std::string large(3 * 1024 * 1024, 'x');
    ASSERT_EQ(change(other, unit("large"), LDAP_MOD_ADD, "description", {large}), LDAP_SUCCESS);
    monitor.next(); // objectClass
    const Event event = monitor.next();
    ASSERT_EQ(event.type, value_add);
    EXPECT_EQ(value_of(*event.as<EVT_ValueInfo>()), large);
    EXPECT_EQ(remove_entry(other, unit("large")), LDAP_SUCCESS);
}

// ---- Operations ---------------------------------------------------------------------------------

TEST(Operations, ABindIsReportedWithItsNameItsKindAndItsResult)
{
    Monitor monitor(sandbox().admin(), {{bind}});
    {
        const Session somebody = sandbox().admin();
        EXPECT_THROW(connect(sandbox().url(), admin_dn, "wrong"), std::runtime_error);
        const Session nobody = sandbox().anonymous();
    }
    const std::vector<Event> events = monitor.all();
    ASSERT_EQ(types(events), (std::vector<int>{bind, bind, bind}));
    const auto *good = events[0].as<EVT_AuthEventData>();
    EXPECT_EQ(text(good->bindDN), admin_dn);
    EXPECT_EQ(good->bindType, 0U);
    EXPECT_EQ(good->authMechanism, nullptr);
    EXPECT_EQ(good->resultCode, LDAP_SUCCESS);
    ASSERT_NE(good->connectionData, nullptr);
    EXPECT_EQ(events[1].result, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(text(events[1].as<EVT_AuthEventData>()->bindDN), admin_dn);
    EXPECT_EQ(events[1].as<EVT_AuthEventData>()->resultCode, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(events[2].as<EVT_AuthEventData>()->bindDN, nullptr);
}

TEST(Operations, ASaslBindIsReportedStepByStep)
{
    const std::string person = search(sandbox().admin(), people, "(uid=*)", "uid").at(0);
    const std::string uid = person.substr(person.find(": ") + 2);
    Monitor monitor(sandbox().admin(), {{bind}});
    const support::Finished finished =
        support::run({"/usr/bin/ldapwhoami", "-Q", "-H", sandbox().url(), "-Y", "DIGEST-MD5", "-U",
                      uid, "-w", "password"});
    const std::vector<Event> events = monitor.all();
    ASSERT_EQ(events.size(), 2U) << finished.err;
    EXPECT_EQ(events[0].result, LDAP_SASL_BIND_IN_PROGRESS);
    for (const Event &event : events) {
        EXPECT_EQ(event.as<EVT_AuthEventData>()->bindType, 3U);
        EXPECT_EQ(text(event.as<EVT_AuthEventData>()->authMechanism), "DIGEST-MD5");
    }
    EXPECT_EQ(events[1].result, finished.status == 0 ? LDAP_SUCCESS : LDAP_INVALID_CREDENTIALS);
}

TEST(Operations, ASearchIsReportedWithItsParametersAndItsEntriesOnRequest)
{
    Monitor monitor(sandbox().admin(), {{any}});
    Monitor entries(sandbox().admin(), {{search_entry}});
    const Session other = sandbox().admin();
    monitor.all();
    std::string names[] = {"cn", "objectClass"};
    char *attributes[] = {names[0].data(), names[1].data(), nullptr};
    const std::string filter = "(&(objectClass=organizationalUnit)(!(ou=a*b*c))(|(ou=people)"
                               "(ou>=zzz)(ou<=aaa)(ou~=none)(ou=\\2a)(ou:caseExactMatch:=People)))";
    LDAPMessage *raw = nullptr;
    ASSERT_EQ(ldap_search_ext_s(other.get(), base.c_str(), LDAP_SCOPE_ONELEVEL, filter.c_str(),
                                attributes, 0, nullptr, nullptr, nullptr, 0, &raw),
              LDAP_SUCCESS);
    ldap_msgfree(raw);
    const Event event = monitor.next(search_done);
    ASSERT_EQ(event.type, search_done);
    const auto *search = event.as<EVT_SearchEventData>();
    EXPECT_EQ(text(search->base), base);
    EXPECT_EQ(search->scope, static_cast<unsigned>(LDAP_SCOPE_ONELEVEL));
    EXPECT_EQ(text(search->filter), filter);
    EXPECT_EQ(list(search->attrs), (std::vector<std::string>{"cn", "objectClass"}));
    EXPECT_EQ(search->controlOID, nullptr);
    EXPECT_EQ(text(search->bindDN), admin_dn);
    EXPECT_EQ(search->resultCode, LDAP_SUCCESS);

    const std::vector<Event> found = entries.all();
    ASSERT_EQ(types(found), std::vector<int>{search_entry});
    const auto *entry = found[0].as<EVT_SearchEntryResponseEventData>();
    EXPECT_EQ(text(entry->entryDN), people);
    EXPECT_EQ(text(entry->className), "organizationalUnit");
    EXPECT_EQ(list(entry->attrs), std::vector<std::string>{"objectClass"});
    EXPECT_EQ(entry->msgID, search->msgID);
    for (const Event &each : monitor.all())
        EXPECT_NE(each.type, search_entry) << "only who asks for it by its number gets it";
}

TEST(Operations, ACompareAnAbandonAndAnExtendedOperationAreReported)
{
    Monitor monitor(sandbox().admin(), {{any}, {response}});
    const Session other = sandbox().admin();
    monitor.all();
    std::string asserted = "people";
    berval value{asserted.size(), asserted.data()};
    EXPECT_EQ(ldap_compare_ext_s(other.get(), people.c_str(), "ou", &value, nullptr, nullptr),
              LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_ext_s(other.get(), unit("none").c_str(), "ou", &value, nullptr, nullptr),
              LDAP_NO_SUCH_OBJECT);
    RawClient raw(sandbox().port()); // libldap would not send such an abandon
    ASSERT_TRUE(raw.send(abandon(1, 4711) + who_am_i(2)));
    EXPECT_EQ(result_code(raw.receive()), LDAP_SUCCESS);

    std::vector<Event> compares;
    Event abandon_event;
    Event whoami;
    std::vector<int> responses;
    for (Event &event : monitor.all()) {
        if (event.type == response)
            responses.push_back(static_cast<int>(event.as<EVT_ResponseEventData>()->operation));
        else if (event.type == compare)
            compares.push_back(std::move(event));
        else if (event.type == abandoned)
            abandon_event = std::move(event);
        else if (event.type == extended_op && event.as<EVT_ExtOpEventData>()->bindDN == nullptr)
            whoami = std::move(event);
    }
    ASSERT_EQ(compares.size(), 2U);
    const auto *good = compares[0].as<EVT_CompareEventData>();
    EXPECT_EQ(text(good->compareDN), people);
    EXPECT_EQ(text(good->assertionType), "ou");
    EXPECT_EQ(text(good->assertionValue), "people");
    EXPECT_EQ(text(good->className), "organizationalUnit");
    EXPECT_EQ(good->resultCode, LDAP_COMPARE_TRUE);
    EXPECT_EQ(compares[1].result, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(compares[1].as<EVT_CompareEventData>()->className, nullptr);
    ASSERT_EQ(abandon_event.type, abandoned);
    EXPECT_EQ(abandon_event.as<EVT_AbandonEventData>()->operation, 4711U);
    EXPECT_EQ(abandon_event.result, LDAP_NO_SUCH_OPERATION);
    ASSERT_EQ(whoami.type, extended_op);
    EXPECT_EQ(text(whoami.as<EVT_ExtOpEventData>()->extensionOID), LDAP_EXOP_WHO_AM_I);
    EXPECT_EQ(std::count(responses.begin(), responses.end(), LDAP_REQ_COMPARE), 2);
    EXPECT_GE(std::count(responses.begin(), responses.end(), LDAP_REQ_EXTENDED), 1);
}

// slapd looks up many classes side by side and answers in an order of its own.
TEST(Operations, EventsComeInTheOrderOfTheAnswers)
{
    Monitor monitor(sandbox().admin(), {{compare}, {search_done}});
    const Session other = sandbox().admin();
    std::string asserted = "people";
    berval value{asserted.size(), asserted.data()};
    std::string nothing = LDAP_NO_ATTRS;
    char *attributes[] = {nothing.data(), nullptr};
    constexpr int rounds = 300;
    int id = 0;
    for (int i = 0; i < rounds; ++i) {
        const std::string name = i % 2 == 0 ? people : unit("none");
        ASSERT_EQ(ldap_compare_ext(other.get(), name.c_str(), "ou", &value, nullptr, nullptr, &id),
                  LDAP_SUCCESS);
        ASSERT_EQ(ldap_search_ext(other.get(), "", LDAP_SCOPE_BASE, nullptr, attributes, 0, nullptr,
                                  nullptr, nullptr, 0, &id),
                  LDAP_SUCCESS);
    }
    std::vector<int> answered;
    while (answered.size() < std::size_t{2 * rounds}) {
        LDAPMessage *raw = nullptr;
        timeval patience{10, 0};
        ASSERT_GT(ldap_result(other.get(), LDAP_RES_ANY, LDAP_MSG_ONE, &patience, &raw), 0);
        if (ldap_msgtype(raw) != LDAP_RES_SEARCH_ENTRY)
            answered.push_back(ldap_msgid(raw));
        ldap_msgfree(raw);
    }
    std::vector<int> reported;
    for (const Event &event : monitor.all())
        reported.push_back(static_cast<int>(event.type == compare
                                                ? event.as<EVT_CompareEventData>()->msgID
                                                : event.as<EVT_SearchEventData>()->msgID));
    EXPECT_EQ(reported, answered);
}

TEST(Operations, AResponseBringsTheMatchedName)
{
    Monitor monitor(sandbox().admin(), {{response, failures}});
    const Session other = sandbox().admin();
    EXPECT_EQ(remove_entry(other, "ou=nowhere," + people), LDAP_NO_SUCH_OBJECT);
    const Event event = monitor.next();
    ASSERT_EQ(event.type, response);
    EXPECT_EQ(event.as<EVT_ResponseEventData>()->resultCode, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(event.as<EVT_ResponseEventData>()->operation, LDAP_REQ_DELETE);
    EXPECT_EQ(text(event.as<EVT_ResponseEventData>()->matchedDN), people);
    EXPECT_EQ(event.as<EVT_ResponseEventData>()->referral, nullptr);
}

TEST(Operations, ConnectionsAndOperationsThatNobodyKnowsAreReported)
{
    Monitor monitor(sandbox().admin(),
                    {{connection_open}, {connection_close}, {unknown_operation}});
    {
        RawClient raw(sandbox().port());
        ASSERT_TRUE(raw.send(sequence(integer(1) + support::element(0x5e, "?"))));
        EXPECT_TRUE(raw.is_closed());
    }
    const Event opened = monitor.next(connection_open);
    const Event unknown = monitor.next(unknown_operation);
    const Event closed = monitor.next(connection_close);
    ASSERT_EQ(opened.type, connection_open);
    ASSERT_EQ(unknown.type, unknown_operation);
    ASSERT_EQ(closed.type, connection_close);
    EXPECT_EQ(unknown.result, LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(text(unknown.as<EVT_UnknownEventData>()->inetAddr),
              text(opened.as<EVT_ConnectionEventData>()->inetAddr));
    EXPECT_EQ(closed.as<EVT_ConnectionEventData>()->connection,
              opened.as<EVT_ConnectionEventData>()->connection);
}

TEST(Operations, WhatNobodyCanReadHurtsNobodyWhileSomebodyWatches)
{
    Monitor monitor(sandbox().admin(), {{any}, {response}, {search_entry}});
    const std::string search_of = whole_search(1, people);
    const std::string good[] = {
        simple_bind(1, admin_dn, "secret"),
        search_of,
        who_am_i(1),
        abandon(1, 2),
        sequence(integer(1) + support::element(LDAP_REQ_ADD, octets(unit("x")) + sequence(""))),
        sequence(integer(1) + support::element(LDAP_REQ_DELETE, unit("x"))),
        sequence(integer(1) +
                 support::element(LDAP_REQ_MODIFY,
                                  octets(unit("x")) +
                                      sequence(sequence(support::enumerated(0) +
                                                        sequence(octets("l") + "1\0"))))),
        sequence(integer(1) + support::element(LDAP_REQ_MODDN, octets(unit("x")) + octets("ou=y"))),
        sequence(integer(1) + support::element(LDAP_REQ_COMPARE, octets(unit("x")) + octets("l"))),
        sequence(integer(1) + support::element(LDAP_REQ_DELETE, unit("x")) +
                 support::element(0xa0, sequence(octets(LDAP_CONTROL_PRE_READ)) + octets("?"))),
    };
    // Each as it is, and with every byte changed; the peer may be told off, and no more.
    for (const std::string &message : good) {
        for (std::size_t at = 0; at < std::min<std::size_t>(message.size(), 60); ++at) {
            std::string odd = message;
            odd[at] = static_cast<char>(odd[at] ^ 0x15);
            RawClient raw(sandbox().port());
            raw.send(odd);
            raw.send(unbind(99));
            raw.is_closed(std::chrono::milliseconds(20));
        }
    }
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "unhurt"), LDAP_SUCCESS);
    EXPECT_EQ(monitor.next(entry_add).type, entry_add);
    EXPECT_EQ(remove_entry(other, unit("unhurt")), LDAP_SUCCESS);
}

TEST(Operations, OtherMonitorsAreReportedOnRequest)
{
    Monitor monitor(sandbox().admin(), {{monitor_start}, {monitor_end}});
    EXPECT_EQ(monitor.next().type, monitor_start) << "its own";
    int id = 0;
    {
        const Monitor other(sandbox().admin(), {{entry_add}, {entry_delete}});
        id = other.id();
    }
    const Event started = monitor.next();
    ASSERT_EQ(started.type, monitor_start);
    const auto *record = started.as<EVT_EventData>();
    EXPECT_EQ(record->verb, static_cast<unsigned>(monitor_start));
    EXPECT_EQ(text(record->perpetratorDN), admin_dn);
    EXPECT_EQ(record->intValues[1], static_cast<unsigned>(id));
    EXPECT_EQ(record->intValues[2], 2U);
    EXPECT_EQ(text(record->strValues[0]).substr(0, 10), "127.0.0.1:");
    EXPECT_EQ(monitor.next().type, monitor_end);
}

// ---- Registration -------------------------------------------------------------------------------

TEST(Registration, ASpecifierThatCannotBeServedIsListedAndNothingIsMonitored)
{
    Monitor monitor(sandbox().admin(),
                    {{entry_add}, {4711}, {value_add, 3}, {-1, -1}, {value_add}});
    const auto closing = monitor.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(closing->rejected,
              (std::vector<std::pair<int, int>>{{4711, 0}, {value_add, 3}, {-1, -1}}));
    EXPECT_NE(closing->diagnostic.find("4711"), std::string::npos) << closing->diagnostic;
}

TEST(Registration, AFilterThatIsNoneIsRejected)
{
    Monitor monitor(sandbox().admin(),
                    {{entry_add, 0, "(entryDN=*)"}, {entry_delete, 0, "(entryDN=*"}, {any, 0, "x"}},
                    true);
    const auto closing = monitor.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(closing->rejected, (std::vector<std::pair<int, int>>{{entry_delete, 0}, {any, 0}}));
}

TEST(Registration, AnonymousClientsMonitorNothing)
{
    Monitor monitor(sandbox().anonymous(), {{any}});
    const auto closing = monitor.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_TRUE(closing->rejected.empty());
}

TEST(Registration, AValueThatIsNoRegistrationIsAProtocolError)
{
    RawClient raw(sandbox().port());
    ASSERT_TRUE(raw.send(simple_bind(1, admin_dn, "secret")));
    ASSERT_EQ(result_code(raw.receive()), LDAP_SUCCESS);
    const std::string one = sequence(integer(1) + support::element(0x0a, std::string(1, '\0')));
    const std::string bad[] = {
        "",
        "nonsense",
        sequence(integer(2) + support::element(0x31, one)),          // two announced
        sequence(integer(-1) + support::element(0x31, "")),          // fewer than none
        sequence(integer(0) + support::element(0x31, "")),           // none
        sequence(integer(1) + sequence(one)),                        // a SEQUENCE for a SET
        sequence(integer(1) + support::element(0x31, one)) + "more", // something behind it
        sequence(integer(1) + support::element(0x31, sequence(integer(1) + integer(0)))),
    };
    int id = 1;
    for (const std::string &value : bad) {
        ASSERT_TRUE(raw.send(extended(++id, LDAPX_MONITOR_EVENTS_REQUEST, value)));
        const std::string answer = raw.receive();
        EXPECT_EQ(message_id(answer), id);
        EXPECT_EQ(result_code(answer), LDAP_PROTOCOL_ERROR) << id;
    }
    // Unharmed, it accepts a good one, plain or filtered but not one for the other.
    ASSERT_TRUE(raw.send(extended(++id, LDAPX_MONITOR_EVENTS_FILTERED_REQUEST,
                                  sequence(integer(1) + support::element(0x31, one)))));
    EXPECT_EQ(result_code(raw.receive()), LDAP_PROTOCOL_ERROR) << "the filter is missing";
    ++id;
    ASSERT_TRUE(raw.send(extended(id, LDAPX_MONITOR_EVENTS_REQUEST,
                                  sequence(integer(1) + support::element(0x31, one))) +
                         who_am_i(id + 1)));
    EXPECT_EQ(message_id(raw.receive()), id + 1) << "the registration stays outstanding";
}

TEST(Registration, ManySpecifiersAreNoTrouble)
{
    std::vector<Specifier> specifiers(10000, {entry_add, successes, "(entryDN=ou=never)"});
    specifiers.push_back({entry_add, successes, "(entryDN=" + unit("many") + ")"});
    Monitor monitor(sandbox().admin(), specifiers, true);
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "many"), LDAP_SUCCESS);
    EXPECT_EQ(monitor.next().type, entry_add);
    EXPECT_EQ(remove_entry(other, unit("many")), LDAP_SUCCESS);
    EXPECT_TRUE(monitor.all().empty()) << "and one event comes once";
}

TEST(Registration, TheStatusSelectsSuccessesOrFailures)
{
    Monitor good(sandbox().admin(), {{remove_, successes}});
    Monitor bad(sandbox().admin(), {{remove_, failures}});
    Monitor both(sandbox().admin(), {{remove_, all_results}});
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "status"), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(other, unit("status")), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(other, unit("status")), LDAP_NO_SUCH_OBJECT);
    const auto results = [](Monitor &monitor) {
        std::vector<int> found;
        for (const Event &event : monitor.all())
            found.push_back(event.result);
        return found;
    };
    EXPECT_EQ(results(good), std::vector<int>{LDAP_SUCCESS});
    EXPECT_EQ(results(bad), std::vector<int>{LDAP_NO_SUCH_OBJECT});
    EXPECT_EQ(results(both), (std::vector<int>{LDAP_SUCCESS, LDAP_NO_SUCH_OBJECT}));
}

TEST(Registration, AFilterPicksTheEventsThatItMatches)
{
    Monitor monitor(sandbox().admin(),
                    {{any, all_results,
                      "(&(entryDN:dnSubtreeMatch:=ou=filtered," + base +
                          ")(|(type=entry-add)(attributeName=description)))"}},
                    true);
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "unfiltered"), LDAP_SUCCESS);
    ASSERT_EQ(add_unit(other, "filtered"), LDAP_SUCCESS);
    ASSERT_EQ(change(other, unit("filtered"), LDAP_MOD_ADD, "description", {"x"}), LDAP_SUCCESS);
    ASSERT_EQ(change(other, unit("filtered"), LDAP_MOD_ADD, "l", {"x"}), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(other, unit("filtered")), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(other, unit("unfiltered")), LDAP_SUCCESS);
    EXPECT_EQ(types(monitor.all()), (std::vector<int>{entry_add, value_add}));
}

TEST(Registration, SeveralMonitorsOnOneConnectionEachGetTheirOwn)
{
    Monitor first(sandbox().admin(), {{entry_add}});
    int second = 0;
    EVT_EventSpecifier deletion{entry_delete, 0};
    ASSERT_EQ(ldap_monitor_events(first.session().get(), 1, &deletion, &second), LDAP_SUCCESS);
    ASSERT_EQ(add_unit(first.session(), "several"), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(first.session(), unit("several")), LDAP_SUCCESS);
    EXPECT_EQ(types(first.all()), std::vector<int>{entry_add});
    LDAPMessage *raw = nullptr;
    timeval patience{5, 0};
    ASSERT_EQ(ldap_result(first.session().get(), second, LDAP_MSG_ONE, &patience, &raw),
              LDAP_RES_INTERMEDIATE);
    int type = 0;
    int result = 0;
    EXPECT_EQ(ldap_parse_ds_event(first.session().get(), raw, &type, &result, nullptr, 1),
              LDAP_SUCCESS);
    EXPECT_EQ(type, entry_delete);
}

// ---- The end ------------------------------------------------------------------------------------

TEST(End, AnAbandonedMonitorHearsNothingMore)
{
    Monitor monitor(sandbox().admin(), {{entry_add}});
    ASSERT_EQ(ldap_abandon_ext(monitor.session().get(), monitor.id(), nullptr, nullptr),
              LDAP_SUCCESS);
    const Session other = sandbox().admin();
    ASSERT_EQ(add_unit(other, "unheard"), LDAP_SUCCESS);
    ASSERT_EQ(remove_entry(other, unit("unheard")), LDAP_SUCCESS);
    EXPECT_TRUE(monitor.all().empty());
    EXPECT_FALSE(monitor.closing(std::chrono::milliseconds(100)));
}

TEST(End, ACancelledMonitorGetsItsClosingResponse)
{
    Monitor monitor(sandbox().admin(), {{entry_add}});
    EXPECT_EQ(ldap_cancel_s(monitor.session().get(), monitor.id(), nullptr, nullptr), LDAP_SUCCESS);
    const auto closing = monitor.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_CANCELLED);
}

TEST(End, WhenTheSandboxStopsEveryMonitorIsTold)
{
    Sandbox ending({"--entries", "100"});
    Monitor monitor(ending.admin(), {{entry_add}});
    const Session other = ending.admin();
    ASSERT_EQ(add_unit(other, "last"), LDAP_SUCCESS);
    ending.process().signal(SIGTERM);
    EXPECT_EQ(monitor.next().type, entry_add) << "what has happened is told before";
    const auto closing = monitor.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_UNAVAILABLE);
    EXPECT_NE(closing->diagnostic.find("stopping"), std::string::npos);
    EXPECT_EQ(ending.process().wait().status, 0);
}

// ---- Monitors that do not read ------------------------------------------------------------------

std::size_t resident_kilobytes(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoul(line.substr(6));
    return 0;
}

TEST(Backlog, AMonitorThatDoesNotReadIsDroppedAndTheOthersMissNothing)
{
    Sandbox busy({"--entries", "1000", "--event-queue", "1000000"});
    Monitor idle(busy.admin(), {{search_entry}});
    Monitor reader(busy.admin(), {{search_entry}});
    const Session worker = busy.admin();
    const std::size_t before = resident_kilobytes(busy.process().pid());
    std::size_t read = 0;
    std::size_t most = 0;
    for (int round = 0; round < 100; ++round) { // 100,000 events
        ASSERT_EQ(search(worker, base, "(objectClass=*)").size(), 1000U);
        for (int i = 0; i < 1000; ++i, ++read)
            ASSERT_EQ(reader.next().type, search_entry) << read;
        most = std::max(most, resident_kilobytes(busy.process().pid()));
    }
#ifdef WITH_ADDRESS_SANITIZER
    EXPECT_LT(most, before + 1024 * 1024) << "kilobytes, with what has been freed";
#else
    EXPECT_LT(most, before + 8 * 1024) << "kilobytes";
#endif

    // It hears what the connection held already, and then why there is no more.
    std::size_t delivered = 0;
    while (idle.next().type == search_entry)
        ++delivered;
    EXPECT_LT(delivered, 100000U);
    const auto closing = idle.closing();
    ASSERT_TRUE(closing);
    EXPECT_EQ(closing->code, LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_NE(closing->diagnostic.find("does not read"), std::string::npos) << closing->diagnostic;
    EXPECT_NE(closing->diagnostic.find("events are lost"), std::string::npos);
    // The connection is good for another try.
    EVT_EventSpecifier again{entry_add, 0};
    int id = 0;
    EXPECT_EQ(ldap_monitor_events(idle.session().get(), 1, &again, &id), LDAP_SUCCESS);
    EXPECT_EQ(add_unit(idle.session(), "again"), LDAP_SUCCESS);
    LDAPMessage *raw = nullptr;
    timeval patience{5, 0};
    EXPECT_EQ(ldap_result(idle.session().get(), id, LDAP_MSG_ONE, &patience, &raw),
              LDAP_RES_INTERMEDIATE);
    ldap_msgfree(raw);
}

TEST(Backlog, AMonitorThatReadsLateGetsEverythingThatFitsIntoItsQueue)
{
    Sandbox busy({"--entries", "1000", "--event-queue", "100000000"});
    Monitor late(busy.admin(), {{search_entry}});
    const Session worker = busy.admin();
    for (int round = 0; round < 20; ++round)
        ASSERT_EQ(search(worker, base, "(objectClass=*)").size(), 1000U);
    for (int i = 0; i < 20000; ++i)
        ASSERT_EQ(late.next().type, search_entry) << i;
    EXPECT_EQ(late.next(std::chrono::milliseconds(100)).type, -1);
}

// ---- Samples and addresses ----------------------------------------------------------------------

std::map<int, Event> samples(const std::vector<std::string> &options)
{
    Sandbox demonstrating(options);
    Monitor monitor(demonstrating.admin(), {{any}});
    std::map<int, Event> found;
    for (Event &event : monitor.all())
        if (event.type != extended_op || found.count(extended_op) == 0)
            found[event.type] = std::move(event);
    return found;
}

TEST(Samples, OneEventOfEveryTagIsSentToANewMonitor)
{
    std::map<int, Event> found = samples({"--entries", "100", "--emit-all"});
    std::set<unsigned long> tags;
    for (const auto &[type, event] : found) {
        tags.insert(event.tag());
        EXPECT_EQ(event.address, nullptr) << type;
    }
    for (unsigned long tag = 0x61; tag <= 0x7d; ++tag)
        if (tag != EVT_TAG_SKULK && tag != 0x6a && tag != 0x6b && tag != 0x6e) {
            EXPECT_EQ(tags.count(tag), 1U) << tag;
        }
    EXPECT_EQ(tags.count(0), 1U) << "and those without a record";
    EXPECT_EQ(found.size(), 38U);

    const auto *general = found[monitor_start].as<EVT_EventData>();
    ASSERT_NE(general, nullptr);
    EXPECT_EQ(general->intValues[3], 4U);
    EXPECT_EQ(text(general->strValues[2]), "third");
    EXPECT_EQ(general->curProcess, 42U);
    const auto *object = found[31].as<EVT_BinderyObjectInfo>();
    EXPECT_EQ(text(object->name), "JSMITH");
    EXPECT_EQ(object->security, 0x31U);
    const auto *server = found[32].as<EVT_SEVInfo>();
    ASSERT_EQ(server->referralCount, 2);
    EXPECT_EQ(server->referrals[1].length, 4);
    const auto *module = found[33].as<EVT_ModuleState>();
    EXPECT_STREQ(module->name, "sample.module");
    EXPECT_STREQ(module->description, "a module that was loaded");
    EXPECT_EQ(text(module->sourceModule), "loader");
    const auto *address = found[34].as<EVT_NetAddress>();
    EXPECT_EQ(std::string(address->data, address->length), std::string("\x7f\0\0\1", 4));
    const auto *state = found[35].as<EVT_ChangeConnState>();
    EXPECT_EQ(state->newFlags, 3U);
    EXPECT_EQ(text(state->sourceModule), "connections");
    const auto *listener = found[36].as<EVT_ChangeServerAddr>();
    EXPECT_EQ(listener->addrSize, 4);
    EXPECT_EQ(text(listener->pstkname), "tcp");
    const auto *parameter = found[37].as<EVT_ChangeConfigParm>();
    ASSERT_EQ(parameter->type, 3);
    EXPECT_EQ(text(parameter->value.utf8Str), "verbose");
    const auto *status = found[38].as<EVT_StatusLogInfo>();
    EXPECT_EQ(text(status->statusDoc), "ready");
    const auto *debug = found[39].as<EVT_DebugInfo>();
    ASSERT_EQ(debug->paramCount, 7);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(debug->parameters[i].type, i + 1);
    EXPECT_EQ(debug->parameters[2].value.binary.size, 3U);
    EXPECT_EQ(debug->parameters[6].value.timeStampVector.count, 2U);
    EXPECT_EQ(debug->parameters[6].value.timeStampVector.timeStamps[1].event, 7U);
    const auto *bound = found[bind].as<EVT_AuthEventData>();
    EXPECT_EQ(bound->bindType, 3U);
    EXPECT_EQ(list(bound->controlOID).size(), 1U);
    EXPECT_EQ(list(found[response].as<EVT_ResponseEventData>()->referral).size(), 1U);
    EXPECT_EQ(text(found[system_extended].as<EVT_SysExtOpEventData>()->value4), "fourth");
}

TEST(Samples, EveryEventCarriesTheClientsAddressWhenTheyAreAskedFor)
{
    const std::map<int, Event> found =
        samples({"--entries", "100", "--emit-all", "--with-addresses"});
    EXPECT_EQ(found.size(), 38U);
    for (const auto &[type, event] : found) {
        if (!event.record)
            continue; // what has no record is not read, nor is what follows
        ASSERT_NE(event.net_address(), nullptr) << type;
        EXPECT_EQ(event.net_address()->type, 1U) << type;
        EXPECT_EQ(std::string(event.net_address()->data, event.net_address()->length),
                  std::string("\x7f\0\0\1", 4))
            << type;
    }
}

TEST(Samples, AnAddressOfTheSixthVersionHasSixteenBytes)
{
    Sandbox six({"--entries", "100", "--with-addresses", "--address", "::1"});
    Monitor monitor(six.admin(), {{search_done}});
    search(monitor.session(), base, "(objectClass=*)");
    const Event event = monitor.next();
    ASSERT_NE(event.net_address(), nullptr);
    EXPECT_EQ(event.net_address()->type, 2U);
    EXPECT_EQ(event.net_address()->length, 16U);
    EXPECT_EQ(event.net_address()->data[15], 1);
}

} // namespace
