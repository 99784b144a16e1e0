// The administrative operations when a step of the call fails: the result, what the caller then
// holds, what is still sent, and the release of exactly what exists, in its order.

#include <algorithm>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/berfail.h"
#include "support/peer.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

bool is_filter(const Operation &row)
{
    return row.function.find("replication_filter") != std::string::npos;
}

// Those whose answer is one name.
bool is_name(const Operation &row)
{
    return row.answer && row.answer->front() == 0x04;
}

bool is_replica_info(const Operation &row)
{
    return row.function.find("replica_info") != std::string::npos;
}

Names joined(Names first, const Names &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// What the request leaves to release when the call ends, and what it released on the way.
Names released_of_request(const Operation &row)
{
    return row.request_value ? Names{"ber_bvfree(requestbv)", "ber_free(requestber)"} : Names{};
}

Names released_before_exchange(const Operation &row)
{
    return row.function == "ldap_zil_to_ldap" ? Names{"free(malloc)"} : Names{};
}

// The filter's working copy lives until the response has come.
Names released_after_exchange(const Operation &row)
{
    return row.function == "ldap_set_replication_filter" ? Names{"free(malloc)"} : Names{};
}

// A call whose response came with a name and, if so, a value, that was not opened.
Names released_unopened(const Operation &row, bool value)
{
    Names names = joined(released_before_exchange(row), released_after_exchange(row));
    names.push_back("ldap_memfree(returnedOID)");
    if (value)
        names.push_back("ber_bvfree(returnedbv)");
    return joined(names, released_of_request(row));
}

// A call that could open the value, with what it decoded before and after the reader goes.
Names released_opened(const Operation &row, const Names &before, const Names &after)
{
    const Names reader = {"ber_free(returnedber)"};
    const Names response = {"ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)"};
    const Names frame = joined(response, released_of_request(row));
    if (is_filter(row)) // the reader goes last
        return joined(joined(before, frame), reader);
    return joined(released_before_exchange(row),
                  joined(joined(before, reader), joined(after, frame)));
}

Names released_on_success(const Operation &row)
{
    if (!row.answer)
        return released_unopened(row, false);
    if (is_filter(row)) // the second class has no attributes, hence no list
        return released_opened(row, {"ldap_value_free(v)", "ldap_memfree(a)", "ldap_memfree(a)"},
                               {});
    return released_opened(row, is_name(row) ? Names{"ber_bvfree(O)"} : Names{},
                           is_replica_info(row) ? Names{"ldap_memfree(a)"} : Names{});
}

const char *allocator_of(const Operation &row)
{
    return is_filter(row) ? "ber_alloc_t" : "ber_alloc";
}

// One call on a session of its own, watched from its beginning to its end.
struct Call {
    const Operation &row;
    Peer peer;
    Outputs out;
    Calls calls;

    int make(const Response &response)
    {
        peer.respond(response);
        return row.call(peer.ld(), out);
    }
    int make()
    {
        return make({.name = row.response_name, .value = row.answer});
    }
    bool nothing_left()
    {
        out.release();
        return calls.unreleased().empty();
    }
};

// How often a call that succeeds makes this call.
int times(const Operation &row, const std::string &function)
{
    Call call{row, {}, {}, {}};
    EXPECT_EQ(call.make(), 0);
    return call.calls.count(function);
}

std::vector<Operation> rows(bool (*wanted)(const Operation &))
{
    std::vector<Operation> chosen;
    std::copy_if(operations().begin(), operations().end(), std::back_inserter(chosen), wanted);
    return chosen;
}

class Every : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, Every, testing::ValuesIn(operations()), FunctionName());

class EveryWithRequest : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, EveryWithRequest,
                         testing::ValuesIn(rows([](const Operation &row) {
                             return row.request_value.has_value();
                         })),
                         FunctionName());

class EveryReader : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, EveryReader, testing::ValuesIn(rows([](const Operation &row) {
                             return row.answer.has_value();
                         })),
                         FunctionName());

class EveryName : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, EveryName, testing::ValuesIn(rows(is_name)), FunctionName());

} // namespace

TEST_P(Every, takes_its_steps_once_and_releases_everything_in_order)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    EXPECT_EQ(call.make(), 0);
    EXPECT_EQ(call.calls.released(), released_on_success(row));
    EXPECT_EQ(call.calls.count(allocator_of(row)), row.request_value ? 1 : 0);
    EXPECT_EQ(call.calls.count("ber_flatten"), row.request_value ? 1 : 0);
    EXPECT_EQ(call.calls.count("ldap_extended_operation_s"), 1);
    EXPECT_EQ(call.calls.count("ber_init"), row.answer ? 1 : 0);
    EXPECT_EQ(call.calls.count("ldap_set_option"), 0) << "the session's result code is not ours";
    EXPECT_TRUE(call.nothing_left());
}

TEST_P(Every, releases_the_response_and_the_request_when_the_name_is_wrong)
{
    const Operation &row = GetParam();
    if (row.lenient)
        return; // takes any name
    Call call{row, {}, {}, {}};
    EXPECT_EQ(call.make({.name = row.response_name + "0", .value = "v"}), 0x5c);
    EXPECT_EQ(call.calls.released(), released_unopened(row, true));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.calls.count("ber_init"), 0);
}

TEST_P(Every, releases_what_came_when_there_is_no_name)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    EXPECT_EQ(call.make({.value = "v"}), 0x5c);
    Names expected = released_unopened(row, true);
    std::erase(expected, "ldap_memfree(returnedOID)");
    EXPECT_EQ(call.calls.released(), expected);
    EXPECT_EQ(call.calls.unreleased(), Names());
}

TEST_P(Every, gives_the_code_of_a_failed_exchange_and_releases_the_request)
{
    const Operation &row = GetParam();
    for (const int code : {LDAP_NO_MEMORY, LDAP_SERVER_DOWN, LDAP_BUSY}) {
        Call call{row, {}, {}, {}};
        call.calls.fail("ldap_extended_operation_s", 1, code);
        EXPECT_EQ(call.make(), code);
        EXPECT_EQ(call.calls.released(),
                  joined(joined(released_before_exchange(row), released_after_exchange(row)),
                         released_of_request(row)));
        EXPECT_EQ(call.calls.unreleased(), Names());
        EXPECT_EQ(call.out.describe(), "");
    }
}

TEST_P(EveryWithRequest, ends_at_once_without_a_request_element)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    call.calls.fail(allocator_of(row));
    EXPECT_EQ(call.make(), 0x5a);
    EXPECT_EQ(call.calls.made(), Names{allocator_of(row)});
    EXPECT_EQ(call.calls.released(), Names());
    EXPECT_EQ(call.calls.count("malloc"), 0);
    EXPECT_EQ(call.out.describe(), "");
    EXPECT_TRUE(call.peer.quiet());
}

TEST_P(EveryWithRequest, sends_nothing_when_any_part_cannot_be_encoded)
{
    const Operation &row = GetParam();
    const int parts = times(row, "ber_printf");
    ASSERT_GT(parts, 0);
    for (int part = 1; part <= parts; ++part) {
        Call call{row, {}, {}, {}};
        call.calls.fail("ber_printf", part);
        EXPECT_EQ(call.make(), 0x53) << part;
        EXPECT_EQ(call.calls.count("ber_printf"), part) << "encoding goes on after a failure";
        EXPECT_EQ(call.calls.count("ber_flatten"), 0) << part;
        EXPECT_EQ(call.calls.released().back(), "ber_free(requestber)") << part;
        EXPECT_EQ(call.calls.unreleased(), Names()) << part;
        EXPECT_EQ(call.out.describe(), "") << part;
        EXPECT_TRUE(call.peer.quiet()) << part;
    }
}

TEST_P(EveryWithRequest, sends_nothing_when_the_request_cannot_be_flattened)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    call.calls.fail("ber_flatten");
    EXPECT_EQ(call.make(), 0x5a);
    EXPECT_EQ(call.calls.released(),
              joined(joined(released_before_exchange(row), released_after_exchange(row)),
                     {"ber_free(requestber)"}));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.out.describe(), "");
    EXPECT_TRUE(call.peer.quiet());
}

TEST_P(EveryReader, has_no_memory_for_its_reader)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    call.calls.fail("ber_init");
    EXPECT_EQ(call.make(), row.lenient ? 0x54 : 0x5a);
    EXPECT_EQ(call.calls.released(), released_unopened(row, true));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.out.describe(), "");
}

TEST_P(EveryReader, releases_what_came_when_there_is_no_value)
{
    const Operation &row = GetParam();
    Call call{row, {}, {}, {}};
    EXPECT_EQ(call.make({.name = row.response_name}), 1);
    EXPECT_EQ(call.calls.released(), released_unopened(row, false));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.calls.count("ber_init"), 0);
}

TEST_P(EveryReader, gives_its_code_when_any_part_cannot_be_decoded_and_stops_there)
{
    const Operation &row = GetParam();
    const int parts = times(row, "ber_scanf");
    ASSERT_GT(parts, 0);
    for (int part = 1; part <= parts; ++part) {
        Call call{row, {}, {}, {}};
        call.calls.fail("ber_scanf", part);
        EXPECT_EQ(call.make(), row.undecodable) << part;
        EXPECT_EQ(call.calls.count("ber_scanf"), part);
        EXPECT_TRUE(call.nothing_left()) << part;
    }
}

TEST_P(EveryReader, releases_its_reader_and_the_frame_in_order_when_the_value_is_none)
{
    const Operation &row = GetParam();
    for (const std::string &value : {std::string(), bytes("30"), bytes("ff ff ff")}) {
        Call call{row, {}, {}, {}};
        EXPECT_EQ(call.make({.name = row.response_name, .value = value}), row.undecodable);
        EXPECT_EQ(call.calls.released(), released_opened(row, {}, {})) << hex(value);
        EXPECT_TRUE(call.nothing_left());
    }
}

TEST_P(EveryReader, leaves_nothing_behind_wherever_the_value_is_cut)
{
    const Operation &row = GetParam();
    for (const std::string &value : cuts(*row.answer)) {
        Call call{row, {}, {}, {}};
        EXPECT_EQ(call.make({.name = row.response_name, .value = value}), row.undecodable);
        EXPECT_TRUE(call.nothing_left()) << hex(value);
    }
}

TEST_P(EveryName, leaves_the_decoded_name_behind_when_there_is_no_memory_for_the_copy)
{
    const Operation &row = GetParam();
    const int blocks = times(row, "malloc");
    Call call{row, {}, {}, {}};
    call.calls.fail("malloc", blocks);
    {
        StatedLeak leak;
        EXPECT_EQ(call.make(), 0x5a);
    }
    EXPECT_EQ(call.out.describe(), "text=NULL");
    EXPECT_EQ(call.calls.unreleased(), Names{"O"}) << "the leak that the manual states";
    EXPECT_EQ(call.calls.released(), released_opened(row, {}, {}));
}

TEST(NativeNameFaults, without_memory_for_the_units_the_request_element_is_released)
{
    Call call{operation("ldap_zil_to_ldap"), {}, {}, {}};
    call.calls.fail("malloc");
    EXPECT_EQ(call.make(), 0x5a);
    EXPECT_EQ(call.calls.made(), (Names{"ber_alloc", "ber_free"}));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.out.describe(), "");
    EXPECT_TRUE(call.peer.quiet());
}

TEST(NativeNameFaults, the_units_are_released_as_soon_as_they_are_encoded_or_not)
{
    for (const bool failing : {false, true}) {
        Call call{operation("ldap_zil_to_ldap"), {}, {}, {}};
        if (failing)
            call.calls.fail("ber_printf");
        else
            call.calls.fail("ber_flatten");
        EXPECT_EQ(call.make(), failing ? 0x53 : 0x5a);
        EXPECT_EQ(call.calls.released(), (Names{"free(malloc)", "ber_free(requestber)"}));
    }
}

TEST(ReplicaInfoFaults, without_memory_for_the_whole_name_the_record_is_filled)
{
    Call call{operation("ldap_get_replica_info_ext"), {}, {}, {}};
    call.calls.fail("malloc");
    EXPECT_EQ(call.make(), 0x5a);
    EXPECT_EQ(call.out.describe(), operation("ldap_get_replica_info").outcome + " text=NULL");
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_EQ(call.calls.released(), released_on_success(call.row));
}

TEST(FilterFaults, without_memory_for_the_text_it_is_null)
{
    Call call{operation("ldap_get_replication_filter"), {}, {}, {}};
    call.calls.fail("malloc");
    EXPECT_EQ(call.make(), 0x5a);
    EXPECT_EQ(call.out.describe(), "text=NULL");
    EXPECT_EQ(call.calls.released(), released_opened(call.row, {}, {}));
    EXPECT_EQ(call.calls.unreleased(), Names());
}

TEST(FilterFaults, without_memory_for_the_working_copy_nothing_is_sent_and_nothing_reported)
{
    BerElement *element = ber_alloc_t(0);
    const int written = ber_printf(element, "s{", "cn=srv");
    ber_free(element, 1);

    Call call{operation("ldap_set_replication_filter"), {}, {}, {}};
    call.calls.fail("malloc");
    EXPECT_EQ(call.make(), written);
    EXPECT_EQ(call.calls.made(), (Names{"ber_alloc_t", "ber_printf s{", "ber_free"}));
    EXPECT_EQ(call.calls.unreleased(), Names());
    EXPECT_TRUE(call.peer.quiet());
}

TEST(FilterFaults, the_working_copy_of_a_refused_text_is_released)
{
    Peer peer;
    Calls calls;
    EXPECT_EQ(ldap_set_replication_filter(peer.ld(), "cn=srv", "a$b$$c"), 0x59);
    EXPECT_EQ(calls.released(), (Names{"free(malloc)", "ber_free(requestber)"}));
    EXPECT_EQ(calls.unreleased(), Names());
    EXPECT_TRUE(peer.quiet());
}

// Which arguments are NULL is left to the encoder, which would not take them.
TEST(Arguments, that_are_null_reach_the_encoder_unchecked)
{
    Peer peer;
    Calls calls;
    LDAP *ld = peer.ld();
    LDAPReplicaInfo info;
    char *text = nullptr;
    char **list = nullptr;
    int number = 0;
    calls.fail_from("ber_printf");
    EXPECT_EQ(ldap_add_replica(ld, nullptr, nullptr, LDAP_RT_MASTER, 0), 0x53);
    EXPECT_EQ(ldap_remove_replica(ld, nullptr, nullptr, 0), 0x53);
    EXPECT_EQ(ldap_change_replica_type(ld, nullptr, nullptr, LDAP_RT_MASTER, 0), 0x53);
    EXPECT_EQ(ldap_get_replica_info(ld, nullptr, nullptr, &info), 0x53);
    EXPECT_EQ(ldap_get_replica_info_ext(ld, nullptr, nullptr, &info, &text), 0x53);
    EXPECT_EQ(ldap_list_replicas(ld, nullptr, &list), 0x53);
    EXPECT_EQ(ldap_send_all_updates(ld, nullptr, nullptr), 0x53);
    EXPECT_EQ(ldap_request_partition_sync(ld, nullptr, nullptr, 0), 0x53);
    EXPECT_EQ(ldap_request_schema_sync(ld, nullptr, 0), 0x53);
    EXPECT_EQ(ldap_get_effective_privileges(ld, nullptr, nullptr, nullptr, &number), 0x53);
    EXPECT_EQ(ldap_dns_to_x500_dn(ld, nullptr, &text), 0x53);
    EXPECT_EQ(calls.count("ber_printf"), 11);
    EXPECT_EQ(calls.unreleased(), Names());
}
