// Decoders of the directory's own events: entries, values, objects, the server itself.

#include "events_decoder.h"

#include <cstdlib>

namespace greirige {

namespace {

// A string that is stored within its record: one too short or too long is refused, never cut.
void read_text(EventReader &in, char *text, ber_len_t least, ber_len_t most) noexcept
{
    if (!next_is(in, LBER_OCTETSTRING) || in.length < least || in.length > most) {
        fail(in, LDAPX_DECODING_ERROR);
        return;
    }
    std::memcpy(text, in.contents, in.length);
    text[in.length] = '\0';
    pass(in);
}

void read_server_address(EventReader &in, EVT_ChangeServerAddr &event) noexcept
{
    if (in.err != LDAP_SUCCESS)
        return;
    GREIRIGE_ASSERT(LBER_OCTETSTRING == in.tag, "((ber_tag_t) 0x04UL) == tag");
    if (in.tag != LBER_OCTETSTRING) {
        in.err = LDAPX_DECODING_ERROR;
        return;
    }
    event.addrSize = static_cast<int>(in.length);
    take_contents(in, event.addr);
}

// The tag says what stands there, and must agree with the type.
void read_config_value(EventReader &in, EVT_ChangeConfigParm &event) noexcept
{
    if (event.type == 5 && next_is(in, 0x81)) {
        read_number(in, event.value.integer);
    } else if (event.type == 2 && next_is(in, 0x82)) {
        read_number(in, event.value.boolean);
    } else if (event.type == 1 && next_is(in, 0x83)) {
        event.value.binary.size = static_cast<int>(in.length);
        take_contents(in, event.value.binary.data);
    } else if (event.type == 3 && next_is(in, 0x84)) {
        take_contents(in, event.value.utf8Str);
    } else if (event.type == 0 && next_is(in, 0x85)) {
        // No value. The element is left unread, so such an event never shows its trailer.
    } else {
        fail(in, LDAPX_DECODING_ERROR);
    }
}

// { type, data }; empty data is left unread, which ends the list of parameters.
void read_address_parameter(EventReader &in, DB_netAddress &address) noexcept
{
    step_into(in);
    read_number(in, address.type);
    if (!next_is(in, LBER_OCTETSTRING)) {
        fail(in, LDAPX_DECODING_ERROR);
    } else if (in.length > 0) {
        address.length = static_cast<unsigned int>(in.length);
        take_contents(in, address.data);
    }
}

// { count, { time stamps } }.
void read_time_stamp_vector(EventReader &in, DB_timeStampVector &vector) noexcept
{
    step_into(in);
    read_number(in, vector.count);
    step_into(in);
    check_count(in, vector.count);
    if (in.err != LDAP_SUCCESS)
        return;
    vector.timeStamps =
        static_cast<EVT_TimeStamp *>(std::malloc(vector.count * sizeof *vector.timeStamps));
    if (vector.timeStamps == nullptr)
        in.err = LDAPX_NO_MEMORY;
    for (unsigned int i = 0; i < vector.count && in.err == LDAP_SUCCESS; ++i)
        read_time_stamp(in, vector.timeStamps[i]);
}

// The tag is 0x80 and the type. The type stands before the value is read: the release of an event
// that fails in the middle goes by it.
void read_parameter(EventReader &in, DB_Parameter &parameter) noexcept
{
    DB_value &value = parameter.value;
    parameter.type = static_cast<int>(in.tag & 0x7f);
    switch (in.tag) {
    case 0x81:
    case 0x84:
        read_number(in, value.integer);
        break;
    case 0x82:
        take_contents(in, value.utf8Str);
        break;
    case 0x83:
        value.binary.size = static_cast<unsigned int>(in.length);
        take_contents(in, value.binary.data);
        break;
    case 0x85:
        read_address_parameter(in, value.netAddress);
        break;
    case 0x86:
        read_time_stamp(in, value.timeStamp);
        break;
    case 0x87:
        read_time_stamp_vector(in, value.timeStampVector);
        break;
    default:
        parameter.type = 0;
        in.err = LDAPX_DECODING_ERROR;
    }
}

void read_parameters(EventReader &in, EVT_DebugInfo &event) noexcept
{
    if (in.err != LDAP_SUCCESS || event.paramCount <= 0)
        return;
    check_count(in, event.paramCount);
    if (in.err != LDAP_SUCCESS)
        return;
    event.parameters = static_cast<DB_Parameter *>(
        std::calloc(static_cast<std::size_t>(event.paramCount), sizeof *event.parameters));
    if (event.parameters == nullptr) {
        in.err = LDAPX_NO_MEMORY;
        return;
    }
    step_into(in);
    for (int i = 0; i < event.paramCount && in.err == LDAP_SUCCESS; ++i)
        read_parameter(in, event.parameters[i]);
}

} // namespace

void read_fields(EventReader &in, EVT_EntryInfo &event) noexcept
{
    read_string(in, event.perpetratorDN);
    read_string(in, event.entryDN);
    read_string(in, event.className);
    read_time_stamp(in, event.creationTime);
    read_number(in, event.verb);
    read_number(in, event.flags);
    // The place of newDN is always taken: an element of another tag is passed over in its stead,
    // and be it the INTEGER that begins the trailer.
    if (next_is(in, LBER_OCTETSTRING))
        take_contents(in, event.newDN);
    else if (in.err == LDAP_SUCCESS && in.tag != no_element)
        pass(in);
}

void read_fields(EventReader &in, EVT_ValueInfo &event) noexcept
{
    read_string(in, event.perpetratorDN);
    read_string(in, event.entryDN);
    read_string(in, event.attributeName);
    read_string(in, event.syntaxOID);
    read_string(in, event.className);
    read_time_stamp(in, event.timeStamp);
    // An empty value is left unread, and hides what follows it.
    if (next_is(in, LBER_OCTETSTRING) && in.length > 0) {
        event.size = static_cast<unsigned int>(in.length);
        take_contents(in, event.value);
    }
    // Where the verb is missing, the INTEGER that begins the trailer is taken for it.
    if (next_is(in, LBER_INTEGER))
        read_number(in, event.verb);
}

void read_fields(EventReader &in, EVT_EventData &event) noexcept
{
    read_number(in, event.dstime);
    read_number(in, event.milliseconds);
    read_number(in, event.verb); // before curProcess, unlike the record
    read_number(in, event.curProcess);
    read_string(in, event.perpetratorDN, 0x85);
    // Both lists end with the first element of another tag and not by their length. A list of
    // integers that is the last field takes the INTEGER that begins the trailer, too.
    if (next_is(in, 0x86)) {
        step_into(in);
        for (int i = 0; next_is(in, LBER_INTEGER); ++i)
            i < 4 ? read_number(in, event.intValues[i]) : fail(in, LDAPX_DECODING_ERROR);
    }
    // Three strings at most, though the record has room for four: the server never sends more, and
    // a fourth has always failed the event.
    if (next_is(in, 0xa7)) {
        step_into(in);
        for (int i = 0; next_is(in, LBER_OCTETSTRING); ++i)
            i < 3 ? take_contents(in, event.strValues[i]) : fail(in, LDAPX_DECODING_ERROR);
    }
}

void read_fields(EventReader &in, EVT_BinderyObjectInfo &event) noexcept
{
    read_string(in, event.entryDN);
    read_number(in, event.type);
    read_number(in, event.emuObjFlags);
    read_number(in, event.security);
    read_string(in, event.name);
}

void read_fields(EventReader &in, EVT_SEVInfo &event) noexcept
{
    read_string(in, event.entryDN);
    read_number(in, event.retryCount);
    read_string(in, event.valueDN);
    read_referrals(in, event.referralCount, event.referrals);
}

void read_fields(EventReader &in, EVT_ModuleState &event) noexcept
{
    read_string(in, event.connectionDN);
    read_number(in, event.flags);
    read_text(in, event.name, 1, sizeof event.name - 1);
    read_text(in, event.description, 0, sizeof event.description - 1);
    read_string(in, event.sourceModule); // after the arrays, unlike the record
}

void read_fields(EventReader &in, EVT_ChangeConnState &event) noexcept
{
    read_string(in, event.connectionDN);
    read_number(in, event.oldFlags);
    read_number(in, event.newFlags);
    read_string(in, event.sourceModule);
}

void read_fields(EventReader &in, EVT_ChangeServerAddr &event) noexcept
{
    read_number(in, event.flags);
    read_number(in, event.proto);
    read_number(in, event.addrFamily);
    read_server_address(in, event);
    read_string(in, event.pstkname);
    read_string(in, event.sourceModule);
}

void read_fields(EventReader &in, EVT_ChangeConfigParm &event) noexcept
{
    read_number(in, event.type);
    read_string(in, event.name);
    read_config_value(in, event);
}

void read_fields(EventReader &in, EVT_StatusLogInfo &event) noexcept
{
    read_number(in, event.logTime);
    read_string(in, event.moduleName);
    read_string(in, event.messageLevel);
    read_string(in, event.messageEvent);
    read_string(in, event.messageCode);
    read_string(in, event.messageDesc);
    read_string(in, event.statusDoc);
}

void read_fields(EventReader &in, EVT_DebugInfo &event) noexcept
{
    read_number(in, event.dsTime);
    read_number(in, event.milliseconds);
    read_string(in, event.perpetratorDN);
    read_string(in, event.formatString);
    read_number(in, event.verb);
    read_number(in, event.paramCount);
    read_parameters(in, event);
}

} // namespace greirige

using namespace greirige;

int parseEntryEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_EntryInfo>(ld, responseBer, EVT_TAG_ENTRY_INFO, eventData, pIP);
}

int parseValueEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_ValueInfo>(ld, responseBer, EVT_TAG_VALUE_INFO, eventData, pIP);
}

int parseGeneralEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_EventData>(ld, responseBer, EVT_TAG_GENERAL_EVENT, eventData, pIP);
}

int parseSkulkEventData(LDAP *ld, BerElement *, void **eventData, void **) noexcept
{
    *eventData = nullptr;
    store_result(ld, LDAP_SUCCESS);
    return LDAP_SUCCESS;
}

int parseBinderyEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_BinderyObjectInfo>(ld, responseBer, EVT_TAG_BINDERY_OBJECT, eventData,
                                              pIP);
}

int parseSEVEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_SEVInfo>(ld, responseBer, EVT_TAG_SEV_INFO, eventData, pIP);
}

int parseModuleStateEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                              void **pIP) noexcept
{
    return decode_from<EVT_ModuleState>(ld, responseBer, EVT_TAG_MODULE_STATE, eventData, pIP);
}

int parseConnectionStateData(LDAP *ld, BerElement *responseBer, void **eventData,
                             void **pIP) noexcept
{
    return decode_from<EVT_ChangeConnState>(ld, responseBer, EVT_TAG_CONN_STATE, eventData, pIP);
}

int parseChangeServerAddressData(LDAP *ld, BerElement *responseBer, void **eventData,
                                 void **pIP) noexcept
{
    return decode_from<EVT_ChangeServerAddr>(ld, responseBer, EVT_TAG_CHANGE_SERVER_ADDR, eventData,
                                             pIP);
}

int parseChangeConfigParamData(LDAP *ld, BerElement *responseBer, void **eventData,
                               void **pIP) noexcept
{
    return decode_from<EVT_ChangeConfigParm>(ld, responseBer, EVT_TAG_CHANGE_CONFIG_PARAM,
                                             eventData, pIP);
}

int parseStatusLogEventData(LDAP *ld, BerElement *responseBer, void **eventData,
                            void **pIP) noexcept
{
    return decode_from<EVT_StatusLogInfo>(ld, responseBer, EVT_TAG_STATUS_LOG, eventData, pIP);
}

int parseDebugEventData(LDAP *ld, BerElement *responseBer, void **eventData, void **pIP) noexcept
{
    return decode_from<EVT_DebugInfo>(ld, responseBer, EVT_TAG_DEBUG_INFO, eventData, pIP);
}

// An address has no trailer of its own: the dispatcher looks for it.
int parseNetAddrEventData(LDAP *ld, BerElement *responseBer, void **eventData) noexcept
{
    EventReader in = reader_of(responseBer);
    *eventData = read_net_address(in);
    store_result(ld, in.err);
    return in.err;
}
