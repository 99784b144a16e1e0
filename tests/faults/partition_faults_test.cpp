// Partitions when a step of the call fails: the code, what is still sent, and the release of
// exactly what exists, in its order.

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/berfail.h"
#include "support/peer.h"
#include "wire/partition_operations.h"

using namespace support;

namespace {

class PartitionFaults : public testing::TestWithParam<Operation> {
protected:
    const Operation &operation = GetParam();
    Peer peer;
    Calls calls;

    std::string encoding() const
    {
        return operation.decodes()                                ? "ber_printf s"
               : operation.value.starts_with(std::string("\x02")) ? "ber_printf is"
                                                                  : "ber_printf ss";
    }

    // All calls up to the exchange, the releases left out.
    Names up_to_exchange() const
    {
        return {"ber_alloc", encoding(), "ber_flatten", "ldap_extended_operation_s"};
    }

    Names made() const
    {
        Names made = calls.made();
        std::erase_if(made, [](const std::string &name) {
            return name == "ber_free" || name == "ber_bvfree" || name == "ldap_memfree";
        });
        return made;
    }
};

INSTANTIATE_TEST_SUITE_P(, PartitionFaults, testing::ValuesIn(partition::operations()),
                         FunctionName());

} // namespace

TEST_P(PartitionFaults, without_a_request_element_nothing_else_happens)
{
    calls.fail("ber_alloc");
    EXPECT_EQ(operation.call(peer.ld()), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls.made(), Names{"ber_alloc"});
    EXPECT_EQ(calls.released(), Names());
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionFaults, a_request_that_cannot_be_encoded_is_not_sent)
{
    calls.fail("ber_printf");
    EXPECT_EQ(operation.call(peer.ld()), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(made(), (Names{"ber_alloc", encoding()}));
    EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionFaults, a_request_that_cannot_be_flattened_is_not_sent)
{
    calls.fail("ber_flatten");
    EXPECT_EQ(operation.call(peer.ld()), LDAPX_NO_MEMORY);
    EXPECT_EQ(made(), (Names{"ber_alloc", encoding(), "ber_flatten"}));
    EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionFaults, the_code_of_a_failed_exchange_comes_back_unchanged)
{
    for (int code : {LDAP_SERVER_DOWN, LDAP_NO_MEMORY, LDAP_BUSY, -100, 0x12345}) {
        calls.fail("ldap_extended_operation_s", 1, code);
        EXPECT_EQ(operation.call(peer.ld()), code);
    }
    EXPECT_EQ(calls.count("ldap_extended_operation_s"), 5);
    EXPECT_EQ(calls.count("ber_init"), 0);
    EXPECT_EQ(calls.unreleased(), Names());
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionFaults, after_a_failed_exchange_the_request_alone_is_released)
{
    calls.fail("ldap_extended_operation_s", 1, LDAP_SERVER_DOWN);
    operation.call(peer.ld());
    EXPECT_EQ(made(), up_to_exchange());
    EXPECT_EQ(calls.released(), (Names{"ber_bvfree(requestbv)", "ber_free(requestber)"}));
}

TEST_P(PartitionFaults, after_an_answer_without_name_the_rest_is_released_in_order)
{
    peer.respond({.value = operation.answer});
    EXPECT_EQ(operation.call(peer.ld()), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(made(), up_to_exchange());
    EXPECT_EQ(calls.released(),
              (Names{"ber_bvfree(returnedbv)", "ber_bvfree(requestbv)", "ber_free(requestber)"}));
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_P(PartitionFaults, under_a_wrong_name_the_value_is_released_without_being_opened)
{
    peer.respond({.name = operation.response + "1", .value = operation.answer});
    EXPECT_EQ(operation.call(peer.ld()), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(made(), up_to_exchange());
    EXPECT_EQ(calls.released(), (Names{"ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)",
                                       "ber_bvfree(requestbv)", "ber_free(requestber)"}));
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_P(PartitionFaults, a_refusal_with_name_and_value_is_released_in_order)
{
    peer.respond({.code = LDAP_BUSY, .name = operation.response, .value = operation.answer});
    EXPECT_EQ(operation.call(peer.ld()), LDAP_BUSY);
    EXPECT_EQ(made(), up_to_exchange());
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_P(PartitionFaults, success_takes_each_step_once_and_releases_in_order)
{
    peer.respond({.name = operation.response, .value = bytes("02 01 2a")});
    EXPECT_EQ(operation.call(peer.ld()), LDAP_SUCCESS);
    Names released = {"ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)",
                      "ber_bvfree(requestbv)", "ber_free(requestber)"};
    if (operation.decodes())
        released.insert(released.begin(), "ber_free(returnedber)");
    EXPECT_EQ(calls.released(), released);
    EXPECT_EQ(calls.unreleased(), Names());
    for (std::string step : {"ber_alloc", "ber_printf", "ber_flatten", "ldap_extended_operation_s"})
        EXPECT_EQ(calls.count(step), 1) << step;
    for (std::string step : {"ber_init", "ber_scanf"})
        EXPECT_EQ(calls.count(step), operation.decodes() ? 1 : 0) << step;
    EXPECT_EQ(calls.count("ldap_set_option"), 0) << "the session's result code is not its to set";
    EXPECT_EQ(calls.count("malloc") + calls.count("calloc") + calls.count("realloc"), 0);
}

// ---- NULL arguments are the caller's fault: nothing looks at them before the encoder
// --------------

TEST(PartitionArguments, that_are_null_reach_the_encoder_unchecked)
{
    Peer peer;
    Calls calls;
    unsigned long count = 0;
    calls.fail_from("ber_printf"); // which would not take them
    for (const auto &function : partition::flagged)
        EXPECT_EQ(function.function(peer.ld(), nullptr, 0), LDAPX_ENCODING_ERROR);
    for (const auto &function : partition::orphan)
        EXPECT_EQ(function.function(peer.ld(), nullptr, nullptr), LDAPX_ENCODING_ERROR);
    for (const auto &function : partition::count)
        EXPECT_EQ(function.function(peer.ld(), nullptr, &count), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(calls.count("ber_printf"), 12);
}

// ---- The entry count's decoding
// -------------------------------------------------------------------

namespace {

class EntryCountFaults : public testing::Test {
protected:
    char dn[4] = "o=x";
    unsigned long count = 77;
    Peer peer;
    Calls calls;

    int ask(const std::optional<std::string> &value)
    {
        peer.respond({.name = administrative(14), .value = value});
        return ldap_partition_entry_count(peer.ld(), dn, &count);
    }
};

} // namespace

TEST_F(EntryCountFaults, a_reader_that_cannot_be_made_is_lack_of_memory)
{
    calls.fail("ber_init");
    EXPECT_EQ(ask(integer(5)), LDAPX_NO_MEMORY);
    EXPECT_EQ(count, 77U);
    EXPECT_EQ(calls.released(), (Names{"ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)",
                                       "ber_bvfree(requestbv)", "ber_free(requestber)"}));
}

TEST_F(EntryCountFaults, a_decode_that_fails_is_reported_as_an_encoding_error)
{
    calls.fail("ber_scanf");
    EXPECT_EQ(ask(integer(5)), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(count, 77U);
    EXPECT_EQ(calls.released(),
              (Names{"ber_free(returnedber)", "ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)",
                     "ber_bvfree(requestbv)", "ber_free(requestber)"}));
}

TEST_F(EntryCountFaults, a_value_of_another_type_is_released_like_any_other)
{
    EXPECT_EQ(ask(octets("5")), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(calls.released(),
              (Names{"ber_free(returnedber)", "ldap_memfree(returnedOID)", "ber_bvfree(returnedbv)",
                     "ber_bvfree(requestbv)", "ber_free(requestber)"}));
}

TEST_F(EntryCountFaults, without_a_value_no_reader_is_made)
{
    EXPECT_EQ(ask(std::nullopt), LDAPX_OPERATIONS_ERROR);
    EXPECT_EQ(calls.count("ber_init"), 0);
    EXPECT_EQ(calls.released(), (Names{"ldap_memfree(returnedOID)", "ber_bvfree(requestbv)",
                                       "ber_free(requestber)"}));
}

TEST_F(EntryCountFaults, the_reader_is_asked_for_one_integer_into_the_caller_s_variable)
{
    EXPECT_EQ(ask(integer(5)), LDAP_SUCCESS);
    Names made = calls.made();
    EXPECT_EQ(std::count(made.begin(), made.end(), "ber_scanf i"), 1);
    EXPECT_EQ(count, 5U);
}
