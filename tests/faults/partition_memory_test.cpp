// Partitions and memory: nothing leaks on any path, and every single allocation may fail.

#include <gtest/gtest.h>

#include "faults/bare_exchange.h"
#include "support/ber.h"
#include "support/memory.h"
#include "support/peer.h"
#include "wire/partition_operations.h"

using namespace support;

namespace {

struct Scenario {
    const char *what;
    Response response;
};

std::vector<Scenario> scenarios(const Operation &operation)
{
    const std::string &name = operation.response;
    return {
        {"success", {.name = name, .value = bytes("02 01 2a")}},
        {"no value", {.name = name}},
        {"an empty value", {.name = name, .value = ""}},
        {"a value cut short", {.name = name, .value = bytes("02 04 00")}},
        {"a value of another type", {.name = name, .value = octets("many")}},
        {"a large value", {.name = name, .value = octets(std::string(100000, 'v'))}},
        {"no name", {.value = bytes("02 01 2a")}},
        {"another name", {.name = name + "0", .value = bytes("02 01 2a")}},
        {"a refusal", {.code = LDAP_BUSY, .diagnostic = "not now", .matched_dn = "o=x"}},
        {"a refusal with name and value",
         {.code = LDAP_BUSY, .name = name, .value = bytes("02 01 2a"), .diagnostic = "not now"}},
    };
}

// Those that differ in what is allocated.
std::vector<Scenario> scenarios_to_sweep(const Operation &operation)
{
    std::vector<Scenario> all = scenarios(operation);
    std::erase_if(all, [](const Scenario &scenario) {
        std::string_view what = scenario.what;
        return what == "an empty value" || what == "a value cut short" || what == "a large value" ||
               what == "a refusal";
    });
    return all;
}

// The same exchange without the library.
int bare(LDAP *ld, const Operation &operation)
{
    const char *request = operation.request.c_str();
    const char *response = operation.response.c_str();
    if (operation.decodes())
        return bare_exchange(ld, request, response, "s", "o=x");
    if (operation.value[0] == 0x02)
        return bare_exchange(ld, request, response, "is", 0, "o=x");
    return bare_exchange(ld, request, response, "ss", "cn=s", "o=lost");
}

class PartitionMemory : public testing::TestWithParam<Operation> {
protected:
    const Operation &operation = GetParam();

    // The LDAP library reads its configuration when the first session is made; once is enough for
    // all the child processes.
    static void SetUpTestSuite()
    {
        Peer first;
    }
};

INSTANTIATE_TEST_SUITE_P(, PartitionMemory, testing::ValuesIn(partition::operations()),
                         FunctionName());

} // namespace

TEST_P(PartitionMemory, is_all_released_whatever_the_server_answers)
{
    for (const Scenario &scenario : scenarios(operation)) {
        Outcome outcome = run_failing(Fail::never, 0, [&](Step &step) {
            Peer peer;
            peer.respond(scenario.response);
            step.run([&] { return operation.call(peer.ld()); });
        });
        EXPECT_EQ(outcome.lost, 0U) << scenario.what;
        EXPECT_EQ(outcome.died, "") << scenario.what;
        EXPECT_GT(outcome.allocations, 10U) << scenario.what;
    }
}

TEST_P(PartitionMemory, is_all_released_when_no_answer_comes)
{
    for (auto prepare : {+[](Peer &peer) { peer.close(); }, +[](Peer &peer) { peer.finish(); },
                         +[](Peer &peer) {
                             peer.set_timeout(std::chrono::milliseconds(5));
                         }}) {
        Outcome outcome = run_failing(Fail::never, 0, [&](Step &step) {
            Peer peer;
            prepare(peer);
            step.run([&] { return operation.call(peer.ld()); });
        });
        EXPECT_EQ(outcome.lost, 0U);
        EXPECT_EQ(outcome.died, "");
        EXPECT_LT(outcome.rc, 0);
    }
}

TEST_P(PartitionMemory, may_run_out_at_any_allocation)
{
    for (Fail mode : {Fail::once, Fail::from_then_on})
        for (const Scenario &scenario : scenarios_to_sweep(operation)) {
            auto with = [&](auto call) {
                return [&, call](Step &step) {
                    Peer peer;
                    peer.respond(scenario.response);
                    peer.finish(); // a lost response must not be waited for
                    step.run([&] { return call(peer.ld()); });
                };
            };
            std::vector<Outcome> yardstick =
                sweep(mode, with([this](LDAP *ld) { return bare(ld, operation); }));
            std::vector<Outcome> outcomes = sweep(mode, with(operation.call));
            ASSERT_GT(yardstick.size(), 10U);
            ASSERT_GE(outcomes.size(), yardstick.size());

            for (std::size_t n = 0; n + 1 < outcomes.size(); n++) {
                auto where = [&] {
                    return std::string(scenario.what) + ", allocation " + std::to_string(n + 1);
                };
                // The LDAP library's part: the same as without us, and known.
                if (n + 1 < yardstick.size()) {
                    EXPECT_EQ(outcomes[n], yardstick[n]) << where();
                    EXPECT_TRUE((yardstick[n].died.empty() && yardstick[n].lost == 0) ||
                                is_libldap_failure(yardstick[n]))
                        << where() << ": " << yardstick[n];
                    continue;
                }
                // Behind it only the entry count goes on, to make its reader.
                EXPECT_TRUE(operation.decodes()) << where();
                EXPECT_EQ(outcomes[n].rc, LDAPX_NO_MEMORY) << where();
                EXPECT_EQ(outcomes[n].lost, 0U) << where();
                EXPECT_EQ(outcomes[n].died, "") << where();
            }
            EXPECT_EQ(outcomes.back().lost, 0U) << scenario.what;
        }
}
