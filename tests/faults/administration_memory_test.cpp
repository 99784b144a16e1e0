// The administrative operations and memory: what stays allocated, how large it is, and every single
// allocation failing.

#include <algorithm>
#include <stdexcept>

#include <gtest/gtest.h>

#include "faults/bare_exchange.h"
#include "support/administration.h"
#include "support/ber.h"
#include "support/memory.h"
#include "support/peer.h"

using namespace support;

namespace {

Response good_response(const Operation &row)
{
    return {.name = row.response_name, .value = row.answer};
}

// One call of the operation, all that it handed out released again. A call that says that it
// succeeded must have handed out the whole answer, whatever failed on the way.
void call_once(Step &step, const Operation &row, const Response &response)
{
    Peer peer;
    Outputs out;
    peer.respond(response);
    peer.finish(); // a lost response must not be waited for
    int rc = 0;
    step.run([&] { return rc = row.call(peer.ld(), out); });
    if (rc == 0 && out.describe() != row.outcome)
        throw std::runtime_error("succeeded with " + out.describe());
}

// The same exchange by the LDAP library alone.
void exchange_once(Step &step, const Operation &row, const Response &response)
{
    std::string value = row.request_value.value_or("");
    Peer peer;
    peer.respond(response);
    peer.finish();
    step.run([&] {
        berval requestbv{value.size(), value.data()};
        char *name = nullptr;
        berval *data = nullptr;
        const int rc = ldap_extended_operation_s(peer.ld(), row.request_name.c_str(),
                                                 row.request_value ? &requestbv : nullptr, nullptr,
                                                 nullptr, &name, &data);
        ldap_memfree(name);
        ber_bvfree(data);
        return rc;
    });
}

// Runs that died or lost blocks, in their order.
std::vector<std::string> troubles(const std::vector<Outcome> &outcomes)
{
    std::vector<std::string> found;
    for (const Outcome &outcome : outcomes)
        if (!outcome.died.empty() || outcome.lost > 0)
            found.push_back(outcome.died + " lost " + std::to_string(outcome.lost));
    return found;
}

bool is_name(const Operation &row)
{
    return row.answer && row.answer->front() == 0x04;
}

class Memory : public testing::TestWithParam<Operation> {
protected:
    const Operation &row = GetParam();

    // The LDAP library reads its configuration when the first session is made; once is enough for
    // all the child processes.
    static void SetUpTestSuite()
    {
        Peer first;
    }
};
INSTANTIATE_TEST_SUITE_P(Operation, Memory, testing::ValuesIn(operations()), FunctionName());

// The one block that a call leaves with its caller.
Block block_from(const Operation &row, const std::string &value)
{
    Peer peer;
    peer.respond({.name = row.response_name, .value = value});
    Outputs out;
    int rc = -1;
    const Usage usage = measure([&] { rc = row.call(peer.ld(), out); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(usage.blocks.size(), 1u) << usage.describe();
    return usage.blocks.empty() ? Block{} : usage.blocks.front();
}

} // namespace

TEST_P(Memory, is_all_released_whatever_the_server_answers)
{
    std::vector<Response> responses = {
        {},
        {.value = "v"},
        {.name = row.response_name},
        {.name = row.response_name, .value = ""},
        {.name = row.response_name + "0", .value = "v"},
        {.code = LDAP_BUSY, .name = row.response_name, .value = "v", .diagnostic = "not now"}};
    if (row.answer)
        for (const std::string &value : cuts(*row.answer))
            responses.push_back({.name = row.response_name, .value = value});
    for (const Response &response : responses) {
        const Outcome outcome =
            run_failing(Fail::never, 0, [&](Step &step) { call_once(step, row, response); });
        EXPECT_EQ(outcome.lost, 0u) << hex(response.value.value_or("none"));
        EXPECT_EQ(outcome.died, "") << hex(response.value.value_or("none"));
    }
}

TEST_P(Memory, may_run_out_at_any_allocation)
{
    const bool set_filter = row.function == "ldap_set_replication_filter";
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        for (const Response &response :
             {good_response(row), Response{.name = "1.2", .value = row.answer},
              Response{.code = LDAP_BUSY, .name = row.response_name, .value = row.answer}}) {
            const auto yardstick =
                sweep(mode, [&](Step &step) { exchange_once(step, row, response); });
            const auto outcomes = sweep(mode, [&](Step &step) { call_once(step, row, response); });
            ASSERT_GT(yardstick.size(), 10u);

            // The LDAP library's own troubles are known, and nothing adds to them but the leak of
            // a decoded name, which the manual states.
            for (const Outcome &outcome : yardstick)
                EXPECT_TRUE((outcome.died.empty() && outcome.lost == 0) ||
                            is_libldap_failure(outcome))
                    << outcome;
            std::vector<std::string> expected = troubles(yardstick);
            if (is_name(row) && response.code == 0 && response.name == row.response_name)
                expected.push_back(" lost 2");
            EXPECT_EQ(troubles(outcomes), expected);

            // Every run that was struck says so with a code that the manual gives, except where
            // libldap does without the block, and where there is no working copy of a filter.
            int unreported = 0;
            for (std::size_t n = 0; n + 1 < outcomes.size(); ++n) {
                const int rc = outcomes[n].rc;
                const bool of_libldap =
                    std::any_of(yardstick.begin(), yardstick.end(),
                                [&](const Outcome &outcome) { return outcome.rc == rc; });
                EXPECT_TRUE(of_libldap || rc == 0 || rc == 0x5a || rc == 0x53 ||
                            rc == row.undecodable)
                    << outcomes[n] << " at allocation " << n + 1;
                unreported += rc == 0 && outcomes[n].died.empty();
            }
            const auto tolerated =
                std::count_if(yardstick.begin(), yardstick.end() - 1, [](const Outcome &outcome) {
                    return outcome.rc == 0 && outcome.died.empty();
                });
            EXPECT_EQ(unreported, tolerated + set_filter);
        }
    }
}

TEST(HandedOut, an_identity_has_room_for_its_whole_length_even_when_it_is_cut)
{
    for (const char *function : {"ldap_get_bind_dn", "ldap_get_context_identity_name"})
        for (const std::size_t length : {0u, 1u, 770u, 771u, 772u, 2000u})
            EXPECT_EQ(block_from(operation(function), octets(std::string(length, 'i'))).size,
                      length + 1);
}

TEST(HandedOut, a_converted_name_has_room_for_its_whole_length)
{
    for (const char *function : {"ldap_zil_to_ldap", "ldap_dns_to_x500_dn"})
        for (const std::size_t length : {0u, 1u, 772u, 2000u})
            EXPECT_EQ(block_from(operation(function), octets(std::string(length, 'i'))).size,
                      length + 1);
}

TEST(HandedOut, a_filter_s_text_is_allocated_once_by_the_size_of_the_value)
{
    const Operation &row = operation("ldap_get_replication_filter");
    EXPECT_EQ(block_from(row, bytes("30 00")).size, 4u);
    EXPECT_EQ(block_from(row, *row.answer).size, row.answer->size() + 2);
}

TEST(HandedOut, a_filter_s_text_stays_with_the_caller_when_decoding_fails)
{
    const Operation &row = operation("ldap_get_replication_filter");
    for (const std::string &value :
         {std::string(), octets("x"), sequence(sequence(octets("a"), sequence()), octets("b"))}) {
        Peer peer;
        peer.respond({.name = row.response_name, .value = value});
        Outputs out;
        int rc = 0;
        const Usage usage = measure([&] { rc = row.call(peer.ld(), out); });
        EXPECT_EQ(rc, 0x54);
        ASSERT_EQ(usage.blocks.size(), 1u) << usage.describe();
        EXPECT_EQ(usage.blocks.front().size, value.size() + 2);
    }
}
