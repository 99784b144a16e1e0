// The readers of events' parts, in any order on one element: up to four bytes choose readers, the
// rest is what they read. Whatever the bytes, each gives a code of its own, leaves its outputs as
// the manual says and no block behind, and what it took was there to be read.

#include "fuzz.h"

#include <optional>

#include "support/ber.h"
#include "support/events.h"
#include "support/records.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

constexpr std::size_t most_readers = 4;

LDAP *session()
{
    static LDAP *ld = [] {
        LDAP *made = nullptr;
        fuzz::require(ldap_create(&made) == LDAP_SUCCESS);
        return made;
    }();
    return ld;
}

bool allowed(int code)
{
    return code == LDAP_SUCCESS || code == LDAPX_DECODING_ERROR || code == LDAPX_NO_MEMORY;
}

// The same tag as the next element's, so that the reader goes on, or another.
ber_tag_t expected_tag(BerElement *ber, bool right)
{
    ber_len_t length = 0;
    const ber_tag_t tag = ber_peek_tag(ber, &length);
    return right && tag != LBER_DEFAULT ? tag : 0;
}

int octets(BerElement *ber, bool right_tag)
{
    char *block = nullptr;
    ber_len_t size = 77;
    const int code = parseOctetString(ber, &block, &size, expected_tag(ber, right_tag));
    fuzz::require(code == LDAP_SUCCESS || (block == nullptr && size == 0), "a failed octet string");
    fuzz::require((block == nullptr) == (size == 0), "an octet string's size");
    fuzz::require(block == nullptr || block[size] == '\0', "an octet string's end");
    ldapx_memfree(block);
    return code;
}

int string(BerElement *ber, bool right_tag)
{
    char *text = nullptr;
    const int code = parseLDAPString(ber, &text, expected_tag(ber, right_tag));
    fuzz::require(code == LDAP_SUCCESS || text == nullptr, "a failed string");
    ldapx_memfree(text);
    return code;
}

int referrals(BerElement *ber)
{
    // A list loses its first address when it is released.
    const StatedLeak leak;
    int count = 77;
    EVT_ReferralAddress *list = nullptr;
    const int code = parseReferralList(ber, &count, &list);
    fuzz::require(code != LDAP_SUCCESS || count == 0 || list != nullptr, "a referral list");
    if (list != nullptr && count > 0)
        ldapx_memfree(list[0].address);
    freeReferralList(count, list);
    return code;
}

int strings(BerElement *ber)
{
    char **list = nullptr;
    const int code = parseStringSequence(ber, &list);
    fuzz::require(code != LDAPX_DECODING_ERROR || list == nullptr, "a failed string sequence");
    if (code == LDAP_SUCCESS)
        freeStringSequence(list);
    return code;
}

int connection(BerElement *ber)
{
    EVT_ConnectionEventData *block = nullptr;
    const int code = parseConnectionData(ber, &block);
    freeConnectionData(block);
    return code;
}

int address(BerElement *ber)
{
    void *record = nullptr;
    const int code = parseNetAddrEventData(session(), ber, &record);
    const EventRecord owned(record);
    fuzz::require((code == LDAP_SUCCESS) == (record != nullptr), "address and success");
    return code;
}

int trailer(BerElement *ber)
{
    const int before = LDAP_SUCCESS;
    ldap_set_option(session(), LDAP_OPT_RESULT_CODE, &before);
    void *record = nullptr;
    const int code = ber_get_IP(session(), ber, &record);
    const EventRecord owned(record);
    fuzz::require(code == LDAP_SUCCESS || record == nullptr, "a failed trailer");
    return code;
}

int read(unsigned choice, BerElement *ber)
{
    switch (choice % 9) {
    case 0:
        return octets(ber, false);
    case 1:
        return octets(ber, true);
    case 2:
        return string(ber, false);
    case 3:
        return string(ber, true);
    case 4:
        return referrals(ber);
    case 5:
        return strings(ber);
    case 6:
        return connection(ber);
    case 7:
        return address(ber);
    default:
        return trailer(ber);
    }
}

// An input: the readers' numbers, closed by a byte that is none, and the element.
std::string seed(const std::string &readers, const std::string &bytes)
{
    return readers + '\xff' + bytes;
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    const std::string block = sequence(integer(7), integer(8), support::octets("10.0.0.1"));
    const std::string list =
        sequence(integer(2), sequence(sequence(integer(1), support::octets("10.0.0.1:389")),
                                      sequence(integer(-2), support::octets(bytes("00 ff 41")))));
    const std::string texts =
        sequence(sequence(support::octets("1.2.3")), sequence(support::octets("")));
    const std::string zero(1, '\0');
    return {
        seed(zero, support::octets("text")),
        seed("\x01\x02", support::octets("tagged", 0x85) + support::octets("text")),
        seed("\x03\x03", support::octets("", 0x85) + support::octets(std::string(200, 'x'))),
        seed("\x04\x04", list + sequence(integer(0), sequence())),
        seed("\x05\x05", texts + sequence()),
        seed("\x05\x05", element(0x80, sequence(support::octets("1.2.3"))) + texts),
        seed("\x06\x06\x02", block + support::octets("after")),
        seed("\x07\x08", trailer_bytes() + trailer_bytes()),
        seed("\x06\x04\x05\x08", block + list + texts + trailer_bytes()),
    };
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    std::vector<unsigned char> readers;
    for (unsigned char choice = input.byte(); choice != 0xff && readers.size() < most_readers;
         choice = input.byte())
        readers.push_back(choice);
    const std::string bytes = input.rest();
    const Element ber = element_of(bytes);
    for (const unsigned char choice : readers) {
        const std::size_t before = unread(ber);
        const int code = read(choice, ber.get());
        fuzz::require(allowed(code), "a reader's code");
        fuzz::require(unread(ber) <= before, "a reader that goes back");
        if (code != LDAP_SUCCESS)
            break;
    }
    return 0;
}
