// Every kind of event, whole, cut, with wrong tags and altered bytes, through its decoder and
// through the message parser, against the rules as support/events.h has them. Built twice: with
// the library's assertions and, as event_kinds_unasserted_test, without.

#include <iterator>
#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/event_session.h"
#include "support/events.h"

using namespace support;

namespace {

#ifdef UNASSERTED
constexpr bool asserting = false;
#else
constexpr bool asserting = GREIRIGE_ASSERTIONS != 0;
#endif

class AnyEvent : public testing::TestWithParam<EventKind> {
protected:
    const EventKind &kind = GetParam();
    EventSession session;

    // Decodes these bytes in both ways; both must do what the rules say.
    void check(std::string_view fields)
    {
        const Verdict expected = expected_verdict(kind, fields, asserting);
        if (!expected.assertion.empty()) {
            // A process for each place that can stop it is enough.
            if (!stops_seen.insert(expected.text.size()).second)
                return;
            EXPECT_DEATH(session.decode(kind, fields), assertion(expected)) << hex(fields);
            return;
        }
        EXPECT_EQ(session.decode(kind, fields), expected) << hex(fields);
        Verdict parsed = session.parse(kind, fields);
        parsed.unread = expected.unread; // nobody can tell
        EXPECT_EQ(parsed, expected) << hex(fields);
    }

    static std::string assertion(const Verdict &expected)
    {
        std::string pattern = "Assertion `";
        for (char c : expected.assertion)
            pattern += c == '(' || c == ')' || c == '*' ? std::string("\\") + c : std::string(1, c);
        return pattern + "' failed";
    }

    std::set<std::size_t> stops_seen; // numbers of fields before the stop
};

INSTANTIATE_TEST_SUITE_P(, AnyEvent, testing::ValuesIn(event_kinds()),
                         [](const auto &kind) { return kind.param.name; });

// Every tag that a decoder looks for, its neighbours, and beginnings of long ones.
[[maybe_unused]] const std::string wrong_tags =
    bytes("00 02 04 1a 30 31 61 80 81 82 83 84 85 86 87 88 a7 ff 1f 7f");

} // namespace

TEST_P(AnyEvent, decodes_in_full)
{
    const Sample full = full_event(kind);
    const Verdict verdict{.text = full.text};
    EXPECT_EQ(session.decode(kind, full.bytes), verdict);
    EXPECT_EQ(session.parse(kind, full.bytes), verdict);
}

TEST_P(AnyEvent, decodes_with_an_address_trailer)
{
    const Sample full = full_event(kind);
    const Verdict verdict{.text = full.text, .trailer = trailer_text()};
    EXPECT_EQ(session.decode(kind, full.bytes + trailer_bytes()), verdict);
    EXPECT_EQ(session.parse(kind, full.bytes, trailer_bytes()), verdict);
}

TEST_P(AnyEvent, decodes_without_its_optional_parts)
{
    const Sample least = least_event(kind);
    EXPECT_EQ(session.decode(kind, least.bytes), Verdict{.text = least.text});
    EXPECT_EQ(session.parse(kind, least.bytes), Verdict{.text = least.text});
}

TEST_P(AnyEvent, without_its_optional_parts_treats_a_trailer_as_the_rules_say)
{
    check(least_event(kind).bytes + trailer_bytes());
}

TEST_P(AnyEvent, decodes_whatever_values_its_fields_have)
{
    std::mt19937 random(kind.tag);
    for (int i = 0; i < 100; ++i) {
        const Sample sample = any_event(kind, random);
        const Verdict verdict = session.decode(kind, sample.bytes);
        EXPECT_EQ(verdict.code, 0) << hex(sample.bytes);
        EXPECT_EQ(verdict.text, sample.text) << hex(sample.bytes);
        check(sample.bytes + trailer_bytes());
    }
}

TEST_P(AnyEvent, cut_at_every_byte_is_treated_as_the_rules_say)
{
    for (const std::string &cut : cuts(full_event(kind).bytes + trailer_bytes()))
        check(cut);
    for (const std::string &cut : cuts(least_event(kind).bytes))
        check(cut);
    EXPECT_EQ(!stops_seen.empty(), asserting); // every kind has a string
}

// Stands where a header was and where none was: what matters is that it is one at each position.
TEST_P(AnyEvent, with_a_wrong_tag_at_each_position_is_treated_as_the_rules_say)
{
    const std::string whole = full_event(kind).bytes + trailer_bytes();
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string altered = whole;
        altered[i] = 0x1a;
        check(altered);
    }
}

TEST_P(AnyEvent, cut_in_its_message_keeps_the_lengths_of_what_is_around_it)
{
    // The event's element claims more than is there: its tag cannot be read, like an unknown one.
    const std::string fields = full_event(kind).bytes;
    const std::string whole = concat(integer(7), integer(8), element(kind.tag, fields));
    for (const std::string &cut : cuts(whole)) {
        if (cut.size() < 6)
            continue;
        const Event event = session.parse_value(sequence(cut));
        EXPECT_EQ(event.code, 0);
        EXPECT_EQ(event.type, 7);
        EXPECT_EQ(event.result, 8);
        EXPECT_EQ(event.data, nullptr);
    }
}

TEST_P(AnyEvent, may_claim_to_be_empty_and_is_decoded_all_the_same)
{
    // The length of the event's element bounds nothing.
    const Sample full = full_event(kind);
    const Event event = session.parse_value(
        sequence(integer(7), integer(8), header(kind.tag, 0), full.bytes, trailer_bytes()));
    ASSERT_EQ(event.code, 0);
    EXPECT_EQ(describe(kind, event.data.get()), full.text);
    EXPECT_EQ(describe_address(event.ip.get()), trailer_text());
}

#ifdef UNASSERTED

TEST_P(AnyEvent, with_any_byte_altered_is_treated_as_the_rules_say)
{
    for (const std::string &whole :
         {full_event(kind).bytes + trailer_bytes(), least_event(kind).bytes + trailer_bytes()})
        for (std::size_t i = 0; i < whole.size(); ++i)
            for (char wrong : wrong_tags) {
                std::string altered = whole;
                altered[i] = wrong;
                check(altered);
            }
}

TEST_P(AnyEvent, with_any_element_missing_or_doubled_is_treated_as_the_rules_say)
{
    std::mt19937 random(kind.tag);
    for (int i = 0; i < 40; ++i) {
        const std::string whole = any_event(kind, random).bytes + trailer_bytes();
        std::vector<std::string> elements;
        for (std::string_view rest = whole; !rest.empty();) {
            elements.emplace_back(rest.substr(0, whole_element(rest)));
            rest.remove_prefix(elements.back().size());
        }
        for (std::size_t at = 0; at < elements.size(); ++at) {
            std::string missing, doubled;
            for (std::size_t j = 0; j < elements.size(); ++j) {
                missing += j == at ? "" : elements[j];
                doubled += j == at ? elements[j] + elements[j] : elements[j];
            }
            check(missing);
            check(doubled);
        }
    }
}

TEST_P(AnyEvent, with_bytes_altered_by_chance_is_treated_as_the_rules_say)
{
    std::mt19937 random(kind.tag);
    const auto pick = [&](std::size_t below) {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
    };
    for (int i = 0; i < 800; ++i) {
        std::string altered = any_event(kind, random).bytes + trailer_bytes();
        for (std::size_t left = 1 + pick(4); left > 0; --left) {
            const std::size_t at = pick(altered.size());
            switch (pick(3)) {
            case 0:
                altered[at] = static_cast<char>(pick(256));
                break;
            case 1:
                altered.erase(at, 1 + pick(8));
                break;
            default:
                altered.insert(at, 1 + pick(3), static_cast<char>(pick(256)));
            }
        }
        check(altered);
    }
}

// Long forms of tags and lengths, non-minimal ones, and limits of both.
TEST(EventElement, is_read_in_every_form_that_the_ldap_library_reads)
{
    EventSession session;
    const EventKind &kind = event_kind(EVT_TAG_CONNECTION);
    std::mt19937 random(1);
    const auto pick = [&](unsigned below) {
        return std::uniform_int_distribution<unsigned>(0, below - 1)(random);
    };
    int decoded = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string fields;
        for (int element = 0; element < 3; ++element) {
            std::string tag = element == 2 || pick(2) == 0 ? element == 2 ? "\x04" : "\x02" : "";
            if (tag.empty()) {
                tag = static_cast<char>(pick(8) << 5 | 0x1f);
                for (unsigned more = pick(9); more > 0; --more)
                    tag += static_cast<char>(0x80 | pick(128));
                tag += static_cast<char>(pick(128));
            }
            const std::string content(pick(element == 2 ? 10 : 7), static_cast<char>(pick(256)));
            std::string length(1, static_cast<char>(content.size()));
            if (unsigned width = pick(12); width > 0) {
                length.insert(0, width - 1, '\0');
                length.insert(0, 1, static_cast<char>(0x80 | width));
            }
            if (pick(50) == 0)
                length[0] = static_cast<char>(pick(256));
            fields += tag + length + content;
        }
        const Verdict expected = expected_verdict(kind, fields, false);
        decoded += expected.code == 0;
        EXPECT_EQ(session.decode(kind, fields), expected) << hex(fields);
        const Event event = session.parse_value(notification(1, 2, kind.tag, fields));
        EXPECT_EQ(event.code, expected.code) << hex(fields);
        if (event.data != nullptr) {
            EXPECT_EQ(describe(kind, event.data.get()), expected.text) << hex(fields);
        }
    }
    EXPECT_GT(decoded, 300);
}

#endif
