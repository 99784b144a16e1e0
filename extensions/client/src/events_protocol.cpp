// Decoders of the LDAP operations that the server's clients perform.

#include "events_decoder.h"

namespace greirige {

namespace {

constexpr ber_tag_t controls = 0x80;
constexpr ber_tag_t referrals = 0x81;

// The list is looked for whatever comes next, and found missing only where nothing is left.
void read_strings(EventReader &in, char **&strings) noexcept
{
    read_string_sequence(in, strings);
    if (in.err != LDAP_SUCCESS)
        strings = nullptr; // it may still name a list that has been released
}

void read_optional_strings(EventReader &in, ber_tag_t tag, char **&strings) noexcept
{
    if (next_is(in, tag))
        read_strings(in, strings);
}

// A mechanism that cannot be stored is no failure of the event: it is passed over and stays NULL.
void read_mechanism(EventReader &in, char *&authMechanism) noexcept
{
    if (in.err != LDAP_SUCCESS)
        return;
    read_string(in, authMechanism);
    const bool no_memory = in.err == LDAPX_NO_MEMORY;
    in.err = LDAP_SUCCESS;
    if (no_memory)
        pass(in);
}

// Whatever goes wrong with a filter is reported as a value that cannot be decoded.
void read_filter(EventReader &in, char *&filter) noexcept
{
    if (in.err != LDAP_SUCCESS)
        return;
    read_string(in, filter);
    if (in.err != LDAP_SUCCESS)
        in.err = LDAPX_DECODING_ERROR;
}

} // namespace

void read_fields(EventReader &in, EVT_AuthEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.bindDN);
    read_number(in, event.bindType);
    read_mechanism(in, event.authMechanism);
    read_number(in, event.resultCode);
    read_optional_strings(in, controls, event.controlOID);
}

void read_fields(EventReader &in, EVT_SearchEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.bindDN);
    read_string(in, event.base);
    read_number(in, event.scope);
    read_filter(in, event.filter);
    read_number(in, event.resultCode);
    read_strings(in, event.attrs);
    read_optional_strings(in, controls, event.controlOID);
}

void read_fields(EventReader &in, EVT_SearchEntryResponseEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.entryDN);
    read_string(in, event.className);
    read_number(in, event.resultCode);
    read_strings(in, event.attrs);
}

void read_fields(EventReader &in, EVT_UpdateEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_number(in, event.operation);
    read_string(in, event.bindDN);
    read_string(in, event.entryDN);
    read_string(in, event.className);
    read_number(in, event.resultCode);
    read_optional_strings(in, controls, event.controlOID);
}

void read_fields(EventReader &in, EVT_CompareEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.bindDN);
    read_string(in, event.compareDN);
    read_string(in, event.assertionType);
    read_string(in, event.assertionValue);
    read_string(in, event.className);
    read_number(in, event.resultCode);
}

void read_fields(EventReader &in, EVT_ModDNEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.bindDN);
    read_string(in, event.oldRDN);
    read_string(in, event.newRDN);
    read_string(in, event.className);
    read_number(in, event.resultCode);
    read_optional_strings(in, controls, event.controlOID);
}

void read_fields(EventReader &in, EVT_AbandonEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_number(in, event.operation);
    read_string(in, event.bindDN);
    read_number(in, event.resultCode);
}

void read_fields(EventReader &in, EVT_ExtOpEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_number(in, event.operation);
    read_string(in, event.extensionOID);
    read_string(in, event.bindDN);
    read_number(in, event.resultCode);
}

void read_fields(EventReader &in, EVT_SysExtOpEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_number(in, event.operation);
    read_string(in, event.extensionOID);
    read_string(in, event.bindDN);
    read_string(in, event.value1);
    read_string(in, event.value2);
    read_string(in, event.value3);
    read_string(in, event.value4);
    read_number(in, event.resultCode);
}

void read_fields(EventReader &in, EVT_ResponseEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_number(in, event.operation);
    read_number(in, event.resultCode);
    read_string(in, event.matchedDN);
    read_optional_strings(in, referrals, event.referral);
}

void read_fields(EventReader &in, EVT_PasswordModifyEventData &event) noexcept
{
    read_connection(in, event.connectionData);
    read_number(in, event.msgID);
    read_number(in, event.time);
    read_string(in, event.bindDN);
    read_string(in, event.entryDN);
    read_number(in, event.passwordModifyType);
    read_number(in, event.resultCode);
}

void read_fields(EventReader &in, EVT_UnknownEventData &event) noexcept
{
    read_number(in, event.time);
    read_string(in, event.inetAddr);
}

} // namespace greirige

using namespace greirige;

int parseAuthEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_AuthEventData>(ld, responseBer, EVT_TAG_AUTH, eventData, pIP);
}

// The fields of a connection block, but bare: no SEQUENCE around them.
int parseConnectionEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                             void **pIP) noexcept
{
    return decode_from<EVT_ConnectionEventData>(ld, responseBer, EVT_TAG_CONNECTION, eventData,
                                                pIP);
}

int parseSearchEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_SearchEventData>(ld, responseBer, EVT_TAG_SEARCH, eventData, pIP);
}

int parseSearchEntryResponseEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                                      void **pIP) noexcept
{
    return decode_from<EVT_SearchEntryResponseEventData>(
        ld, responseBer, EVT_TAG_SEARCH_ENTRY_RESPONSE, eventData, pIP);
}

// Every update has the same record, whatever the event's type: the type is not looked at.
int parseUpdateEventData(LDAP *ld, BerElement *responseBer, int, void **eventData,
                         void **pIP) noexcept
{
    return decode_from<EVT_UpdateEventData>(ld, responseBer, EVT_TAG_UPDATE, eventData, pIP);
}

int parseCompareEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_CompareEventData>(ld, responseBer, EVT_TAG_COMPARE, eventData, pIP);
}

int parseModDNEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_ModDNEventData>(ld, responseBer, EVT_TAG_MODDN, eventData, pIP);
}

int parseAbandonEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_AbandonEventData>(ld, responseBer, EVT_TAG_ABANDON, eventData, pIP);
}

int parseExtOpEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_ExtOpEventData>(ld, responseBer, EVT_TAG_EXTOP, eventData, pIP);
}

int parseSysExtOpEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_SysExtOpEventData>(ld, responseBer, EVT_TAG_SYS_EXTOP, eventData, pIP);
}

int parseResponseEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_ResponseEventData>(ld, responseBer, EVT_TAG_RESPONSE, eventData, pIP);
}

int parsePasswordModifyData(LDAP *ld, BerElement *responseBer, void **eventData,
                            void **pIP) noexcept
{
    return decode_from<EVT_PasswordModifyEventData>(ld, responseBer, EVT_TAG_PASSWORD_MODIFY,
                                                    eventData, pIP);
}

int parseUnknownOp(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_UnknownEventData>(ld, responseBer, EVT_TAG_UNKNOWN_OP, eventData, pIP);
}
