// The encoders of bulk updates with the library's assertions compiled out.

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/updates.h"

using namespace support;

namespace {

std::string flattened(BerElement *ber)
{
    berval *value = nullptr;
    EXPECT_EQ(ber_flatten(ber, &value), 0);
    std::string content(value->bv_val, value->bv_len);
    ber_bvfree(value);
    ber_free(ber, 1);
    return content;
}

} // namespace

TEST(LburpWithoutAssertions, the_encoders_that_check_the_session_work_without_one)
{
    Changes attributes{{"sn", {"v"}}};
    BerElement *ber = ber_alloc_t(0);
    ASSERT_EQ(LBURPEncodeAdd(nullptr, "cn=a", attributes.get(), nullptr, ber), 0);
    ASSERT_EQ(LBURPEncodeDelete(nullptr, "cn=a", nullptr, ber), 0);
    EXPECT_EQ(flattened(ber), Batch().add("cn=a", attributes.list()) + Batch().remove("cn=a"));
}
