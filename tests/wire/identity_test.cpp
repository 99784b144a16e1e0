// Identities, privileges and converted names: what reaches the caller, byte for byte.

#include <climits>
#include <cstring>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

// A string of this many different bytes, zero bytes among them unless told otherwise.
std::string pattern(std::size_t length, bool zeros = false)
{
    std::string text(length, '\0');
    for (std::size_t index = 0; index < length; ++index)
        text[index] = static_cast<char>(zeros ? index % 7 : 1 + index % 251);
    return text;
}

// Calls the operation, the server answering with this value; the caller must release the block.
char *name_from(const Operation &row, const std::string &value)
{
    Peer peer;
    peer.respond({.name = row.response_name, .value = value});
    Outputs out;
    EXPECT_EQ(row.call(peer.ld(), out), 0);
    char *name = out.text;
    out.text = nullptr;
    return name;
}

bool holds(const char *block, const std::string &bytes_and_terminator)
{
    return std::memcmp(block, bytes_and_terminator.c_str(), bytes_and_terminator.size() + 1) == 0;
}

class Identity : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, Identity,
                         testing::Values(operation("ldap_get_bind_dn"),
                                         operation("ldap_get_context_identity_name")),
                         FunctionName());

class Converted : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, Converted,
                         testing::Values(operation("ldap_zil_to_ldap"),
                                         operation("ldap_dns_to_x500_dn")),
                         FunctionName());

class AnyName : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, AnyName,
                         testing::Values(operation("ldap_get_bind_dn"),
                                         operation("ldap_get_context_identity_name"),
                                         operation("ldap_zil_to_ldap"),
                                         operation("ldap_dns_to_x500_dn")),
                         FunctionName());

char subject[] = "cn=srv";
char target[] = "o=x";
char cn[] = "cn";
char *attributes[] = {cn, nullptr};

// The answer to a list request, with any count whatever the entries are.
std::string privileges(long long count, const std::string &entries)
{
    return sequence(sequence(integer(count)), element(0x31, entries));
}

std::string entry(int value)
{
    return sequence(integer(value));
}

int get_list(const std::string &value, Outputs &out)
{
    Peer peer;
    peer.respond({.name = admin_name(104), .value = value});
    return ldap_get_effective_privileges_list(peer.ld(), subject, target, attributes, out.numbers);
}

int get_bounded_list(const std::string &value, int capacity, Outputs &out)
{
    Peer peer;
    peer.respond({.name = admin_name(104), .value = value});
    return ldap_get_effective_privileges_list_ext(peer.ld(), subject, target, attributes,
                                                  out.numbers, capacity, &out.count);
}

} // namespace

TEST_P(Identity, up_to_771_bytes_comes_whole_and_from_772_on_as_its_first_770)
{
    for (const std::size_t length :
         {0u, 1u, 127u, 128u, 769u, 770u, 771u, 772u, 773u, 2000u, 70000u}) {
        const std::string name = pattern(length);
        char *identity = name_from(GetParam(), octets(name));
        ASSERT_NE(identity, nullptr);
        EXPECT_TRUE(holds(identity, length > 771 ? name.substr(0, 770) : name)) << length;
        ldapx_memfree(identity);
    }
}

TEST_P(Converted, comes_whole_however_long_it_is)
{
    for (const std::size_t length : {0u, 1u, 128u, 770u, 771u, 772u, 2000u, 70000u}) {
        const std::string name = pattern(length);
        char *converted = name_from(GetParam(), octets(name));
        ASSERT_NE(converted, nullptr);
        EXPECT_TRUE(holds(converted, name)) << length;
        ldapx_memfree(converted);
    }
}

TEST_P(AnyName, zero_bytes_are_copied_like_any_other)
{
    for (const std::size_t length : {1u, 2u, 8u, 770u, 771u}) {
        const std::string name = pattern(length, true);
        char *copy = name_from(GetParam(), octets(name));
        ASSERT_NE(copy, nullptr);
        EXPECT_TRUE(holds(copy, name)) << length;
        ldapx_memfree(copy);
    }
}

TEST_P(AnyName, what_follows_the_string_is_not_read)
{
    char *copy = name_from(GetParam(), octets("o=x") + bytes("30 84 ff"));
    EXPECT_STREQ(copy, "o=x");
    ldapx_memfree(copy);
}

TEST_P(AnyName, only_an_octet_string_is_a_name)
{
    const Operation &row = GetParam();
    for (const std::string &value :
         {integer(1), sequence(octets("o=x")), element(0x24, octets("o=x")), octets("o=x", 0x0c),
          octets("o=x", 0x80), enumerated(1), boolean(true), null(), bytes("04"), bytes("04 80"),
          bytes("04 04 6f 3d 78"), bytes("04 84 ff ff ff ff 6f"), bytes("04 ff"), bytes("00")}) {
        Peer peer;
        peer.respond({.name = row.response_name, .value = value});
        Outputs out;
        EXPECT_EQ(row.call(peer.ld(), out), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), "") << hex(value);
    }
}

TEST(NativeName, is_sent_high_byte_first_with_its_terminating_unit)
{
    Peer peer;
    const auto sent_for = [&](unsigned short *units) {
        peer.respond({.name = admin_name(2), .value = octets("o=x")});
        char *name = nullptr;
        EXPECT_EQ(ldap_zil_to_ldap(peer.ld(), units, &name), 0);
        ldapx_memfree(name);
        return peer.take_request().value.value();
    };

    unsigned short empty[] = {0};
    EXPECT_EQ(sent_for(empty), bytes("04 02 00 00"));
    unsigned short a[] = {0x0041, 0};
    EXPECT_EQ(sent_for(a), bytes("04 04 00 41 00 00"));
    unsigned short mixed[] = {0x0100, 0x00ff, 0xff00, 0xffff, 0xd83d, 0xde00, 0};
    EXPECT_EQ(sent_for(mixed), bytes("04 0e 01 00 00 ff ff 00 ff ff d8 3d de 00 00 00"));
}

TEST(NativeName, ends_at_its_first_zero_unit)
{
    unsigned short units[] = {'a', 'b', 0, 'c', 0};
    Peer peer;
    peer.respond({.name = admin_name(2), .value = octets("o=x")});
    char *name = nullptr;
    EXPECT_EQ(ldap_zil_to_ldap(peer.ld(), units, &name), 0);
    EXPECT_EQ(peer.take_request().value, bytes("04 06 00 61 00 62 00 00"));
    ldapx_memfree(name);
}

TEST(NativeName, of_any_length_is_sent_whole_and_left_as_it_was)
{
    std::vector<unsigned short> units(100000, 0x2603);
    units.push_back(0);
    const auto before = units;
    std::string expected;
    for (int unit = 0; unit < 100000; ++unit)
        expected += "\x26\x03";
    Peer peer;
    peer.read_ahead();
    peer.respond({.name = admin_name(2), .value = octets("o=x")});
    char *name = nullptr;
    EXPECT_EQ(ldap_zil_to_ldap(peer.ld(), units.data(), &name), 0);
    EXPECT_TRUE(peer.take_request().value == octets(expected + std::string(2, '\0')));
    EXPECT_TRUE(units == before);
    ldapx_memfree(name);
}

TEST(DnsName, is_sent_as_it_is)
{
    for (std::string text : {std::string(), std::string("."), std::string("x.example."),
                             std::string("\xc3\xa4.example"), std::string(300, 'd')}) {
        Peer peer;
        peer.respond({.name = admin_name(102), .value = octets("o=x")});
        char *name = nullptr;
        EXPECT_EQ(ldap_dns_to_x500_dn(peer.ld(), text.data(), &name), 0);
        EXPECT_EQ(peer.take_request().value, octets(text));
        ldapx_memfree(name);
    }
}

TEST(Privileges, of_one_attribute_are_any_integer_of_up_to_four_bytes)
{
    const Operation &single = operation("ldap_get_effective_privileges");
    Peer peer;
    for (const int value : {0, 1, -1, 255, 65536, INT_MAX, INT_MIN}) {
        peer.respond({.name = single.response_name, .value = integer(value)});
        Outputs out;
        EXPECT_EQ(single.call(peer.ld(), out), 0);
        EXPECT_EQ(out.numbers[0], value);
    }
    for (const std::string &value :
         {integer(2147483648), integer(-2147483649), bytes("02"), bytes("02 02 01"),
          bytes("02 84 ff ff ff ff"), bytes("02 80")}) {
        peer.respond({.name = single.response_name, .value = value});
        Outputs out;
        EXPECT_EQ(single.call(peer.ld(), out), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), "") << hex(value);
    }
}

TEST(PrivilegesList, a_missing_argument_is_refused_and_nothing_is_sent)
{
    Peer peer;
    Outputs out;
    int *numbers = out.numbers;
    EXPECT_EQ(ldap_get_effective_privileges_list(peer.ld(), subject, nullptr, attributes, numbers),
              0x59);
    EXPECT_EQ(ldap_get_effective_privileges_list(peer.ld(), nullptr, target, attributes, numbers),
              0x59);
    EXPECT_EQ(ldap_get_effective_privileges_list(peer.ld(), subject, target, nullptr, numbers),
              0x59);
    EXPECT_EQ(ldap_get_effective_privileges_list(peer.ld(), subject, target, attributes, nullptr),
              0x59);
    const auto bounded = [&](char *who, char *what, char **which, int *where, int capacity,
                             int *count) {
        return ldap_get_effective_privileges_list_ext(peer.ld(), who, what, which, where, capacity,
                                                      count);
    };
    EXPECT_EQ(bounded(subject, nullptr, attributes, numbers, 8, &out.count), 0x59);
    EXPECT_EQ(bounded(nullptr, target, attributes, numbers, 8, &out.count), 0x59);
    EXPECT_EQ(bounded(subject, target, nullptr, numbers, 8, &out.count), 0x59);
    EXPECT_EQ(bounded(subject, target, attributes, nullptr, 8, &out.count), 0x59);
    EXPECT_EQ(bounded(subject, target, attributes, numbers, -1, &out.count), 0x59);
    EXPECT_EQ(bounded(subject, target, attributes, numbers, 8, nullptr), 0x59);
    EXPECT_EQ(out.describe(), "");
    EXPECT_TRUE(peer.quiet());
}

TEST(PrivilegesList, an_empty_list_of_attributes_is_sent_as_one)
{
    char *none[] = {nullptr};
    Peer peer;
    Outputs out;
    peer.respond({.name = admin_name(104), .value = privileges(0, "")});
    EXPECT_EQ(ldap_get_effective_privileges_list(peer.ld(), subject, target, none, out.numbers), 0);
    const std::string value = octets("cn=srv") + octets("o=x") + request_sequence();
    EXPECT_EQ(peer.take_request().value, value);
    peer.respond({.name = admin_name(104), .value = privileges(0, "")});
    EXPECT_EQ(ldap_get_effective_privileges_list_ext(peer.ld(), subject, target, none, out.numbers,
                                                     0, &out.count),
              0);
    EXPECT_EQ(peer.take_request().value, value);
    EXPECT_EQ(out.describe(), "count=0");
}

TEST(PrivilegesList, a_count_of_zero_or_less_writes_no_entry)
{
    for (const int count : {0, -1, -1000, INT_MIN}) {
        Outputs out;
        EXPECT_EQ(get_list(privileges(count, entry(1) + entry(2)), out), 0) << count;
        EXPECT_EQ(out.describe(), "") << count;

        Outputs bounded;
        EXPECT_EQ(get_bounded_list(privileges(count, entry(1)), 0, bounded), 0) << count;
        EXPECT_EQ(bounded.describe(), "count=" + std::to_string(count));
    }
}

TEST(PrivilegesList, is_written_for_as_many_entries_as_the_server_announces)
{
    // One attribute was asked for.
    std::string entries;
    for (int value = 1; value <= 8; ++value)
        entries += entry(value);
    for (const int count : {1, 5, 8}) {
        Outputs out;
        EXPECT_EQ(get_list(privileges(count, entries), out), 0);
        for (int index = 0; index < 8; ++index)
            EXPECT_EQ(out.numbers[index] == index + 1, index < count) << index;
    }
}

TEST(PrivilegesList, an_entry_that_is_missing_or_damaged_is_zero_and_ends_the_list)
{
    for (const long long count : {3ll, 1000ll, static_cast<long long>(INT_MAX)}) {
        for (const std::string &third :
             {std::string(), bytes("30"), bytes("30 03 02 01"), bytes("30 00"),
              bytes("30 02 02 01"), sequence(integer(2147483648)), bytes("30 84 7f ff ff ff")}) {
            const std::string value = privileges(count, entry(5) + entry(-6) + third);
            Outputs out;
            EXPECT_EQ(get_list(value, out), 0x53) << hex(value);
            EXPECT_EQ(out.describe(), "numbers=[5, -6, 0]") << hex(value);

            Outputs bounded;
            EXPECT_EQ(get_bounded_list(value, 3, bounded), 0x53) << hex(value);
            EXPECT_EQ(bounded.describe(), "numbers=[5, -6, 0] count=" + std::to_string(count));
        }
    }
}

TEST(PrivilegesList, a_value_without_count_or_set_cannot_be_decoded)
{
    for (const std::string &value :
         {sequence(), sequence(sequence()), sequence(sequence(integer(1))),
          sequence(sequence(integer(2147483648)), set(entry(1))),
          sequence(sequence(integer(1)), bytes("31 05 30"))}) {
        Outputs out;
        EXPECT_EQ(get_list(value, out), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), "") << hex(value);
        EXPECT_EQ(get_bounded_list(value, 8, out), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), "") << hex(value);
    }
}

TEST(PrivilegesList, the_bounded_companion_fills_what_there_is_room_for)
{
    const std::string three = entry(1) + entry(2) + entry(3);
    struct Case {
        int announced;
        int capacity;
        int rc;
        const char *seen;
    };
    for (const Case &row :
         {Case{3, 3, 0, "numbers=[1, 2, 3] count=3"}, Case{3, 4, 0, "numbers=[1, 2, 3] count=3"},
          Case{2, 3, 0, "numbers=[1, 2] count=2"}, Case{3, 2, 0x54, "numbers=[1, 2] count=3"},
          Case{3, 0, 0x54, "count=3"}, Case{INT_MAX, 3, 0x54, "numbers=[1, 2, 3] count=2147483647"},
          Case{INT_MAX, 4, 0x53, "numbers=[1, 2, 3, 0] count=2147483647"}}) {
        Outputs out;
        EXPECT_EQ(get_bounded_list(privileges(row.announced, three), row.capacity, out), row.rc);
        EXPECT_EQ(out.describe(), row.seen);
    }
}
