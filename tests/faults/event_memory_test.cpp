// Events and memory: what is kept and what is lost, to the block; every single allocation may
// fail; a million events leave nothing behind. The library is the one without assertions, so that
// damaged events come back.

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "faults/bare_exchange.h"
#include "support/ber.h"
#include "support/event_session.h"
#include "support/memory.h"
#include "support/response.h"

using namespace support;

namespace {

// The LDAP library reads its configuration when the first session is made; once is enough for all
// the child processes.
class EventMemory : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        Peer first;
    }
};

class AnyEventMemory : public testing::TestWithParam<EventKind> {
protected:
    const EventKind &kind = GetParam();
    EventSession session;

    static void SetUpTestSuite()
    {
        Peer first;
    }

    // What the release of a record leaves allocated by contract.
    long left() const
    {
        return kind.tag == EVT_TAG_SEV_INFO ? 1 : 0;
    }

    std::string whole_value() const
    {
        return notification(1, 2, kind.tag, full_event(kind).bytes, trailer_bytes());
    }
};

INSTANTIATE_TEST_SUITE_P(, AnyEventMemory, testing::ValuesIn(event_kinds()),
                         [](const auto &kind) { return kind.param.name; });

// The codes of the allocations that the full event of a kind makes, in their order, when each of
// them fails alone.
std::vector<int> codes(const EventKind &kind)
{
    constexpr int none = LDAPX_NO_MEMORY;
    const auto add = [](std::vector<int> &all, const std::vector<int> &more) {
        all.insert(all.end(), more.begin(), more.end());
    };
    std::vector<int> all{none}; // the record
    for (const Field &field : kind.fields)
        switch (field.form) {
        case Form::string:
            // A filter that cannot be stored is one that cannot be decoded.
            add(all, {field.name == "filter" ? LDAPX_DECODING_ERROR : none});
            break;
        case Form::tagged_string:
        case Form::new_dn:
        case Form::value:
        case Form::server_address:
        case Form::config_value:
            add(all, {none});
            break;
        case Form::mechanism:
            add(all, {LDAP_SUCCESS}); // the event is decoded without it
            break;
        case Form::connection:
            add(all, {none, none}); // the block, the address
            break;
        case Form::texts:
            add(all, {none, none, none});
            break;
        case Form::referrals:
            add(all, {none, none, none, none}); // the list, three addresses
            break;
        case Form::parameters:
            add(all, {none, none, none, none, none}); // the list, types 2, 3, 5 and 7
            break;
        case Form::strings:
        case Form::control_strings:
        case Form::referral_strings:
            add(all, {none}); // the list; then, for each string, its growth and the string
            for (int i = 0; i < 3; ++i)
                add(all, {none, LDAPX_DECODING_ERROR});
            break;
        default: // within the record
            break;
        }
    return all;
}

// What becomes of the call when the nth allocation fails and, mode willing, all after it.
int code_of(const std::vector<int> &all, std::size_t n, Fail mode)
{
    while (mode == Fail::from_then_on && all[n] == LDAP_SUCCESS && n + 1 < all.size())
        ++n;
    return all[n];
}

// Runs, for every allocation n of the own ones behind the bare ones, expect(n, outcome).
void expect_own(const std::vector<Outcome> &outcomes, std::size_t bare, const std::vector<int> &own,
                Fail mode)
{
    ASSERT_EQ(outcomes.size(), bare + own.size() + 1);
    for (std::size_t n = 0; n < own.size(); ++n) {
        EXPECT_EQ(outcomes[bare + n].rc, code_of(own, n, mode)) << "own allocation " << n + 1;
        EXPECT_EQ(outcomes[bare + n].died, "") << "own allocation " << n + 1;
    }
    EXPECT_EQ(outcomes.back().rc, LDAP_SUCCESS);
    EXPECT_EQ(outcomes.back().lost, 0U);
    EXPECT_EQ(outcomes.back().died, "");
}

std::size_t resident_pages()
{
    std::size_t size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident;
}

} // namespace

// ---- What is kept ----------------------------------------------------------------------------

TEST_P(AnyEventMemory, is_released_with_its_record_but_for_one_referral_address)
{
    const Message message = session.message(whole_value());
    int type = 0, result = 0;
    void *data = nullptr, *ip = nullptr;
    const Usage usage = measure([&] {
        ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip);
        ldap_event_free(ip);
        ldap_event_free(data);
    });
    EXPECT_EQ(usage.kept, left()) << usage.describe();
}

TEST_P(AnyEventMemory, makes_no_block_for_a_trailer_that_nobody_asked_for)
{
    const Message with = session.message(whole_value());
    const Message without = session.message(notification(1, 2, kind.tag, full_event(kind).bytes));
    std::vector<std::size_t> allocations;
    for (LDAPMessage *message : {with.get(), without.get()}) {
        int type = 0, result = 0;
        void *data = nullptr;
        const Usage usage =
            measure([&] { ldap_parse_ds_event(session.ld(), message, &type, &result, &data, 0); });
        allocations.push_back(usage.allocations);
        EventRecord(data).reset();
    }
    EXPECT_EQ(allocations[0], allocations[1]);
}

TEST_P(AnyEventMemory, cut_or_altered_leaves_nothing_behind)
{
    const std::string whole = full_event(kind).bytes + trailer_bytes();
    std::vector<std::string> damaged = cuts(whole);
    for (std::size_t i = 0; i < whole.size(); ++i)
        for (char byte : {'\x00', '\x02', '\x04', '\x1a', '\x30', '\x7f', '\x86'}) {
            damaged.push_back(whole);
            damaged.back()[i] = byte;
        }
    for (const std::string &fields : damaged) {
        const Element ber = element_of(fields);
        void *data = nullptr, *ip = nullptr;
        const Usage usage = measure([&] {
            kind.decoder(session.ld(), ber.get(), &data, &ip);
            if (data != nullptr)
                ldap_event_free(data);
            if (ip != nullptr)
                ldap_event_free(ip);
        });
        EXPECT_GE(usage.kept, 0) << hex(fields);
        EXPECT_LE(usage.kept, left()) << hex(fields) << usage.describe();
    }
}

TEST_F(EventMemory, the_first_address_of_a_referral_list_is_not_released_and_all_others_are)
{
    for (int count = 0; count <= 4; ++count) {
        std::string list;
        for (int i = 0; i < count; ++i)
            list += sequence(integer(i), octets(std::string(100 + static_cast<unsigned>(i), 'a')));
        const Element ber = element_of(sequence(integer(count), sequence(list)));
        int read = -1;
        EVT_ReferralAddress *referrals = nullptr;
        char *first = nullptr;
        const Usage usage = measure([&] {
            parseReferralList(ber.get(), &read, &referrals);
            if (count > 0)
                first = referrals[0].address;
            freeReferralList(read, referrals);
        });
        EXPECT_EQ(read, count);
        ASSERT_EQ(usage.kept, count > 0 ? 1 : 0) << usage.describe();
        if (count > 0) {
            EXPECT_EQ(usage.blocks[0].size, 101U);
        }
        ldapx_memfree(first);
    }
}

TEST_F(EventMemory, the_name_of_a_closing_response_is_not_released_and_all_else_is)
{
    struct Row {
        Response response;
        std::vector<std::size_t> lost; // sizes of blocks
        int code;
    };
    const std::string name = LDAPX_MONITOR_EVENTS_RESPONSE;
    const std::string list = sequence(integer(1), set(sequence(integer(1), enumerated(2))));
    const Row rows[] = {
        {{.name = name}, {30}, LDAP_SUCCESS},
        {{.name = name, .value = list}, {30}, LDAP_SUCCESS},
        {{.name = name, .value = ""}, {30}, LDAP_SUCCESS},
        {{.name = name, .value = sequence(integer(5))}, {30}, LDAP_SUCCESS},
        {{.name = name, .value = sequence(integer(2), set(sequence(integer(1), enumerated(2))))},
         {30},
         LDAPX_DECODING_ERROR},
        {{.name = name, .value = sequence(integer(99), set())}, {30}, LDAPX_DECODING_ERROR},
        {{.name = "1.2.3", .value = list}, {6}, LDAPX_DECODING_ERROR},
        {{.value = list}, {}, LDAP_SUCCESS},
    };
    for (const Row &row : rows) {
        Collected response(row.response);
        int result = 0, count = 0, code = 0;
        char *message = nullptr;
        EVT_EventSpecifier *events = nullptr;
        const Usage usage = measure([&] {
            code = ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                      &message, &count, &events, 0);
            ldap_memfree(message);
            ldapx_memfree(events);
        });
        EXPECT_EQ(code, row.code);
        std::vector<std::size_t> lost;
        for (const Block &block : usage.blocks)
            lost.push_back(block.size);
        EXPECT_EQ(lost, row.lost) << usage.describe();
    }
}

TEST_F(EventMemory, a_list_of_rejected_specifiers_is_one_block)
{
    std::string list;
    for (int i = 0; i < 10; ++i)
        list += sequence(integer(i), enumerated(0));
    Collected response(
        {.name = LDAPX_MONITOR_EVENTS_RESPONSE, .value = sequence(integer(10), set(list))});
    int result = 0, count = 0;
    EVT_EventSpecifier *events = nullptr;
    const Usage usage = measure([&] {
        ldap_parse_monitor_events_response(response.ld(), response.message(), &result, nullptr,
                                           &count, &events, 0);
    });
    EXPECT_EQ(count, 10);
    ASSERT_EQ(usage.kept, 2) << usage.describe(); // and the name
    EXPECT_EQ(usage.blocks[1].size, 10 * sizeof(EVT_EventSpecifier));
    ldapx_memfree(events);
}

TEST_F(EventMemory, a_message_is_released_exactly_when_asked_and_read)
{
    EventSession session;
    const std::string good = notification(1, 2, EVT_TAG_UNKNOWN_OP, concat(integer(1), octets("")));
    for (const std::string &value : {good, std::string("no event")}) {
        int type = 0, result = 0;
        Message kept = session.message(value);
        EXPECT_EQ(measure([&] {
                      ldap_parse_ds_event(session.ld(), kept.get(), &type, &result, nullptr, 0);
                  }).kept,
                  0);
        const long size = -measure([&] { kept.reset(); }).kept;
        EXPECT_GT(size, 0);
        LDAPMessage *given = session.message(value).release();
        EXPECT_EQ(measure([&] {
                      ldap_parse_ds_event(session.ld(), given, &type, &result, nullptr, 1);
                  }).kept,
                  -size);
    }
}

TEST_F(EventMemory, a_million_events_leave_nothing_behind)
{
    EventSession session;
    std::vector<Message> messages;
    std::mt19937 random(1);
    for (int i = 0; i < 400; ++i)
        for (const EventKind &kind : event_kinds())
            messages.push_back(session.message(notification(
                i, 0, kind.tag, any_event(kind, random).bytes, i % 2 == 0 ? trailer_bytes() : "")));
    const auto decode_all = [&] {
        for (const Message &message : messages) {
            int type = 0, result = 0;
            void *data = nullptr, *ip = nullptr;
            ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip);
            if (ip != nullptr)
                ldap_event_free(ip);
            if (data != nullptr)
                release_wholly(data);
        }
    };
    decode_all();
    const std::size_t before = resident_pages();
    const std::size_t rounds = 1000000 / messages.size() + 1;
    const Usage usage = measure([&] {
        for (std::size_t round = 0; round < rounds; ++round)
            decode_all();
    });
    EXPECT_EQ(usage.kept, 0);
    EXPECT_LT(resident_pages(), before + 1024 * 1024 / static_cast<std::size_t>(getpagesize()));
}

// ---- Without memory --------------------------------------------------------------------------

TEST_P(AnyEventMemory, may_run_out_at_any_allocation_of_its_decoder)
{
    std::vector<int> own = codes(kind);
    own.push_back(LDAPX_NO_MEMORY); // the trailer
    const std::string fields = full_event(kind).bytes + trailer_bytes();
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const std::vector<Outcome> outcomes = sweep(mode, [&](Step &step) {
            Peer peer;
            const Element ber = element_of(fields);
            void *data = nullptr, *ip = nullptr;
            int code = 0;
            step.run([&] { return code = kind.decoder(peer.ld(), ber.get(), &data, &ip); });
            const EventRecord record(data), address(ip);
            EXPECT_EQ(peer.session_code(), code);
            EXPECT_EQ(data != nullptr, code == LDAP_SUCCESS);
            EXPECT_EQ(ip != nullptr, code == LDAP_SUCCESS);
        });
        expect_own(outcomes, 0, own, mode);
        // A referral list that breaks off after its first address loses it.
        for (const Outcome &outcome : outcomes)
            EXPECT_LE(outcome.lost, static_cast<std::size_t>(left())) << outcome;
    }
}

TEST_P(AnyEventMemory, may_run_out_at_any_allocation_of_its_message)
{
    std::vector<int> own = codes(kind);
    own.push_back(LDAPX_NO_MEMORY); // the trailer
    const auto with = [&](auto parse) {
        return [&, parse](Step &step) {
            EventSession inner;
            const Message message = inner.message(whole_value());
            void *data = nullptr, *ip = nullptr;
            step.run([&] { return parse(inner.ld(), message.get(), &data, &ip); });
            const EventRecord record(data), address(ip);
        };
    };
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const std::vector<Outcome> yardstick =
            sweep(mode, with([](LDAP *ld, LDAPMessage *message, void **, void **) {
                      char *name = nullptr;
                      berval *value = nullptr;
                      const int rc =
                          ldap_parse_intermediate(ld, message, &name, &value, nullptr, 0);
                      ber_bvfree(value);
                      ldap_memfree(name);
                      return rc;
                  }));
        const std::vector<Outcome> outcomes =
            sweep(mode, with([](LDAP *ld, LDAPMessage *message, void **data, void **ip) {
                      int type = 0, result = 0;
                      return ldap_parse_ds_event_IP(ld, message, &type, &result, data, 0, ip);
                  }));
        const std::size_t bare = yardstick.size() - 1;
        expect_own(outcomes, bare, own, mode);
        for (std::size_t n = 0; n < bare; ++n)
            EXPECT_EQ(outcomes[n].describe(), yardstick[n].describe()) << "allocation " << n + 1;
    }
}

TEST_F(EventMemory, an_authentication_without_memory_for_its_mechanism_is_decoded_all_the_same)
{
    EventSession session;
    const Element ber =
        element_of(concat(integer(3), integer(4), octets(""), integer(5), octets("SIMPLE"),
                          integer(49), element(0x80, sequence(octets("1.2.3"))), trailer_bytes()));
    void *data = nullptr, *ip = nullptr;
    int code = -1;
    const Usage usage = measure_failing(
        Fail::once, 2, [&] { code = parseAuthEventData(session.ld(), ber.get(), &data, &ip); });
    EXPECT_TRUE(usage.struck);
    EXPECT_EQ(code, LDAP_SUCCESS);
    const EventRecord record(data), address(ip);
    const auto *event = static_cast<EVT_AuthEventData *>(data);
    EXPECT_EQ(event->authMechanism, nullptr);
    EXPECT_EQ(event->resultCode, 49);
    EXPECT_STREQ(event->controlOID[0], "1.2.3");
    EXPECT_EQ(describe_address(ip), trailer_text());
}

TEST_F(EventMemory, a_record_without_memory_is_NULL)
{
    void *record = this;
    measure_failing(Fail::once, 1, [&] { record = allocEventData(8, EVT_TAG_SKULK); });
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(allocEventData(static_cast<std::size_t>(-1) / 2, EVT_TAG_SKULK), nullptr);
}

TEST_F(EventMemory, strings_without_memory_are_NULL_and_unread)
{
    const Element ber = element_of(octets("hello"));
    char nobodys[] = "", *block = nobodys;
    ber_len_t size = 99;
    int code = -1;
    measure_failing(Fail::once, 1, [&] { code = parseOctetString(ber.get(), &block, &size, 0); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(size, 0U);
    block = nobodys;
    measure_failing(Fail::once, 1, [&] { code = parseLDAPString(ber.get(), &block, 0); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(unread(ber), 7U);
}

TEST_F(EventMemory, a_referral_list_without_memory_keeps_its_count_and_one_broken_off_its_addresses)
{
    const std::string list = sequence(
        integer(2), sequence(sequence(integer(1), octets("a")), sequence(integer(2), octets("b"))));
    int count = -1, code = -1;
    EVT_ReferralAddress *referrals = nullptr;
    Element ber = element_of(list);
    measure_failing(Fail::once, 1,
                    [&] { code = parseReferralList(ber.get(), &count, &referrals); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(referrals, nullptr);

    ber = element_of(list);
    measure_failing(Fail::once, 3,
                    [&] { code = parseReferralList(ber.get(), &count, &referrals); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(count, 2);
    ASSERT_NE(referrals, nullptr);
    EXPECT_STREQ(referrals[0].address, "a");
    EXPECT_EQ(referrals[1].type, 2);
    EXPECT_EQ(referrals[1].length, 0);
    EXPECT_EQ(referrals[1].address, nullptr);
    ldapx_memfree(referrals[0].address);
    freeReferralList(count, referrals);
}

TEST_F(EventMemory, a_connection_block_without_memory_is_NULL_and_one_broken_off_is_kept)
{
    const std::string block = sequence(integer(1), integer(2), octets("::1"));
    int code = -1;
    EVT_ConnectionEventData *connection = nullptr;
    Element ber = element_of(block);
    measure_failing(Fail::once, 1, [&] { code = parseConnectionData(ber.get(), &connection); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(connection, nullptr);

    ber = element_of(block);
    measure_failing(Fail::once, 2, [&] { code = parseConnectionData(ber.get(), &connection); });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->time, 2U);
    EXPECT_EQ(connection->inetAddr, nullptr);
    freeConnectionData(connection);
}

TEST_F(EventMemory, a_list_of_strings_without_memory_says_where_it_broke_off)
{
    const std::string list = sequence(sequence(octets("a")), sequence(octets("b")));
    // Its block; the growth, the string; the growth, the string.
    const int expected[] = {LDAPX_NO_MEMORY, LDAPX_NO_MEMORY, LDAPX_DECODING_ERROR, LDAPX_NO_MEMORY,
                            LDAPX_DECODING_ERROR};
    for (std::size_t n = 1; n <= 5; ++n)
        for (const Fail mode : {Fail::once, Fail::from_then_on}) {
            const Element ber = element_of(list);
            char **strings = nullptr;
            int code = -1;
            const Usage usage =
                measure_failing(mode, n, [&] { code = parseStringSequence(ber.get(), &strings); });
            EXPECT_EQ(code, expected[n - 1]) << n;
            EXPECT_EQ(usage.kept, 0) << usage.describe();
            // Where it could not grow, the caller's pointer still names the released list.
            EXPECT_EQ(strings != nullptr, n == 2 || n == 4) << n;
        }
    const Element ber = element_of(list);
    char **strings = nullptr;
    EXPECT_EQ(measure([&] { parseStringSequence(ber.get(), &strings); }).allocations, 5U);
    freeStringSequence(strings);
}

TEST_F(EventMemory, a_trailer_without_memory_fails_the_event)
{
    EventSession session;
    const Message message = session.message(
        notification(1, 2, EVT_TAG_UNKNOWN_OP, concat(integer(1), octets("")), trailer_bytes()));
    int type = 0, result = 0, code = -1;
    void *data = nullptr, *ip = nullptr;
    const std::size_t all =
        measure([&] {
            ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip);
        }).allocations;
    EventRecord(data).reset();
    EventRecord(ip).reset();
    const Usage usage = measure_failing(Fail::once, all, [&] {
        code = ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &data, 0, &ip);
    });
    EXPECT_EQ(code, LDAPX_NO_MEMORY);
    EXPECT_EQ(session.peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(ip, nullptr);
    EXPECT_EQ(usage.kept, 0);
}

TEST_F(EventMemory, may_run_out_at_any_allocation_of_a_registration)
{
    std::string filter(3000, 'f'); // so that the element grows
    const auto with = [](auto call) {
        return [call](Step &step) {
            Peer peer;
            peer.read_ahead();
            step.run([&] { return call(peer.ld()); });
        };
    };
    const auto ours = [&](LDAP *ld) {
        EVT_FilteredEventSpecifier events[] = {{1, 2, filter.data()}, {3, 4, filter.data()}};
        int id = 0;
        return ldap_monitor_events_filtered(ld, 2, events, &id);
    };
    const auto bare = [&](LDAP *ld) {
        BerElement *element = ber_alloc_t(0);
        if (element == nullptr)
            return LDAPX_NO_MEMORY;
        berval *value = nullptr;
        int id = 0, rc = LDAPX_ENCODING_ERROR;
        if (ber_printf(element, "{i[{ies}{ies}]}", 2, 1, 2, filter.data(), 3, 4, filter.data()) !=
            -1) {
            rc = ber_flatten(element, &value) == -1
                     ? LDAPX_NO_MEMORY
                     : ldap_extended_operation(ld, LDAPX_MONITOR_EVENTS_FILTERED_REQUEST, value,
                                               nullptr, nullptr, &id);
        }
        ber_bvfree(value);
        ber_free(element, 1);
        return rc;
    };
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const std::vector<Outcome> outcomes = sweep(mode, with(ours));
        EXPECT_EQ(outcomes, sweep(mode, with(bare)));
        EXPECT_GT(outcomes.size(), 8U);
        for (const Outcome &outcome : outcomes)
            EXPECT_TRUE((outcome.died.empty() && outcome.lost == 0) || is_libldap_failure(outcome))
                << outcome;
    }
}

TEST_F(EventMemory, may_run_out_at_any_allocation_of_a_closing_response)
{
    const Response response{.name = LDAPX_MONITOR_EVENTS_RESPONSE,
                            .value = sequence(integer(1), set(sequence(integer(1), enumerated(2)))),
                            .diagnostic = "one is unknown"};
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const auto yardstick = sweep(mode, [&](Step &step) {
            Collected collected(response);
            char *message = nullptr, *name = nullptr;
            berval *value = nullptr;
            step.run([&] {
                int result = 0;
                int rc = ldap_parse_result(collected.ld(), collected.message(), &result, nullptr,
                                           &message, nullptr, nullptr, 0);
                if (rc == LDAP_SUCCESS)
                    rc = ldap_parse_extended_result(collected.ld(), collected.message(), &name,
                                                    &value, 0);
                return rc;
            });
            ldap_memfree(message);
            ber_bvfree(value); // the name is not released
        });
        const auto outcomes = sweep(mode, [&](Step &step) {
            Collected collected(response);
            char *message = nullptr;
            EVT_EventSpecifier *events = nullptr;
            int count = 0;
            step.run([&] {
                int result = 0;
                return ldap_parse_monitor_events_response(collected.ld(), collected.message(),
                                                          &result, &message, &count, &events, 0);
            });
            EXPECT_EQ(count, events == nullptr ? 0 : 1);
            ldap_memfree(message);
            ldapx_memfree(events);
        });
        const std::size_t bare = yardstick.size() - 1;
        ASSERT_EQ(outcomes.size(), bare + 2);
        for (std::size_t n = 0; n < bare; ++n)
            EXPECT_EQ(outcomes[n].describe(), yardstick[n].describe()) << "allocation " << n + 1;
        EXPECT_EQ(outcomes[bare].rc, LDAPX_NO_MEMORY); // the list
        EXPECT_EQ(outcomes[bare].lost, 1U);            // the name
        EXPECT_EQ(outcomes.back().rc, LDAP_SUCCESS);
        EXPECT_EQ(outcomes.back().lost, 1U);
    }
}
