// What every event decoder does beside reading its fields: one record behind the header that names
// its kind, cleared; the fields in the order in which they come; the address trailer; on failure
// the release of all that was made.
#pragma once

#include "events_reader.h"

#include <cstring>

namespace greirige {

// The fields of each record, in wire order.
void read_fields(EventReader &in, EVT_EntryInfo &event) noexcept;
void read_fields(EventReader &in, EVT_ValueInfo &event) noexcept;
void read_fields(EventReader &in, EVT_EventData &event) noexcept;
void read_fields(EventReader &in, EVT_BinderyObjectInfo &event) noexcept;
void read_fields(EventReader &in, EVT_SEVInfo &event) noexcept;
void read_fields(EventReader &in, EVT_ModuleState &event) noexcept;
void read_fields(EventReader &in, EVT_ChangeConnState &event) noexcept;
void read_fields(EventReader &in, EVT_ChangeServerAddr &event) noexcept;
void read_fields(EventReader &in, EVT_ChangeConfigParm &event) noexcept;
void read_fields(EventReader &in, EVT_StatusLogInfo &event) noexcept;
void read_fields(EventReader &in, EVT_DebugInfo &event) noexcept;
void read_fields(EventReader &in, EVT_AuthEventData &event) noexcept;
void read_fields(EventReader &in, EVT_SearchEventData &event) noexcept;
void read_fields(EventReader &in, EVT_SearchEntryResponseEventData &event) noexcept;
void read_fields(EventReader &in, EVT_UpdateEventData &event) noexcept;
void read_fields(EventReader &in, EVT_CompareEventData &event) noexcept;
void read_fields(EventReader &in, EVT_ModDNEventData &event) noexcept;
void read_fields(EventReader &in, EVT_AbandonEventData &event) noexcept;
void read_fields(EventReader &in, EVT_ExtOpEventData &event) noexcept;
void read_fields(EventReader &in, EVT_SysExtOpEventData &event) noexcept;
void read_fields(EventReader &in, EVT_ResponseEventData &event) noexcept;
void read_fields(EventReader &in, EVT_PasswordModifyEventData &event) noexcept;
void read_fields(EventReader &in, EVT_UnknownEventData &event) noexcept;

// The last step: the trailer behind a record that was read, the release of one that was not.
inline void *finish(EventReader &in, void *event, void **pIP) noexcept
{
    read_trailer(in, pIP);
    if (in.err == LDAP_SUCCESS)
        return event;
    if (event != nullptr)
        ldap_event_free(event);
    return nullptr;
}

// The record, or NULL with the failure in the reader.
template <class Record>
void *decode(EventReader &in, ber_tag_t tag, void **pIP) noexcept
{
    void *event = allocEventData(sizeof(Record), tag);
    if (event == nullptr) {
        fail(in, LDAPX_NO_MEMORY);
    } else {
        std::memset(event, 0, sizeof(Record)); // a failure may release it at any point
        read_fields(in, *static_cast<Record *>(event));
    }
    return finish(in, event, pIP);
}

// The same for the exported decoders.
template <class Record>
int decode_from(LDAP *ld, BerElement *ber, ber_tag_t tag, void **eventData, void **pIP) noexcept
{
    EventReader in = reader_of(ber);
    *eventData = decode<Record>(in, tag, pIP);
    store_result(ld, in.err);
    return in.err;
}

} // namespace greirige
