// From one event message to its type, its result and its record.

#include "events_decoder.h"

using namespace greirige;

namespace {

// The event's data, from its tag on. NULL without a failure is an event that has no record.
void *read_event(EventReader &in, void **pIP) noexcept
{
    const ber_tag_t tag = in.tag;
    if (tag == no_element)
        return nullptr; // as any other tag that nothing is known of
    step_into(in);

    switch (tag) {
    case EVT_TAG_ENTRY_INFO:
        return decode<EVT_EntryInfo>(in, tag, pIP);
    case EVT_TAG_VALUE_INFO:
        return decode<EVT_ValueInfo>(in, tag, pIP);
    case EVT_TAG_GENERAL_EVENT:
        return decode<EVT_EventData>(in, tag, pIP);
    case EVT_TAG_BINDERY_OBJECT:
        return decode<EVT_BinderyObjectInfo>(in, tag, pIP);
    case EVT_TAG_SEV_INFO:
        return decode<EVT_SEVInfo>(in, tag, pIP);
    case EVT_TAG_MODULE_STATE:
        return decode<EVT_ModuleState>(in, tag, pIP);
    case EVT_TAG_NET_ADDRESS:
        return finish(in, read_net_address(in), pIP);
    case EVT_TAG_CONN_STATE:
        return decode<EVT_ChangeConnState>(in, tag, pIP);
    case EVT_TAG_CHANGE_SERVER_ADDR:
        return decode<EVT_ChangeServerAddr>(in, tag, pIP);
    case EVT_TAG_CHANGE_CONFIG_PARAM:
        return decode<EVT_ChangeConfigParm>(in, tag, pIP);
    case EVT_TAG_STATUS_LOG:
        return decode<EVT_StatusLogInfo>(in, tag, pIP);
    case EVT_TAG_DEBUG_INFO:
        return decode<EVT_DebugInfo>(in, tag, pIP);
    case EVT_TAG_AUTH:
        return decode<EVT_AuthEventData>(in, tag, pIP);
    case EVT_TAG_CONNECTION:
        return decode<EVT_ConnectionEventData>(in, tag, pIP);
    case EVT_TAG_SEARCH:
        return decode<EVT_SearchEventData>(in, tag, pIP);
    case EVT_TAG_SEARCH_ENTRY_RESPONSE:
        return decode<EVT_SearchEntryResponseEventData>(in, tag, pIP);
    case EVT_TAG_UPDATE:
        return decode<EVT_UpdateEventData>(in, tag, pIP);
    case EVT_TAG_COMPARE:
        return decode<EVT_CompareEventData>(in, tag, pIP);
    case EVT_TAG_MODDN:
        return decode<EVT_ModDNEventData>(in, tag, pIP);
    case EVT_TAG_ABANDON:
        return decode<EVT_AbandonEventData>(in, tag, pIP);
    case EVT_TAG_EXTOP:
        return decode<EVT_ExtOpEventData>(in, tag, pIP);
    case EVT_TAG_SYS_EXTOP:
        return decode<EVT_SysExtOpEventData>(in, tag, pIP);
    case EVT_TAG_RESPONSE:
        return decode<EVT_ResponseEventData>(in, tag, pIP);
    case EVT_TAG_PASSWORD_MODIFY:
        return decode<EVT_PasswordModifyEventData>(in, tag, pIP);
    case EVT_TAG_UNKNOWN_OP:
        return decode<EVT_UnknownEventData>(in, tag, pIP);
    default: // a skulk event, whose data is not read, and what is not known
        return nullptr;
    }
}

// SEQUENCE { INTEGER eventType, INTEGER eventResult, the event's data }, and its trailer.
int read_notification(const berval &value, int &eventType, int &eventResult, void **eventData,
                      void **pIP) noexcept
{
    EventReader in = reader_of(value);
    step_into(in);
    read_number(in, eventType);
    read_number(in, eventResult);
    if (eventData != nullptr && in.err == LDAP_SUCCESS)
        *eventData = read_event(in, pIP);
    return in.err;
}

} // namespace

int ldap_parse_ds_event_IP(LDAP *ld, LDAPMessage *eventMessage, int *eventType, int *eventResult,
                           void **eventData, int freeIt, void **pIP) noexcept
{
    if (eventType == nullptr || eventResult == nullptr) {
        store_result(ld, LDAPX_PARAM_ERROR);
        return LDAPX_PARAM_ERROR;
    }
    if (eventData != nullptr)
        *eventData = nullptr;

    char *name = nullptr;
    berval *value = nullptr;
    int err = ldap_parse_intermediate(ld, eventMessage, &name, &value, nullptr, freeIt);
    if (err == LDAP_SUCCESS && !same_name(name, LDAPX_EVENT_NOTIFICATION))
        err = LDAPX_DECODING_ERROR;
    if (err == LDAP_SUCCESS && value == nullptr)
        err = LDAPX_NO_MEMORY; // nothing that a reader could be made for
    if (err == LDAP_SUCCESS)
        err = read_notification(*value, *eventType, *eventResult, eventData, pIP);

    if (value != nullptr)
        ber_bvfree(value);
    if (name != nullptr)
        ldap_memfree(name);
    store_result(ld, err);
    return err;
}

int ldap_parse_ds_event(LDAP *ld, LDAPMessage *eventMessage, int *eventType, int *eventResult,
                        void **eventData, int freeIt) noexcept
{
    // Without a place for the trailer, none is made: it is checked and passed over.
    return ldap_parse_ds_event_IP(ld, eventMessage, eventType, eventResult, eventData, freeIt,
                                  nullptr);
}
