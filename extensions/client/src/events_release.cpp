// The block of an event record, a header that holds its event-data tag and then the record, and
// the release of every kind of record by that tag.

#include "events_reader.h"

#include <cstdint>
#include <cstdlib>

namespace {

template <class... Blocks>
void release(Blocks *...blocks) noexcept
{
    (std::free(blocks), ...);
}

void release_contents(const EVT_EntryInfo &event) noexcept
{
    release(event.perpetratorDN, event.entryDN, event.className, event.newDN);
}

void release_contents(const EVT_ValueInfo &event) noexcept
{
    release(event.perpetratorDN, event.entryDN, event.attributeName, event.syntaxOID,
            event.className, event.value);
}

void release_contents(const EVT_EventData &event) noexcept
{
    release(event.perpetratorDN, event.strValues[0], event.strValues[1], event.strValues[2],
            event.strValues[3]);
}

void release_contents(const EVT_BinderyObjectInfo &event) noexcept
{
    release(event.entryDN, event.name);
}

void release_contents(const EVT_SEVInfo &event) noexcept
{
    release(event.entryDN, event.valueDN);
    freeReferralList(event.referralCount, event.referrals);
}

void release_contents(const EVT_ModuleState &event) noexcept
{
    release(event.connectionDN, event.sourceModule);
}

void release_contents(const EVT_ChangeConnState &event) noexcept
{
    release(event.connectionDN, event.sourceModule);
}

void release_contents(const EVT_ChangeServerAddr &event) noexcept
{
    release(event.addr, event.pstkname, event.sourceModule);
}

void release_contents(const EVT_ChangeConfigParm &event) noexcept
{
    release(event.name);
    if (event.type == 1)
        release(event.value.binary.data);
    if (event.type == 3)
        release(event.value.utf8Str);
}

void release_contents(const EVT_StatusLogInfo &event) noexcept
{
    release(event.moduleName, event.messageLevel, event.messageEvent, event.messageCode,
            event.messageDesc, event.statusDoc);
}

void release_contents(const DB_Parameter &parameter) noexcept
{
    switch (parameter.type) {
    case 2:
        release(parameter.value.utf8Str);
        break;
    case 3:
        release(parameter.value.binary.data);
        break;
    case 5:
        release(parameter.value.netAddress.data);
        break;
    case 7:
        release(parameter.value.timeStampVector.timeStamps);
        break;
    default:
        break;
    }
}

void release_contents(const EVT_DebugInfo &event) noexcept
{
    release(event.formatString, event.perpetratorDN);
    // A decoder that fails before it has made the parameters leaves their number without them.
    for (int i = 0; event.parameters != nullptr && i < event.paramCount; ++i)
        release_contents(event.parameters[i]);
    release(event.parameters);
}

void release_contents(const EVT_AuthEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.authMechanism);
    freeStringSequence(event.controlOID);
}

void release_contents(const EVT_ConnectionEventData &event) noexcept
{
    release(event.inetAddr);
}

void release_contents(const EVT_SearchEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.base, event.filter);
    freeStringSequence(event.attrs);
    freeStringSequence(event.controlOID);
}

void release_contents(const EVT_SearchEntryResponseEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.entryDN, event.className);
    freeStringSequence(event.attrs);
}

void release_contents(const EVT_UpdateEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.entryDN, event.className);
    freeStringSequence(event.controlOID);
}

void release_contents(const EVT_CompareEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.compareDN, event.assertionType, event.assertionValue,
            event.className);
}

void release_contents(const EVT_ModDNEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.oldRDN, event.newRDN, event.className);
    freeStringSequence(event.controlOID);
}

void release_contents(const EVT_AbandonEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN);
}

void release_contents(const EVT_ExtOpEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.extensionOID, event.bindDN);
}

void release_contents(const EVT_SysExtOpEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.extensionOID, event.bindDN, event.value1, event.value2, event.value3,
            event.value4);
}

void release_contents(const EVT_ResponseEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.matchedDN);
    freeStringSequence(event.referral);
}

void release_contents(const EVT_PasswordModifyEventData &event) noexcept
{
    freeConnectionData(event.connectionData);
    release(event.bindDN, event.entryDN);
}

void release_contents(const EVT_UnknownEventData &event) noexcept
{
    release(event.inetAddr);
}

template <class Record>
void release_as(const void *event) noexcept
{
    release_contents(*static_cast<const Record *>(event));
}

void release_by_tag(const void *event, ber_tag_t tag) noexcept
{
    switch (tag) {
    case EVT_TAG_ENTRY_INFO:
        return release_as<EVT_EntryInfo>(event);
    case EVT_TAG_VALUE_INFO:
        return release_as<EVT_ValueInfo>(event);
    case EVT_TAG_GENERAL_EVENT:
        return release_as<EVT_EventData>(event);
    case EVT_TAG_BINDERY_OBJECT:
        return release_as<EVT_BinderyObjectInfo>(event);
    case EVT_TAG_SEV_INFO:
        return release_as<EVT_SEVInfo>(event);
    case EVT_TAG_MODULE_STATE:
        return release_as<EVT_ModuleState>(event);
    case EVT_TAG_CONN_STATE:
        return release_as<EVT_ChangeConnState>(event);
    case EVT_TAG_CHANGE_SERVER_ADDR:
        return release_as<EVT_ChangeServerAddr>(event);
    case EVT_TAG_CHANGE_CONFIG_PARAM:
        return release_as<EVT_ChangeConfigParm>(event);
    case EVT_TAG_STATUS_LOG:
        return release_as<EVT_StatusLogInfo>(event);
    case EVT_TAG_DEBUG_INFO:
        return release_as<EVT_DebugInfo>(event);
    case EVT_TAG_AUTH:
        return release_as<EVT_AuthEventData>(event);
    case EVT_TAG_CONNECTION:
        return release_as<EVT_ConnectionEventData>(event);
    case EVT_TAG_SEARCH:
        return release_as<EVT_SearchEventData>(event);
    case EVT_TAG_SEARCH_ENTRY_RESPONSE:
        return release_as<EVT_SearchEntryResponseEventData>(event);
    case EVT_TAG_UPDATE:
        return release_as<EVT_UpdateEventData>(event);
    case EVT_TAG_COMPARE:
        return release_as<EVT_CompareEventData>(event);
    case EVT_TAG_MODDN:
        return release_as<EVT_ModDNEventData>(event);
    case EVT_TAG_ABANDON:
        return release_as<EVT_AbandonEventData>(event);
    case EVT_TAG_EXTOP:
        return release_as<EVT_ExtOpEventData>(event);
    case EVT_TAG_SYS_EXTOP:
        return release_as<EVT_SysExtOpEventData>(event);
    case EVT_TAG_RESPONSE:
        return release_as<EVT_ResponseEventData>(event);
    case EVT_TAG_PASSWORD_MODIFY:
        return release_as<EVT_PasswordModifyEventData>(event);
    case EVT_TAG_UNKNOWN_OP:
        return release_as<EVT_UnknownEventData>(event);
    default: // an address lies wholly in its block; nothing is known of the rest
        return;
    }
}

} // namespace

void *allocEventData(size_t size, ber_tag_t tag) noexcept
{
    if (size > SIZE_MAX - sizeof tag)
        return nullptr;
    auto *header = static_cast<ber_tag_t *>(std::malloc(sizeof tag + size));
    if (header == nullptr)
        return nullptr;
    *header = tag;
    return header + 1;
}

void ldap_event_free(void *eventData) noexcept
{
    if (eventData != nullptr)
        release_by_tag(eventData, static_cast<const ber_tag_t *>(eventData)[-1]);
    // NULL has never been allowed here: the block of a record begins in front of it.
    const auto block = reinterpret_cast<std::uintptr_t>(eventData) - sizeof(ber_tag_t);
    // NOLINTNEXTLINE(performance-no-int-to-ptr,clang-analyzer-unix.Malloc)
    std::free(reinterpret_cast<void *>(block));
}

void freeReferralList(int count, EVT_ReferralAddress *replicas) noexcept
{
    if (replicas == nullptr)
        return;
    // From 1: the first address stays allocated. Applications keep it beyond the record.
    for (int i = 1; i < count; ++i)
        std::free(replicas[i].address);
    std::free(replicas);
}

void freeStringSequence(char **stringSequence) noexcept
{
    for (char **string = stringSequence; string != nullptr && *string != nullptr; ++string)
        std::free(*string);
    std::free(stringSequence);
}

void freeConnectionData(EVT_ConnectionEventData *connData) noexcept
{
    if (connData != nullptr)
        std::free(connData->inetAddr);
    std::free(connData);
}
