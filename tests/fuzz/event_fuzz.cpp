// The data of an event, in any of the decoders: the first byte chooses the decoder, the rest is
// what it reads. Whatever the bytes, there is a result code, a record exactly when it is success,
// and nothing left behind once the record has been released.

#include "ldap_events.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// LeakSanitizer's, where there is one.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace {

using Decoder = int (*)(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP);

int decode_address(LDAP *ld, BerElement *responseBer, void **eventData, void **)
{
    return parseNetAddrEventData(ld, responseBer, eventData);
}

int decode_update(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP)
{
    return parseUpdateEventData(ld, responseBer, 0, eventData, pIP);
}

// The release of a referral list leaves its first address behind, also when the decoder itself
// releases a record that it could not finish: its allocations are not looked at.
int decode_referrals(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP)
{
    if (__lsan_disable != nullptr)
        __lsan_disable();
    const int code = parseSEVEventData(ld, responseBer, eventData, pIP);
    if (__lsan_enable != nullptr)
        __lsan_enable();
    return code;
}

constexpr std::array<Decoder, 25> decoders = {
    parseEntryEventData,
    parseValueEventData,
    parseGeneralEventData,
    parseBinderyEventData,
    decode_referrals,
    parseModuleStateEventData,
    decode_address,
    parseConnectionStateData,
    parseChangeServerAddressData,
    parseChangeConfigParamData,
    parseStatusLogEventData,
    parseDebugEventData,
    parseAuthEventData,
    parseConnectionEventData,
    parseSearchEventData,
    parseSearchEntryResponseEventData,
    decode_update,
    parseCompareEventData,
    parseModDNEventData,
    parseAbandonEventData,
    parseExtOpEventData,
    parseSysExtOpEventData,
    parseResponseEventData,
    parsePasswordModifyData,
    parseUnknownOp,
};

void require(bool promise)
{
    if (!promise)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    static LDAP *ld = [] {
        LDAP *session = nullptr;
        require(ldap_create(&session) == LDAP_SUCCESS);
        return session;
    }();

    berval value = {size - 1, const_cast<char *>(reinterpret_cast<const char *>(data + 1))};
    BerElement *ber = ber_init(&value);
    require(ber != nullptr);
    void *record = nullptr;
    void *address = nullptr;
    const int code = decoders[data[0] % decoders.size()](ld, ber, &record, &address);
    require(code == LDAP_SUCCESS || code == LDAPX_DECODING_ERROR || code == LDAPX_NO_MEMORY);
    require((code == LDAP_SUCCESS) == (record != nullptr));
    int stored = -1;
    ldap_get_option(ld, LDAP_OPT_RESULT_CODE, &stored);
    require(stored == code);

    if (record != nullptr)
        ldap_event_free(record);
    if (address != nullptr)
        ldap_event_free(address);
    ber_free(ber, 1);
    return 0;
}
