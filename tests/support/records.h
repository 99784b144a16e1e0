// Event records and the elements that they are read from, released by themselves.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "ldap_events.h"

namespace support {

// With the one address of a referral list that ldap_event_free() leaves allocated.
inline void release_wholly(void *record)
{
    if (static_cast<ber_tag_t *>(record)[-1] == EVT_TAG_SEV_INFO) {
        const auto *event = static_cast<EVT_SEVInfo *>(record);
        if (event->referralCount > 0)
            ldapx_memfree(event->referrals[0].address);
    }
    ldap_event_free(record);
}

struct ReleaseRecord {
    void operator()(void *record) const
    {
        release_wholly(record);
    }
};
using EventRecord = std::unique_ptr<void, ReleaseRecord>;

struct FreeElement {
    void operator()(BerElement *ber) const
    {
        ber_free(ber, 1);
    }
};
using Element = std::unique_ptr<BerElement, FreeElement>;

inline Element element_of(std::string_view bytes)
{
    berval value{bytes.size(), const_cast<char *>(bytes.data())};
    return Element(ber_init(&value));
}

inline std::size_t unread(const Element &ber)
{
    ber_len_t left = 0;
    ber_get_option(ber.get(), LBER_OPT_BER_REMAINING_BYTES, &left);
    return left;
}

} // namespace support
