// Events made at random, valid and damaged, decoded twice: by the library, and by the decoder of
// the tests, which follows the table of events in support/events.h, is written on liblber's own
// calls and shares nothing with the library. Codes, records and trailers must be the same, field by
// field.
//
// The events are the same in every run: 100,000 of them, or as many as GREIRIGE_EVENTS says.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/event_session.h"
#include "support/events.h"
#include "support/mutations.h"

using namespace support;

namespace {

int events_to_make()
{
    const char *said = std::getenv("GREIRIGE_EVENTS");
    return said != nullptr ? std::atoi(said) : 100000;
}

class Maker {
public:
    explicit Maker(unsigned seed) : random_(seed) {}

    // The value of an event message.
    std::string make()
    {
        std::string value = whole();
        switch (pick(4)) {
        case 0:
            return value;
        case 1: {
            const std::vector<Mutation> all = mutations(value);
            return all[pick(all.size())].bytes;
        }
        default:
            for (std::size_t left = 1 + pick(4); left > 0 && !value.empty(); --left)
                damage(value);
            return value;
        }
    }

private:
    std::size_t pick(std::size_t below)
    {
        return std::uniform_int_distribution<std::size_t>(0, below - 1)(random_);
    }

    std::string whole()
    {
        // Most strings are short, so that damage often strikes what holds them together.
        const Variety variety{
            {0, 1, 2, 127, 128, 0x7fff, 0x8000, 0x7fffffff, 0x80000000, 0xffffffff},
            {0, 1, 2, 5, 31, 32, 127, 128, 300}};
        const std::array<long long, 5> numbers = {0, 1, -1, 0x7fffffff, -0x80000000LL};
        const auto &kinds = event_kinds();
        const std::size_t number = pick(kinds.size() + 2);
        std::string data;
        if (number < kinds.size())
            data = element(kinds[number].tag, any_event(kinds[number], random_, variety).bytes);
        else if (number == kinds.size())
            data = element(EVT_TAG_NET_ADDRESS,
                           concat(integer(numbers[pick(5)]), octets(std::string(pick(20), 'a'))));
        else
            data = element(0x60 + pick(0x20), octets("any"));
        const std::string trailer =
            pick(3) == 0 ? concat(integer(numbers[pick(5)]), octets(std::string(pick(20), 'b')))
                         : std::string();
        return sequence(integer(numbers[pick(5)]), integer(numbers[pick(5)]), data, trailer);
    }

    void damage(std::string &value)
    {
        const std::size_t at = pick(value.size());
        switch (pick(4)) {
        case 0:
            value[at] = static_cast<char>(pick(256));
            break;
        case 1:
            value[at] = static_cast<char>(value[at] ^ (1 << pick(8)));
            break;
        case 2:
            value.erase(at, 1 + pick(8));
            break;
        default:
            value.insert(at, 1 + pick(3), static_cast<char>(pick(256)));
        }
    }

    std::mt19937 random_;
};

} // namespace

TEST(RandomEvents, are_decoded_as_another_decoder_decodes_them)
{
    EventSession session;
    Maker maker(20260);
    std::map<int, int> codes;
    std::map<ber_tag_t, int> records;
    const int events = events_to_make();
    for (int i = 0; i < events && !HasFailure(); ++i) {
        const std::string value = maker.make();
        const Message message = session.message(value);
        const MessageVerdict expected = expected_message(value);
        int type = -99, result = -99;
        void *record = nullptr, *address = nullptr;
        int code = 0;
        {
            const StatedLeak broken_off_lists;
            code = ldap_parse_ds_event_IP(session.ld(), message.get(), &type, &result, &record, 0,
                                          &address);
        }
        const EventRecord owned(record), owned_address(address);
        EXPECT_EQ(seen_message(code, type, result, record, address), expected) << hex(value);
        EXPECT_EQ(session.peer.session_code(), code);
        ++codes[code];
        ++records[expected.tag];
    }

    // It was no comparison of nothing: every kind of record, and a fair share of each result.
    EXPECT_EQ(records.size(), event_kinds().size() + 2); // with addresses, and without a record
    EXPECT_GT(codes[LDAP_SUCCESS], events / 4);
    EXPECT_GT(codes[LDAPX_DECODING_ERROR], events / 4);
    std::printf("%d events: %d decoded, %d refused\n", events, codes[LDAP_SUCCESS],
                codes[LDAPX_DECODING_ERROR]);
}
