// Bulk loading through the C++ layer, against the scripted peer: the bytes of each update, batches
// and their window, what becomes of each update, the end in all its forms.

#include <chrono>
#include <csignal>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "greirige.hpp"
#include "support/ber.h"
#include "support/peer.h"

using namespace greirige;
using namespace support;
using namespace std::chrono_literals;
using std::string;

namespace greirige {

void PrintTo(const Error &error, std::ostream *stream)
{
    *stream << to_string(error);
}
void PrintTo(const BulkSummary &summary, std::ostream *stream)
{
    *stream << summary.submitted << " submitted, " << summary.answered << " answered, "
            << summary.failed << " failed, " << summary.batches << " batches";
}

} // namespace greirige

namespace {

string lburp(int number)
{
    return "2.16.840.1.424242.1.142.100." + std::to_string(number);
}

// An element of the response's list.
string failed(int package, int code, const string &message, const string &matched = "")
{
    return sequence(integer(package), sequence(enumerated(code), octets(matched), octets(message)));
}

string shown(const BulkFailure &failure)
{
    return (failure.number ? std::to_string(*failure.number) : "?") + " #" +
           std::to_string(failure.tag) + " " + failure.dn + " " +
           std::to_string(failure.error.code) + " " + failure.error.diagnostic +
           (failure.error.matched_dn.empty() ? "" : " matched " + failure.error.matched_dn);
}

Update removal(const string &dn)
{
    return DeleteEntry{dn};
}

// A load that has begun, and its failures as text.
struct Loading {
    Peer peer;
    std::vector<string> failures;
    std::optional<BulkLoad> load;

    explicit Loading(const BulkOptions &options = {}, int transaction_size = 0)
    {
        peer.respond({.name = lburp(2), .value = sequence(integer(transaction_size))});
        load.emplace(BulkLoad::start(
                         Session(peer.ld()),
                         [this](const BulkFailure &failure) { failures.push_back(shown(failure)); },
                         options)
                         .value());
        peer.take_request();
    }

    // The answer to the next batch.
    void answer(const Response &response = {})
    {
        Response full = response;
        if (!full.name)
            full.name = lburp(7);
        peer.respond(full);
    }
    void end(const Response &response = {})
    {
        Response full = response;
        if (!full.name)
            full.name = lburp(5);
        peer.respond(full);
    }
    // The updates of the next batch that was sent; checks its number.
    std::vector<string> batch(int sequence_number)
    {
        const Request request = peer.take_request();
        EXPECT_EQ(request.name, lburp(6));
        const string value = request.value.value_or("");
        Reader outer(value);
        const string content = outer.take(0x30);
        EXPECT_TRUE(outer.at_end());
        Reader reader(content);
        EXPECT_EQ(reader.take_integer(), sequence_number);
        std::vector<string> updates;
        while (!reader.at_end())
            updates.push_back(sequence(reader.take(0x30)));
        return updates;
    }
};

string deletion(const string &dn)
{
    return sequence(octets(dn, 0x4a));
}

// The bytes of one update.
string encoded(const Update &update)
{
    Loading loading;
    EXPECT_TRUE(loading.load->submit(update));
    EXPECT_TRUE(loading.load->flush());
    const std::vector<string> updates = loading.batch(1);
    EXPECT_EQ(updates.size(), 1u);
    return updates.empty() ? "" : updates[0];
}

} // namespace

// ---- Updates ------------------------------------------------------------------------------------

TEST(Updates, are_encoded_as_the_protocol_s_requests)
{
    EXPECT_EQ(
        hex(encoded(AddEntry{"cn=a",
                             {{"objectClass", {"top", "person"}},
                              {"photo", {string("\0\xff", 2), ""}},
                              {"empty", {}}}})),
        hex(sequence(element(
            0x68,
            octets("cn=a") +
                sequence(sequence(octets("objectClass"), set(octets("top"), octets("person"))),
                         sequence(octets("photo"), set(octets(string("\0\xff", 2)), octets(""))),
                         sequence(octets("empty"), set()))))));
    EXPECT_EQ(hex(encoded(AddEntry{"cn=a"})),
              hex(sequence(element(0x68, octets("cn=a") + sequence()))));
    EXPECT_EQ(hex(encoded(DeleteEntry{"cn=a"})), hex(deletion("cn=a")));
    EXPECT_EQ(
        hex(encoded(ModifyEntry{"cn=a",
                                {{ChangeKind::add, {"mail", {"a@x"}}},
                                 {ChangeKind::remove, {"fax"}},
                                 {ChangeKind::replace, {"sn", {"A", "B"}}},
                                 {ChangeKind::increment, {"n", {"1"}}}}})),
        hex(sequence(element(
            0x66,
            octets("cn=a") +
                sequence(
                    sequence(enumerated(0), sequence(octets("mail"), set(octets("a@x")))),
                    sequence(enumerated(1), sequence(octets("fax"), set())),
                    sequence(enumerated(2), sequence(octets("sn"), set(octets("A"), octets("B")))),
                    sequence(enumerated(3), sequence(octets("n"), set(octets("1")))))))));
}

TEST(Updates, that_rename_say_what_they_mean)
{
    EXPECT_EQ(hex(encoded(RenameEntry{"cn=a,o=x", "cn=b"})),
              hex(sequence(element(0x6c, octets("cn=a,o=x") + octets("cn=b") + boolean(true)))));
    EXPECT_EQ(hex(encoded(RenameEntry{"cn=a,o=x", "cn=b", false})),
              hex(sequence(element(0x6c, octets("cn=a,o=x") + octets("cn=b") + boolean(false)))));
    EXPECT_EQ(hex(encoded(RenameEntry{"cn=a,o=x", "cn=b", false, "ou=c,o=x"})),
              hex(sequence(element(0x6c, octets("cn=a,o=x") + octets("cn=b") + boolean(false) +
                                             octets("ou=c,o=x")))));
    EXPECT_EQ(hex(encoded(RenameEntry{"cn=a,o=x", "cn=b", true, ""})),
              hex(sequence(element(0x6c, octets("cn=a,o=x") + octets("cn=b") + boolean(true) +
                                             octets("")))));
}

TEST(Updates, of_every_kind_carry_their_controls)
{
    const std::vector<Control> controls{
        {"1.1"}, {"1.2", true}, {"1.3", false, string("\0v", 2)}, {"1.4", true, ""}};
    const string element_of_controls =
        element(0xa0, sequence(octets("1.1")) + sequence(octets("1.2"), boolean(true)) +
                          sequence(octets("1.3"), octets(string("\0v", 2))) +
                          sequence(octets("1.4"), boolean(true), octets("")));
    for (const Update &update :
         std::vector<Update>{AddEntry{"cn=a", {}, controls}, DeleteEntry{"cn=a", controls},
                             ModifyEntry{"cn=a", {}, controls},
                             RenameEntry{"cn=a", "cn=b", true, std::nullopt, controls}}) {
        const string bytes = encoded(update);
        ASSERT_GT(bytes.size(), element_of_controls.size());
        EXPECT_EQ(hex(bytes.substr(bytes.size() - element_of_controls.size())),
                  hex(element_of_controls));
    }
}

TEST(Updates, that_would_arrive_cut_are_refused_and_the_load_goes_on)
{
    const string bad("cn=a\0b", 6);
    Loading loading;
    const std::vector<std::pair<string, Update>> updates{
        {"dn", AddEntry{bad}},
        {"attribute", AddEntry{"o", {{bad, {"v"}}}}},
        {"control", AddEntry{"o", {}, {{bad}}}},
        {"dn", DeleteEntry{bad}},
        {"control", DeleteEntry{"o", {{bad}}}},
        {"dn", ModifyEntry{bad}},
        {"attribute", ModifyEntry{"o", {{ChangeKind::add, {bad}}}}},
        {"control", ModifyEntry{"o", {}, {{bad}}}},
        {"dn", RenameEntry{bad, "cn=b"}},
        {"new_rdn", RenameEntry{"o", bad}},
        {"new_superior", RenameEntry{"o", "cn=b", true, bad}},
        {"control", RenameEntry{"o", "cn=b", true, std::nullopt, {{bad}}}},
    };
    for (const auto &[parameter, update] : updates) {
        const Result<void> taken = loading.load->submit(update);
        ASSERT_FALSE(taken);
        EXPECT_EQ(taken.error().code, LDAPX_PARAM_ERROR);
        EXPECT_EQ(taken.error().where, "bulk_update: " + parameter);
    }
    EXPECT_EQ(loading.load->progress(), BulkSummary());
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_TRUE(loading.load->flush());
    EXPECT_EQ(loading.batch(1), std::vector{deletion("cn=a")});
}

// ---- Beginning ----------------------------------------------------------------------------------

TEST(Beginning, asks_for_the_style_and_takes_the_transaction_size)
{
    Peer peer;
    peer.respond({.name = lburp(2), .value = sequence(integer(500))});
    Result<BulkLoad> load = BulkLoad::start(Session(peer.ld()), nullptr);
    ASSERT_TRUE(load);
    EXPECT_EQ(load->transaction_size(), 500);
    const Request request = peer.take_request();
    EXPECT_EQ(request.name, lburp(1));
    EXPECT_EQ(Reader(request.value.value_or("")).take(0x30),
              octets("2.16.840.1.424242.1.142.1.4.2"));
}

TEST(Beginning, without_a_transaction_size_is_one_all_the_same)
{
    Peer peer;
    peer.respond({.name = lburp(2)});
    EXPECT_EQ(BulkLoad::start(Session(peer.ld()), nullptr).value().transaction_size(), 0);
}

TEST(Beginning, that_the_server_refuses_is_its_error)
{
    for (const std::optional<string> &name : {std::optional<string>(), {lburp(2)}}) {
        Peer peer;
        peer.respond({.code = LDAP_UNWILLING_TO_PERFORM,
                      .name = name,
                      .diagnostic = "not today",
                      .matched_dn = "o=x"});
        EXPECT_EQ(BulkLoad::start(Session(peer.ld()), nullptr).error(),
                  (Error{LDAP_UNWILLING_TO_PERFORM, "Server is unwilling to perform", "bulk_update",
                         "not today", "o=x"}));
    }
}

TEST(Beginning, without_an_answer_that_can_be_read_fails)
{
    const auto code = [](const Response &response) {
        Peer peer;
        peer.respond(response);
        return BulkLoad::start(Session(peer.ld()), nullptr).error().code;
    };
    EXPECT_EQ(code({}), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(code({.name = lburp(5)}), LDAPX_NOT_SUPPORTED);
    for (const string &cut : cuts(sequence(integer(500))))
        EXPECT_EQ(code({.name = lburp(2), .value = cut}), LDAPX_DECODING_ERROR) << hex(cut);

    Peer silent;
    silent.set_timeout(20ms);
    EXPECT_EQ(BulkLoad::start(Session(silent.ld()), nullptr).error().code, LDAP_TIMEOUT);
    EXPECT_EQ(silent.take_request().name, lburp(1));
    EXPECT_EQ(silent.take_request().operation, LDAP_REQ_ABANDON);
    Peer closed;
    closed.close();
    EXPECT_EQ(BulkLoad::start(Session(closed.ld()), nullptr).error().code, LDAP_SERVER_DOWN);
    EXPECT_EQ(BulkLoad::start(Session(nullptr), nullptr).error().code, LDAPX_PARAM_ERROR);
}

// ---- Batches ------------------------------------------------------------------------------------

TEST(Batches, hold_as_many_updates_as_was_agreed)
{
    struct Case {
        std::size_t asked;
        int announced;
        std::size_t expected;
    };
    for (const Case &each : std::vector<Case>{{0, 0, 100},
                                              {0, 3, 3},
                                              {0, -1, 100},
                                              {0, 2147483647, 1000},
                                              {2, 0, 2},
                                              {2, 3, 2},
                                              {4, 3, 3},
                                              {1500, 2000, 1500}}) {
        Loading loading({.operations = each.asked}, each.announced);
        for (std::size_t i = 0; i < each.expected; ++i) {
            EXPECT_TRUE(loading.peer.quiet());
            ASSERT_TRUE(loading.load->submit(removal("cn=" + std::to_string(i))));
        }
        const std::vector<string> updates = loading.batch(1);
        ASSERT_EQ(updates.size(), each.expected);
        for (std::size_t i = 0; i < updates.size(); ++i)
            EXPECT_EQ(updates[i], deletion("cn=" + std::to_string(i)));
        EXPECT_EQ(loading.load->limits().operations, each.expected);
    }
}

TEST(Batches, hold_no_more_bytes_than_was_agreed)
{
    const std::size_t size = deletion("cn=12345").size();
    Loading loading({.bytes = 3 * size});
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(loading.load->submit(removal("cn=12345")));
    EXPECT_TRUE(loading.peer.quiet());
    ASSERT_TRUE(loading.load->submit(removal("cn=1")));
    EXPECT_EQ(loading.batch(1).size(), 3u);

    // One that is larger than a batch travels alone.
    const string large = "cn=" + string(10 * size, 'l');
    ASSERT_TRUE(loading.load->submit(removal(large)));
    EXPECT_EQ(loading.batch(2), std::vector{deletion("cn=1")});
    EXPECT_EQ(loading.batch(3), std::vector{deletion(large)});
    ASSERT_TRUE(loading.load->submit(removal("cn=2")));
    EXPECT_TRUE(loading.load->flush());
    EXPECT_EQ(loading.batch(4), std::vector{deletion("cn=2")});
}

TEST(Batches, are_counted_and_the_end_counts_on)
{
    Loading loading({.operations = 1});
    for (int i = 0; i < 3; ++i)
        loading.answer();
    loading.end();
    for (const char *dn : {"cn=a", "cn=b", "cn=c"})
        ASSERT_TRUE(loading.load->submit(removal(dn)));
    EXPECT_EQ(loading.load->finish().value(), (BulkSummary{3, 3, 0, 3}));
    EXPECT_EQ(loading.batch(1), std::vector{deletion("cn=a")});
    EXPECT_EQ(loading.batch(2), std::vector{deletion("cn=b")});
    EXPECT_EQ(loading.batch(3), std::vector{deletion("cn=c")});
    const Request request = loading.peer.take_request();
    EXPECT_EQ(request.name, lburp(4));
    EXPECT_EQ(request.value, sequence(integer(4)));
    EXPECT_TRUE(loading.peer.quiet());
}

TEST(Batches, wait_when_the_window_is_full_and_go_on_with_the_oldest_answer)
{
    Loading loading({.operations = 1, .window = 2});
    ASSERT_TRUE(loading.load->submit(removal("cn=a")));
    ASSERT_TRUE(loading.load->submit(removal("cn=b")));
    ASSERT_TRUE(loading.load->submit(removal("cn=c"))); // gathered: both places are taken
    loading.batch(1);
    loading.batch(2);
    EXPECT_TRUE(loading.peer.quiet());

    loading.peer.set_timeout(20ms);
    EXPECT_EQ(loading.load->submit(removal("cn=d")).error().code, LDAP_TIMEOUT);
    EXPECT_EQ(loading.load->flush().error().code, LDAP_TIMEOUT);
    EXPECT_EQ(loading.load->progress(), (BulkSummary{3, 0, 0, 2}));
    EXPECT_TRUE(loading.peer.quiet());

    loading.peer.set_timeout(20s);
    loading.answer();
    ASSERT_TRUE(loading.load->submit(removal("cn=d")));
    EXPECT_EQ(loading.batch(3), std::vector{deletion("cn=c")});
    EXPECT_EQ(loading.load->progress(), (BulkSummary{4, 1, 0, 3}));

    for (int i = 0; i < 3; ++i)
        loading.answer();
    loading.end();
    EXPECT_EQ(loading.load->finish().value(), (BulkSummary{4, 4, 0, 4}));
}

TEST(Batches, that_have_been_answered_make_room_without_waiting)
{
    Loading loading({.operations = 1, .window = 3});
    loading.answer({.value = failed(1, LDAP_NO_SUCH_OBJECT, "gone")});
    ASSERT_TRUE(loading.load->submit(removal("cn=a")));
    ASSERT_TRUE(loading.load->submit(removal("cn=b")));
    EXPECT_EQ(loading.failures, std::vector<string>{"0 #0 cn=a 32 gone"});
    EXPECT_EQ(loading.load->progress(), (BulkSummary{2, 1, 1, 2}));
}

TEST(Batches, of_which_one_at_least_is_always_under_way)
{
    Loading loading({.operations = 1, .window = 0});
    ASSERT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_EQ(loading.batch(1), std::vector{deletion("cn=a")});
}

TEST(Batches, can_all_be_waited_for_while_the_load_goes_on)
{
    Loading loading({.operations = 2, .window = 4});
    loading.answer();
    loading.answer({.code = LDAP_OTHER, .value = failed(1, LDAP_ALREADY_EXISTS, "there")});
    for (const char *dn : {"cn=a", "cn=b", "cn=c"})
        ASSERT_TRUE(loading.load->submit(removal(dn)));
    EXPECT_TRUE(loading.load->settle());
    EXPECT_EQ(loading.load->progress(), (BulkSummary{3, 3, 1, 2}));
    EXPECT_EQ(loading.failures, std::vector<string>{"2 #0 cn=c 68 there"});

    // With nothing under way there is nothing to wait for; an answer that is late is awaited again.
    EXPECT_TRUE(loading.load->settle());
    ASSERT_TRUE(loading.load->submit(removal("cn=d")));
    loading.peer.set_timeout(20ms);
    EXPECT_EQ(loading.load->settle().error().code, LDAP_TIMEOUT);
    loading.peer.set_timeout(20s);
    loading.answer();
    EXPECT_TRUE(loading.load->settle());
    loading.end();
    EXPECT_EQ(loading.load->finish().value(), (BulkSummary{4, 4, 1, 3}));
    EXPECT_EQ(loading.load->settle().error().text, "the load has been finished");
}

TEST(Batches, come_through_a_long_load)
{
    Loading loading({.operations = 7, .window = 3});
    loading.peer.read_ahead();
    constexpr int updates = 20000;
    std::thread server([&] {
        // One failure in each batch but the last, which holds one update.
        for (int batch = 0; batch < updates / 7; ++batch)
            loading.answer({.code = LDAP_OTHER, .value = failed(7, 68, "there")});
        loading.answer();
        loading.end();
    });
    for (std::uint64_t i = 0; i < updates; ++i)
        ASSERT_TRUE(loading.load->submit(removal("cn=" + std::to_string(i)), i + 1));
    EXPECT_EQ(loading.load->finish().value(),
              (BulkSummary{updates, updates, updates / 7, updates / 7 + 1}));
    server.join();
    ASSERT_EQ(loading.failures.size(), updates / 7u);
    EXPECT_EQ(loading.failures[0], "6 #7 cn=6 68 there");
    EXPECT_EQ(loading.failures.back(), "19998 #19999 cn=19998 68 there");
}

// ---- Outcomes -----------------------------------------------------------------------------------

namespace {

// A batch of three updates with the tags 10, 20 and 30, answered.
struct Answered {
    Loading loading;
    Result<BulkSummary> result = Error();

    explicit Answered(const Response &response)
    {
        loading.answer(response);
        loading.end();
        for (std::uint64_t i = 1; i <= 3; ++i)
            EXPECT_TRUE(loading.load->submit(removal("cn=" + std::to_string(i)), 10 * i));
        result = loading.load->finish();
    }
    const std::vector<string> &failures() const
    {
        return loading.failures;
    }
};

using Failures = std::vector<string>;

} // namespace

TEST(Outcomes, name_the_update_that_failed)
{
    const Answered one({.code = LDAP_OTHER,
                        .name = lburp(7),
                        .value = failed(2, LDAP_NO_SUCH_OBJECT, "no such entry", "o=x")});
    EXPECT_EQ(one.failures(), Failures{"1 #20 cn=2 32 no such entry matched o=x"});
    EXPECT_EQ(one.result.value(), (BulkSummary{3, 3, 1, 1}));

    const Answered two({.name = lburp(7),
                        .value = failed(3, LDAP_ALREADY_EXISTS, "there") +
                                 failed(1, LDAP_OBJECT_CLASS_VIOLATION, "")});
    EXPECT_EQ(two.failures(), (Failures{"2 #30 cn=3 68 there", "0 #10 cn=1 65 "}));
    EXPECT_EQ(two.result.value(), (BulkSummary{3, 3, 2, 1}));
}

TEST(Outcomes, are_good_where_the_list_is_empty)
{
    for (const std::optional<string> &value : {std::optional<string>(), {""}}) {
        const Answered all({.name = lburp(7), .value = value});
        EXPECT_TRUE(all.failures().empty());
        EXPECT_EQ(all.result.value(), (BulkSummary{3, 3, 0, 1}));
    }
}

TEST(Outcomes, that_name_no_update_of_the_batch_say_so)
{
    const Answered strange({.name = lburp(7),
                            .value = failed(0, 32, "a") + failed(4, 32, "b") + failed(-1, 32, "c") +
                                     failed(2, 32, "d") + failed(2, 68, "again") +
                                     failed(-2147483647 - 1, 32, "e")});
    EXPECT_EQ(strange.failures(), (Failures{"? #0  32 a", "? #0  32 b", "? #0  32 c",
                                            "1 #20 cn=2 32 d", "? #0  32 e"}));
    EXPECT_EQ(strange.result.value(), (BulkSummary{3, 3, 5, 1}));
}

TEST(Outcomes, of_a_batch_that_was_refused_are_failures_of_all)
{
    const Failures all{"0 #10 cn=1 51 come back matched o=x", "1 #20 cn=2 51 come back matched o=x",
                       "2 #30 cn=3 51 come back matched o=x"};
    for (const std::optional<string> &name : {std::optional<string>(lburp(7)), {}}) {
        Loading loading;
        loading.peer.respond(
            {.code = LDAP_BUSY, .name = name, .diagnostic = "come back", .matched_dn = "o=x"});
        loading.answer();
        loading.end();
        for (std::uint64_t i = 1; i <= 3; ++i)
            EXPECT_TRUE(loading.load->submit(removal("cn=" + std::to_string(i)), 10 * i));
        EXPECT_EQ(loading.load->finish().value(), (BulkSummary{3, 3, 3, 2}));
        EXPECT_EQ(loading.failures, all);
    }
    // With failures of their own among them.
    const Answered some({.code = LDAP_BUSY,
                         .name = lburp(7),
                         .value = failed(2, LDAP_NO_SUCH_OBJECT, "gone"),
                         .diagnostic = "stopped"});
    EXPECT_EQ(some.failures(),
              (Failures{"1 #20 cn=2 32 gone", "0 #10 cn=1 51 stopped", "2 #30 cn=3 51 stopped"}));
    // Something failed, and nobody says what.
    const Answered unknown({.code = LDAP_OTHER, .name = lburp(7), .diagnostic = "some"});
    EXPECT_EQ(unknown.failures(),
              (Failures{"0 #10 cn=1 80 some", "1 #20 cn=2 80 some", "2 #30 cn=3 80 some"}));
}

TEST(Outcomes, of_a_batch_that_was_refused_do_not_keep_those_after_it_waiting)
{
    // The place of the second is filled, whatever the server says to that.
    for (const int code : {LDAP_SUCCESS, LDAP_OPERATIONS_ERROR}) {
        Loading loading({.operations = 1, .window = 3});
        for (const char *dn : {"cn=a", "cn=b", "cn=c"})
            ASSERT_TRUE(loading.load->submit(removal(dn)));
        for (int number = 1; number <= 3; ++number)
            loading.batch(number);
        loading.answer();
        loading.answer({.code = LDAP_PROTOCOL_ERROR});
        loading.answer();               // to the third
        loading.answer({.code = code}); // to the one that fills the place
        loading.end();
        EXPECT_EQ(loading.load->finish().value(), (BulkSummary{3, 3, 1, 4}));
        EXPECT_EQ(loading.failures, Failures{"1 #0 cn=b 2 "});
        EXPECT_EQ(loading.batch(2), std::vector<string>());
        EXPECT_EQ(loading.peer.take_request().value, sequence(integer(4)));
    }
}

TEST(Outcomes, without_a_reason_are_failures_all_the_same)
{
    const Answered bare({.name = lburp(7), .value = sequence(integer(2))});
    EXPECT_EQ(bare.failures(), Failures{"1 #20 cn=2 80 "});
}

TEST(Outcomes, may_carry_more_than_is_read)
{
    const Answered more(
        {.name = lburp(7),
         .value = sequence(integer(1), sequence(enumerated(10), octets(""), octets("elsewhere"),
                                                element(0xa3, octets("ldap://other")))) +
                  failed(3, 32, "gone")});
    EXPECT_EQ(more.failures(), (Failures{"0 #10 cn=1 10 elsewhere", "2 #30 cn=3 32 gone"}));
}

TEST(Outcomes, that_cannot_be_read_end_the_load)
{
    const string good = failed(1, 32, "gone");
    for (const string &value :
         {sequence(good), octets("x"), sequence(octets("1"), sequence()),
          sequence(integer(1), sequence()), sequence(integer(1), sequence(enumerated(1))),
          sequence(integer(1), sequence(enumerated(1), octets(""))), good + "\x30",
          bytes("30 84 7f ff ff ff"), bytes("00")}) {
        Answered answered({.name = lburp(7), .value = value});
        ASSERT_FALSE(answered.result) << hex(value);
        EXPECT_EQ(answered.result.error().code, LDAPX_DECODING_ERROR) << hex(value);
        EXPECT_TRUE(answered.failures().empty()) << hex(value);
        // Which updates have an outcome is still known, and nothing more is taken.
        EXPECT_EQ(answered.loading.load->progress(), (BulkSummary{3, 0, 0, 1})) << hex(value);
        EXPECT_EQ(answered.loading.load->submit(removal("cn=4")).error(), answered.result.error());
        EXPECT_EQ(answered.loading.load->flush().error(), answered.result.error());
        EXPECT_EQ(answered.loading.load->finish().error(), answered.result.error());
    }
}

TEST(Outcomes, cut_at_any_byte_end_the_load_or_leave_whole_failures)
{
    const string whole = failed(1, 32, "gone") + failed(2, 32, "gone");
    for (const string &cut : cuts(whole)) {
        const Answered answered({.name = lburp(7), .value = cut});
        if (cut.empty())
            EXPECT_TRUE(answered.failures().empty());
        else if (answered.result)
            EXPECT_EQ(answered.failures(), Failures{"0 #10 cn=1 32 gone"}) << hex(cut);
        else
            EXPECT_EQ(answered.result.error().code, LDAPX_DECODING_ERROR) << hex(cut);
    }
}

TEST(Outcomes, under_another_name_end_the_load)
{
    for (const string &name : {lburp(5), lburp(7) + "0", lburp(7).substr(0, 20)}) {
        const Answered answered({.name = name});
        EXPECT_EQ(answered.result.error().code, LDAPX_NOT_SUPPORTED) << name;
    }
    Loading loading;
    loading.peer.respond({});
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_EQ(loading.load->finish().error().code, LDAPX_NOT_SUPPORTED);
}

TEST(Outcomes, told_to_a_handler_that_throws_are_not_lost_count_of)
{
    Peer peer;
    peer.respond({.name = lburp(2)});
    peer.respond({.name = lburp(7), .value = failed(1, 32, "a") + failed(2, 32, "b")});
    peer.respond({.name = lburp(5)});
    int told = 0;
    BulkLoad load = BulkLoad::start(Session(peer.ld()), [&](const BulkFailure &) {
                        ++told;
                        throw std::runtime_error("enough");
                    }).value();
    EXPECT_TRUE(load.submit(removal("cn=a")));
    EXPECT_TRUE(load.submit(removal("cn=b")));
    EXPECT_THROW(static_cast<void>(load.finish()), std::runtime_error);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(load.finish().value(), (BulkSummary{2, 2, 2, 1}));
}

// ---- The end ------------------------------------------------------------------------------------

TEST(TheEnd, of_an_empty_load_is_one)
{
    Loading loading;
    loading.end();
    EXPECT_EQ(loading.load->finish().value(), BulkSummary());
    EXPECT_EQ(loading.peer.take_request().value, sequence(integer(1)));
}

TEST(TheEnd, comes_once)
{
    Loading loading;
    loading.end();
    EXPECT_TRUE(loading.load->finish());
    EXPECT_EQ(loading.load->finish().error().text, "the load has been finished");
    EXPECT_EQ(loading.load->submit(removal("cn=a")).error().code, LDAPX_PARAM_ERROR);
    loading.peer.take_request();
    EXPECT_TRUE(loading.peer.quiet());
}

TEST(TheEnd, that_the_server_refuses_is_its_error)
{
    Loading loading;
    loading.answer();
    loading.peer.respond({.code = LDAP_OPERATIONS_ERROR, .diagnostic = "out of order"});
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_EQ(loading.load->finish().error(),
              (Error{LDAP_OPERATIONS_ERROR, "Operations error", "bulk_update", "out of order"}));
    EXPECT_EQ(loading.load->progress(), (BulkSummary{1, 1, 0, 1}));
}

TEST(TheEnd, under_another_name_is_an_error)
{
    Loading loading;
    loading.end({.name = lburp(2)});
    EXPECT_EQ(loading.load->finish().error().code, LDAPX_NOT_SUPPORTED);
}

TEST(TheEnd, is_waited_for_again_after_a_timeout)
{
    Loading loading;
    loading.peer.set_timeout(20ms);
    EXPECT_EQ(loading.load->finish().error().code, LDAP_TIMEOUT);
    EXPECT_EQ(loading.load->finish().error().code, LDAP_TIMEOUT);
    loading.end();
    EXPECT_TRUE(loading.load->finish());
    EXPECT_EQ(loading.peer.take_request().name, lburp(4));
    EXPECT_TRUE(loading.peer.quiet());
}

TEST(TheEnd, is_waited_for_again_after_a_signal)
{
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {
    };
    sigaction(SIGUSR1, &ignore, nullptr);
    Loading loading({.operations = 1, .window = 1});
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_TRUE(loading.load->submit(removal("cn=b")));
    const pthread_t waiting = pthread_self();
    for (int i = 0; i < 2; ++i) {
        std::thread later([&] {
            std::this_thread::sleep_for(30ms);
            pthread_kill(waiting, SIGUSR1);
        });
        if (i == 0)
            EXPECT_EQ(loading.load->submit(removal("cn=c")).error().code, LDAP_USER_CANCELLED);
        else
            EXPECT_EQ(loading.load->finish().error().code, LDAP_USER_CANCELLED);
        later.join();
    }
    loading.answer();
    loading.answer();
    loading.end();
    EXPECT_EQ(loading.load->finish().value(), (BulkSummary{2, 2, 0, 2}));
}

TEST(TheEnd, comes_with_the_connection_s)
{
    Loading loading({.operations = 1, .window = 2});
    loading.answer();
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_TRUE(loading.load->submit(removal("cn=b")));
    loading.peer.close();
    const Result<BulkSummary> end = loading.load->finish();
    ASSERT_FALSE(end);
    EXPECT_EQ(end.error().code, LDAP_SERVER_DOWN);
    EXPECT_EQ(loading.load->progress(), (BulkSummary{2, 1, 0, 2}));
    EXPECT_EQ(loading.load->submit(removal("cn=c")).error(), end.error());
}

TEST(TheEnd, comes_after_what_came_whole_when_the_connection_ends_after_any_byte)
{
    const std::vector<string> answers = {
        extended_response(1, {.name = lburp(2)}),
        extended_response(2, {.name = lburp(7), .value = failed(1, 32, "gone")}),
        extended_response(3, {.name = lburp(5)})};
    const std::size_t begun = answers[0].size();
    const std::size_t answered = begun + answers[1].size();
    const string whole = answers[0] + answers[1] + answers[2];
    for (const bool closes : {true, false})
        for (std::size_t length = 0; length < whole.size(); ++length) {
            SCOPED_TRACE(length);
            const int lost = closes ? LDAP_SERVER_DOWN : LDAP_TIMEOUT;
            Peer peer;
            peer.limit_waits(1ms);
            peer.send(whole.substr(0, length));
            if (closes)
                peer.finish();
            std::vector<string> failures;
            Result<BulkLoad> load =
                BulkLoad::start(Session(peer.ld()), [&](const BulkFailure &failure) {
                    failures.push_back(shown(failure));
                });
            ASSERT_EQ(load.has_value(), length >= begun);
            if (!load) {
                EXPECT_EQ(load.error().code, lost);
                continue;
            }
            EXPECT_TRUE(load->submit(removal("cn=a")));
            const Result<BulkSummary> end = load->finish();
            ASSERT_FALSE(end);
            EXPECT_EQ(end.error().code, lost);
            const std::size_t known = length >= answered ? 1 : 0;
            EXPECT_EQ(load->progress(), (BulkSummary{1, known, known, 1}));
            EXPECT_EQ(failures.size(), known);
        }
}

TEST(TheEnd, comes_with_garbage)
{
    Loading loading;
    loading.peer.send(bytes("30 0c 02 01 02 78 07 0a 01 00 04 00 04 05"));
    loading.peer.finish();
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_FALSE(loading.load->finish());
}

// ---- Moves and destruction ----------------------------------------------------------------------

TEST(Loads, that_go_out_of_use_abandon_what_is_under_way)
{
    Loading loading({.operations = 1});
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    EXPECT_TRUE(loading.load->submit(removal("cn=b")));
    loading.load.reset();
    loading.batch(1);
    loading.batch(2);
    EXPECT_EQ(loading.peer.take_request().operation, LDAP_REQ_ABANDON);
    EXPECT_EQ(loading.peer.take_request().operation, LDAP_REQ_ABANDON);
    EXPECT_TRUE(loading.peer.quiet());
}

TEST(Loads, move_with_all_that_is_under_way)
{
    Loading loading({.operations = 2});
    loading.answer({.value = failed(2, 32, "gone")});
    loading.end();
    EXPECT_TRUE(loading.load->submit(removal("cn=a")));
    BulkLoad moved = *std::move(loading.load);
    EXPECT_TRUE(moved.submit(removal("cn=b"), 5));
    BulkLoad again = std::move(moved);
    EXPECT_EQ(again.finish().value(), (BulkSummary{2, 2, 1, 1}));
    EXPECT_EQ(loading.failures, Failures{"1 #5 cn=b 32 gone"});

    for (BulkLoad *empty : {&*loading.load, &moved}) { // NOLINT: must be harmless
        EXPECT_EQ(empty->submit(removal("cn=c")).error().code, LDAPX_PARAM_ERROR);
        EXPECT_EQ(empty->flush().error().code, LDAPX_PARAM_ERROR);
        EXPECT_EQ(empty->finish().error().code, LDAPX_PARAM_ERROR);
        EXPECT_EQ(empty->progress(), BulkSummary());
        EXPECT_EQ(empty->transaction_size(), 0);
    }
}

TEST(Loads, outlive_their_session)
{
    std::optional<BulkLoad> sending;
    std::optional<BulkLoad> unused;
    {
        Peer peer;
        for (std::optional<BulkLoad> *load : {&sending, &unused}) {
            peer.respond({.name = lburp(2)});
            *load = BulkLoad::start(Session(peer.ld()), nullptr).value();
        }
        EXPECT_TRUE(sending->submit(removal("cn=a")));
        EXPECT_TRUE(unused->submit(removal("cn=a")));
    }
    EXPECT_EQ(sending->finish().error().code, LDAP_SERVER_DOWN);
}
