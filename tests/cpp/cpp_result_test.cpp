// Result and Error.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "greirige.hpp"

using greirige::BadResultAccess;
using greirige::Error;
using greirige::Result;

namespace {

const Error refusal{LDAP_NO_SUCH_OBJECT, "No such object", "split_partition", "no such entry",
                    "o=x"};

Result<int> number(bool good)
{
    if (good)
        return 7;
    return refusal;
}

} // namespace

TEST(Result, a_good_one_holds_the_value_and_no_error)
{
    const Result<int> result = number(true);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result.has_value());
    EXPECT_EQ(*result, 7);
    EXPECT_EQ(result.value(), 7);
    EXPECT_EQ(result.value_or(1), 7);
    EXPECT_THROW(static_cast<void>(result.error()), BadResultAccess);
    EXPECT_THROW(static_cast<void>(Result<void>().error()), BadResultAccess);
}

TEST(Result, a_failed_one_holds_the_error_and_never_gives_a_value)
{
    Result<int> result = number(false);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), refusal);
    EXPECT_EQ(result.value_or(1), 1);
    EXPECT_THROW(static_cast<void>(*result), BadResultAccess);
    EXPECT_THROW(static_cast<void>(std::as_const(result).value()), BadResultAccess);
    EXPECT_THROW(static_cast<void>(std::move(result).value()), BadResultAccess);
    EXPECT_THROW(static_cast<void>(Result<std::string>(refusal)->size()), BadResultAccess);
    EXPECT_THROW(Result<void>(refusal).value(), BadResultAccess);
}

TEST(Result, the_exception_carries_the_whole_error)
{
    try {
        Result<void>(refusal).value();
        FAIL() << "nothing was thrown";
    } catch (const BadResultAccess &failure) {
        EXPECT_EQ(failure.error(), refusal);
        EXPECT_STREQ(failure.what(), "split_partition: No such object (32): no such entry"
                                     " (matched o=x)");
    }
}

TEST(Result, an_error_without_a_message_reads_as_its_code)
{
    EXPECT_EQ(to_string(Error{LDAPX_NOT_SUPPORTED, "Not supported", "trigger"}),
              "trigger: Not supported (92)");
}

TEST(Result, values_that_cannot_be_copied_move_through)
{
    Result<std::unique_ptr<int>> result = std::make_unique<int>(5);
    EXPECT_EQ(**result, 5);
    std::unique_ptr<int> taken = *std::move(result);
    EXPECT_EQ(*taken, 5);
    Result<std::unique_ptr<int>> assigned = refusal;
    assigned = Result<std::unique_ptr<int>>(std::move(taken));
    EXPECT_EQ(**assigned, 5);
    EXPECT_EQ(*std::move(assigned).value_or(nullptr), 5);
}

TEST(Result, chains_go_on_with_values_and_pass_errors_on)
{
    const auto half = [](int value) -> Result<std::string> {
        if (value % 2)
            return Error{LDAPX_PARAM_ERROR, "odd", "half"};
        return std::to_string(value / 2);
    };
    EXPECT_EQ(number(true).transform([](int value) { return value + 1; }).and_then(half).value(),
              "4");
    EXPECT_EQ(number(true).and_then(half).error().where, "half");
    EXPECT_EQ(number(false).and_then(half).error(), refusal);
    EXPECT_EQ(number(false).transform([](int value) { return value + 1; }).error(), refusal);

    EXPECT_EQ(Result<void>().transform([] { return 3; }).value(), 3);
    EXPECT_EQ(Result<void>(refusal).transform([] { return 3; }).error(), refusal);
    EXPECT_EQ(Result<void>().and_then([] { return number(true); }).value(), 7);
    EXPECT_EQ(Result<void>(refusal).and_then([] { return number(true); }).error(), refusal);
}
