// The replication filter, as text and as bytes.

#include <random>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

const char server[] = "cn=srv";

struct Class {
    std::string name;
    std::vector<std::string> attributes;
};
using Filter = std::vector<Class>;

std::string text_of(const Filter &filter)
{
    std::string text;
    for (const Class &entry : filter) {
        text += entry.name + '$';
        for (const std::string &attribute : entry.attributes)
            text += attribute + '$';
        text += '$';
    }
    return text + '$';
}

std::string class_value(const Class &entry, unsigned width = 0)
{
    std::string attributes;
    for (const std::string &attribute : entry.attributes)
        attributes += octets(attribute);
    return element(0x30, octets(entry.name) + element(0x30, attributes, width), width);
}

// With width 4 as the request carries it, with width 0 as a server answers in the shortest form.
std::string value_of(const Filter &filter, unsigned width = 0)
{
    std::string classes;
    for (const Class &entry : filter)
        classes += class_value(entry, width);
    return element(0x30, classes, width);
}

// Names of bytes that the grammar allows, which is all but "$" and NUL.
class Texts {
public:
    explicit Texts(unsigned seed) : random_(seed) {}

    Filter next()
    {
        Filter filter(below(6));
        for (Class &entry : filter) {
            entry.name = name();
            entry.attributes.resize(below(8));
            for (std::string &attribute : entry.attributes)
                attribute = name();
        }
        return filter;
    }

private:
    std::size_t below(std::size_t bound)
    {
        return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
    }
    std::string name()
    {
        // Mostly short; now and then around the lengths where a BER length takes one byte more.
        std::string text(below(20) == 0 ? 120 + below(150) : 1 + below(12), ' ');
        const bool any_byte = below(4) == 0;
        for (char &byte : text)
            do
                byte = static_cast<char>(any_byte ? 1 + below(255) : 'a' + below(26));
            while (byte == '$');
        return text;
    }

    std::mt19937 random_;
};

int set_filter(const std::string &text, std::string &value)
{
    Peer peer;
    peer.respond({.name = admin_name(36)});
    const int rc = ldap_set_replication_filter(peer.ld(), server, text.c_str());
    value = rc == 0 ? peer.take_request().value.value() : "";
    EXPECT_TRUE(peer.quiet());
    return rc;
}

struct Got {
    int rc;
    std::string text;
};

Got get_answered(const Response &response)
{
    Peer peer;
    peer.respond(response);
    Outputs out;
    const int rc = ldap_get_replication_filter(peer.ld(), server, &out.text);
    return {rc, out.describe()};
}

Got get_filter(const std::string &value)
{
    return get_answered({.name = admin_name(38), .value = value});
}

const Filter two_classes = {{"inetOrgPerson", {"cn", "sn"}}, {"group", {}}};
const Class good = {"group", {"member"}};

} // namespace

TEST(SetFilter, a_filter_without_classes_is_an_empty_sequence)
{
    std::string value;
    EXPECT_EQ(set_filter("$", value), 0);
    EXPECT_EQ(hex(value), hex(bytes("04 06 63 6e 3d 73 72 76  30 84 00 00 00 00")));
}

TEST(SetFilter, what_follows_the_closing_sign_is_ignored)
{
    for (const std::string rest : {"$", "x", "group$$$", "group$$$$$", " "}) {
        std::string value;
        EXPECT_EQ(set_filter("$" + rest, value), 0);
        EXPECT_EQ(value, octets(server) + request_sequence());
        EXPECT_EQ(set_filter(text_of(two_classes) + rest, value), 0);
        EXPECT_EQ(value, octets(server) + value_of(two_classes, 4));
    }
}

TEST(SetFilter, a_text_with_a_name_that_is_not_closed_is_refused_and_not_sent)
{
    // Every proper prefix of a text lacks a sign somewhere.
    for (const std::string &text : {text_of(two_classes), text_of({{"a", {}}}), std::string("$")}) {
        for (const std::string &prefix : cuts(text)) {
            std::string value;
            EXPECT_EQ(set_filter(prefix, value), 0x59) << prefix;
        }
    }
}

TEST(SetFilter, a_missing_argument_is_refused_and_nothing_is_sent)
{
    Peer peer;
    EXPECT_EQ(ldap_set_replication_filter(peer.ld(), nullptr, "$"), 0x59);
    EXPECT_EQ(ldap_set_replication_filter(peer.ld(), server, nullptr), 0x59);
    Outputs out;
    EXPECT_EQ(ldap_get_replication_filter(peer.ld(), nullptr, &out.text), 0x59);
    EXPECT_EQ(ldap_get_replication_filter(peer.ld(), server, nullptr), 0x59);
    EXPECT_EQ(out.describe(), "");
    EXPECT_TRUE(peer.quiet());
}

TEST(SetFilter, the_caller_s_text_is_not_modified)
{
    const std::string text = text_of(two_classes);
    std::string copy = text;
    Peer peer;
    peer.respond({.name = admin_name(36)});
    EXPECT_EQ(ldap_set_replication_filter(peer.ld(), server, copy.c_str()), 0);
    EXPECT_EQ(copy, text);
}

TEST(GetFilter, a_filter_without_classes_is_one_sign)
{
    EXPECT_EQ(get_filter(bytes("30 00")).rc, 0);
    EXPECT_EQ(get_filter(bytes("30 00")).text, "text=$");
    EXPECT_EQ(get_filter(bytes("30 84 00 00 00 00")).text, "text=$");
}

TEST(GetFilter, a_class_without_attributes_is_closed_at_once)
{
    const Got got = get_filter(value_of({{"group", {}}, {"device", {"cn"}}, {"person", {}}}));
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.text, "text=group$$device$cn$$person$$$");
}

TEST(GetFilter, a_response_under_another_name_is_taken_for_what_its_value_is)
{
    const std::string other = admin_name(36);
    const Got read = get_answered({.name = other, .value = value_of(two_classes)});
    EXPECT_EQ(read.rc, 0);
    EXPECT_EQ(read.text, "text=" + text_of(two_classes));

    const Got without = get_answered({.name = other});
    EXPECT_EQ(without.rc, 1);
    EXPECT_EQ(without.text, "");

    const Got unreadable = get_answered({.name = other, .value = octets("x")});
    EXPECT_EQ(unreadable.rc, 0x54);
    EXPECT_EQ(unreadable.text, "text=");
}

TEST(GetFilter, a_value_that_does_not_open_with_a_sequence_leaves_an_empty_text)
{
    const std::string classes = value_of(two_classes);
    for (const std::string &value :
         {std::string(), element(0x31, classes.substr(2)), element(0xa0, classes.substr(2)),
          octets("x"), integer(0), bytes("30"), bytes("30 02 30"), bytes("30 80 00 00"),
          bytes("30 84 ff ff ff ff"), bytes("00 00"), bytes("ff")}) {
        const Got got = get_filter(value);
        EXPECT_EQ(got.rc, 0x54) << hex(value);
        EXPECT_EQ(got.text, "text=") << hex(value);
    }
}

TEST(GetFilter, the_classes_before_a_malformed_one_stay_in_the_text)
{
    const std::string before = class_value(good);
    for (const std::string &bad :
         {bytes("30 00"), bytes("30"), bytes("00"), bytes("30 80"), bytes("30 02 04 00"),
          sequence(octets("person")), sequence(octets("person"), octets("cn")),
          sequence(octets("person"), sequence(bytes("04 05 63"))),
          sequence(octets(std::string("per\0son", 7)), sequence()),
          sequence(octets("person"), sequence(octets(std::string("c\0n", 3)))),
          class_value(good).substr(0, 5), sequence(), octets("person"),
          bytes("30 84 7f ff ff ff")}) {
        const Got got = get_filter(element(0x30, before + bad));
        EXPECT_EQ(got.rc, 0x54) << hex(bad);
        EXPECT_EQ(got.text, "text=group$member$$") << hex(bad);
    }
}

TEST(GetFilter, a_value_cut_within_its_last_class_keeps_the_first)
{
    // The outer length is right for what is there, so the cut shows only in the class.
    const std::string first = class_value(good);
    for (const std::string &rest : cuts(class_value(two_classes[0]))) {
        if (rest.empty())
            continue;
        const Got got = get_filter(element(0x30, first + rest));
        EXPECT_EQ(got.rc, 0x54) << hex(rest);
        EXPECT_EQ(got.text, "text=group$member$$") << hex(rest);
    }
}

TEST(GetFilter, classes_are_read_until_the_value_is_exhausted)
{
    const Got behind = get_filter(sequence() + class_value(good));
    EXPECT_EQ(behind.rc, 0);
    EXPECT_EQ(behind.text, "text=group$member$$$");

    const Got garbage = get_filter(sequence(class_value(good)) + '\0');
    EXPECT_EQ(garbage.rc, 0x54);
    EXPECT_EQ(garbage.text, "text=group$member$$");
}

TEST(GetFilter, names_that_no_text_can_express_come_as_they_are)
{
    const Got got = get_filter(value_of({{"", {"", "a$b"}}, {"x", {""}}}));
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.text, "text=$$a$b$$x$$$$");
}

TEST(GetFilter, a_large_filter_comes_whole)
{
    Filter filter;
    for (int index = 0; index < 2000; ++index)
        filter.push_back({"c" + std::to_string(index), {"a", "b", std::string(300, 'z')}});
    const Got got = get_filter(value_of(filter));
    EXPECT_EQ(got.rc, 0);
    EXPECT_TRUE(got.text == "text=" + text_of(filter));
}

TEST(Filter, every_text_of_the_grammar_survives_set_then_get)
{
    Texts texts(20260402);
    Peer peer;
    for (int round = 0; round < 3000; ++round) {
        const Filter filter = texts.next();
        const std::string text = text_of(filter);

        peer.respond({.name = admin_name(36)});
        ASSERT_EQ(ldap_set_replication_filter(peer.ld(), server, text.c_str()), 0) << text;
        const std::string value = peer.take_request().value.value();
        ASSERT_EQ(value, octets(server) + value_of(filter, 4)) << text;

        // Both as it was sent and in the shortest form, which leaves the least room for the text.
        for (const std::string &answer : {value.substr(octets(server).size()), value_of(filter)}) {
            peer.respond({.name = admin_name(38), .value = answer});
            Outputs out;
            ASSERT_EQ(ldap_get_replication_filter(peer.ld(), server, &out.text), 0) << text;
            ASSERT_STREQ(out.text, text.c_str());
            ASSERT_EQ(peer.take_request().value, octets(server));
        }
    }
}

TEST(Filter, damaged_values_give_a_text_of_whole_classes_or_the_decoding_code)
{
    Texts texts(20260403);
    std::minstd_rand random(7);
    Peer peer;
    for (int round = 0; round < 2000; ++round) {
        std::string value = value_of(texts.next());
        for (auto changes = 1 + random() % 4; changes > 0; --changes)
            value[random() % value.size()] = static_cast<char>(random());
        peer.respond({.name = admin_name(38), .value = value});
        Outputs out;
        const int rc = ldap_get_replication_filter(peer.ld(), server, &out.text);
        ASSERT_TRUE(rc == 0 || rc == 0x54) << rc << ' ' << hex(value);
        ASSERT_LT(std::string(out.text).size(), value.size() + 2) << hex(value);
        const std::string text = out.text;
        ASSERT_TRUE(text.empty() || text.back() == '$') << hex(value);
        peer.take_request();
    }
}
