// Every message that the library decodes, damaged in one place, exhaustively: cut at every byte,
// each tag with each bit flipped, each length and each number replaced. No such message stops the
// process; each gives a code that its function may give, in little time and with little memory,
// and the blocks that are left are those that the manual states.
//
// Built twice: with every block counted, and under the sanitizers. Both link the library without
// its assertions, which would stop the process as they should.

#include <cstdio>
#include <ctime>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <set>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/event_session.h"
#include "support/events.h"
#include "support/mutations.h"
#include "support/response.h"
#include "wire/partition_operations.h"

#if COUNTED
#    include "support/memory.h"
#else
// A block that cannot be had is no error of the program: the server has asked for it. Larger ones
// than this take AddressSanitizer a second each.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=256";
}
#endif

using namespace support;

namespace {

// ---- What one case may cost -----------------------------------------------------------------

// Of processor time. AddressSanitizer marks every byte of a block.
constexpr double most_seconds = COUNTED ? 0.2 : 5;
constexpr std::size_t largest_block = 1U << 18; // no block is as large as a lie about its size

double processor_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// From its making to finish(): the operation, then the release of what it has handed out. Blocks
// that are still there at finish() have been lost.
class Case {
public:
    explicit Case(const Mutation &mutation) : mutation_(mutation) {}

    // The operation is over: what is still to come only releases.
    void done()
    {
        EXPECT_LT(processor_seconds() - begun_, most_seconds) << mutation_;
#if COUNTED
        measurement_.only_releases();
#endif
    }
    // So many blocks may be lost, or fewer.
    void finish([[maybe_unused]] std::size_t stated = 0, std::size_t largest = largest_block)
    {
#if COUNTED
        const Usage usage = measurement_.stop();
        EXPECT_LE(usage.blocks.size(), stated) << mutation_ << usage.describe();
        EXPECT_LE(usage.largest, largest) << mutation_;
#else
        static_cast<void>(largest);
#endif
    }

private:
    const Mutation &mutation_;
    const double begun_ = processor_seconds();
#if COUNTED
    Measurement measurement_;
#endif
};

// What the test counts for its last line.
int cases = 0;

class Total : public testing::Environment {
public:
    void TearDown() override
    {
        std::printf("%d damaged messages\n", cases);
    }
};
[[maybe_unused]] const auto *const environment = testing::AddGlobalTestEnvironment(new Total);

} // namespace

// ---- Synchronous operations -------------------------------------------------------------------

namespace {

struct Exchange {
    std::string function;
    std::string response_name;
    std::string answer; // empty where none is wanted
    std::set<int> codes;
    std::function<int(LDAP *, Outputs &)> call;
    std::size_t largest = largest_block;

    friend std::ostream &operator<<(std::ostream &out, const Exchange &exchange)
    {
        return out << exchange.function;
    }
};

std::set<int> codes(bool answered, int undecodable)
{
    return answered ? std::set<int>{LDAP_SUCCESS, undecodable, LDAPX_NO_MEMORY}
                    : std::set<int>{LDAP_SUCCESS};
}

int backup(LDAP *ld, Outputs &)
{
    char *state = nullptr, *info = nullptr, *chunks = nullptr;
    int size = 0;
    const int code = ldap_backup_object(ld, "o=x", nullptr, &state, &info, &chunks, &size);
    EXPECT_EQ(code == LDAP_SUCCESS, info != nullptr && chunks != nullptr);
    if (code != LDAP_SUCCESS) {
        EXPECT_EQ(state, nullptr);
    }
    ldapx_memfree(state);
    ldapx_memfree(info);
    ldapx_memfree(chunks);
    return code;
}

int restore(LDAP *ld, Outputs &)
{
    char data[] = "data";
    char chunks[] = "1;4;";
    return ldap_restore_object(ld, "o=x", nullptr, data, chunks, 4);
}

std::vector<Exchange> exchanges()
{
    std::vector<Exchange> all;
    for (const support::Operation &operation : support::operations()) {
        std::set<int> allowed = codes(operation.answer.has_value(), operation.undecodable);
        if (operation.function == "ldap_get_effective_privileges_list_ext")
            allowed.insert(LDAPX_DECODING_ERROR); // more of them than there is room for
        all.push_back({operation.function, operation.response_name, operation.answer.value_or(""),
                       allowed, operation.call});
    }
    for (const ::Operation &operation : partition::operations())
        all.push_back({operation.function, operation.response, operation.answer,
                       codes(operation.decodes(), LDAPX_ENCODING_ERROR),
                       [call = operation.call](LDAP *ld, Outputs &) {
                           return call(ld);
                       }});
    const std::string copy =
        concat(integer(4), integer(11), integer(12), octets("data"),
               sequence(integer(2), support::set(sequence(integer(3)), sequence(integer(1)))));
    // The data of a backup takes as much as the server says, up to 2 GiB that nobody touches.
    all.push_back({"ldap_backup_object", LDAPX_BACKUP_OBJECT_RESPONSE, copy,
                   codes(true, LDAPX_DECODING_ERROR), backup, SIZE_MAX});
    all.push_back(
        {"ldap_restore_object", LDAPX_RESTORE_OBJECT_RESPONSE, "", codes(false, 0), restore});
    return all;
}

class EveryExchange : public testing::TestWithParam<Exchange> {
protected:
    const Exchange &exchange = GetParam();

    void SetUp() override
    {
        Peer first; // the LDAP library reads its configuration once
    }

    std::string whole_message() const
    {
        return extended_response(
            1, {.name = exchange.response_name,
                .value = exchange.answer.empty() ? std::nullopt : std::optional(exchange.answer)});
    }
};

INSTANTIATE_TEST_SUITE_P(, EveryExchange, testing::ValuesIn(exchanges()),
                         [](const auto &exchange) { return exchange.param.function; });

class EveryAnswer : public EveryExchange {};

std::vector<Exchange> exchanges_with_answers()
{
    std::vector<Exchange> all = exchanges();
    std::erase_if(all, [](const Exchange &exchange) { return exchange.answer.empty(); });
    return all;
}

INSTANTIATE_TEST_SUITE_P(, EveryAnswer, testing::ValuesIn(exchanges_with_answers()),
                         [](const auto &exchange) { return exchange.param.function; });

} // namespace

TEST_P(EveryAnswer, that_is_damaged_gives_a_code_of_its_own_and_loses_nothing)
{
    for (const Mutation &mutation : mutations(exchange.answer)) {
        auto peer = std::make_unique<Peer>();
        peer->respond({.name = exchange.response_name, .value = mutation.bytes});
        peer->finish();
        Outputs out;
        Case damaged(mutation);
        const int code = exchange.call(peer->ld(), out);
        damaged.done();
        EXPECT_TRUE(exchange.codes.contains(code)) << code << ' ' << mutation;
        out.release();
        peer.reset();
        damaged.finish(0, exchange.largest);
        ++cases;
    }
}

// The rest of the message never comes: the connection is gone, and that is the LDAP library's to
// say. Backup and restore have no response name then, which they report first.
TEST_P(EveryExchange, with_an_answer_that_stops_in_the_middle_fails_and_loses_nothing)
{
    for (const std::string &cut : cuts(whole_message())) {
        const Mutation mutation{"cut after " + std::to_string(cut.size()) + " bytes", cut};
        auto peer = std::make_unique<Peer>();
        peer->send(cut);
        peer->finish();
        Outputs out;
        Case damaged(mutation);
        const int code = exchange.call(peer->ld(), out);
        damaged.done();
        EXPECT_TRUE(code == LDAP_SERVER_DOWN || code == LDAPX_NOT_SUPPORTED) << code << mutation;
        EXPECT_EQ(out.describe(), "") << mutation;
        out.release();
        peer.reset();
        damaged.finish();
        ++cases;
    }
}

namespace {

// What the LDAP library alone makes of a message: its result, the blocks that it loses and asks
// for, and whether the response has the right name and a value.
struct Bare {
    int code = 0;
    std::size_t lost = 0;
    std::size_t largest = 0; // block: as large as the message says that it is
    bool named = false;
    bool valued = false;
};

Bare bare_exchange(const std::string &message, const std::string &expected_name)
{
    Bare bare;
    auto peer = std::make_unique<Peer>();
    peer->send(message);
    peer->finish();
    char *name = nullptr;
    berval *value = nullptr;
#if COUNTED
    Measurement measurement;
#endif
    bare.code =
        ldap_extended_operation_s(peer->ld(), "1.2.3", nullptr, nullptr, nullptr, &name, &value);
#if COUNTED
    measurement.only_releases();
#endif
    bare.named = name != nullptr && name == expected_name;
    bare.valued = value != nullptr;
    ldap_memfree(name);
    ber_bvfree(value);
    peer.reset();
#if COUNTED
    const Usage usage = measurement.stop();
    bare.lost = usage.blocks.size();
    bare.largest = usage.largest;
#endif
    return bare;
}

} // namespace

// The message around the answer is libldap's: what it cannot take apart fails with its code, and
// it loses some. The operation adds nothing to that.
TEST_P(EveryExchange, with_a_damaged_message_does_what_the_ldap_library_does)
{
    const bool name_first =
        exchange.function == "ldap_backup_object" || exchange.function == "ldap_restore_object";
    const bool any_name = exchange.function == "ldap_get_replication_filter";
    for (const Mutation &mutation : mutations(whole_message())) {
        if (may_have_empty_name(mutation.bytes))
            continue;
        const StatedLeak what_the_ldap_library_loses;
        const Bare bare = bare_exchange(mutation.bytes, exchange.response_name);
        auto peer = std::make_unique<Peer>();
        peer->send(mutation.bytes);
        peer->finish();
        Outputs out;
        Case damaged(mutation);
        const int code = exchange.call(peer->ld(), out);
        damaged.done();
        if (bare.code != LDAP_SUCCESS && !name_first)
            EXPECT_EQ(code, bare.code) << mutation;
        else if (bare.code != LDAP_SUCCESS || (!bare.named && !any_name))
            EXPECT_TRUE(code == LDAPX_NOT_SUPPORTED || code == bare.code) << code << mutation;
        else if (!bare.valued && !exchange.answer.empty())
            EXPECT_TRUE(code == LDAPX_OPERATIONS_ERROR || code == LDAPX_NOT_SUPPORTED)
                << code << mutation;
        else
            EXPECT_TRUE(exchange.codes.contains(code) || code == LDAPX_NOT_SUPPORTED)
                << code << ' ' << mutation;
        out.release();
        peer.reset();
        damaged.finish(bare.lost, std::max(bare.largest, exchange.largest));
        ++cases;
    }
}

// ---- Responses that the application collects --------------------------------------------------

namespace {

struct Parser {
    std::string function;
    std::string response_name;
    std::string answer;
    std::set<int> codes;
    std::size_t stated; // blocks that may be lost
    std::function<int(LDAP *, LDAPMessage *)> parse;

    friend std::ostream &operator<<(std::ostream &out, const Parser &parser)
    {
        return out << parser.function;
    }
};

int parse_rejected(LDAP *ld, LDAPMessage *message)
{
    int result = 0, count = -77;
    char *text = nullptr;
    EVT_EventSpecifier *events = nullptr;
    const int code =
        ldap_parse_monitor_events_response(ld, message, &result, &text, &count, &events, 0);
    if (code != LDAP_SUCCESS) {
        EXPECT_EQ(count, 0);
        EXPECT_EQ(events, nullptr);
    }
    ldapx_memfree(events);
    ldap_memfree(text);
    return code;
}

int parse_start(LDAP *ld, LDAPMessage *message)
{
    int result = 0, size = -77;
    char *text = nullptr;
    const int code = ldap_parse_lburp_start_response(ld, message, &result, &text, &size, 0);
    ldap_memfree(text);
    return code;
}

int parse_batch(LDAP *ld, LDAPMessage *message)
{
    int result = 0, count = -77;
    char *text = nullptr;
    LBURPUpdateResult *failed = nullptr;
    const int code =
        ldap_parse_lburp_operation_response(ld, message, &result, &text, &count, &failed, 0);
    if (code != LDAP_SUCCESS) {
        EXPECT_EQ(count, 0);
        EXPECT_EQ(failed, nullptr);
    }
    for (int i = 0; i < count; ++i)
        ldap_memfree(failed[i].errorMsg);
    ldapx_memfree(failed);
    ldap_memfree(text);
    return code;
}

int parse_end(LDAP *ld, LDAPMessage *message)
{
    int result = 0;
    char *text = nullptr;
    const int code = ldap_parse_lburp_end_response(ld, message, &result, &text, 0);
    ldap_memfree(text);
    return code;
}

std::vector<Parser> parsers()
{
    const std::set<int> decoding = {LDAP_SUCCESS, LDAPX_DECODING_ERROR, LDAPX_NO_MEMORY};
    const auto failed = [](int number, const std::string &text) {
        return sequence(integer(number), sequence(integer(68), octets("cn=a"), octets(text)));
    };
    return {
        // The name of the response is not released.
        {"ldap_parse_monitor_events_response", LDAPX_MONITOR_EVENTS_RESPONSE,
         sequence(integer(2), support::set(sequence(integer(1), enumerated(0)),
                                           sequence(integer(77), enumerated(2)))),
         decoding, 1, parse_rejected},
        {"ldap_parse_lburp_start_response", LDAPX_LBURP_START_RESPONSE, sequence(integer(100)),
         decoding, 0, parse_start},
        // The messages of a list that breaks off are lost.
        {"ldap_parse_lburp_operation_response", LDAPX_LBURP_OPERATION_RESPONSE,
         failed(1, "there already") + failed(7, "") + failed(9, "no such entry"), decoding, 3,
         parse_batch},
        {"ldap_parse_lburp_end_response",
         LDAPX_LBURP_END_RESPONSE,
         integer(1),
         {LDAP_SUCCESS},
         0,
         parse_end},
    };
}

class EveryParser : public testing::TestWithParam<Parser> {};
INSTANTIATE_TEST_SUITE_P(, EveryParser, testing::ValuesIn(parsers()),
                         [](const auto &parser) { return parser.param.function; });

} // namespace

TEST_P(EveryParser, with_a_damaged_answer_gives_a_code_of_its_own_and_loses_what_is_stated)
{
    const Parser &parser = GetParam();
    for (const Mutation &mutation : mutations(parser.answer)) {
        auto response = std::make_unique<Collected>(
            Response{.name = parser.response_name, .value = mutation.bytes});
        std::optional<StatedLeak> leak;
        if (parser.stated > 0)
            leak.emplace();
        Case damaged(mutation);
        const int code = parser.parse(response->ld(), response->message());
        damaged.done();
        leak.reset();
        EXPECT_TRUE(parser.codes.contains(code)) << code << ' ' << mutation;
        EXPECT_EQ(response->session_code(), code) << mutation;
        response.reset();
        damaged.finish(parser.stated);
        ++cases;
    }
}

// ---- Events -----------------------------------------------------------------------------------

namespace {

class EveryEvent : public testing::TestWithParam<EventKind> {
protected:
    const EventKind &kind = GetParam();
    EventSession session;

    void expect_as_the_rules_say(const Mutation &mutation)
    {
        const Verdict expected = expected_verdict(kind, mutation.bytes, false);
        const Element ber = element_of(mutation.bytes);
        void *record = nullptr, *address = nullptr;
        std::optional<StatedLeak> leak;
        if (kind.tag == EVT_TAG_SEV_INFO)
            leak.emplace(); // the first address of a list that breaks off
        Case damaged(mutation);
        const int code = kind.decoder(session.ld(), ber.get(), &record, &address);
        damaged.done();
        leak.reset();
        EXPECT_EQ(code, expected.code) << mutation;
        EXPECT_EQ(session.peer.session_code(), code) << mutation;
        EXPECT_EQ(record != nullptr, code == LDAP_SUCCESS) << mutation;
        if (record != nullptr) {
            EXPECT_EQ(describe(kind, record), expected.text) << mutation;
            release_wholly(record);
        }
        EXPECT_EQ(describe_address(address), expected.trailer) << mutation;
        if (address != nullptr)
            ldap_event_free(address);
        damaged.finish(kind.tag == EVT_TAG_SEV_INFO && code != LDAP_SUCCESS ? 1 : 0);
        ++cases;
    }
};

INSTANTIATE_TEST_SUITE_P(, EveryEvent, testing::ValuesIn(event_kinds()),
                         [](const auto &kind) { return kind.param.name; });

} // namespace

TEST_P(EveryEvent, that_is_damaged_is_treated_as_the_rules_say)
{
    std::mt19937 random(kind.tag);
    std::vector<std::string> whole = {full_event(kind).bytes + trailer_bytes(),
                                      least_event(kind).bytes + trailer_bytes()};
    for (int i = 0; i < 4; ++i)
        whole.push_back(any_event(kind, random, {{0, 0x80, 0x80000000}, {0, 1, 5}}).bytes);
    for (const std::string &bytes : whole)
        for (const Mutation &mutation : mutations(bytes))
            expect_as_the_rules_say(mutation);
}

namespace {

// A flipped bit makes other kinds of events, one with referrals among them.
bool may_break_off(const Mutation &mutation)
{
    return mutation.bytes.find(char{EVT_TAG_SEV_INFO}) != std::string::npos;
}

void expect_damage_as_the_rules_say(EventSession &session, const std::string &value)
{
    for (const Mutation &mutation : mutations(value)) {
        const MessageVerdict expected = expected_message(mutation.bytes);
        const Message message = session.message(mutation.bytes);
        int type = -99, result = -99;
        void *record = nullptr, *address = nullptr;
        std::optional<StatedLeak> leak;
        if (expected.code != LDAP_SUCCESS)
            leak.emplace(); // the first address of a list that breaks off
        Case damaged(mutation);
        const int code = ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result,
                                                &record, 0, &address);
        damaged.done();
        leak.reset();
        EXPECT_EQ(seen_message(code, type, result, record, address), expected) << mutation;
        if (record != nullptr)
            release_wholly(record);
        if (address != nullptr)
            ldap_event_free(address);
        damaged.finish(code != LDAP_SUCCESS && may_break_off(mutation) ? 1 : 0);
        ++cases;
    }
}

} // namespace

TEST_P(EveryEvent, in_a_damaged_notification_is_treated_as_the_rules_say)
{
    expect_damage_as_the_rules_say(
        session, notification(1, 2, kind.tag, least_event(kind).bytes, trailer_bytes()));
}

TEST(AddressEvent, in_a_damaged_notification_is_treated_as_the_rules_say)
{
    EventSession session;
    expect_damage_as_the_rules_say(
        session, notification(1, 2, EVT_TAG_NET_ADDRESS, trailer_bytes(), trailer_bytes()));
}

// ---- Readers ----------------------------------------------------------------------------------

namespace {

struct PartReader {
    std::string function;
    std::string golden;
    std::function<int(BerElement *)> read;
    std::size_t stated = 0;

    friend std::ostream &operator<<(std::ostream &out, const PartReader &reader)
    {
        return out << reader.function;
    }
};

// For the readers that leave their result in a session.
LDAP *session()
{
    static const Peer peer;
    return peer.ld();
}

std::vector<PartReader> part_readers()
{
    return {
        {"parseOctetString", octets("10.0.0.1"),
         [](BerElement *ber) {
             char *block = nullptr;
             ber_len_t size = 77;
             const int code = parseOctetString(ber, &block, &size, 0);
             EXPECT_EQ(block == nullptr, size == 0);
             ldapx_memfree(block);
             return code;
         }},
        {"parseLDAPString", octets("tagged", 0x85),
         [](BerElement *ber) {
             char *text = nullptr;
             const int code = parseLDAPString(ber, &text, 0x85);
             EXPECT_TRUE(code == LDAP_SUCCESS || text == nullptr);
             ldapx_memfree(text);
             return code;
         }},
        {"parseReferralList",
         sequence(integer(2), sequence(sequence(integer(1), octets("10.0.0.1:389")),
                                       sequence(integer(-2), octets("x")))),
         [](BerElement *ber) {
             int count = -77;
             EVT_ReferralAddress *list = nullptr;
             const int code = parseReferralList(ber, &count, &list);
             if (list != nullptr && count > 0)
                 ldapx_memfree(list[0].address); // which the release leaves behind
             freeReferralList(count, list);
             return code;
         }},
        {"parseStringSequence", sequence(sequence(octets("1.2.3")), sequence(octets(""))),
         [](BerElement *ber) {
             char **list = nullptr;
             const int code = parseStringSequence(ber, &list);
             EXPECT_TRUE(code == LDAP_SUCCESS || list == nullptr);
             freeStringSequence(list);
             return code;
         }},
        {"parseConnectionData", sequence(integer(7), integer(8), octets("10.0.0.1")),
         [](BerElement *ber) {
             EVT_ConnectionEventData *connection = nullptr;
             const int code = parseConnectionData(ber, &connection);
             freeConnectionData(connection);
             return code;
         }},
        {"parseNetAddrEventData", trailer_bytes(),
         [](BerElement *ber) {
             void *record = nullptr;
             const int code = parseNetAddrEventData(session(), ber, &record);
             EXPECT_EQ(code == LDAP_SUCCESS, record != nullptr);
             if (record != nullptr)
                 ldap_event_free(record);
             return code;
         }},
        {"ber_get_IP", trailer_bytes(),
         [](BerElement *ber) {
             const int before = LDAP_SUCCESS;
             ldap_set_option(session(), LDAP_OPT_RESULT_CODE, &before);
             void *record = nullptr;
             const int code = ber_get_IP(session(), ber, &record);
             EXPECT_TRUE(code == LDAP_SUCCESS || record == nullptr);
             if (record != nullptr)
                 ldap_event_free(record);
             return code;
         }},
    };
}

class EveryReader : public testing::TestWithParam<PartReader> {};
INSTANTIATE_TEST_SUITE_P(, EveryReader, testing::ValuesIn(part_readers()),
                         [](const auto &reader) { return reader.param.function; });

} // namespace

TEST_P(EveryReader, of_a_damaged_element_gives_a_code_of_its_own_and_loses_nothing)
{
    const PartReader &reader = GetParam();
    session(); // its own blocks do not count
    for (const Mutation &mutation : mutations(reader.golden)) {
        const Element ber = element_of(mutation.bytes);
        Case damaged(mutation);
        const int code = reader.read(ber.get());
        damaged.done();
        EXPECT_TRUE(code == LDAP_SUCCESS || code == LDAPX_DECODING_ERROR || code == LDAPX_NO_MEMORY)
            << code << ' ' << mutation;
        damaged.finish();
        ++cases;
    }
}
