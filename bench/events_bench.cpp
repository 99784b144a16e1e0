// Decoding events of all kinds as they are received: the message parser and the release, and what
// a program would write without them, ldap_parse_intermediate() and plain ber_peek_tag() and
// ber_scanf(), into the same records. Where the records differ nothing is timed.

#include "ratios.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "support/ber.h"
#include "support/events.h"
#include "support/peer.h"

namespace {

using support::concat;

// ---- The plain decoder -----------------------------------------------------------------------

// One decoder for each kind would be the same calls with other names: the fields are listed, and
// the loop over the list is unrolled by the compiler.
bool plain_string(BerElement *ber, char **string, ber_tag_t tag = LBER_OCTETSTRING)
{
    ber_len_t length = 0;
    if (ber_peek_tag(ber, &length) != tag)
        return false;
    if (length == 0) {
        *string = nullptr;
        return ber_skip_tag(ber, &length) != LBER_ERROR;
    }
    *string = static_cast<char *>(std::malloc(++length));
    return ber_scanf(ber, "s", *string, &length) != LBER_ERROR;
}

template <class... Strings>
bool plain_strings(BerElement *ber, Strings... strings)
{
    return (plain_string(ber, strings) && ...);
}

bool plain_connection(BerElement *ber, EVT_ConnectionEventData **connection)
{
    ber_len_t length = 0;
    if (ber_peek_tag(ber, &length) != LBER_SEQUENCE)
        return true;
    auto *made = *connection =
        static_cast<EVT_ConnectionEventData *>(std::calloc(1, sizeof **connection));
    return ber_scanf(ber, "{ii", &made->connection, &made->time) != LBER_ERROR &&
           plain_string(ber, &made->inetAddr);
}

bool plain_list(BerElement *ber, char ***list)
{
    ber_len_t length = 0;
    if (ber_peek_tag(ber, &length) == LBER_ERROR)
        return true;
    std::size_t count = 0;
    *list = static_cast<char **>(std::calloc(1, sizeof **list));
    char *last = nullptr;
    for (ber_tag_t tag = ber_first_element(ber, &length, &last); tag != LBER_ERROR;
         tag = ber_next_element(ber, &length, last)) {
        *list = static_cast<char **>(std::realloc(*list, (count + 2) * sizeof **list));
        (*list)[count + 1] = nullptr;
        if (ber_scanf(ber, "{a", &(*list)[count++]) == LBER_ERROR)
            return false;
    }
    return true;
}

bool plain_list_if(BerElement *ber, ber_tag_t tag, char ***list)
{
    ber_len_t length = 0;
    return ber_peek_tag(ber, &length) != tag || plain_list(ber, list);
}

bool plain_stamp(BerElement *ber, EVT_TimeStamp *stamp)
{
    return ber_scanf(ber, "{iii}", &stamp->seconds, &stamp->replicaNumber, &stamp->event) !=
           LBER_ERROR;
}

// "i", "ii" and so on into fields of 32 bits.
template <class... Numbers>
bool plain_numbers(BerElement *ber, Numbers... numbers)
{
    static constexpr std::array formats{"", "i", "ii", "iii", "iiii"};
    return ber_scanf(ber, formats[sizeof...(numbers)], numbers...) != LBER_ERROR;
}

bool plain_fields(BerElement *ber, EVT_EntryInfo *event)
{
    ber_len_t length = 0;
    if (!plain_strings(ber, &event->perpetratorDN, &event->entryDN, &event->className) ||
        !plain_stamp(ber, &event->creationTime) || !plain_numbers(ber, &event->verb, &event->flags))
        return false;
    return ber_peek_tag(ber, &length) != LBER_OCTETSTRING || plain_string(ber, &event->newDN);
}

bool plain_fields(BerElement *ber, EVT_ValueInfo *event)
{
    ber_len_t length = 0;
    if (!plain_strings(ber, &event->perpetratorDN, &event->entryDN, &event->attributeName,
                       &event->syntaxOID, &event->className) ||
        !plain_stamp(ber, &event->timeStamp))
        return false;
    if (ber_peek_tag(ber, &length) == LBER_OCTETSTRING && length > 0) {
        event->size = static_cast<unsigned>(length);
        if (!plain_string(ber, &event->value))
            return false;
    }
    return ber_peek_tag(ber, &length) != LBER_INTEGER || plain_numbers(ber, &event->verb);
}

bool plain_fields(BerElement *ber, EVT_EventData *event)
{
    ber_len_t length = 0;
    if (!plain_numbers(ber, &event->dstime, &event->milliseconds, &event->verb,
                       &event->curProcess) ||
        !plain_string(ber, &event->perpetratorDN, 0x85))
        return false;
    if (ber_peek_tag(ber, &length) == 0x86) {
        ber_skip_tag(ber, &length);
        for (int i = 0; ber_peek_tag(ber, &length) == LBER_INTEGER; ++i)
            if (i > 3 || !plain_numbers(ber, &event->intValues[i]))
                return false;
    }
    if (ber_peek_tag(ber, &length) == 0xa7) {
        ber_skip_tag(ber, &length);
        for (int i = 0; ber_peek_tag(ber, &length) == LBER_OCTETSTRING; ++i)
            if (i > 2 || !plain_string(ber, &event->strValues[i]))
                return false;
    }
    return true;
}

bool plain_fields(BerElement *ber, EVT_BinderyObjectInfo *event)
{
    return plain_string(ber, &event->entryDN) &&
           plain_numbers(ber, &event->type, &event->emuObjFlags, &event->security) &&
           plain_string(ber, &event->name);
}

bool plain_fields(BerElement *ber, EVT_SEVInfo *event)
{
    ber_len_t length = 0;
    if (!plain_string(ber, &event->entryDN) || !plain_numbers(ber, &event->retryCount) ||
        !plain_string(ber, &event->valueDN))
        return false;
    if (ber_peek_tag(ber, &length) != LBER_SEQUENCE)
        return true;
    if (ber_scanf(ber, "{i{", &event->referralCount) == LBER_ERROR)
        return false;
    event->referrals = static_cast<EVT_ReferralAddress *>(
        std::calloc(static_cast<std::size_t>(event->referralCount), sizeof *event->referrals));
    for (int i = 0; i < event->referralCount; ++i) {
        EVT_ReferralAddress *referral = &event->referrals[i];
        if (ber_scanf(ber, "{i", &referral->type) == LBER_ERROR)
            return false;
        ber_peek_tag(ber, &length);
        referral->length = static_cast<int>(length);
        if (!plain_string(ber, &referral->address))
            return false;
    }
    return true;
}

bool plain_fields(BerElement *ber, EVT_ModuleState *event)
{
    ber_len_t name = sizeof event->name, description = sizeof event->description;
    return plain_string(ber, &event->connectionDN) && plain_numbers(ber, &event->flags) &&
           ber_scanf(ber, "ss", event->name, &name, event->description, &description) !=
               LBER_ERROR &&
           plain_string(ber, &event->sourceModule);
}

bool plain_fields(BerElement *ber, EVT_ChangeConnState *event)
{
    return plain_string(ber, &event->connectionDN) &&
           plain_numbers(ber, &event->oldFlags, &event->newFlags) &&
           plain_string(ber, &event->sourceModule);
}

bool plain_fields(BerElement *ber, EVT_ChangeServerAddr *event)
{
    ber_len_t length = 0;
    if (!plain_numbers(ber, &event->flags, &event->proto, &event->addrFamily))
        return false;
    ber_peek_tag(ber, &length);
    event->addrSize = static_cast<int>(length);
    return plain_strings(ber, &event->addr, &event->pstkname, &event->sourceModule);
}

bool plain_fields(BerElement *ber, EVT_ChangeConfigParm *event)
{
    ber_len_t length = 0;
    if (!plain_numbers(ber, &event->type) || !plain_string(ber, &event->name))
        return false;
    switch (ber_peek_tag(ber, &length)) {
    case 0x81:
        return plain_numbers(ber, &event->value.integer);
    case 0x82:
        return plain_numbers(ber, &event->value.boolean);
    case 0x83:
        event->value.binary.size = static_cast<int>(length);
        return plain_string(ber, &event->value.binary.data, 0x83);
    case 0x84:
        return plain_string(ber, &event->value.utf8Str, 0x84);
    case 0x85:
        return true;
    default:
        return false;
    }
}

bool plain_fields(BerElement *ber, EVT_StatusLogInfo *event)
{
    return plain_numbers(ber, &event->logTime) &&
           plain_strings(ber, &event->moduleName, &event->messageLevel, &event->messageEvent,
                         &event->messageCode, &event->messageDesc, &event->statusDoc);
}

bool plain_parameter(BerElement *ber, DB_Parameter *parameter)
{
    ber_len_t length = 0;
    const ber_tag_t tag = ber_peek_tag(ber, &length);
    DB_value *value = &parameter->value;
    parameter->type = static_cast<int>(tag & 0x7f);
    switch (tag) {
    case 0x81:
    case 0x84:
        return plain_numbers(ber, &value->integer);
    case 0x82:
        return plain_string(ber, &value->utf8Str, tag);
    case 0x83:
        value->binary.size = static_cast<unsigned>(length);
        return plain_string(ber, &value->binary.data, tag);
    case 0x85:
        if (ber_scanf(ber, "{i", &value->netAddress.type) == LBER_ERROR)
            return false;
        ber_peek_tag(ber, &length);
        value->netAddress.length = static_cast<unsigned>(length);
        return plain_string(ber, &value->netAddress.data);
    case 0x86:
        return plain_stamp(ber, &value->timeStamp);
    case 0x87: {
        DB_timeStampVector *vector = &value->timeStampVector;
        if (ber_scanf(ber, "{i{", &vector->count) == LBER_ERROR)
            return false;
        vector->timeStamps =
            static_cast<EVT_TimeStamp *>(std::malloc(vector->count * sizeof(EVT_TimeStamp)));
        for (unsigned i = 0; i < vector->count; ++i)
            if (!plain_stamp(ber, &vector->timeStamps[i]))
                return false;
        return true;
    }
    default:
        return false;
    }
}

bool plain_fields(BerElement *ber, EVT_DebugInfo *event)
{
    if (!plain_numbers(ber, &event->dsTime, &event->milliseconds) ||
        !plain_strings(ber, &event->perpetratorDN, &event->formatString) ||
        !plain_numbers(ber, &event->verb, &event->paramCount))
        return false;
    if (event->paramCount == 0)
        return true;
    event->parameters = static_cast<DB_Parameter *>(
        std::calloc(static_cast<std::size_t>(event->paramCount), sizeof *event->parameters));
    ber_len_t length = 0;
    ber_skip_tag(ber, &length);
    for (int i = 0; i < event->paramCount; ++i)
        if (!plain_parameter(ber, &event->parameters[i]))
            return false;
    return true;
}

bool plain_fields(BerElement *ber, EVT_AuthEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) && plain_string(ber, &event->bindDN) &&
           plain_numbers(ber, &event->bindType) && plain_string(ber, &event->authMechanism) &&
           plain_numbers(ber, &event->resultCode) && plain_list_if(ber, 0x80, &event->controlOID);
}

bool plain_fields(BerElement *ber, EVT_ConnectionEventData *event)
{
    return plain_numbers(ber, &event->connection, &event->time) &&
           plain_string(ber, &event->inetAddr);
}

bool plain_fields(BerElement *ber, EVT_SearchEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) &&
           plain_strings(ber, &event->bindDN, &event->base) && plain_numbers(ber, &event->scope) &&
           plain_string(ber, &event->filter) && plain_numbers(ber, &event->resultCode) &&
           plain_list(ber, &event->attrs) && plain_list_if(ber, 0x80, &event->controlOID);
}

bool plain_fields(BerElement *ber, EVT_SearchEntryResponseEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) &&
           plain_strings(ber, &event->entryDN, &event->className) &&
           plain_numbers(ber, &event->resultCode) && plain_list(ber, &event->attrs);
}

bool plain_fields(BerElement *ber, EVT_UpdateEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time, &event->operation) &&
           plain_strings(ber, &event->bindDN, &event->entryDN, &event->className) &&
           plain_numbers(ber, &event->resultCode) && plain_list_if(ber, 0x80, &event->controlOID);
}

bool plain_fields(BerElement *ber, EVT_CompareEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) &&
           plain_strings(ber, &event->bindDN, &event->compareDN, &event->assertionType,
                         &event->assertionValue, &event->className) &&
           plain_numbers(ber, &event->resultCode);
}

bool plain_fields(BerElement *ber, EVT_ModDNEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) &&
           plain_strings(ber, &event->bindDN, &event->oldRDN, &event->newRDN, &event->className) &&
           plain_numbers(ber, &event->resultCode) && plain_list_if(ber, 0x80, &event->controlOID);
}

bool plain_fields(BerElement *ber, EVT_AbandonEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time, &event->operation) &&
           plain_string(ber, &event->bindDN) && plain_numbers(ber, &event->resultCode);
}

bool plain_fields(BerElement *ber, EVT_ExtOpEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time, &event->operation) &&
           plain_strings(ber, &event->extensionOID, &event->bindDN) &&
           plain_numbers(ber, &event->resultCode);
}

bool plain_fields(BerElement *ber, EVT_SysExtOpEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time, &event->operation) &&
           plain_strings(ber, &event->extensionOID, &event->bindDN, &event->value1, &event->value2,
                         &event->value3, &event->value4) &&
           plain_numbers(ber, &event->resultCode);
}

bool plain_fields(BerElement *ber, EVT_ResponseEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time, &event->operation, &event->resultCode) &&
           plain_string(ber, &event->matchedDN) && plain_list_if(ber, 0x81, &event->referral);
}

bool plain_fields(BerElement *ber, EVT_PasswordModifyEventData *event)
{
    return plain_connection(ber, &event->connectionData) &&
           plain_numbers(ber, &event->msgID, &event->time) &&
           plain_strings(ber, &event->bindDN, &event->entryDN) &&
           plain_numbers(ber, &event->passwordModifyType, &event->resultCode);
}

bool plain_fields(BerElement *ber, EVT_UnknownEventData *event)
{
    return plain_numbers(ber, &event->time) && plain_string(ber, &event->inetAddr);
}

// The records are made and released like the library's, so that only the decoding differs.
template <class Type>
bool plain_record(BerElement *ber, ber_tag_t tag, void **record)
{
    *record = allocEventData(sizeof(Type), tag);
    std::memset(*record, 0, sizeof(Type));
    return plain_fields(ber, static_cast<Type *>(*record));
}

bool plain_address(BerElement *ber, void **record)
{
    ber_int_t type = 0;
    ber_len_t length = 0;
    if (ber_scanf(ber, "i", &type) == LBER_ERROR || ber_peek_tag(ber, &length) != LBER_OCTETSTRING)
        return false;
    auto *address =
        static_cast<EVT_NetAddress *>(*record = allocEventData(sizeof(EVT_NetAddress) + ++length,
                                                               EVT_TAG_NET_ADDRESS));
    address->type = static_cast<unsigned>(type);
    char *data = static_cast<char *>(*record) + offsetof(EVT_NetAddress, data);
    if (ber_scanf(ber, "s", data, &length) == LBER_ERROR)
        return false;
    address->length = static_cast<unsigned>(length);
    return true;
}

bool plain_event(BerElement *ber, ber_tag_t tag, void **record)
{
    switch (tag) {
    case EVT_TAG_ENTRY_INFO:
        return plain_record<EVT_EntryInfo>(ber, tag, record);
    case EVT_TAG_VALUE_INFO:
        return plain_record<EVT_ValueInfo>(ber, tag, record);
    case EVT_TAG_GENERAL_EVENT:
        return plain_record<EVT_EventData>(ber, tag, record);
    case EVT_TAG_BINDERY_OBJECT:
        return plain_record<EVT_BinderyObjectInfo>(ber, tag, record);
    case EVT_TAG_SEV_INFO:
        return plain_record<EVT_SEVInfo>(ber, tag, record);
    case EVT_TAG_MODULE_STATE:
        return plain_record<EVT_ModuleState>(ber, tag, record);
    case EVT_TAG_CONN_STATE:
        return plain_record<EVT_ChangeConnState>(ber, tag, record);
    case EVT_TAG_CHANGE_SERVER_ADDR:
        return plain_record<EVT_ChangeServerAddr>(ber, tag, record);
    case EVT_TAG_CHANGE_CONFIG_PARAM:
        return plain_record<EVT_ChangeConfigParm>(ber, tag, record);
    case EVT_TAG_STATUS_LOG:
        return plain_record<EVT_StatusLogInfo>(ber, tag, record);
    case EVT_TAG_DEBUG_INFO:
        return plain_record<EVT_DebugInfo>(ber, tag, record);
    case EVT_TAG_AUTH:
        return plain_record<EVT_AuthEventData>(ber, tag, record);
    case EVT_TAG_CONNECTION:
        return plain_record<EVT_ConnectionEventData>(ber, tag, record);
    case EVT_TAG_SEARCH:
        return plain_record<EVT_SearchEventData>(ber, tag, record);
    case EVT_TAG_SEARCH_ENTRY_RESPONSE:
        return plain_record<EVT_SearchEntryResponseEventData>(ber, tag, record);
    case EVT_TAG_UPDATE:
        return plain_record<EVT_UpdateEventData>(ber, tag, record);
    case EVT_TAG_COMPARE:
        return plain_record<EVT_CompareEventData>(ber, tag, record);
    case EVT_TAG_MODDN:
        return plain_record<EVT_ModDNEventData>(ber, tag, record);
    case EVT_TAG_ABANDON:
        return plain_record<EVT_AbandonEventData>(ber, tag, record);
    case EVT_TAG_EXTOP:
        return plain_record<EVT_ExtOpEventData>(ber, tag, record);
    case EVT_TAG_SYS_EXTOP:
        return plain_record<EVT_SysExtOpEventData>(ber, tag, record);
    case EVT_TAG_RESPONSE:
        return plain_record<EVT_ResponseEventData>(ber, tag, record);
    case EVT_TAG_PASSWORD_MODIFY:
        return plain_record<EVT_PasswordModifyEventData>(ber, tag, record);
    case EVT_TAG_UNKNOWN_OP:
        return plain_record<EVT_UnknownEventData>(ber, tag, record);
    case EVT_TAG_NET_ADDRESS:
        return plain_address(ber, record);
    default:
        return false;
    }
}

bool plain_value(BerElement *ber, int *type, int *result, void **data, void **ip)
{
    ber_len_t length = 0;
    if (ber_scanf(ber, "{ii", type, result) == LBER_ERROR)
        return false;
    const ber_tag_t tag = ber_skip_tag(ber, &length);
    return plain_event(ber, tag, data) &&
           (ber_peek_tag(ber, &length) != LBER_INTEGER || plain_address(ber, ip));
}

int plain(LDAP *ld, LDAPMessage *message, int *type, int *result, void **data, void **ip)
{
    char *name = nullptr;
    berval *value = nullptr;
    BerElement *ber = nullptr;
    int rc = ldap_parse_intermediate(ld, message, &name, &value, nullptr, 0);
    if (rc != LDAP_SUCCESS || std::strcmp(name, LDAPX_EVENT_NOTIFICATION) != 0 ||
        (ber = ber_init(value)) == nullptr || !plain_value(ber, type, result, data, ip))
        rc = LDAPX_DECODING_ERROR;
    ber_free(ber, 1);
    ber_bvfree(value);
    ldap_memfree(name);
    return rc;
}

int library(LDAP *ld, LDAPMessage *message, int *type, int *result, void **data, void **ip)
{
    return ldap_parse_ds_event_IP(ld, message, type, result, data, 0, ip);
}

using Parser = decltype(&library);

// ---- What is decoded -------------------------------------------------------------------------

// With the one address that ldap_event_free() leaves to its caller.
void release(void *record)
{
    if (static_cast<ber_tag_t *>(record)[-1] == EVT_TAG_SEV_INFO) {
        const auto *event = static_cast<EVT_SEVInfo *>(record);
        if (event->referralCount > 0)
            ldapx_memfree(event->referrals[0].address);
    }
    ldap_event_free(record);
}

struct Release {
    void operator()(void *record) const
    {
        release(record);
    }
};
using Record = std::unique_ptr<void, Release>;

struct Event {
    int type = 0;
    int result = 0;
    Record data;
    Record ip;
};

Event parse(Parser parser, LDAP *ld, LDAPMessage *message)
{
    Event event;
    void *data = nullptr, *ip = nullptr;
    if (parser(ld, message, &event.type, &event.result, &data, &ip) != LDAP_SUCCESS)
        throw std::runtime_error("an event cannot be decoded");
    event.data.reset(data);
    event.ip.reset(ip);
    return event;
}

// Names, DNs and the like, a few of them empty; numbers that plain ber_scanf() can read, too.
const support::Variety usual{.numbers = {0, 1, 50, 200, 1000, 30000, 1700000000},
                             .lengths = {0, 6, 9, 14, 18, 22, 27, 30, 34, 41, 48, 57}};

// Events of all kinds in turn, received once.
class Corpus {
public:
    static constexpr int size = 24000;

    Corpus()
    {
        EVT_EventSpecifier specifier{1, 0};
        int id = 0;
        ldap_monitor_events(ld(), 1, &specifier, &id);
        std::mt19937 random(1);
        const auto &kinds = support::event_kinds();
        for (int i = 0; i < size; ++i) {
            const auto &kind = kinds[static_cast<std::size_t>(i) % kinds.size()];
            const std::string fields = support::any_event(kind, random, usual).bytes;
            peer_.respond_intermediate(
                LDAPX_EVENT_NOTIFICATION,
                support::notification(i, i % 7, kind.tag, fields,
                                      i % 2 == 0 ? support::trailer_bytes() : ""),
                id);
            messages_.push_back(peer_.result(id));
            compare(kind, messages_.back().get());
        }
    }

    LDAP *ld() const
    {
        return peer_.ld();
    }
    const std::vector<support::Message> &messages() const
    {
        return messages_;
    }

private:
    void compare(const support::EventKind &kind, LDAPMessage *message) const
    {
        const Event one = parse(library, ld(), message);
        const Event other = parse(plain, ld(), message);
        if (one.type != other.type || one.result != other.result ||
            support::describe(kind, one.data.get()) != support::describe(kind, other.data.get()) ||
            support::describe_address(one.ip.get()) != support::describe_address(other.ip.get()))
            throw std::runtime_error("the records differ: " + kind.name);
    }

    support::Peer peer_;
    std::vector<support::Message> messages_;
};

void time_parser(benchmark::State &state, Parser parser, const Corpus &corpus)
{
    for (auto _ : state)
        for (const support::Message &message : corpus.messages()) {
            int type = 0, result = 0;
            void *data = nullptr, *ip = nullptr;
            benchmark::DoNotOptimize(
                parser(corpus.ld(), message.get(), &type, &result, &data, &ip));
            release(data);
            if (ip != nullptr)
                ldap_event_free(ip);
        }
    state.SetItemsProcessed(state.iterations() * Corpus::size);
}

} // namespace

int main(int argc, char **argv)
{
    const Corpus corpus;
    benchmark::RegisterBenchmark("library", time_parser, &library, std::cref(corpus));
    benchmark::RegisterBenchmark("plain", time_parser, &plain, std::cref(corpus));
    return bench::run(argc, argv, {{"library", "plain"}});
}
