// The readers that the decoders are made of, called directly on an element of the LDAP library.
// Built twice: with the library's assertions and, as event_readers_unasserted_test, without.

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/event_session.h"

using namespace support;

namespace {

#ifdef UNASSERTED
constexpr bool asserting = false;
#else
constexpr bool asserting = GREIRIGE_ASSERTIONS != 0;
#endif

char nobodys[] = "nobody's";

struct FreeBlock {
    void operator()(void *block) const
    {
        ldapx_memfree(block);
    }
};
using Block = std::unique_ptr<char, FreeBlock>;

// What a reader of strings leaves.
struct Read {
    int code = -99;
    Block block;
    ber_len_t size = 99;
    std::size_t unread = 99;
};

Read read_octets(const std::string &bytes, ber_tag_t tag = 0)
{
    const Element ber = element_of(bytes);
    Read read;
    char *block = nobodys;
    read.code = parseOctetString(ber.get(), &block, &read.size, tag);
    read.block.reset(block);
    read.unread = unread(ber);
    return read;
}

Read read_string(const std::string &bytes, ber_tag_t tag = 0)
{
    const Element ber = element_of(bytes);
    Read read;
    char *block = nobodys;
    read.code = parseLDAPString(ber.get(), &block, tag);
    read.block.reset(block);
    read.unread = unread(ber);
    return read;
}

} // namespace

// ---- Strings ---------------------------------------------------------------------------------

TEST(EventString, is_read_whole_with_its_size_and_a_NUL)
{
    const Read read = read_octets(octets(bytes("61 00 62 ff 63")) + integer(1));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.size, 5U);
    EXPECT_EQ(std::memcmp(read.block.get(),
                          "a\0b\xff"
                          "c",
                          6),
              0);
    EXPECT_EQ(read.unread, 3U);

    const Read string = read_string(octets("hello") + integer(1));
    EXPECT_EQ(string.code, 0);
    EXPECT_STREQ(string.block.get(), "hello");
    EXPECT_EQ(string.unread, 3U);
}

TEST(EventString, that_is_empty_is_NULL_and_consumed)
{
    const Read read = read_octets(octets("") + integer(1));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.size, 0U);
    EXPECT_EQ(read.block, nullptr);
    EXPECT_EQ(read.unread, 3U);

    const Read string = read_string(octets("") + integer(1));
    EXPECT_EQ(string.code, 0);
    EXPECT_EQ(string.block, nullptr);
    EXPECT_EQ(string.unread, 3U);
}

TEST(EventString, may_be_asked_for_by_another_tag)
{
    EXPECT_STREQ(read_octets(octets("x", 0x85), 0x85).block.get(), "x");
    EXPECT_STREQ(read_octets(octets("x"), 0x04).block.get(), "x");
    EXPECT_STREQ(read_string(octets("x", 0x85), 0x85).block.get(), "x");
    EXPECT_STREQ(read_string(element(0x9f8101, "x"), 0x9f8101).block.get(), "x");
    EXPECT_EQ(read_string(octets("", 0x84), 0x84).block, nullptr);
}

TEST(EventString, may_be_long)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(read_string(octets(text)).block.get(), text);
    EXPECT_EQ(read_string(element(0x04, "padded", 8)).block.get(), std::string("padded"));
}

TEST(EventString, of_another_tag_is_an_assertion_or_cannot_be_decoded)
{
    std::vector<std::string> wrong{octets("x", 0x05), integer(1), ""};
    for (const std::string &cut : cuts(octets("hello")))
        wrong.push_back(cut);
    for (const std::string &value : wrong) {
        if (asserting) {
            EXPECT_DEATH(read_octets(value), "Assertion `expectedTag == tag' failed");
            EXPECT_DEATH(read_string(value), "Assertion `expectedTag == tag' failed");
            continue;
        }
        const Read read = read_octets(value);
        EXPECT_EQ(read.code, LDAPX_DECODING_ERROR) << hex(value);
        EXPECT_EQ(read.block, nullptr);
        EXPECT_EQ(read.size, 0U);
        EXPECT_EQ(read.unread, value.size());

        const Read string = read_string(value);
        EXPECT_EQ(string.code, LDAPX_DECODING_ERROR) << hex(value);
        EXPECT_EQ(string.block, nullptr);
        EXPECT_EQ(string.unread, value.size());
    }
}

TEST(EventString, is_not_found_under_the_tag_that_stands_for_no_element)
{
    // Nothing is read where nothing is, even when the caller asks for just that.
    if (!asserting) {
        EXPECT_EQ(read_string("", LBER_DEFAULT).code, LDAPX_DECODING_ERROR);
    }
    EXPECT_EQ(read_string(bytes("04 05"), LBER_DEFAULT).code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(read_octets(bytes("04 05"), LBER_DEFAULT).code, LDAPX_DECODING_ERROR);
}

TEST(EventString, is_read_behind_one_that_was_terminated_in_place)
{
    // "m" ends its string with a NUL where the next element's tag stands; the LDAP library keeps
    // the tag aside.
    const Element ber = element_of(octets("first") + octets("second") + octets(""));
    berval first{};
    ASSERT_NE(ber_scanf(ber.get(), "m", &first), LBER_ERROR);
    char *second = nullptr, *third = nobodys;
    EXPECT_EQ(parseLDAPString(ber.get(), &second, 0), 0);
    EXPECT_STREQ(Block(second).get(), "second");
    EXPECT_STREQ(first.bv_val, "first");
    EXPECT_EQ(parseLDAPString(ber.get(), &third, 0), 0);
    EXPECT_EQ(third, nullptr);
}

// ---- Referral lists --------------------------------------------------------------------------

namespace {

struct Referrals {
    int code = -99;
    int count = -99;
    EVT_ReferralAddress *list = reinterpret_cast<EVT_ReferralAddress *>(nobodys);
    std::size_t unread = 99;

    explicit Referrals(const std::string &bytes)
    {
        const Element ber = element_of(bytes);
        code = parseReferralList(ber.get(), &count, &list);
        unread = support::unread(ber);
    }
    Referrals(const Referrals &) = delete;
    Referrals &operator=(const Referrals &) = delete;
    ~Referrals()
    {
        if (list != nullptr && count > 0)
            ldapx_memfree(list[0].address);
        freeReferralList(count, list);
    }
};

std::string referral(int type, const std::string &address)
{
    return sequence(integer(type), octets(address));
}

} // namespace

TEST(EventReferrals, are_read_with_their_types_and_addresses)
{
    const Referrals read(sequence(integer(3), sequence(referral(-1, bytes("0a 00")),
                                                       referral(INT_MAX, ""), referral(3, "c"))) +
                         integer(1));
    EXPECT_EQ(read.code, 0);
    ASSERT_EQ(read.count, 3);
    EXPECT_EQ(read.list[0].type, -1);
    EXPECT_EQ(read.list[0].length, 2);
    EXPECT_EQ(std::memcmp(read.list[0].address, "\x0a\0", 3), 0);
    EXPECT_EQ(read.list[1].type, INT_MAX);
    EXPECT_EQ(read.list[1].length, 0);
    EXPECT_EQ(read.list[1].address, nullptr);
    EXPECT_STREQ(read.list[2].address, "c");
    EXPECT_EQ(read.unread, 3U);
}

TEST(EventReferrals, may_be_none)
{
    const Referrals read(sequence(integer(0), sequence()) + integer(1));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.count, 0);
    EXPECT_NE(read.list, nullptr);
    EXPECT_EQ(read.unread, 3U);
}

TEST(EventReferrals, are_absent_where_no_sequence_comes_next_and_nothing_is_consumed)
{
    for (const std::string &other : {std::string(), integer(1), set(integer(0), sequence()),
                                     octets("x"), bytes("30"), bytes("30 05 02"), bytes("30 80")}) {
        const Referrals read(other);
        EXPECT_EQ(read.code, 0) << hex(other);
        EXPECT_EQ(read.count, 0);
        EXPECT_EQ(read.list, nullptr);
        EXPECT_EQ(read.unread, other.size());
    }
}

TEST(EventReferrals, with_an_unreadable_count_fail_and_leave_nothing)
{
    for (const std::string &damaged :
         {sequence(), sequence(integer(1)), sequence(octets("12345"), sequence()),
          sequence(integer(0x80000000LL), sequence())}) {
        const Referrals read(damaged);
        EXPECT_EQ(read.code, LDAPX_DECODING_ERROR) << hex(damaged);
        EXPECT_EQ(read.list, nullptr);
    }
}

TEST(EventReferrals, with_an_impossible_count_ask_for_no_block_and_keep_the_count)
{
    for (int count : {1, 5, 1000000, INT_MAX}) {
        const Referrals read(sequence(integer(count), sequence()));
        EXPECT_EQ(read.code, LDAPX_DECODING_ERROR) << count;
        EXPECT_EQ(read.count, count);
        EXPECT_EQ(read.list, nullptr);
    }
    for (int count : {-1, INT_MIN}) {
        const Referrals read(sequence(integer(count), sequence()));
        EXPECT_EQ(read.code, LDAPX_NO_MEMORY) << count;
        EXPECT_EQ(read.count, count);
        EXPECT_EQ(read.list, nullptr);
    }
}

TEST(EventReferrals, that_break_off_keep_what_was_read)
{
    const Referrals read(sequence(integer(3), sequence(referral(1, "a"), referral(2, "b"))) +
                         bytes("04"));
    EXPECT_EQ(read.code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(read.count, 3);
    ASSERT_NE(read.list, nullptr);
    EXPECT_STREQ(read.list[0].address, "a");
    EXPECT_STREQ(read.list[1].address, "b");
    EXPECT_EQ(read.list[2].type, 0);
    EXPECT_EQ(read.list[2].address, nullptr);
}

TEST(EventReferrals, with_an_address_of_another_tag_are_an_assertion_or_keep_what_was_read)
{
    const std::string wrong =
        sequence(integer(2), sequence(referral(1, "a"), sequence(integer(7), integer(8))));
    if (asserting) {
        EXPECT_DEATH(Referrals{wrong}, "Assertion `expectedTag == tag' failed");
        return;
    }
    const Referrals read(wrong);
    EXPECT_EQ(read.code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(read.count, 2);
    EXPECT_STREQ(read.list[0].address, "a");
    EXPECT_EQ(read.list[1].type, 7);
    EXPECT_EQ(read.list[1].length, 0);
    EXPECT_EQ(read.list[1].address, nullptr);
}

// ---- String sequences ------------------------------------------------------------------------

namespace {

struct Strings {
    int code = -99;
    char **list = reinterpret_cast<char **>(nobodys);
    std::size_t unread = 99;

    explicit Strings(const std::string &bytes)
    {
        const Element ber = element_of(bytes);
        code = parseStringSequence(ber.get(), &list);
        unread = support::unread(ber);
    }
    Strings(const Strings &) = delete;
    Strings &operator=(const Strings &) = delete;
    ~Strings()
    {
        if (!untouched())
            freeStringSequence(list);
    }
    bool untouched() const
    {
        return list == reinterpret_cast<char *const *>(nobodys);
    }
    std::vector<std::string> all() const
    {
        std::vector<std::string> strings;
        for (char **string = list; string != nullptr && *string != nullptr; ++string)
            strings.emplace_back(*string);
        return strings;
    }
};

using List = std::vector<std::string>;

} // namespace

TEST(EventStrings, are_read_to_the_end_of_their_element)
{
    const Strings read(sequence(sequence(octets("cn")), sequence(octets("sn"))) + integer(1));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.all(), (List{"cn", "sn"}));
    EXPECT_EQ(read.unread, 3U);
}

TEST(EventStrings, may_be_many)
{
    std::string list;
    List expected;
    for (int i = 0; i < 2000; ++i) {
        expected.push_back(std::to_string(i));
        list += sequence(octets(expected.back()));
    }
    EXPECT_EQ(Strings(element(0x80, list)).all(), expected);
}

TEST(EventStrings, may_be_empty_without_ending_the_list)
{
    const Strings read(sequence(sequence(octets("")), sequence(octets("x")), sequence(octets(""))));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.all(), (List{"", "x", ""}));
}

TEST(EventStrings, of_an_empty_element_are_an_empty_list)
{
    const Strings read(sequence() + integer(1));
    EXPECT_EQ(read.code, 0);
    ASSERT_FALSE(read.untouched());
    ASSERT_NE(read.list, nullptr);
    EXPECT_EQ(read.list[0], nullptr);
    EXPECT_EQ(read.unread, 3U);
}

TEST(EventStrings, are_none_at_the_end_of_the_data)
{
    const Strings read("");
    EXPECT_EQ(read.code, 0);
    EXPECT_TRUE(read.untouched());
}

TEST(EventStrings, in_an_element_that_is_cut_fail_and_touch_nothing)
{
    for (const std::string &cut : cuts(sequence(sequence(octets("cn")))))
        if (!cut.empty()) {
            const Strings read(cut);
            EXPECT_EQ(read.code, LDAPX_DECODING_ERROR) << hex(cut);
            EXPECT_TRUE(read.untouched()) << hex(cut);
        }
}

TEST(EventStrings, of_which_one_cannot_be_read_fail_and_leave_NULL)
{
    const std::string good = sequence(octets("cn"));
    for (const std::string &bad :
         {bytes("30"), bytes("30 09 04"), bytes("30 00"), bytes("30 02 04 05"),
          sequence(octets(bytes("61 00 62"))), bytes("1f"), bytes("30 80")})
        for (const std::string &list : {bad, good + bad, good + good + bad}) {
            const Strings read(sequence(list));
            EXPECT_EQ(read.code, LDAPX_DECODING_ERROR) << hex(list);
            EXPECT_EQ(read.list, nullptr) << hex(list);
        }
}

TEST(EventStrings, may_end_with_a_NUL_of_their_own)
{
    const Strings read(sequence(sequence(octets(bytes("61 00"))), sequence(octets(bytes("00")))));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.all(), (List{"a", ""}));
}

TEST(EventStrings, are_read_whatever_the_tags)
{
    const Strings read(integer(0).replace(0, 3, element(0x81, set(integer('x')))));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.all(), List{"x"});
}

TEST(EventStrings, with_more_components_put_the_reader_out_of_step)
{
    // Only the first string of a component is taken; the second is opened like a component, and
    // what it contains is read as an element.
    const Strings read(sequence(sequence(octets("a"), sequence(octets("b"))),
                                sequence(octets("c"), octets("04 what is in here"))));
    EXPECT_EQ(read.code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(read.list, nullptr);

    const Strings lucky(
        sequence(sequence(octets("a"), sequence(octets("b"))), sequence(octets("c"))));
    EXPECT_EQ(lucky.code, 0);
    EXPECT_EQ(lucky.all(), (List{"a", "b", "c"}));
}

TEST(EventStrings, may_reach_behind_their_element)
{
    // The length of a component bounds nothing, only where the next one begins is looked at.
    const Strings read(bytes("30 02 30 00") + octets("far") + integer(1));
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.all(), List{"far"});
    EXPECT_EQ(read.unread, 3U);
}

// ---- Connection blocks -----------------------------------------------------------------------

namespace {

struct Connection {
    int code = -99;
    EVT_ConnectionEventData *data = reinterpret_cast<EVT_ConnectionEventData *>(nobodys);
    std::size_t unread = 99;

    explicit Connection(const std::string &bytes)
    {
        const Element ber = element_of(bytes);
        code = parseConnectionData(ber.get(), &data);
        unread = support::unread(ber);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection()
    {
        freeConnectionData(data);
    }
};

} // namespace

TEST(EventConnection, is_read_with_its_address)
{
    const Connection read(sequence(integer(0xffffffffLL), integer(7), octets("10.0.0.1")) +
                          integer(1));
    EXPECT_EQ(read.code, 0);
    ASSERT_NE(read.data, nullptr);
    EXPECT_EQ(read.data->connection, 0xffffffffU);
    EXPECT_EQ(read.data->time, 7U);
    EXPECT_STREQ(read.data->inetAddr, "10.0.0.1");
    EXPECT_EQ(read.unread, 3U);
}

TEST(EventConnection, may_have_no_address)
{
    const Connection read(sequence(integer(1), integer(7), octets("")));
    EXPECT_EQ(read.code, 0);
    ASSERT_NE(read.data, nullptr);
    EXPECT_EQ(read.data->inetAddr, nullptr);
}

TEST(EventConnection, is_absent_where_no_sequence_comes_next_and_nothing_is_consumed)
{
    for (const std::string &other : {std::string(), integer(1), set(integer(0)), bytes("30"),
                                     bytes("30 05 02"), bytes("30 80")}) {
        const Connection read(other);
        EXPECT_EQ(read.code, 0) << hex(other);
        EXPECT_EQ(read.data, nullptr);
        EXPECT_EQ(read.unread, other.size());
    }
}

TEST(EventConnection, that_breaks_off_keeps_what_was_read)
{
    const Connection none(sequence());
    EXPECT_EQ(none.code, LDAPX_DECODING_ERROR);
    ASSERT_NE(none.data, nullptr);
    EXPECT_EQ(none.data->connection, 0U);

    const Connection half(sequence(integer(5)));
    EXPECT_EQ(half.code, LDAPX_DECODING_ERROR);
    ASSERT_NE(half.data, nullptr);
    EXPECT_EQ(half.data->connection, 5U);
    EXPECT_EQ(half.data->time, 0U);
    EXPECT_EQ(half.data->inetAddr, nullptr);
}

TEST(EventConnection, without_an_address_is_an_assertion_or_keeps_what_was_read)
{
    const std::string wrong = sequence(integer(5), integer(6), integer(7));
    if (asserting) {
        EXPECT_DEATH(Connection{wrong}, "Assertion `expectedTag == tag' failed");
        return;
    }
    const Connection read(wrong);
    EXPECT_EQ(read.code, LDAPX_DECODING_ERROR);
    ASSERT_NE(read.data, nullptr);
    EXPECT_EQ(read.data->time, 6U);
    EXPECT_EQ(read.data->inetAddr, nullptr);
}

// ---- The trailer -----------------------------------------------------------------------------

TEST(EventAddress, is_read_into_a_record_and_its_result_stored)
{
    EventSession session;
    session.set_session_code(77);
    const Element ber = element_of(trailer_bytes() + integer(1));
    void *ip = nullptr;
    EXPECT_EQ(ber_get_IP(session.ld(), ber.get(), &ip), LDAP_SUCCESS);
    EXPECT_EQ(session.peer.session_code(), LDAP_SUCCESS);
    EXPECT_EQ(describe_address(EventRecord(ip).get()), trailer_text());
    EXPECT_EQ(unread(ber), 3U);
}

TEST(EventAddress, that_is_missing_returns_what_the_session_holds)
{
    EventSession session;
    for (int code : {0, 77, LDAPX_DECODING_ERROR, LDAP_SERVER_DOWN})
        for (const std::string &other : {std::string(), octets("x"), bytes("02"), bytes("02 05")}) {
            session.set_session_code(code);
            const Element ber = element_of(other);
            void *ip = nobodys;
            EXPECT_EQ(ber_get_IP(session.ld(), ber.get(), &ip), code) << hex(other);
            EXPECT_EQ(session.peer.session_code(), code);
            EXPECT_EQ(ip, nobodys);
            EXPECT_EQ(unread(ber), other.size());
        }
}

TEST(EventAddress, that_is_damaged_fails_and_leaves_NULL)
{
    EventSession session;
    for (const std::string &damaged :
         {integer(1), concat(integer(1), octets("x", 0x05)), octets("12345", 0x02)}) {
        session.set_session_code(77);
        const Element ber = element_of(damaged);
        void *ip = nobodys;
        EXPECT_EQ(ber_get_IP(session.ld(), ber.get(), &ip), LDAPX_DECODING_ERROR);
        EXPECT_EQ(session.peer.session_code(), LDAPX_DECODING_ERROR);
        EXPECT_EQ(ip, nullptr);
    }
}
