// Bulk updates of a real tree, through the library's functions.

#include "monitor.h"
#include "raw_client.h"
#include "sandbox.h"
#include "support/ber.h"
#include "support/updates.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using support::Changes;
using support::Record;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

Sandbox &roomy_sandbox() // takes large batches
{
    static Sandbox one({"--entries", "100", "--lburp-transaction-size", "100000"});
    return one;
}

struct Started {
    int code = -1;
    std::string text;
    int transaction_size = -1;
};
struct Failure {
    int number;
    int code;
    std::string text;
};
struct Answered {
    int code = -1;
    std::string text;
    std::vector<Failure> failed{};
};

std::string taken(char *text)
{
    const std::string copy = text != nullptr ? text : "";
    ldap_memfree(text);
    return copy;
}

LDAPMessage *wait_for(const Session &session, int msgid)
{
    timeval patience{120, 0};
    LDAPMessage *message = nullptr;
    ldap_result(session.get(), msgid, LDAP_MSG_ALL, &patience, &message);
    if (message == nullptr)
        throw std::runtime_error("no answer");
    return message;
}

Started start(const Session &session)
{
    int msgid = 0;
    EXPECT_EQ(ldap_lburp_start_request(session.get(), &msgid), LDAP_SUCCESS);
    Started started;
    char *text = nullptr;
    EXPECT_EQ(ldap_parse_lburp_start_response(session.get(), wait_for(session, msgid),
                                              &started.code, &text, &started.transaction_size, 1),
              LDAP_SUCCESS);
    started.text = taken(text);
    return started;
}

Answered end(const Session &session, int number)
{
    int msgid = 0;
    EXPECT_EQ(ldap_lburp_end_request(session.get(), number, &msgid), LDAP_SUCCESS);
    Answered ended;
    char *text = nullptr;
    EXPECT_EQ(ldap_parse_lburp_end_response(session.get(), wait_for(session, msgid), &ended.code,
                                            &text, 1),
              LDAP_SUCCESS);
    ended.text = taken(text);
    return ended;
}

Answered answer(const Session &session, int msgid)
{
    Answered answered;
    char *text = nullptr;
    int count = 0;
    LBURPUpdateResult *failed = nullptr;
    EXPECT_EQ(ldap_parse_lburp_operation_response(session.get(), wait_for(session, msgid),
                                                  &answered.code, &text, &count, &failed, 1),
              LDAP_SUCCESS);
    answered.text = taken(text);
    for (int i = 0; i < count; ++i) {
        const std::string reason = failed[i].errorMsg != nullptr ? failed[i].errorMsg : "";
        answered.failed.push_back({failed[i].packageID, failed[i].resultCode, reason});
        ldapx_memfree(failed[i].errorMsg);
    }
    ldapx_memfree(failed);
    return answered;
}

template <class... Records>
int send(const Session &session, int number, Records &...records)
{
    std::vector<LBURPUpdateOperationList *> list = support::batch_of(records...);
    int msgid = 0;
    EXPECT_EQ(ldap_lburp_operation_request(session.get(), number, list.data(), &msgid),
              LDAP_SUCCESS);
    return msgid;
}

template <class... Records>
Answered apply(const Session &session, int number, Records &...records)
{
    return answer(session, send(session, number, records...));
}

// A batch of any bytes.
int send_raw(const Session &session, std::string value)
{
    berval request{value.size(), value.data()};
    int msgid = 0;
    EXPECT_EQ(ldap_extended_operation(session.get(), LDAPX_LBURP_OPERATION_REQUEST, &request,
                                      nullptr, nullptr, &msgid),
              LDAP_SUCCESS);
    return msgid;
}

Answered apply_raw(const Session &session, std::string value)
{
    return answer(session, send_raw(session, std::move(value)));
}

std::vector<support::Change> person(const std::string &uid)
{
    return {{"objectClass", {"inetOrgPerson"}},
            {"uid", {uid}},
            {"cn", {"Person " + uid}},
            {"sn", {uid}}};
}

std::string dn_of(const std::string &uid)
{
    return "uid=" + uid + "," + people;
}

// An add of a person.
struct Add {
    Changes changes;
    Record record;

    explicit Add(const std::string &uid) : changes(person(uid)), record(LDAP_REQ_ADD, dn_of(uid))
    {
        record.carry(changes);
    }
};

std::vector<std::string> found(const std::string &filter, const std::string &attribute = {})
{
    return search(sandbox().admin(), base, filter, attribute);
}

TEST(BulkUpdate, AnnouncesItsTransactionSize)
{
    const Session admin = sandbox().admin();
    const Started started = start(admin);
    EXPECT_EQ(started.code, LDAP_SUCCESS) << started.text;
    EXPECT_EQ(started.transaction_size, 500);
    EXPECT_EQ(end(admin, 1).code, LDAP_SUCCESS);

    const Session other = roomy_sandbox().admin();
    EXPECT_EQ(start(other).transaction_size, 100000);
}

TEST(BulkUpdate, EveryKindOfOperationChangesTheTree)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Add one("kind1");
    Add two("kind2");
    Changes title{{"title", {"Chief"}, LDAP_MOD_REPLACE}, {"l", {"Ulm", "Bonn"}, LDAP_MOD_ADD}};
    Record modify(LDAP_REQ_MODIFY, dn_of("kind1"));
    modify.carry(title);
    Record remove(LDAP_REQ_DELETE, dn_of("kind2"));
    const Answered done = apply(admin, 1, one.record, two.record, modify, remove);
    EXPECT_EQ(done.code, LDAP_SUCCESS) << done.text;
    EXPECT_TRUE(done.failed.empty());
    EXPECT_EQ(end(admin, 2).code, LDAP_SUCCESS);

    EXPECT_EQ(found("(uid=kind1)", "title"), std::vector<std::string>{dn_of("kind1") + ": Chief"});
    EXPECT_EQ(found("(&(uid=kind1)(l=Ulm)(l=Bonn))").size(), 1U);
    EXPECT_TRUE(found("(uid=kind2)").empty());
}

TEST(BulkUpdate, AnEmptyBatchSucceedsAndCounts)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 2).code, LDAP_SUCCESS);
    EXPECT_EQ(end(admin, 3).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, ASuccessfulBatchIsAnsweredWithoutAValue)
{
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    client.receive();
    client.send(extended(2, LDAPX_LBURP_START_REQUEST,
                         support::sequence(support::octets(LDAPX_LBURP_INCREMENTAL_UPDATE))));
    EXPECT_EQ(support::hex(response_value(client.receive())), "30 04 02 02 01 f4");
    client.send(extended(3, LDAPX_LBURP_OPERATION_REQUEST, support::Batch().request(1, "")));
    const std::string answered = client.receive();
    EXPECT_EQ(result_code(answered), LDAP_SUCCESS);
    EXPECT_EQ(answered.find('\x8b'), std::string::npos);
}

TEST(BulkUpdate, FailedOperationsAreNamedAndTheRestIsApplied)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Add first("fail1");
    Add again("fail1");
    Changes nonsense{{"noSuchAttribute", {"x"}, LDAP_MOD_ADD}};
    Record modify(LDAP_REQ_MODIFY, dn_of("fail1"));
    modify.carry(nonsense);
    Record missing(LDAP_REQ_DELETE, dn_of("nobody"));
    Add last("fail2");
    const Answered done = apply(admin, 1, first.record, again.record, modify, missing, last.record);
    EXPECT_EQ(done.code, LDAP_OTHER);
    EXPECT_EQ(done.text, "3 of 5 operations failed");
    ASSERT_EQ(done.failed.size(), 3U);
    EXPECT_EQ(done.failed[0].number, 2);
    EXPECT_EQ(done.failed[0].code, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(done.failed[1].number, 3);
    EXPECT_EQ(done.failed[1].code, LDAP_UNDEFINED_TYPE);
    EXPECT_EQ(done.failed[1].text, "noSuchAttribute: attribute type undefined");
    EXPECT_EQ(done.failed[2].number, 4);
    EXPECT_EQ(done.failed[2].code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(found("(|(uid=fail1)(uid=fail2))").size(), 2U);
    EXPECT_EQ(end(admin, 2).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, EveryOperationHasTheRightsOfTheClientAndNoMore)
{
    const std::string self = sandbox().somebody();
    const std::string other = found("(employeeNumber=10021)").at(0);
    const Session somebody = sandbox().as(self);
    ASSERT_EQ(start(somebody).code, LDAP_SUCCESS);
    Changes number{{"telephoneNumber", {"+49 30 1"}, LDAP_MOD_REPLACE}};
    Record own(LDAP_REQ_MODIFY, self);
    own.carry(number);
    Record foreign(LDAP_REQ_MODIFY, other);
    foreign.carry(number);
    Add person("intruder");
    const Answered done = apply(somebody, 1, own, foreign, person.record);
    ASSERT_EQ(done.failed.size(), 2U);
    EXPECT_EQ(done.failed[0].number, 2);
    EXPECT_EQ(done.failed[0].code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(done.failed[1].number, 3);
    EXPECT_EQ(done.failed[1].code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(found("(telephoneNumber=+49 30 1)"), std::vector<std::string>{self});
}

TEST(BulkUpdate, NobodyBorrowsRightsWithAControlOfAnOperation)
{
    const std::string self = found("(employeeNumber=10022)").at(0);
    const Session somebody = sandbox().as(self);
    ASSERT_EQ(start(somebody).code, LDAP_SUCCESS);
    Changes changes(person("borrower"));
    Record add(LDAP_REQ_ADD, dn_of("borrower"),
               support::ControlList({{LDAP_CONTROL_PROXY_AUTHZ, "dn:" + admin_dn, 1}}));
    add.carry(changes);
    const Answered done = apply(somebody, 1, add);
    ASSERT_EQ(done.failed.size(), 1U);
    EXPECT_NE(done.failed[0].code, LDAP_SUCCESS);
    EXPECT_TRUE(found("(uid=borrower)").empty());
}

TEST(BulkUpdate, IsNotForAnonymousClients)
{
    const Session anonymous = sandbox().anonymous();
    EXPECT_EQ(start(anonymous).code, LDAP_INSUFFICIENT_ACCESS);
}

TEST(BulkUpdate, ControlsOfAnOperationReachTheServer)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Changes changes(person("control1"));
    Record unknown(LDAP_REQ_ADD, dn_of("control1"), support::ControlList({{"1.2.3.4", {}, 1}}));
    unknown.carry(changes);
    Changes more(person("control2"));
    Record ignored(LDAP_REQ_ADD, dn_of("control2"), support::ControlList({{"1.2.3.4", "x", 0}}));
    ignored.carry(more);
    // The assertion control (RFC 4528) with (uid=nobody): the delete must not happen.
    Record unmet(
        LDAP_REQ_DELETE, dn_of("control2"),
        support::ControlList(
            {{LDAP_CONTROL_ASSERT,
              support::element(0xa3, support::octets("uid") + support::octets("nobody")), 1}}));
    const Answered done = apply(admin, 1, unknown, ignored, unmet);
    ASSERT_EQ(done.failed.size(), 2U);
    EXPECT_EQ(done.failed[0].number, 1);
    EXPECT_EQ(done.failed[0].code, LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(done.failed[1].number, 3);
    EXPECT_EQ(done.failed[1].code, LDAP_ASSERTION_FAILED);
    EXPECT_EQ(found("(uid=control2)").size(), 1U);
}

TEST(BulkUpdate, OperationsThatBuildOnOneAnotherKeepTheirOrder)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    // Chains of entries below one another, changed, renamed and taken away again, each step
    // spelled in another way; all in one batch.
    std::string operations;
    const support::Batch batch;
    for (int chain = 0; chain < 40; ++chain) {
        const std::string name = "chain " + std::to_string(chain);
        const std::string top = "ou=" + name + "," + people;
        const std::string spelled = "OU = Chain  " + std::to_string(chain) + ", OU=People," + base;
        operations += batch.add(top, {{"objectClass", {"organizationalUnit"}}});
        operations +=
            batch.add("cn=a," + spelled, {{"objectClass", {"organizationalRole"}}, {"cn", {"a"}}});
        operations += batch.add("cn=b," + top, {{"objectClass", {"organizationalRole"}}});
        operations += batch.modify("CN=B," + spelled, {{"description", {"x"}, LDAP_MOD_ADD}});
        operations +=
            batch.modify("commonName=b," + top, {{"description", {"x"}, LDAP_MOD_DELETE}});
        operations += batch.rename("cn=b," + top, "cn=c", true, {});
        operations += batch.add("cn=b," + top, {{"objectClass", {"organizationalRole"}}});
        operations += batch.remove("2.5.4.3=a," + top);
        operations += batch.rename("cn=c," + top, "cn=a", true, spelled);
        operations += batch.remove("cn=b," + top);
    }
    const Answered done = apply_raw(admin, batch.request(1, operations));
    EXPECT_EQ(done.code, LDAP_SUCCESS)
        << done.text << " " << done.failed.at(0).number << " " << done.failed.at(0).text;
    EXPECT_EQ(found("(&(objectClass=organizationalRole)(cn=a))").size(), 40U);
}

TEST(BulkUpdate, ARightGrantedEarlierInABatchHoldsLaterInIt)
{
    const Session admin = sandbox().admin();
    const std::string self = found("(employeeNumber=10023)").at(0);
    const std::string group = "cn=administrators,ou=groups," + base;
    Changes member{{"member", {self}, LDAP_MOD_ADD}};
    ASSERT_EQ(ldap_modify_ext_s(admin.get(), group.c_str(), member.get(), nullptr, nullptr), 0);

    // Having given up their rights they must not go on using them, however often it is tried.
    const Session somebody = sandbox().as(self);
    ASSERT_EQ(start(somebody).code, LDAP_SUCCESS);
    std::string operations;
    const support::Batch batch;
    for (int i = 0; i < 50; ++i)
        operations +=
            batch.add(dn_of("before" + std::to_string(i)), person("before" + std::to_string(i)));
    operations += batch.modify(group, {{"member", {self}, LDAP_MOD_DELETE}});
    for (int i = 0; i < 50; ++i)
        operations +=
            batch.add(dn_of("after" + std::to_string(i)), person("after" + std::to_string(i)));
    const Answered done = apply_raw(somebody, batch.request(1, operations));
    ASSERT_EQ(done.failed.size(), 50U);
    EXPECT_EQ(done.failed[0].number, 52);
    EXPECT_EQ(done.failed[49].code, LDAP_INSUFFICIENT_ACCESS);
    EXPECT_EQ(found("(uid=before*)").size(), 50U);
}

TEST(BulkUpdate, RenamesMoveKeepAndDropAsTheySay)
{
    const Session admin = sandbox().admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    std::string adds;
    for (const char *uid : {"move1", "move2", "move3", "move4"})
        adds += batch.add(dn_of(uid), person(uid));
    ASSERT_EQ(apply_raw(admin, batch.request(1, adds)).code, LDAP_SUCCESS);

    BerElement *ber = ber_alloc_t(0);
    const std::string target = "ou=sales," + people;
    ber_printf(ber, "{i", 2);
    LBURPEncodeModRDN(admin.get(), dn_of("move1").c_str(), "uid=moved1", target.c_str(), 1, nullptr,
                      ber);
    LBURPEncodeModRDN(admin.get(), dn_of("move2").c_str(), "uid=moved2", nullptr, 0, nullptr, ber);
    ber_printf(ber, "}");
    berval *value = nullptr;
    ber_flatten(ber, &value);
    const Answered renamed = apply_raw(admin, std::string(value->bv_val, value->bv_len));
    ber_bvfree(value);
    ber_free(ber, 1);
    EXPECT_EQ(renamed.code, LDAP_SUCCESS) << renamed.text;
    EXPECT_EQ(found("(uid=moved1)"), std::vector<std::string>{"uid=moved1," + target});
    EXPECT_TRUE(found("(uid=move1)").empty());
    EXPECT_EQ(found("(&(uid=moved2)(uid=move2))"), std::vector<std::string>{dn_of("moved2")});

    // A record of the library repeats the new RDN in the new superior's place.
    std::string new_rdn = "uid=moved3";
    Record rename(LDAP_REQ_MODDN, dn_of("move3"));
    rename.carry(new_rdn.data());
    EXPECT_EQ(apply(admin, 3, rename).code, LDAP_SUCCESS);
    EXPECT_EQ(found("(uid=moved3)"), std::vector<std::string>{dn_of("moved3")});

    // As in an LDAP message.
    const std::string tagged = support::sequence(
        support::element(0x6c, support::octets(dn_of("move4")) + support::octets("uid=moved4") +
                                   support::boolean(true) + support::octets(target, 0x80)));
    EXPECT_EQ(apply_raw(admin, batch.request(4, tagged)).code, LDAP_SUCCESS);
    EXPECT_EQ(found("(uid=moved4)"), std::vector<std::string>{"uid=moved4," + target});

    const Answered nowhere = apply_raw(
        admin,
        batch.request(5, batch.rename(dn_of("moved3"), "uid=x", true, "ou=nowhere," + base)));
    ASSERT_EQ(nowhere.failed.size(), 1U);
    EXPECT_EQ(nowhere.failed[0].code, LDAP_NO_SUCH_OBJECT);
}

TEST(BulkUpdate, BatchesAreAppliedInTheOrderOfTheirNumbersHoweverTheyArrive)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Add add("ordered");
    Changes first{{"title", {"first"}, LDAP_MOD_REPLACE}};
    Record modify(LDAP_REQ_MODIFY, dn_of("ordered"));
    modify.carry(first);
    Changes second{{"title", {"second"}, LDAP_MOD_REPLACE}};
    Record again(LDAP_REQ_MODIFY, dn_of("ordered"));
    again.carry(second);

    const int third = send(admin, 3, again);
    const int middle = send(admin, 2, modify);
    timeval moment{0, 200000};
    LDAPMessage *none = nullptr;
    EXPECT_EQ(ldap_result(admin.get(), third, LDAP_MSG_ALL, &moment, &none), 0);
    EXPECT_TRUE(found("(uid=ordered)").empty());
    const int begin = send(admin, 1, add.record);
    EXPECT_EQ(answer(admin, third).code, LDAP_SUCCESS);
    EXPECT_EQ(answer(admin, middle).code, LDAP_SUCCESS);
    EXPECT_EQ(answer(admin, begin).code, LDAP_SUCCESS);
    EXPECT_EQ(found("(uid=ordered)", "title"),
              std::vector<std::string>{dn_of("ordered") + ": second"});
    EXPECT_EQ(end(admin, 4).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, TheEndIsAnsweredWhenEverythingHasBeenApplied)
{
    const Session admin = roomy_sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    const support::Batch batch;
    std::string adds;
    for (int i = 0; i < 1000; ++i)
        adds += batch.add(dn_of("drain" + std::to_string(i)), person("drain" + std::to_string(i)));
    const int msgid = send_raw(admin, batch.request(1, adds));
    EXPECT_EQ(end(admin, 2).code, LDAP_SUCCESS);
    EXPECT_EQ(search(roomy_sandbox().admin(), base, "(uid=drain*)").size(), 1000U);
    EXPECT_EQ(answer(admin, msgid).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, RequestsOutOfTheirOrderAreRefused)
{
    const Session admin = sandbox().admin();
    Add early("toosoon");
    EXPECT_EQ(apply(admin, 1, early.record).code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(end(admin, 1).code, LDAP_OPERATIONS_ERROR);

    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    EXPECT_EQ(start(admin).code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(apply(admin, 0, early.record).code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(apply(admin, -1, early.record).code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(apply(admin, 100000, early.record).code, LDAP_OPERATIONS_ERROR);
    EXPECT_TRUE(found("(uid=toosoon)").empty());
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
    const Answered twice = apply(admin, 1, early.record);
    EXPECT_EQ(twice.code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(twice.text, "bulk update: batch 1 has come already");

    for (const int wrong : {0, 1, 3, -5})
        EXPECT_EQ(end(admin, wrong).code, LDAP_OPERATIONS_ERROR) << wrong;
    EXPECT_EQ(end(admin, 2).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 2).code, LDAP_OPERATIONS_ERROR);
    EXPECT_TRUE(found("(uid=toosoon)").empty());

    // A new one begins with 1 again.
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, AMissingBatchIsNamedAtTheEndAndWhatWaitedForItIsNotApplied)
{
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Add add("waiter");
    const int msgid = send(admin, 2, add.record);
    const Answered ended = end(admin, 3);
    EXPECT_EQ(ended.code, LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(ended.text, "bulk update: batch 1, which comes before it, is missing");
    EXPECT_EQ(answer(admin, msgid).code, LDAP_OPERATIONS_ERROR);
    EXPECT_TRUE(found("(uid=waiter)").empty());

    // Nothing is lost: what was refused can be sent again.
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 2, add.record).code, LDAP_SUCCESS);
    EXPECT_EQ(end(admin, 3).code, LDAP_SUCCESS);
    EXPECT_EQ(found("(uid=waiter)").size(), 1U);
}

TEST(BulkUpdate, ABatchLargerThanTheTransactionSizeIsRefusedWhole)
{
    const Session admin = sandbox().admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    std::string removes;
    for (int i = 0; i < 500; ++i)
        removes += batch.remove(dn_of("nobody" + std::to_string(i)));
    EXPECT_EQ(apply_raw(admin, batch.request(1, removes)).failed.size(), 500U);
    const Answered refused = apply_raw(
        admin, batch.request(2, removes + batch.add(dn_of("toomany"), person("toomany"))));
    EXPECT_EQ(refused.code, LDAP_ADMINLIMIT_EXCEEDED);
    EXPECT_EQ(refused.text, "batch 2 has 501 operations, more than the transaction size of 500");
    EXPECT_TRUE(found("(uid=toomany)").empty());
    EXPECT_EQ(apply(admin, 2).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, ABatchOfManyThousandOperationsIsApplied)
{
    const Session admin = roomy_sandbox().admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    std::string operations;
    for (int i = 0; i < 100000; ++i)
        operations += batch.remove("uid=" + std::to_string(i) + ",ou=nowhere," + base);
    const Answered done = apply_raw(admin, batch.request(1, operations));
    EXPECT_EQ(done.text, "100000 of 100000 operations failed");
    ASSERT_EQ(done.failed.size(), 100000U);
    for (int i = 0; i < 100000; ++i)
        ASSERT_EQ(done.failed[static_cast<std::size_t>(i)].number, i + 1);
    EXPECT_EQ(end(admin, 2).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, OfAnUnreadableBatchNothingIsAppliedAndItsNumberStaysFree)
{
    const Session admin = sandbox().admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    const std::string good = batch.add(dn_of("halfread"), person("halfread"));
    const std::string dn = support::octets(dn_of("x"));
    std::vector<std::string> bad = {
        support::sequence(),
        support::octets("x"),
        support::sequence(support::octets("cn=x", 0x70)),
        support::sequence(support::element(0x63, dn)), // a search
        support::sequence(support::element(0x68, dn)),
        support::sequence(support::element(0x68, dn + support::sequence(support::octets("cn")))),
        support::sequence(support::element(
            0x68,
            dn + support::sequence(support::sequence(support::octets("cn"), support::sequence())))),
        support::sequence(
            support::element(0x66, dn + support::sequence(support::sequence(support::integer(0))))),
        support::sequence(support::element(0x6c, dn + dn)),
        support::sequence(
            support::element(0x6c, dn + dn + support::boolean(true) + support::octets("x", 0x81))),
        support::sequence(support::octets(dn_of("x"), 0x4a), support::element(0xa0, "x")),
        support::sequence(support::octets(dn_of("x"), 0x4a),
                          support::element(0xa0, support::sequence())),
        support::sequence(support::octets(dn_of("x"), 0x4a), support::element(0xa1, "")),
        support::sequence(support::octets(dn_of("x"), 0x4a), support::null()),
    };
    // slapd would end the connection over these, and all that use it with it.
    const auto asserting = [&](const std::string &filter) {
        return batch.remove(dn_of("x"), support::ControlList({{LDAP_CONTROL_ASSERT, filter, 1}}));
    };
    std::string deep = support::octets("cn", 0x87);
    for (int i = 0; i < 200; ++i)
        deep = support::element(0xa2, deep);
    for (const std::string &filter :
         {std::string("\xff"), support::octets("x"), support::element(0xa2, ""),
          support::element(0xa3, support::octets("cn")), support::element(0xa4, dn),
          support::element(0xa9, support::octets("cn", 0x82)), deep})
        bad.push_back(asserting(filter));
    for (const std::string &operation : bad) {
        const Answered refused = apply_raw(admin, batch.request(1, good + operation));
        EXPECT_EQ(refused.code, LDAP_PROTOCOL_ERROR) << support::hex(operation);
        EXPECT_NE(refused.text.find("operation 2 of batch 1"), std::string::npos) << refused.text;
    }
    const std::string whole = batch.request(1, good);
    for (const std::string &cut : support::cuts(whole))
        EXPECT_EQ(apply_raw(admin, cut).code, LDAP_PROTOCOL_ERROR) << support::hex(cut);
    EXPECT_TRUE(found("(uid=halfread)").empty());
    EXPECT_EQ(apply_raw(admin, whole).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, WhatOnlySlapdCanJudgeFailsAloneAndHarmsNobody)
{
    const Session admin = sandbox().admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    const std::vector<std::string> odd = {
        batch.add("not a name", person("x")),
        batch.add("", person("x")),
        batch.add(dn_of("odd"), {}),
        batch.add(dn_of("odd"), {{"objectClass", {}}}),
        batch.add(dn_of("odd"), {{"", {"x"}}}),
        batch.add(std::string("uid=\0,", 6) + people, person("x")),
        batch.modify(dn_of("odd"), {}),
        batch.modify(dn_of("odd"), {{"cn", {"x"}, 77}}),
        batch.rename(people, "", true, {}),
        batch.rename(people, "ou=people", true, "not a name"),
        batch.remove(""),
        batch.remove(dn_of("odd"), support::ControlList({{"", {}, 0}})),
        batch.remove(dn_of("odd"), support::ControlList({{"no oid", {}, 1}})),
        batch.remove(dn_of("odd"), support::ControlList({{LDAP_CONTROL_ASSERT, "", 1}})),
        batch.remove(dn_of("odd"), support::ControlList({{LDAP_CONTROL_PRE_READ, "\xff", 1}})),
        batch.remove(dn_of("odd"), support::ControlList(std::vector<support::Control>{})),
    };
    std::string all;
    for (const std::string &operation : odd)
        all += operation;
    all += batch.add(dn_of("survivor"), person("survivor"));
    const Answered done = apply_raw(admin, batch.request(1, all));
    EXPECT_EQ(done.failed.size(), odd.size()) << done.text;
    EXPECT_EQ(found("(uid=survivor)").size(), 1U);
}

TEST(BulkUpdate, AnotherStyleOfUpdateIsRefused)
{
    const Session admin = sandbox().admin();
    std::string value = support::sequence(support::octets("1.2.3"));
    berval request{value.size(), value.data()};
    EXPECT_EQ(ldap_extended_operation_s(admin.get(), LDAPX_LBURP_START_REQUEST, &request, nullptr,
                                        nullptr, nullptr, nullptr),
              LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(ldap_extended_operation_s(admin.get(), LDAPX_LBURP_START_REQUEST, nullptr, nullptr,
                                        nullptr, nullptr, nullptr),
              LDAP_PROTOCOL_ERROR);
}

TEST(BulkUpdate, EndsWithItsConnection)
{
    const support::Batch batch;
    {
        RawClient client(sandbox().port());
        client.send(simple_bind(1, admin_dn, "secret"));
        client.receive();
        client.send(extended(2, LDAPX_LBURP_START_REQUEST,
                             support::sequence(support::octets(LDAPX_LBURP_INCREMENTAL_UPDATE))));
        ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
        client.send(extended(3, LDAPX_LBURP_OPERATION_REQUEST,
                             batch.request(2, batch.add(dn_of("left"), person("left")))));
        client.send(who_am_i(4));
        ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
        client.reset();
    }
    const Session admin = sandbox().admin();
    EXPECT_EQ(apply(admin, 1).code, LDAP_OPERATIONS_ERROR);
    EXPECT_TRUE(found("(uid=left)").empty());
}

TEST(BulkUpdate, AClientThatLeavesInTheMiddleStopsItAndOthersGoOn)
{
    const support::Batch batch;
    std::string adds;
    for (int i = 0; i < 20000; ++i)
        adds += batch.add(dn_of("cut" + std::to_string(i)), person("cut" + std::to_string(i)));
    {
        RawClient client(roomy_sandbox().port());
        client.send(simple_bind(1, admin_dn, "secret"));
        client.receive();
        client.send(extended(2, LDAPX_LBURP_START_REQUEST,
                             support::sequence(support::octets(LDAPX_LBURP_INCREMENTAL_UPDATE))));
        client.receive();
        ASSERT_TRUE(client.send(extended(3, LDAPX_LBURP_OPERATION_REQUEST, batch.request(1, adds)),
                                std::chrono::seconds(30)));
        const Session admin = roomy_sandbox().admin();
        for (int i = 0; i < 500 && search(admin, base, "(uid=cut*)").empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        client.reset();
    }
    const Session admin = roomy_sandbox().admin();
    std::size_t before = 0;
    std::size_t now = search(admin, base, "(uid=cut*)").size();
    for (int i = 0; i < 100 && now != before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        before = std::exchange(now, search(admin, base, "(uid=cut*)").size());
    }
    EXPECT_GT(now, 0U);
    EXPECT_LT(now, 20000U);
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, EveryEntryThatItAddsReachesMonitors)
{
    constexpr int entry_add = 1; // the number of the event
    Monitor monitor(sandbox().admin(), {{entry_add}});
    const Session admin = sandbox().admin();
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    Add one("seen1");
    Add two("seen2");
    ASSERT_EQ(apply(admin, 1, one.record, two.record).code, LDAP_SUCCESS);
    std::vector<std::string> names;
    for (int i = 0; i < 2; ++i) {
        const Event event = monitor.next();
        ASSERT_EQ(event.type, entry_add);
        names.emplace_back(event.as<EVT_EntryInfo>()->entryDN);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{dn_of("seen1"), dn_of("seen2")}));
}

TEST(BulkUpdate, SessionsOnSeveralConnectionsDoNotDisturbOneAnother)
{
    const Session one = sandbox().admin();
    const Session two = sandbox().admin();
    ASSERT_EQ(start(one).code, LDAP_SUCCESS);
    ASSERT_EQ(start(two).code, LDAP_SUCCESS);
    Add first("several1");
    Add second("several2");
    EXPECT_EQ(apply(one, 1, first.record).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(two, 1, second.record).code, LDAP_SUCCESS);
    EXPECT_EQ(end(one, 2).code, LDAP_SUCCESS);
    EXPECT_EQ(apply(two, 2).code, LDAP_SUCCESS);
    EXPECT_EQ(end(two, 3).code, LDAP_SUCCESS);
}

TEST(BulkUpdate, MoreThanMayWaitIsRefusedAndCanBeSentAgain)
{
    Sandbox small({"--entries", "100", "--max-message", "20000"});
    const Session admin = small.admin();
    const support::Batch batch;
    ASSERT_EQ(start(admin).code, LDAP_SUCCESS);
    const auto large = [&](int number) {
        return batch.request(
            number,
            batch.modify(people, {{"description", {std::string(9000, 'x')}, LDAP_MOD_REPLACE}}));
    };
    const int second = send_raw(admin, large(2));
    const int third = send_raw(admin, large(3));
    EXPECT_EQ(apply_raw(admin, large(4)).code, LDAP_BUSY);
    EXPECT_EQ(apply(admin, 1).code, LDAP_SUCCESS);
    EXPECT_EQ(answer(admin, second).code, LDAP_SUCCESS);
    EXPECT_EQ(answer(admin, third).code, LDAP_SUCCESS);
    EXPECT_EQ(apply_raw(admin, large(4)).code, LDAP_SUCCESS);
    EXPECT_EQ(end(admin, 5).code, LDAP_SUCCESS);
}

} // namespace
