// What the gateway does with the bytes between client and slapd: what is odd, hostile, large or
// broken off, and who the client is.

#include "raw_client.h"
#include "sandbox.h"

#include "ldapx.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace sandbox_test;
using namespace support;
using std::chrono::milliseconds;

namespace {

Sandbox &sandbox()
{
    static Sandbox one;
    return one;
}

bool answers(Sandbox &one)
{
    RawClient client(one.port());
    client.send(who_am_i(1));
    return message_id(client.receive()) == 1;
}

std::size_t open_descriptors(Sandbox &one)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(one.process().pid()) +
                                                  "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// In KiB: "VmRSS" is what it has now, "VmHWM" the most that it has had.
long memory(Sandbox &one, const std::string &which)
{
    std::ifstream status("/proc/" + std::to_string(one.process().pid()) + "/status");
    for (std::string name; status >> name;)
        if (name == which + ":") {
            long size = 0;
            status >> size;
            return size;
        }
    return -1;
}

// What a program may grow to that holds nothing back; with a sanitizer freed memory counts too.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long modest = 1024 * 1024;
#elif defined(__has_feature)
#    if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr long modest = 1024 * 1024;
#    else
constexpr long modest = 30 * 1024;
#    endif
#else
constexpr long modest = 30 * 1024;
#endif

template <class Condition>
bool becomes(Condition condition, milliseconds patience = std::chrono::seconds(10))
{
    for (const auto until = std::chrono::steady_clock::now() + patience;
         std::chrono::steady_clock::now() < until;) {
        if (condition())
            return true;
        std::this_thread::sleep_for(milliseconds(20));
    }
    return condition();
}

std::string split_request(int id, const std::string &dn)
{
    return extended(id, LDAPX_SPLIT_PARTITION_REQUEST, integer(0) + octets(dn));
}

std::string count_request(int id, const std::string &dn)
{
    return extended(id, LDAPX_PARTITION_ENTRY_COUNT_REQUEST, octets(dn));
}

std::string who(RawClient &client, int id)
{
    client.send(who_am_i(id));
    return response_value(client.receive());
}

// ---- Bytes that are no LDAP --------------------------------------------------------------------

struct Odd {
    const char *title;
    std::string bytes;
};

std::vector<Odd> odd_messages()
{
    return {
        {"a web browser", "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"},
        {"zero bytes", std::string(64, '\0')},
        {"an octet string", octets("hello")},
        {"an empty envelope", sequence()},
        {"an envelope with an id only", sequence(integer(1))},
        {"no message id", sequence(octets("x"), element(0x42, ""))},
        {"an id of no bytes", sequence(element(0x02, ""), element(0x42, ""))},
        {"an id of five bytes", sequence(element(0x02, "\1\1\1\1\1"), element(0x42, ""))},
        {"a negative id", sequence(integer(-1), element(0x42, ""))},
        {"the id zero", sequence(integer(0), element(0x42, ""))},
        {"an indefinite length", bytes("30 80 02 01 01 42 00 00 00")},
        {"a length of nine bytes", bytes("30 89 01 01 01 01 01 01 01 01 01")},
        {"a length of 2 GiB", bytes("30 84 7f ff ff ff 02 01 01 63")},
        {"a length of 2^64 - 1", bytes("30 88 ff ff ff ff ff ff ff ff 02 01 01 63")},
        {"a tag of several bytes", bytes("3f 81 01 00")},
        {"an operation longer than its envelope", bytes("30 08 02 01 01 77 7f 80 01 78")},
        {"a bind that is no bind", sequence(integer(1), element(0x60, "rubbish"))},
        {"a bind with trailing bytes",
         sequence(integer(1),
                  element(0x60, concat(integer(3), octets(""), octets("", 0x80), octets("more"))))},
        {"an extended request without a name", sequence(integer(1), element(0x77, ""))},
        {"an extended request with a second value",
         sequence(integer(1),
                  element(0x77, concat(octets("1.2", 0x80), octets("", 0x81), octets("", 0x81))))},
        {"an abandon of nothing", sequence(integer(1), element(0x50, ""))},
    };
}

TEST(OddBytes, EndTheirConnectionWithANotice)
{
    for (const Odd &odd : odd_messages()) {
        RawClient client(sandbox().port());
        ASSERT_TRUE(client.send(odd.bytes));
        EXPECT_TRUE(is_notice(client.receive(), LDAP_PROTOCOL_ERROR)) << odd.title;
        EXPECT_TRUE(client.is_closed()) << odd.title;
    }
    EXPECT_TRUE(answers(sandbox()));
}

TEST(OddBytes, AfterGoodOnesDoNotTakeTheAnswersAway)
{
    RawClient client(sandbox().port());
    client.send(who_am_i(1) + "rubbish");
    // slapd's answer may come before or after the notice, but nothing after it is garbled.
    EXPECT_TRUE(client.is_closed());
}

TEST(OddBytes, InsideAMessageAreForSlapdToRefuse)
{
    RawClient client(sandbox().port());
    client.send(sequence(integer(7), element(0x63, "rubbish")));
    const std::string answer = client.receive();
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(result_code(answer), LDAP_PROTOCOL_ERROR);
    EXPECT_TRUE(answers(sandbox()));
}

TEST(OddBytes, OfAnyKindNeverHurtAnybodyElse)
{
    RawClient bystander(sandbox().port());
    std::mt19937 random(42);
    const std::vector<std::string> seeds = {simple_bind(1, admin_dn, "secret"),
                                            whole_search(2, base),
                                            who_am_i(3),
                                            count_request(4, base),
                                            abandon(5, 2),
                                            unbind(6)};
    for (int i = 0; i < 400; ++i) {
        std::string input;
        for (int n = 0; n < 3; ++n)
            input += seeds[random() % seeds.size()];
        for (auto n = random() % 6; n > 0; --n)
            input[random() % input.size()] = static_cast<char>(random());
        if (random() % 4 == 0)
            input.resize(random() % input.size());
        RawClient client(sandbox().port());
        client.send(input);
        if (random() % 2 == 0)
            client.receive(milliseconds(2));
    }
    EXPECT_TRUE(answers(sandbox()));
    EXPECT_EQ(who(bystander, 1), "") << "anonymous, and still connected";
}

TEST(OddBytes, HalfAMessageWaitsWithoutDisturbingAnybody)
{
    RawClient client(sandbox().port());
    const std::string request = count_request(1, base);
    for (std::size_t i = 0; i + 1 < request.size(); ++i)
        client.send(request.substr(i, 1));
    EXPECT_TRUE(answers(sandbox()));
    EXPECT_EQ(client.receive(milliseconds(50)), "");
    client.send(request.substr(request.size() - 1));
    EXPECT_EQ(result_code(client.receive()), LDAP_SUCCESS);
}

TEST(OddBytes, AConnectionThatIsLeftInAnyStateIsClosedHere)
{
    ASSERT_TRUE(answers(sandbox()));
    const std::size_t before = open_descriptors(sandbox());
    for (int i = 0; i < 30; ++i) {
        RawClient(sandbox().port())
            .send(whole_search(1, base).substr(0, static_cast<std::size_t>(i)));
        RawClient gone(sandbox().port());
        gone.send(whole_search(1, base));
        if (i % 2 == 0)
            gone.receive();
        gone.reset();
    }
    EXPECT_TRUE(becomes([&] { return open_descriptors(sandbox()) <= before; }));
    EXPECT_TRUE(answers(sandbox()));
}

// ---- Size and flow -----------------------------------------------------------------------------

TEST(Flow, AMessageAboveTheLimitIsRefusedAndOneBelowItPasses)
{
    static Sandbox strict({"--max-message", "100000", "--entries", "100"});
    for (const std::size_t size : {90000U, 110000U}) {
        RawClient client(strict.port());
        client.send(sequence(
            integer(1),
            element(0x6e, concat(octets(base), sequence(octets("description"),
                                                        octets(std::string(size, 'x')))))));
        const std::string answer = client.receive();
        if (size < 100000)
            EXPECT_EQ(operation(answer), 0x6f);
        else
            EXPECT_TRUE(is_notice(answer, LDAP_PROTOCOL_ERROR));
    }
}

TEST(Flow, ALargeMessagePassesWithoutBeingHeld)
{
    Session admin = sandbox().admin();
    std::string value(40 * 1000 * 1000, 'x');
    std::string type = "description";
    berval large{value.size(), value.data()};
    berval *values[] = {&large, nullptr};
    LDAPMod change{};
    change.mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
    change.mod_type = type.data();
    change.mod_vals.modv_bvals = values;
    LDAPMod *changes[] = {&change, nullptr};
    const std::string &dn = sales;
    ASSERT_EQ(ldap_modify_ext_s(admin.get(), dn.c_str(), changes, nullptr, nullptr), LDAP_SUCCESS);
    EXPECT_EQ(search(admin, dn, "(ou=sales)", "description").at(0).size(),
              dn.size() + 2 + value.size());
    value = "The department";
    large = {value.size(), value.data()};
    ASSERT_EQ(ldap_modify_ext_s(admin.get(), dn.c_str(), changes, nullptr, nullptr), LDAP_SUCCESS);
    EXPECT_LT(memory(sandbox(), "VmHWM"), modest) << "40 MB passed, both ways";
}

TEST(Flow, AClientThatDoesNotReadCostsNoMemoryAndNobodysTime)
{
    RawClient lazy(sandbox().port());
    int sent = 0;
    while (sent < 2000 && lazy.send(whole_search(sent + 1, base), milliseconds(300)))
        ++sent;
    EXPECT_TRUE(answers(sandbox()));
    // slapd has a second to fill whatever would let it.
    EXPECT_FALSE(
        becomes([] { return memory(sandbox(), "VmRSS") > modest; }, std::chrono::seconds(1)));
    // Everything comes in the end: 300 of the searches, whole.
    std::size_t done = 0;
    std::size_t entries = 0;
    while (done < 300) {
        const std::string message = lazy.receive();
        ASSERT_FALSE(message.empty()) << done << " searches answered";
        (operation(message) == 0x65 ? done : entries) += 1;
    }
    EXPECT_GE(entries, 300U * 1100U);
}

TEST(Flow, AnswersOfOursComeBetweenEntriesNeverInsideThem)
{
    RawClient client(sandbox().port());
    std::string requests;
    for (int id = 1; id <= 60; ++id)
        requests += id % 3 == 0   ? count_request(id, base)
                    : id % 3 == 1 ? whole_search(id, base)
                                  : who_am_i(id);
    ASSERT_TRUE(client.send(requests));
    std::set<int> open;
    for (int id = 1; id <= 60; ++id)
        open.insert(id);
    std::map<int, int> entries;
    while (!open.empty()) {
        const std::string message = client.receive();
        ASSERT_FALSE(message.empty());
        const int id = message_id(message);
        ASSERT_TRUE(open.count(id)) << id << " is answered already";
        if (operation(message) == 0x64) {
            ++entries[id];
            continue;
        }
        open.erase(id);
        EXPECT_EQ(operation(message), id % 3 == 1 ? 0x65 : 0x78) << id;
        EXPECT_EQ(result_code(message), LDAP_SUCCESS) << id;
        EXPECT_EQ(response_value(message), id % 3 == 0 ? integer(1200) : "") << id;
    }
    EXPECT_EQ(entries.size(), 20U);
    for (const auto &[id, count] : entries)
        EXPECT_EQ(count, entries.begin()->second) << id;
}

TEST(Flow, AnAbandonedSearchIsOverAndTheSessionGoesOn)
{
    Session session = sandbox().anonymous();
    for (int i = 0; i < 20; ++i) {
        int id = 0;
        ASSERT_EQ(ldap_search_ext(session.get(), base.c_str(), LDAP_SCOPE_SUBTREE,
                                  "(objectClass=*)", nullptr, 0, nullptr, nullptr, nullptr, 0, &id),
                  LDAP_SUCCESS);
        LDAPMessage *first = nullptr;
        EXPECT_EQ(ldap_result(session.get(), id, LDAP_MSG_ONE, nullptr, &first),
                  LDAP_RES_SEARCH_ENTRY);
        ldap_msgfree(first);
        ASSERT_EQ(ldap_abandon_ext(session.get(), id, nullptr, nullptr), LDAP_SUCCESS);
    }
    EXPECT_EQ(search(session, base, "(ou=people)").size(), 1U);
    unsigned long entries = 0;
    std::string root = base;
    EXPECT_EQ(ldap_partition_entry_count(session.get(), root.data(), &entries), LDAP_SUCCESS);
}

TEST(Flow, ACancelledSearchIsSlapdsBusiness)
{
    RawClient client(sandbox().port());
    client.send(whole_search(1, base) + extended(2, "1.3.6.1.1.8", sequence(integer(1))));
    std::set<int> open = {1, 2};
    while (!open.empty()) {
        const std::string message = client.receive();
        ASSERT_FALSE(message.empty());
        if (operation(message) != 0x64)
            open.erase(message_id(message));
    }
}

TEST(Flow, AnUnbindEndsTheConnectionAfterTheAnswers)
{
    RawClient client(sandbox().port());
    client.send(who_am_i(1) + unbind(2));
    client.receive();
    EXPECT_TRUE(client.is_closed());
}

// ---- Who the client is -------------------------------------------------------------------------

TEST(Identity, TheOperatingSystemsUserIsNotTheClients)
{
    for (const std::string &mechanism :
         {std::string("EXTERNAL"), std::string("external"), std::string("EXTERNAL-PLUS"),
          std::string("EXTERNAL\0", 9), std::string("EXTERNAL\0X", 10)}) {
        RawClient client(sandbox().port());
        client.send(simple_bind(1, admin_dn, "secret"));
        ASSERT_EQ(result_code(client.receive()), LDAP_SUCCESS);
        ASSERT_EQ(who(client, 2), "dn:" + admin_dn);
        client.send(sasl_bind(3, mechanism));
        EXPECT_EQ(result_code(client.receive()), LDAP_AUTH_METHOD_NOT_SUPPORTED) << mechanism;
        EXPECT_EQ(who(client, 4), "") << "a failed bind makes anonymous";
        client.send(split_request(5, sales));
        EXPECT_EQ(result_code(client.receive()), LDAP_INSUFFICIENT_ACCESS);
    }
    const Finished listed =
        sandbox().client("ldapsearch", {"-LLL", "-s", "base", "-b", "", "supportedSASLMechanisms"});
    EXPECT_EQ(listed.out.find("EXTERNAL"), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find("SCRAM-SHA-256"), std::string::npos) << listed.out;
}

TEST(Identity, ABindThatOnlySlapdsReaderWouldTakeEndsTheConnection)
{
    // slapd reads an INTEGER under any tag; so might hide a mechanism that must not pass.
    RawClient client(sandbox().port());
    client.send(sequence(integer(1), element(0x60, concat(enumerated(3), octets(""),
                                                          element(0xa3, octets("EXTERNAL"))))));
    EXPECT_TRUE(is_notice(client.receive(), LDAP_PROTOCOL_ERROR));
    EXPECT_TRUE(client.is_closed());
}

TEST(Identity, ARequestSentRightBehindTheBindIsMadeByWhoBinds)
{
    RawClient client(sandbox().port());
    // One round for each bind: slapd abandons what is outstanding when the next one comes.
    std::map<int, int> codes;
    for (const std::string &requests :
         {simple_bind(1, admin_dn, "secret") + split_request(2, sales),
          simple_bind(3, "", "") + split_request(4, sales)}) {
        client.send(requests);
        for (int i = 0; i < 2; ++i) {
            const std::string message = client.receive();
            ASSERT_FALSE(message.empty()) << testing::PrintToString(codes);
            codes[message_id(message)] = result_code(message);
        }
    }
    EXPECT_EQ(codes, (std::map<int, int>{{1, LDAP_SUCCESS},
                                         {2, LDAP_SUCCESS},
                                         {3, LDAP_SUCCESS},
                                         {4, LDAP_INSUFFICIENT_ACCESS}}));
    Session admin = sandbox().admin();
    std::string dn = sales;
    EXPECT_EQ(ldap_merge_partitions(admin.get(), dn.data(), 0), LDAP_SUCCESS);
}

TEST(Identity, AWrongPasswordMakesAnonymous)
{
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret") + simple_bind(2, admin_dn, "wrong") +
                split_request(3, sales));
    EXPECT_EQ(result_code(client.receive()), LDAP_SUCCESS);
    EXPECT_EQ(result_code(client.receive()), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(result_code(client.receive()), LDAP_INSUFFICIENT_ACCESS);
}

TEST(Identity, TheMessageIdsOfTheClientAreAllItsOwn)
{
    // The gateway asks slapd under an id of its own who has bound; the client may use any.
    RawClient client(sandbox().port());
    constexpr int highest = 0x7fffffff;
    client.send(whole_search(highest, base) + simple_bind(highest - 1, admin_dn, "secret") +
                who_am_i(highest - 2));
    std::map<int, int> answered;
    while (answered.count(highest - 2) == 0) {
        const std::string message = client.receive();
        ASSERT_FALSE(message.empty());
        if (operation(message) != 0x64)
            ++answered[message_id(message)];
    }
    EXPECT_EQ(answered[highest - 1], 1);
    EXPECT_EQ(answered[highest - 2], 1);
}

// ---- The table of operations -------------------------------------------------------------------

TEST(Operations, AnUnknownNameOfOursIsRefusedByName)
{
    RawClient client(sandbox().port());
    client.send(extended(1, "2.16.840.1.424242.1.27.100.999", ""));
    const std::string answer = client.receive();
    EXPECT_EQ(result_code(answer), LDAP_PROTOCOL_ERROR);
    EXPECT_NE(answer.find("unknown extended operation 2.16.840.1.424242.1.27.100.999"),
              std::string::npos);
    client.send(extended(2, "2.16.840.1.4242421.1", ""));
    EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << "slapd's answer";
}

TEST(Operations, ARequestValueIsReadToTheLetter)
{
    const std::string &dn = sales;
    const std::string good = integer(0) + octets(dn);
    std::vector<std::string> bad = cuts(good);
    for (const std::string &value :
         {octets(dn) + integer(0), enumerated(0) + octets(dn), integer(0) + octets(dn, 0x0c),
          good + integer(0), good + std::string(1, '\0'), sequence(good),
          element(0x02, "\1\2\3\4\5") + octets(dn)})
        bad.push_back(value);
    RawClient client(sandbox().port());
    client.send(simple_bind(1, admin_dn, "secret"));
    client.receive();
    int id = 1;
    for (const char *name : {LDAPX_SPLIT_PARTITION_REQUEST, LDAPX_MERGE_PARTITIONS_REQUEST,
                             LDAPX_ABORT_PARTITION_OPERATION_REQUEST})
        for (const std::string &value : bad) {
            client.send(extended(++id, name, value));
            EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << name << hex(value);
        }
    for (const char *name :
         {LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST, LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST})
        for (const std::string &value : cuts(octets(dn) + octets("o=x"))) {
            client.send(extended(++id, name, value));
            EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << name << hex(value);
        }
    for (const std::string &value : {std::string(), integer(0), octets(dn) + octets(dn)}) {
        client.send(extended(++id, LDAPX_PARTITION_ENTRY_COUNT_REQUEST, value));
        EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << hex(value);
    }
    client.send(
        sequence(integer(++id), element(0x77, octets(LDAPX_PARTITION_ENTRY_COUNT_REQUEST, 0x80))));
    EXPECT_EQ(result_code(client.receive()), LDAP_PROTOCOL_ERROR) << "no value at all";
}

TEST(Operations, ACriticalControlIsRefusedAndAnotherIgnored)
{
    RawClient client(sandbox().port());
    for (const bool critical : {true, false}) {
        const std::string control = sequence(octets("1.2.3"), boolean(critical));
        client.send(sequence(integer(1),
                             element(0x77, octets(LDAPX_PARTITION_ENTRY_COUNT_REQUEST, 0x80) +
                                               octets(octets(base), 0x81)),
                             element(0xa0, control)));
        EXPECT_EQ(result_code(client.receive()),
                  critical ? LDAP_UNAVAILABLE_CRITICAL_EXTENSION : LDAP_SUCCESS);
    }
}

TEST(Operations, TheRootDseListsThemBesideSlapdsOwn)
{
    const Finished listed =
        sandbox().client("ldapsearch", {"-LLL", "-s", "base", "-b", "", "supportedExtension"});
    for (const char *name :
         {LDAPX_SPLIT_PARTITION_REQUEST, LDAPX_MERGE_PARTITIONS_REQUEST,
          LDAPX_ABORT_PARTITION_OPERATION_REQUEST, LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
          LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST, LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST,
          "1.3.6.1.4.1.4203.1.11.1", "1.3.6.1.1.8"})
        EXPECT_NE(listed.out.find("supportedExtension: " + std::string(name) + "\n"),
                  std::string::npos)
            << name;
}

// Runs last: with a sanitizer, what was leaked or written astray in all of the above shows here.
TEST(AfterAll, ItEndsCleanly)
{
    EXPECT_TRUE(sandbox().ends_cleanly());
}

} // namespace
