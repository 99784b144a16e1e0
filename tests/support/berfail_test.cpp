// The watch over the library's calls.

#define LDAP_DEPRECATED 1
#include "support/berfail.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/peer.h"

using namespace support;

TEST(Calls, arguments_pass_through_a_watched_format_unchanged)
{
    Calls calls;
    BerElement *ber = ber_alloc_t(LBER_USE_DER);
    char name[] = "name";
    berval value{3, name};
    ASSERT_NE(ber_printf(ber, "{isebO{o}}N", -5, "o=x", 7, 1, &value, name, ber_len_t{2}), -1);
    ASSERT_NE(ber_printf(ber, "ts", ber_tag_t{0x80}, "tagged"), -1);
    berval *flat = nullptr;
    ASSERT_EQ(ber_flatten(ber, &flat), 0);
    std::string expected = concat(sequence(integer(-5), octets("o=x"), enumerated(7), boolean(true),
                                           octets("nam"), sequence(octets("na"))),
                                  octets("tagged", 0x80));
    EXPECT_EQ(std::string(flat->bv_val, flat->bv_len), expected);

    BerElement *reader = ber_init(flat);
    ber_int_t number = 0;
    ber_int_t choice = 0;
    ber_tag_t tag = 0;
    char *dn = nullptr;
    berval *copy = nullptr;
    char last[10];
    ber_len_t room = sizeof last;
    ASSERT_NE(ber_scanf(reader, "{iaexO{x}}ts", &number, &dn, &choice, &copy, &tag, last, &room),
              LBER_ERROR);
    EXPECT_EQ(number, -5);
    EXPECT_STREQ(dn, "o=x");
    EXPECT_EQ(choice, 7);
    EXPECT_EQ(copy->bv_len, 3U);
    EXPECT_EQ(tag, 0x80U);
    EXPECT_STREQ(last, "tagged");

    EXPECT_EQ(calls.unreleased(), (Names{"requestber", "requestbv", "returnedber", "a", "O"}));
    ldap_memfree(dn);
    ber_bvfree(copy);
    ber_free(reader, 1);
    BerElement *borrowing = ber_alloc_t(0);
    ber_init2(borrowing, flat, 0);
    ber_free(borrowing, 0);
    ber_bvfree(flat);
    ber_free(ber, 1);
    EXPECT_EQ(calls.released(),
              (Names{"ldap_memfree(a)", "ber_bvfree(O)", "ber_free(returnedber)",
                     "ber_free(requestber, 0)", "ber_bvfree(requestbv)", "ber_free(requestber)"}));
    EXPECT_EQ(calls.unreleased(), Names());
    Names made = calls.made();
    made.resize(6);
    EXPECT_EQ(made, (Names{"ber_alloc_t", "ber_printf {isebO{o}}N", "ber_printf ts", "ber_flatten",
                           "ber_init", "ber_scanf {iaexO{x}}ts"}));
}

TEST(Calls, the_chosen_call_fails_and_the_others_work)
{
    Calls calls;
    calls.fail("ber_alloc_t", 2);
    BerElement *first = ber_alloc_t(0);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(ber_alloc_t(0), nullptr);
    calls.fail("ber_printf");
    EXPECT_EQ(ber_printf(first, "i", 1), -1);
    EXPECT_NE(ber_printf(first, "i", 1), -1);
    calls.fail_from("ber_peek_tag");
    ber_len_t length = 0;
    EXPECT_EQ(ber_peek_tag(first, &length), LBER_DEFAULT);
    EXPECT_EQ(ber_peek_tag(first, &length), LBER_DEFAULT);
    EXPECT_EQ(calls.count("ber_peek_tag"), 2);
    ber_free(first, 1);
}

TEST(Calls, the_extended_operation_fails_with_the_code_asked_for_and_sends_nothing)
{
    Peer peer;
    Calls calls;
    calls.fail("ldap_extended_operation", 1, LDAP_CONNECT_ERROR);
    int msgid = -7;
    EXPECT_EQ(ldap_extended_operation(peer.ld(), "1.2", nullptr, nullptr, nullptr, &msgid),
              LDAP_CONNECT_ERROR);
    EXPECT_EQ(msgid, -7);
    EXPECT_TRUE(peer.quiet());
}

TEST(Calls, blocks_of_the_allocator_are_followed)
{
    Calls calls;
    void *block = malloc(3);
    block = realloc(block, 300);
    calls.fail("realloc");
    void *smaller = realloc(block, 3);
    EXPECT_EQ(calls.unreleased(), Names{"realloc"});
    free(smaller == nullptr ? block : smaller);
    EXPECT_EQ(calls.released(), Names{"free(realloc)"});
    calls.fail("calloc");
    void *refused = calloc(1, 1);
    EXPECT_EQ(refused, nullptr);
    free(refused);
}
