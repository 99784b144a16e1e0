// Bulk update and memory: every single allocation may fail, and nothing is lost but the messages
// of a list of failed operations that could not be finished.

#include <gtest/gtest.h>

#include "faults/bare_exchange.h"
#include "support/ber.h"
#include "support/memory.h"
#include "support/peer.h"
#include "support/response.h"
#include "support/updates.h"

using namespace support;

namespace {

// The LDAP library reads its configuration when the first session is made; once is enough for all
// the child processes.
class LburpMemory : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        Peer first;
    }
};

// ---- Requests: beside the same request by the LDAP library's calls alone

// An asynchronous request as a bare sequence of calls; write returns what ber_printf returns.
template <class Write>
int bare_request(LDAP *ld, const char *name, int options, Write write)
{
    BerElement *element = ber_alloc_t(options);
    if (element == nullptr)
        return LDAPX_NO_MEMORY;
    berval *value = nullptr;
    int id = 0;
    int rc = LDAP_SUCCESS;
    if (write(element) == -1)
        rc = LDAPX_ENCODING_ERROR;
    else if (ber_flatten(element, &value) == -1)
        rc = LDAPX_NO_MEMORY;
    else
        rc = ldap_extended_operation(ld, name, value, nullptr, nullptr, &id);
    ber_bvfree(value);
    ber_free(element, 1);
    return rc;
}

template <class Ours, class Bare>
void expect_no_difference(Ours ours, Bare bare, std::size_t allocations)
{
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const auto with = [](auto call) {
            return [call](Step &step) {
                Peer peer;
                peer.read_ahead();
                step.run([&] { return call(peer.ld()); });
            };
        };
        const std::vector<Outcome> outcomes = sweep(mode, with(ours));
        const std::vector<Outcome> yardstick = sweep(mode, with(bare));
        EXPECT_GT(outcomes.size(), allocations);
        EXPECT_EQ(outcomes, yardstick);
        for (const Outcome &outcome : outcomes)
            EXPECT_TRUE((outcome.died.empty() && outcome.lost == 0) || is_libldap_failure(outcome))
                << outcome;
    }
}

// ---- Responses: behind the LDAP library's own part, each allocation has its code

struct Expected {
    int rc;
    std::size_t lost;
};

struct Outputs {
    int code = 0;
    char *message = nullptr;
    int number = 0;
    LBURPUpdateResult *failed = nullptr;

    Outputs() = default;
    Outputs(const Outputs &) = delete;
    Outputs &operator=(const Outputs &) = delete;
    ~Outputs()
    {
        for (int i = 0; failed != nullptr && i < number; ++i)
            ldapx_memfree(failed[i].errorMsg);
        ldapx_memfree(failed);
        ldap_memfree(message);
    }
};

using Parse = int (*)(LDAP *ld, LDAPMessage *message, Outputs &out, int free_it);

int parse_start(LDAP *ld, LDAPMessage *message, Outputs &out, int free_it)
{
    return ldap_parse_lburp_start_response(ld, message, &out.code, &out.message, &out.number,
                                           free_it);
}
int parse_end(LDAP *ld, LDAPMessage *message, Outputs &out, int free_it)
{
    return ldap_parse_lburp_end_response(ld, message, &out.code, &out.message, free_it);
}
int parse_operation(LDAP *ld, LDAPMessage *message, Outputs &out, int free_it)
{
    return ldap_parse_lburp_operation_response(ld, message, &out.code, &out.message, &out.number,
                                               &out.failed, free_it);
}
// What all three begin with.
int parse_bare(LDAP *ld, LDAPMessage *message, Outputs &out, int)
{
    char *name = nullptr;
    berval *value = nullptr;
    int rc = ldap_parse_result(ld, message, &out.code, nullptr, &out.message, nullptr, nullptr, 0);
    if (rc == LDAP_SUCCESS)
        rc = ldap_parse_extended_result(ld, message, &name, &value, 0);
    ldap_memfree(name);
    ber_bvfree(value);
    return rc;
}

std::vector<Outcome> sweep_parse(Fail mode, const Response &response, Parse parse)
{
    return sweep(mode, [&](Step &step) {
        Collected collected(response);
        Outputs out;
        step.run([&] { return parse(collected.ld(), collected.message(), out, 0); });
    });
}

void expect_parse(const Response &response, Parse parse, const std::vector<Expected> &own)
{
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const std::vector<Outcome> outcomes = sweep_parse(mode, response, parse);
        const std::vector<Outcome> yardstick = sweep_parse(mode, response, parse_bare);
        const std::size_t bare = yardstick.size() - 1;
        ASSERT_EQ(outcomes.size(), bare + own.size() + 1);
        for (std::size_t n = 0; n < bare; ++n) {
            // Not the number of allocations: libldap may do without a diagnostic message.
            EXPECT_EQ(outcomes[n].describe(), yardstick[n].describe()) << "allocation " << n + 1;
            EXPECT_TRUE((outcomes[n].died.empty() && outcomes[n].lost == 0) ||
                        is_libldap_failure(outcomes[n]))
                << outcomes[n];
        }
        for (std::size_t n = 0; n < own.size(); ++n) {
            EXPECT_EQ(outcomes[bare + n].rc, own[n].rc) << "own allocation " << n + 1;
            EXPECT_EQ(outcomes[bare + n].lost, own[n].lost) << "own allocation " << n + 1;
            EXPECT_EQ(outcomes[bare + n].died, "");
        }
        EXPECT_EQ(outcomes.back().rc, 0);
        EXPECT_EQ(outcomes.back().lost, 0u);
    }
}

std::string failed_element(int id, const std::string &message)
{
    return sequence(integer(id), sequence(enumerated(32), octets("o=x"), octets(message)));
}

const Response two_failures = {.name = LDAPX_LBURP_OPERATION_RESPONSE,
                               .value =
                                   concat(failed_element(1, "gone"), failed_element(2, "gone too")),
                               .diagnostic = "in part"};

} // namespace

TEST_F(LburpMemory, may_run_out_at_any_allocation_of_a_start_request)
{
    expect_no_difference(
        [](LDAP *ld) {
            int id = 0;
            return ldap_lburp_start_request(ld, &id);
        },
        [](LDAP *ld) {
            return bare_request(ld, LDAPX_LBURP_START_REQUEST, 0, [](BerElement *ber) {
                return ber_printf(ber, "{s}", LDAPX_LBURP_INCREMENTAL_UPDATE);
            });
        },
        5);
}

TEST_F(LburpMemory, may_run_out_at_any_allocation_of_an_end_request)
{
    expect_no_difference(
        [](LDAP *ld) {
            int id = 0;
            return ldap_lburp_end_request(ld, 5, &id);
        },
        [](LDAP *ld) {
            return bare_request(ld, LDAPX_LBURP_END_REQUEST, LBER_USE_DER,
                                [](BerElement *ber) { return ber_printf(ber, "{i}", 5); });
        },
        5);
}

// The values are so large that the element grows inside every encoder.
TEST_F(LburpMemory, may_run_out_at_any_allocation_of_a_batch)
{
    const std::string large(5000, 'v');
    Changes changes{{"description", {large, large}}};
    Controls controls(std::vector<Control>{{"1.2", large, 1}});
    std::string dn = "cn=" + large;
    Record add(LDAP_REQ_ADD, dn, controls.list());
    Record modify(LDAP_REQ_MODIFY, dn);
    Record rename(LDAP_REQ_MODDN, dn);
    Record remove(LDAP_REQ_DELETE, dn);
    add.carry(changes);
    modify.carry(changes);
    rename.carry(dn.data());
    auto batch = batch_of(add, modify, rename, remove);

    expect_no_difference(
        [&](LDAP *ld) {
            int id = 0;
            return ldap_lburp_operation_request(ld, 1, batch.data(), &id);
        },
        [&](LDAP *ld) {
            return bare_request(ld, LDAPX_LBURP_OPERATION_REQUEST, 0, [&](BerElement *ber) {
                char *type = changes.get()[0]->mod_type;
                char **values = changes.get()[0]->mod_values;
                berval value = controls.get()[0]->ldctl_value;
                const bool written =
                    ber_printf(ber, "{i", 1) != -1 &&
                    ber_printf(ber, "{t{s{{s[v]}}}t{{sbO}}}", LDAP_REQ_ADD, dn.c_str(), type,
                               values, LDAP_TAG_CONTROLS, "1.2", 1, &value) != -1 &&
                    ber_printf(ber, "{t{s{{e{s[v]}}}}}", LDAP_REQ_MODIFY, dn.c_str(), 0, type,
                               values) != -1 &&
                    ber_printf(ber, "{t{ssbs}}", LDAP_REQ_MODDN, dn.c_str(), dn.c_str(), 1,
                               dn.c_str()) != -1 &&
                    ber_printf(ber, "{ts}", LDAP_REQ_DELETE, dn.c_str()) != -1;
                return written ? ber_printf(ber, "}") : -1;
            });
        },
        15);
}

TEST_F(LburpMemory, may_run_out_at_any_allocation_of_a_start_response)
{
    expect_parse(
        {.name = LDAPX_LBURP_START_RESPONSE, .value = sequence(integer(500)), .diagnostic = "go"},
        parse_start,
        {
            {LDAPX_NO_MEMORY, 0}, // the reader
            {LDAPX_NO_MEMORY, 0}, // its bytes
        });
}

TEST_F(LburpMemory, may_run_out_at_any_allocation_of_an_end_response)
{
    expect_parse({.name = LDAPX_LBURP_END_RESPONSE, .value = "unread", .diagnostic = "bye"},
                 parse_end, {});
}

TEST_F(LburpMemory, may_run_out_at_any_allocation_of_an_operation_response)
{
    expect_parse(two_failures, parse_operation,
                 {
                     {LDAPX_NO_MEMORY, 0},      // the reader
                     {LDAPX_NO_MEMORY, 0},      // its bytes
                     {LDAPX_NO_MEMORY, 0},      // the array
                     {LDAPX_DECODING_ERROR, 0}, // the first element's matched DN
                     {LDAPX_DECODING_ERROR, 0}, // its message
                     {LDAPX_NO_MEMORY, 1},      // the array grows; from here the message is lost
                     {LDAPX_DECODING_ERROR, 1},
                     {LDAPX_DECODING_ERROR, 1},
                     {LDAPX_NO_MEMORY, 2},
                 });
}

TEST_F(LburpMemory, a_list_that_cannot_be_decoded_loses_the_messages_before_and_nothing_else)
{
    for (const std::size_t good : {0u, 1u, 3u}) {
        std::string value;
        for (std::size_t i = 0; i < good; ++i)
            value += failed_element(static_cast<int>(i), "gone");
        const Outcome outcome = run_failing(Fail::never, 0, [&](Step &step) {
            Collected collected(
                {.name = LDAPX_LBURP_OPERATION_RESPONSE, .value = value + octets("no element")});
            Outputs out;
            step.run([&] { return parse_operation(collected.ld(), collected.message(), out, 0); });
        });
        EXPECT_EQ(outcome.rc, LDAPX_DECODING_ERROR);
        EXPECT_EQ(outcome.lost, good);
        EXPECT_EQ(outcome.died, "");
    }
}

TEST_F(LburpMemory, an_array_has_one_record_more_than_it_counts)
{
    for (int count = 0; count < 3; ++count) {
        std::string value;
        for (int i = 0; i < count; ++i)
            value += failed_element(i, "gone");
        Collected collected({.name = LDAPX_LBURP_OPERATION_RESPONSE, .value = value});
        Outputs out;
        int rc = -1;
        const Usage usage =
            measure([&] { rc = parse_operation(collected.ld(), collected.message(), out, 0); });
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(usage.kept, 1 + count) << usage.describe();
        std::size_t arrays = 0;
        for (const Block &block : usage.blocks)
            arrays +=
                block.size == (static_cast<std::size_t>(count) + 1) * sizeof(LBURPUpdateResult)
                    ? 1u
                    : 0u;
        EXPECT_EQ(arrays, 1u) << usage.describe();
    }
}

TEST_F(LburpMemory, a_message_is_released_exactly_when_asked_and_read)
{
    struct Row {
        Parse parse;
        Response response;
    };
    const Row rows[] = {
        {parse_start, {.name = LDAPX_LBURP_START_RESPONSE, .value = sequence(integer(1))}},
        {parse_start, {.name = "1.2"}},
        {parse_end, {.name = LDAPX_LBURP_END_RESPONSE}},
        {parse_operation, {.name = LDAPX_LBURP_OPERATION_RESPONSE}},
        {parse_operation, {.name = "1.2", .value = "x"}},
    };
    for (const Row &row : rows) {
        Collected kept(row.response);
        Outputs out;
        EXPECT_EQ(measure([&] { row.parse(kept.ld(), kept.message(), out, 0); }).kept, 0);

        Collected given(row.response);
        LDAPMessage *message = given.release();
        EXPECT_LT(measure([&] { row.parse(given.ld(), message, out, 1); }).kept, 0);

        Collected unread(0x79, octets("1.2", 0x80)); // no result in it: it stays the caller's
        EXPECT_EQ(measure([&] { row.parse(unread.ld(), unread.message(), out, 1); }).kept, 0);
    }
}
