// The data of an event, in any of the decoders: the first byte chooses the kind, the rest is what
// its decoder reads. Whatever the bytes, the result, the record and the address are those of an
// independent decoder, and nothing is left behind once the record has been released.

#include "fuzz.h"

#include <optional>
#include <sstream>

#include "support/events.h"
#include "support/records.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

LDAP *session()
{
    static LDAP *ld = [] {
        LDAP *made = nullptr;
        fuzz::require(ldap_create(&made) == LDAP_SUCCESS);
        return made;
    }();
    return ld;
}

Verdict decode(const EventKind &kind, const std::string &fields)
{
    const Element ber = element_of(fields);
    void *record = nullptr;
    void *address = nullptr;
    Verdict verdict;
    {
        // A referral list that breaks off loses its first address.
        std::optional<StatedLeak> leak;
        if (kind.tag == EVT_TAG_SEV_INFO)
            leak.emplace();
        verdict.code = kind.decoder(session(), ber.get(), &record, &address);
    }
    const EventRecord owned(record), owned_address(address);
    fuzz::require((verdict.code == LDAP_SUCCESS) == (record != nullptr), "record and success");
    int stored = -1;
    ldap_get_option(session(), LDAP_OPT_RESULT_CODE, &stored);
    fuzz::require(stored == verdict.code, "the session's result code");
    if (record != nullptr) {
        verdict.text = describe(kind, record);
        verdict.unread = unread(ber);
    }
    verdict.trailer = describe_address(address);
    return verdict;
}

// An address has no list of fields in the table: its rules are in these few lines.
void decode_address(const std::string &fields)
{
    const Element ber = element_of(fields);
    void *address = nullptr;
    const int code = parseNetAddrEventData(session(), ber.get(), &address);
    const EventRecord owned(address);
    fuzz::require((code == LDAP_SUCCESS) == (address != nullptr), "address and success");
    fuzz::require(code == LDAP_SUCCESS || code == LDAPX_DECODING_ERROR, "code of an address");
}

} // namespace

std::vector<std::string> fuzz::seeds()
{
    std::vector<std::string> all;
    char number = 0;
    for (const EventKind &kind : event_kinds()) {
        all.push_back(number + full_event(kind).bytes + trailer_bytes());
        all.push_back(number + least_event(kind).bytes);
        ++number;
    }
    all.push_back(number + trailer_bytes());
    return all;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Input input(data, size);
    const auto &kinds = event_kinds();
    const std::size_t number = input.below(kinds.size() + 1);
    const std::string fields = input.rest();
    if (number == kinds.size()) {
        decode_address(fields);
        return 0;
    }
    const Verdict expected = expected_verdict(kinds[number], fields, false);
    const Verdict seen = decode(kinds[number], fields);
    if (seen != expected) {
        std::ostringstream complaint;
        complaint << "expected " << expected << "seen " << seen;
        fuzz::require(false, complaint.str());
    }
    return 0;
}
