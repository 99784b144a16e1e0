// The ledger of every block that the library leaves allocated on purpose: which function, in which
// case, how many. The sweeps beside this file show that there are no others.

#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "support/administration.h"
#include "support/ber.h"
#include "support/event_session.h"
#include "support/memory.h"
#include "support/response.h"

using namespace support;

namespace {

struct Entry {
    std::string function;
    std::string when;
    long blocks; // that are there after the call, less those that the caller holds
    std::function<Usage()> call;
};
void PrintTo(const Entry &entry, std::ostream *stream)
{
    *stream << entry.function << ", " << entry.when;
}

// A name of the server's that finds no memory for its copy, the last block of a call.
Usage name_without_memory(const std::string &function)
{
    const Operation &row = operation(function);
    std::size_t last = 0;
    Usage usage;
    for (const Fail mode : {Fail::never, Fail::once}) {
        Peer peer;
        peer.respond({.name = row.response_name, .value = row.answer});
        Outputs out;
        int code = 0;
        usage = measure_failing(mode, last, [&] { code = row.call(peer.ld(), out); });
        EXPECT_EQ(code, mode == Fail::never ? LDAP_SUCCESS : LDAPX_NO_MEMORY);
        last = usage.allocations;
    }
    return usage;
}

// Of a registration's closing response, with this name and list.
Usage closing_response(const std::optional<std::string> &name, int code)
{
    Collected response(
        {.name = name, .value = sequence(integer(1), set(sequence(integer(1), enumerated(2))))});
    int result = 0, count = 0;
    char *message = nullptr;
    EVT_EventSpecifier *events = nullptr;
    return measure([&] {
        EXPECT_EQ(ldap_parse_monitor_events_response(response.ld(), response.message(), &result,
                                                     &message, &count, &events, 0),
                  code);
        ldap_memfree(message);
        ldapx_memfree(events);
    });
}

std::string addresses(int count)
{
    std::string list;
    for (int i = 0; i < count; ++i)
        list += sequence(integer(i), octets("10.0.0.1"));
    return sequence(integer(count), sequence(list));
}

Usage referral_list(int count)
{
    const Element ber = element_of(addresses(count));
    int read = 0;
    EVT_ReferralAddress *referrals = nullptr;
    return measure([&] {
        EXPECT_EQ(parseReferralList(ber.get(), &read, &referrals), LDAP_SUCCESS);
        freeReferralList(read, referrals);
    });
}

// An event with a list of two referrals; the second may be broken.
Usage referral_event(bool whole)
{
    const std::string second = whole ? octets("10.0.0.2") : integer(5);
    const std::string fields =
        concat(octets("o=x"), integer(3), octets("o=y"),
               sequence(integer(2), sequence(sequence(integer(1), octets("10.0.0.1")),
                                             sequence(integer(1), second))));
    EventSession session;
    const Element ber = element_of(fields);
    void *event = nullptr, *address = nullptr;
    int code = 0;
    const Usage usage = measure([&] {
        code = parseSEVEventData(session.ld(), ber.get(), &event, &address);
        if (event != nullptr)
            ldap_event_free(event);
    });
    EXPECT_EQ(code, whole ? LDAP_SUCCESS : LDAPX_DECODING_ERROR);
    return usage;
}

// A batch's response whose list breaks off behind so many failures.
Usage broken_failures(int read)
{
    std::string value;
    for (int i = 0; i < read; ++i)
        value += sequence(integer(i), sequence(enumerated(32), octets("o=x"), octets("gone")));
    Collected response(
        {.name = LDAPX_LBURP_OPERATION_RESPONSE, .value = value + octets("no element")});
    int result = 0, count = 0;
    char *message = nullptr;
    LBURPUpdateResult *failed = nullptr;
    return measure([&] {
        EXPECT_EQ(ldap_parse_lburp_operation_response(response.ld(), response.message(), &result,
                                                      &message, &count, &failed, 0),
                  LDAPX_DECODING_ERROR);
        ldap_memfree(message);
    });
}

// A backup whose nth allocation fails.
std::pair<Usage, int> backup_failing(Fail mode, std::size_t nth)
{
    Peer peer;
    peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE,
                  .value = concat(integer(4), integer(17), integer(2), octets("data"),
                                  sequence(integer(1), support::set(sequence(integer(4)))))});
    char *state = nullptr, *data = nullptr, *list = nullptr;
    int size = 0, code = 0;
    const Usage usage = measure_failing(mode, nth, [&] {
        code = ldap_backup_object(peer.ld(), "o=x", "secret", &state, &data, &list, &size);
        for (char *block : {state, data, list})
            ldapx_memfree(block);
    });
    return {usage, code};
}

// One whose chunk list cannot grow: of its last allocations, those of its own, the one that leaves
// most behind.
Usage chunk_list_without_memory()
{
    Usage most;
    const std::size_t all = backup_failing(Fail::never, 0).first.allocations;
    for (std::size_t nth = all; nth > all - 8; --nth) {
        const auto [usage, code] = backup_failing(Fail::once, nth);
        if (code == LDAPX_NO_MEMORY && usage.kept > most.kept)
            most = usage;
    }
    return most;
}

const std::vector<Entry> &ledger()
{
    const auto named = [](const char *function) {
        return Entry{function, "no memory for the copy of the decoded value", 2, [=] {
                         return name_without_memory(function);
                     }};
    };
    static const std::vector<Entry> entries{
        named("ldap_get_bind_dn"),
        named("ldap_get_context_identity_name"),
        named("ldap_zil_to_ldap"),
        named("ldap_dns_to_x500_dn"),
        {"ldap_parse_monitor_events_response", "the response has a name", 1,
         [] {
             return closing_response(LDAPX_MONITOR_EVENTS_RESPONSE, LDAP_SUCCESS);
         }},
        {"ldap_parse_monitor_events_response", "the response has another name", 1,
         [] {
             return closing_response("1.2.3", LDAPX_DECODING_ERROR);
         }},
        {"ldap_parse_monitor_events_response", "the response has no name", 0,
         [] {
             return closing_response(std::nullopt, LDAP_SUCCESS);
         }},
        {"freeReferralList", "the list is empty", 0,
         [] {
             return referral_list(0);
         }},
        {"freeReferralList", "the list has one address", 1,
         [] {
             return referral_list(1);
         }},
        {"freeReferralList", "the list has nine addresses", 1,
         [] {
             return referral_list(9);
         }},
        {"ldap_event_free", "the record has a referral list", 1,
         [] {
             return referral_event(true);
         }},
        {"parseSEVEventData", "it fails behind a referral list", 1,
         [] {
             return referral_event(false);
         }},
        {"ldap_parse_lburp_operation_response", "the first element cannot be read", 0,
         [] {
             return broken_failures(0);
         }},
        {"ldap_parse_lburp_operation_response", "the fourth element cannot be read", 3,
         [] {
             return broken_failures(3);
         }},
        {"ldap_backup_object", "no memory for the chunk list to grow", 1,
         chunk_list_without_memory},
    };
    return entries;
}

class Ledger : public testing::TestWithParam<Entry> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Of, Ledger, testing::ValuesIn(ledger()));

TEST_P(Ledger, tells_exactly_what_stays_allocated)
{
    const Usage usage = GetParam().call();
    EXPECT_EQ(usage.kept, GetParam().blocks) << usage.describe();
}
