#include "events.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "ber.h"

namespace support {

namespace {

// ---- The kinds -------------------------------------------------------------------------------

#define FIELD(form, record, field)                                                                 \
    Field                                                                                          \
    {                                                                                              \
#        field, Form::form, offsetof(record, field), 0                                             \
    }
#define FIELD_WITH(form, record, field, number)                                                    \
    Field                                                                                          \
    {                                                                                              \
#        field, Form::form, offsetof(record, field), offsetof(record, number)                      \
    }
#define COMMON(record)                                                                             \
    FIELD(connection, record, connectionData), FIELD(unsigned_number, record, msgID),              \
        FIELD(unsigned_number, record, time)

int parse_update(LDAP *ld, BerElement *ber, void **eventData, void **pIP)
{
    return parseUpdateEventData(ld, ber, 4711, eventData, pIP);
}

std::vector<EventKind> make_kinds()
{
    return {
        {EVT_TAG_ENTRY_INFO,
         "EVT_EntryInfo",
         parseEntryEventData,
         {FIELD(string, EVT_EntryInfo, perpetratorDN), FIELD(string, EVT_EntryInfo, entryDN),
          FIELD(string, EVT_EntryInfo, className), FIELD(time_stamp, EVT_EntryInfo, creationTime),
          FIELD(unsigned_number, EVT_EntryInfo, verb), FIELD(unsigned_number, EVT_EntryInfo, flags),
          FIELD(new_dn, EVT_EntryInfo, newDN)}},
        {EVT_TAG_VALUE_INFO,
         "EVT_ValueInfo",
         parseValueEventData,
         {FIELD(string, EVT_ValueInfo, perpetratorDN), FIELD(string, EVT_ValueInfo, entryDN),
          FIELD(string, EVT_ValueInfo, attributeName), FIELD(string, EVT_ValueInfo, syntaxOID),
          FIELD(string, EVT_ValueInfo, className), FIELD(time_stamp, EVT_ValueInfo, timeStamp),
          FIELD_WITH(value, EVT_ValueInfo, value, size), FIELD(verb, EVT_ValueInfo, verb)}},
        {EVT_TAG_GENERAL_EVENT,
         "EVT_EventData",
         parseGeneralEventData,
         {FIELD(unsigned_number, EVT_EventData, dstime),
          FIELD(unsigned_number, EVT_EventData, milliseconds),
          FIELD(unsigned_number, EVT_EventData, verb),
          FIELD(unsigned_number, EVT_EventData, curProcess),
          FIELD(tagged_string, EVT_EventData, perpetratorDN),
          FIELD(integers, EVT_EventData, intValues), FIELD(texts, EVT_EventData, strValues)}},
        {EVT_TAG_BINDERY_OBJECT,
         "EVT_BinderyObjectInfo",
         parseBinderyEventData,
         {FIELD(string, EVT_BinderyObjectInfo, entryDN),
          FIELD(unsigned_number, EVT_BinderyObjectInfo, type),
          FIELD(unsigned_number, EVT_BinderyObjectInfo, emuObjFlags),
          FIELD(unsigned_number, EVT_BinderyObjectInfo, security),
          FIELD(string, EVT_BinderyObjectInfo, name)}},
        {EVT_TAG_SEV_INFO,
         "EVT_SEVInfo",
         parseSEVEventData,
         {FIELD(string, EVT_SEVInfo, entryDN), FIELD(unsigned_number, EVT_SEVInfo, retryCount),
          FIELD(string, EVT_SEVInfo, valueDN),
          FIELD_WITH(referrals, EVT_SEVInfo, referrals, referralCount)}},
        {EVT_TAG_MODULE_STATE,
         "EVT_ModuleState",
         parseModuleStateEventData,
         {FIELD(string, EVT_ModuleState, connectionDN),
          FIELD(unsigned_number, EVT_ModuleState, flags), FIELD(name, EVT_ModuleState, name),
          FIELD(description, EVT_ModuleState, description),
          FIELD(string, EVT_ModuleState, sourceModule)}},
        {EVT_TAG_CONN_STATE,
         "EVT_ChangeConnState",
         parseConnectionStateData,
         {FIELD(string, EVT_ChangeConnState, connectionDN),
          FIELD(unsigned_number, EVT_ChangeConnState, oldFlags),
          FIELD(unsigned_number, EVT_ChangeConnState, newFlags),
          FIELD(string, EVT_ChangeConnState, sourceModule)}},
        {EVT_TAG_CHANGE_SERVER_ADDR,
         "EVT_ChangeServerAddr",
         parseChangeServerAddressData,
         {FIELD(unsigned_number, EVT_ChangeServerAddr, flags),
          FIELD(signed_number, EVT_ChangeServerAddr, proto),
          FIELD(signed_number, EVT_ChangeServerAddr, addrFamily),
          FIELD_WITH(server_address, EVT_ChangeServerAddr, addr, addrSize),
          FIELD(string, EVT_ChangeServerAddr, pstkname),
          FIELD(string, EVT_ChangeServerAddr, sourceModule)}},
        {EVT_TAG_CHANGE_CONFIG_PARAM,
         "EVT_ChangeConfigParm",
         parseChangeConfigParamData,
         {FIELD(signed_number, EVT_ChangeConfigParm, type),
          FIELD(string, EVT_ChangeConfigParm, name),
          FIELD_WITH(config_value, EVT_ChangeConfigParm, value, type)}},
        {EVT_TAG_STATUS_LOG,
         "EVT_StatusLogInfo",
         parseStatusLogEventData,
         {FIELD(unsigned_number, EVT_StatusLogInfo, logTime),
          FIELD(string, EVT_StatusLogInfo, moduleName),
          FIELD(string, EVT_StatusLogInfo, messageLevel),
          FIELD(string, EVT_StatusLogInfo, messageEvent),
          FIELD(string, EVT_StatusLogInfo, messageCode),
          FIELD(string, EVT_StatusLogInfo, messageDesc),
          FIELD(string, EVT_StatusLogInfo, statusDoc)}},
        {EVT_TAG_DEBUG_INFO,
         "EVT_DebugInfo",
         parseDebugEventData,
         {FIELD(unsigned_number, EVT_DebugInfo, dsTime),
          FIELD(unsigned_number, EVT_DebugInfo, milliseconds),
          FIELD(string, EVT_DebugInfo, perpetratorDN), FIELD(string, EVT_DebugInfo, formatString),
          FIELD(signed_number, EVT_DebugInfo, verb),
          FIELD(signed_number, EVT_DebugInfo, paramCount),
          FIELD_WITH(parameters, EVT_DebugInfo, parameters, paramCount)}},
        {EVT_TAG_AUTH,
         "EVT_AuthEventData",
         parseAuthEventData,
         {COMMON(EVT_AuthEventData), FIELD(string, EVT_AuthEventData, bindDN),
          FIELD(unsigned_number, EVT_AuthEventData, bindType),
          FIELD(mechanism, EVT_AuthEventData, authMechanism),
          FIELD(signed_number, EVT_AuthEventData, resultCode),
          FIELD(control_strings, EVT_AuthEventData, controlOID)}},
        {EVT_TAG_CONNECTION,
         "EVT_ConnectionEventData",
         parseConnectionEventData,
         {FIELD(unsigned_number, EVT_ConnectionEventData, connection),
          FIELD(unsigned_number, EVT_ConnectionEventData, time),
          FIELD(string, EVT_ConnectionEventData, inetAddr)}},
        {EVT_TAG_SEARCH,
         "EVT_SearchEventData",
         parseSearchEventData,
         {COMMON(EVT_SearchEventData), FIELD(string, EVT_SearchEventData, bindDN),
          FIELD(string, EVT_SearchEventData, base),
          FIELD(unsigned_number, EVT_SearchEventData, scope),
          FIELD(string, EVT_SearchEventData, filter),
          FIELD(signed_number, EVT_SearchEventData, resultCode),
          FIELD(strings, EVT_SearchEventData, attrs),
          FIELD(control_strings, EVT_SearchEventData, controlOID)}},
        {EVT_TAG_SEARCH_ENTRY_RESPONSE,
         "EVT_SearchEntryResponseEventData",
         parseSearchEntryResponseEventData,
         {COMMON(EVT_SearchEntryResponseEventData),
          FIELD(string, EVT_SearchEntryResponseEventData, entryDN),
          FIELD(string, EVT_SearchEntryResponseEventData, className),
          FIELD(signed_number, EVT_SearchEntryResponseEventData, resultCode),
          FIELD(strings, EVT_SearchEntryResponseEventData, attrs)}},
        {EVT_TAG_UPDATE,
         "EVT_UpdateEventData",
         parse_update,
         {COMMON(EVT_UpdateEventData), FIELD(unsigned_number, EVT_UpdateEventData, operation),
          FIELD(string, EVT_UpdateEventData, bindDN), FIELD(string, EVT_UpdateEventData, entryDN),
          FIELD(string, EVT_UpdateEventData, className),
          FIELD(signed_number, EVT_UpdateEventData, resultCode),
          FIELD(control_strings, EVT_UpdateEventData, controlOID)}},
        {EVT_TAG_COMPARE,
         "EVT_CompareEventData",
         parseCompareEventData,
         {COMMON(EVT_CompareEventData), FIELD(string, EVT_CompareEventData, bindDN),
          FIELD(string, EVT_CompareEventData, compareDN),
          FIELD(string, EVT_CompareEventData, assertionType),
          FIELD(string, EVT_CompareEventData, assertionValue),
          FIELD(string, EVT_CompareEventData, className),
          FIELD(signed_number, EVT_CompareEventData, resultCode)}},
        {EVT_TAG_MODDN,
         "EVT_ModDNEventData",
         parseModDNEventData,
         {COMMON(EVT_ModDNEventData), FIELD(string, EVT_ModDNEventData, bindDN),
          FIELD(string, EVT_ModDNEventData, oldRDN), FIELD(string, EVT_ModDNEventData, newRDN),
          FIELD(string, EVT_ModDNEventData, className),
          FIELD(signed_number, EVT_ModDNEventData, resultCode),
          FIELD(control_strings, EVT_ModDNEventData, controlOID)}},
        {EVT_TAG_ABANDON,
         "EVT_AbandonEventData",
         parseAbandonEventData,
         {COMMON(EVT_AbandonEventData), FIELD(unsigned_number, EVT_AbandonEventData, operation),
          FIELD(string, EVT_AbandonEventData, bindDN),
          FIELD(signed_number, EVT_AbandonEventData, resultCode)}},
        {EVT_TAG_EXTOP,
         "EVT_ExtOpEventData",
         parseExtOpEventData,
         {COMMON(EVT_ExtOpEventData), FIELD(unsigned_number, EVT_ExtOpEventData, operation),
          FIELD(string, EVT_ExtOpEventData, extensionOID),
          FIELD(string, EVT_ExtOpEventData, bindDN),
          FIELD(signed_number, EVT_ExtOpEventData, resultCode)}},
        {EVT_TAG_SYS_EXTOP,
         "EVT_SysExtOpEventData",
         parseSysExtOpEventData,
         {COMMON(EVT_SysExtOpEventData), FIELD(unsigned_number, EVT_SysExtOpEventData, operation),
          FIELD(string, EVT_SysExtOpEventData, extensionOID),
          FIELD(string, EVT_SysExtOpEventData, bindDN),
          FIELD(string, EVT_SysExtOpEventData, value1),
          FIELD(string, EVT_SysExtOpEventData, value2),
          FIELD(string, EVT_SysExtOpEventData, value3),
          FIELD(string, EVT_SysExtOpEventData, value4),
          FIELD(signed_number, EVT_SysExtOpEventData, resultCode)}},
        {EVT_TAG_RESPONSE,
         "EVT_ResponseEventData",
         parseResponseEventData,
         {COMMON(EVT_ResponseEventData), FIELD(unsigned_number, EVT_ResponseEventData, operation),
          FIELD(signed_number, EVT_ResponseEventData, resultCode),
          FIELD(string, EVT_ResponseEventData, matchedDN),
          FIELD(referral_strings, EVT_ResponseEventData, referral)}},
        {EVT_TAG_PASSWORD_MODIFY,
         "EVT_PasswordModifyEventData",
         parsePasswordModifyData,
         {COMMON(EVT_PasswordModifyEventData), FIELD(string, EVT_PasswordModifyEventData, bindDN),
          FIELD(string, EVT_PasswordModifyEventData, entryDN),
          FIELD(signed_number, EVT_PasswordModifyEventData, passwordModifyType),
          FIELD(signed_number, EVT_PasswordModifyEventData, resultCode)}},
        {EVT_TAG_UNKNOWN_OP,
         "EVT_UnknownEventData",
         parseUnknownOp,
         {FIELD(unsigned_number, EVT_UnknownEventData, time),
          FIELD(string, EVT_UnknownEventData, inetAddr)}},
    };
}

// ---- Values as text --------------------------------------------------------------------------

std::string quoted(std::string_view bytes)
{
    std::string text(1, '\'');
    for (char c : bytes)
        if (c >= ' ' && c <= '~')
            text += c;
        else
            text.append(1, '\\').append(hex(std::string_view(&c, 1)));
    return text.append(1, '\'');
}

// A block of so many bytes and a NUL; NULL is what an empty one must be.
std::string block_text(const char *block, std::size_t size)
{
    if (block == nullptr)
        return size == 0 ? "NULL" : "NULL of some";
    std::string text = quoted(std::string_view(block, size));
    return block[size] == '\0' ? text : text + " without NUL";
}

std::string string_text(const char *string)
{
    return string == nullptr ? "NULL" : quoted(string);
}

std::string stamp_text(unsigned seconds, unsigned replica, unsigned event)
{
    return std::to_string(seconds) + "/" + std::to_string(replica) + "/" + std::to_string(event);
}

std::string list_text(const std::vector<std::string> &items)
{
    std::string text = "[";
    for (const std::string &item : items)
        text += (text.size() > 1 ? ", " : "") + item;
    return text + "]";
}

std::string strings_text(char *const *strings)
{
    if (strings == nullptr)
        return "NULL";
    std::vector<std::string> items;
    for (; *strings != nullptr; ++strings)
        items.push_back(quoted(*strings));
    return list_text(items);
}

template <class Type>
const Type &at(const void *record, std::size_t offset)
{
    return *reinterpret_cast<const Type *>(static_cast<const char *>(record) + offset);
}

std::string parameter_text(const DB_Parameter &parameter)
{
    const DB_value &value = parameter.value;
    std::string text = std::to_string(parameter.type) + " ";
    switch (parameter.type) {
    case 1:
    case 4:
        return text + std::to_string(value.integer);
    case 2:
        return text + string_text(value.utf8Str);
    case 3:
        return text + block_text(value.binary.data, value.binary.size);
    case 5:
        return text + std::to_string(value.netAddress.type) + " " +
               block_text(value.netAddress.data, value.netAddress.length);
    case 6:
        return text + stamp_text(value.timeStamp.seconds, value.timeStamp.replicaNumber,
                                 value.timeStamp.event);
    case 7: {
        std::vector<std::string> items;
        for (unsigned i = 0; i < value.timeStampVector.count; ++i) {
            const EVT_TimeStamp &stamp = value.timeStampVector.timeStamps[i];
            items.push_back(stamp_text(stamp.seconds, stamp.replicaNumber, stamp.event));
        }
        return text + list_text(items);
    }
    default:
        return text + "?";
    }
}

std::string field_text(const Field &field, const void *record)
{
    const auto &number = at<int>(record, field.offset);
    const auto &positive = at<unsigned>(record, field.offset);
    const auto &beside = at<int>(record, field.beside);
    const auto pointer = [&] {
        return at<const void *>(record, field.offset);
    };
    const auto string = [&] {
        return at<const char *>(record, field.offset);
    };
    std::vector<std::string> items;
    switch (field.form) {
    case Form::signed_number:
        return std::to_string(number);
    case Form::unsigned_number:
    case Form::verb:
        return std::to_string(positive);
    case Form::time_stamp: {
        const auto &stamp = at<EVT_TimeStamp>(record, field.offset);
        return stamp_text(stamp.seconds, stamp.replicaNumber, stamp.event);
    }
    case Form::string:
    case Form::tagged_string:
    case Form::mechanism:
    case Form::new_dn:
        return string_text(string());
    case Form::value:
    case Form::server_address:
        return block_text(string(), static_cast<unsigned>(beside));
    case Form::integers:
        for (int i = 0; i < 4; ++i)
            items.push_back(std::to_string((&positive)[i]));
        return list_text(items);
    case Form::texts:
        for (int i = 0; i < 4; ++i)
            items.push_back(string_text((&at<char *>(record, field.offset))[i]));
        return list_text(items);
    case Form::referrals: {
        const auto *list = static_cast<const EVT_ReferralAddress *>(pointer());
        for (int i = 0; i < beside; ++i)
            items.push_back(std::to_string(list[i].type) + " " +
                            block_text(list[i].address, static_cast<unsigned>(list[i].length)));
        return list == nullptr ? beside == 0 ? "NULL" : "NULL of some" : list_text(items);
    }
    case Form::name:
    case Form::description:
        return quoted(static_cast<const char *>(record) + field.offset);
    case Form::config_value: {
        const auto &config = *static_cast<const EVT_ChangeConfigParm *>(record);
        switch (beside) {
        case 0:
            return "none";
        case 1:
            return block_text(config.value.binary.data,
                              static_cast<unsigned>(config.value.binary.size));
        case 3:
            return string_text(config.value.utf8Str);
        default:
            return std::to_string(config.value.integer);
        }
    }
    case Form::parameters: {
        const auto *parameters = static_cast<const DB_Parameter *>(pointer());
        for (int i = 0; i < beside; ++i)
            items.push_back(parameter_text(parameters[i]));
        return parameters == nullptr ? beside <= 0 ? "NULL" : "NULL of some" : list_text(items);
    }
    case Form::connection: {
        const auto *connection = static_cast<const EVT_ConnectionEventData *>(pointer());
        return connection == nullptr
                   ? "NULL"
                   : std::to_string(connection->connection) + " " +
                         std::to_string(connection->time) + " " + string_text(connection->inetAddr);
    }
    case Form::strings:
    case Form::control_strings:
    case Form::referral_strings:
        return strings_text(static_cast<char *const *>(pointer()));
    }
    throw std::logic_error("no such form");
}

// ---- Events ----------------------------------------------------------------------------------

// Where values come from: fixed and telling, empty, or by chance.
struct Source {
    enum class Mode { full, least, any } mode;
    std::mt19937 *random = nullptr;
    const Variety *variety = nullptr;
    unsigned made = 0;

    unsigned pick(unsigned below)
    {
        return std::uniform_int_distribution<unsigned>(0, below - 1)(*random);
    }
    bool present()
    {
        return mode == Mode::full || (mode == Mode::any && pick(3) != 0);
    }
    unsigned one_of(const std::vector<unsigned> &choices)
    {
        return choices[pick(static_cast<unsigned>(choices.size()))];
    }
    std::string string(const std::string &name)
    {
        ++made;
        switch (mode) {
        case Mode::full:
            return name + "=" + std::to_string(made) + ",o=x";
        case Mode::least:
            return "";
        case Mode::any:
            break;
        }
        return std::string(one_of(variety->lengths), static_cast<char>('a' + pick(26)));
    }
    std::string octets(const std::string &name)
    {
        std::string made_string = string(name);
        return made_string.empty() ? made_string : made_string + std::string("\0\xff", 2);
    }
    unsigned natural()
    {
        ++made;
        return mode == Mode::any ? one_of(variety->numbers) : 100 + made;
    }
    int number()
    {
        return static_cast<int>(natural()) * (mode == Mode::full ? -1 : 1);
    }
    unsigned count()
    {
        return mode == Mode::full ? 3 : mode == Mode::least ? 0 : pick(4);
    }
};

// The field's bytes and its text.
struct Made {
    std::string bytes;
    std::string text;
};

Made made_string(const std::string &value, unsigned long tag = 0x04)
{
    return {octets(value, tag), value.empty() ? "NULL" : quoted(value)};
}

Made made_stamp(Source &source, unsigned long tag = 0x30)
{
    const unsigned a = source.natural(), b = source.natural(), c = source.natural();
    return {element(tag, concat(integer(a), integer(b), integer(c))), stamp_text(a, b, c)};
}

Made made_strings(Source &source, const std::string &name, unsigned long tag)
{
    std::string bytes;
    std::vector<std::string> items;
    for (unsigned left = source.count(); left > 0; --left) {
        const std::string value = source.string(name);
        bytes += sequence(octets(value));
        items.push_back(quoted(value));
    }
    return {element(tag, bytes), list_text(items)};
}

Made made_parameter(Source &source, int type)
{
    const auto tag = static_cast<unsigned long>(0x80 + type);
    const std::string prefix = std::to_string(type) + " ";
    Made made;
    switch (type) {
    case 1:
    case 4: {
        const int number = source.number();
        made = {integer(number, tag), std::to_string(number)};
        break;
    }
    case 2:
        made = made_string(source.string("text"), tag);
        break;
    case 3:
        made = made_string(source.octets("binary"), tag);
        break;
    case 5: {
        const unsigned address_type = source.natural();
        const std::string data = source.octets("address") + "!"; // an empty one ends the list
        made = {element(tag, concat(integer(address_type), octets(data))),
                std::to_string(address_type) + " " + quoted(data)};
        break;
    }
    case 6:
        made = made_stamp(source, tag);
        break;
    default: {
        std::string bytes;
        std::vector<std::string> items;
        for (unsigned left = source.count(); left > 0; --left) {
            const Made stamp = made_stamp(source);
            bytes += stamp.bytes;
            items.push_back(stamp.text);
        }
        made = {
            element(tag, concat(integer(static_cast<long long>(items.size())), sequence(bytes))),
            list_text(items)};
    }
    }
    return {made.bytes, prefix + made.text};
}

Made made_config_value(Source &source, int type)
{
    switch (type) {
    case 1:
        return made_string(source.octets("binary"), 0x83);
    case 2:
    case 5: {
        const int number = source.number();
        return {integer(number, type == 2 ? 0x82 : 0x81), std::to_string(number)};
    }
    case 3:
        return made_string(source.string("text"), 0x84);
    default:
        return {element(0x85, ""), "none"};
    }
}

// The numbers that other fields go by, chosen beforehand.
struct Choices {
    int config_type = 0;
    std::vector<int> parameter_types;
};

Made make_field(const Field &field, Source &source, const Choices &choices)
{
    switch (field.form) {
    case Form::signed_number: {
        const int number = field.name == "type" ? choices.config_type
                           : field.name == "paramCount"
                               ? static_cast<int>(choices.parameter_types.size())
                               : source.number();
        return {integer(number), std::to_string(number)};
    }
    case Form::unsigned_number: {
        const unsigned number = source.natural();
        return {integer(number), std::to_string(number)};
    }
    case Form::time_stamp:
        return made_stamp(source);
    case Form::string:
    case Form::mechanism:
        return made_string(source.string(field.name));
    case Form::tagged_string:
        return made_string(source.string(field.name), 0x85);
    case Form::new_dn:
        return made_string(source.string(field.name));
    case Form::value: {
        const std::string value = source.octets(field.name);
        return value.empty() ? Made{"", "NULL"} : made_string(value);
    }
    case Form::server_address:
        return made_string(source.octets(field.name));
    case Form::verb: {
        const unsigned number = source.natural();
        return source.present() ? Made{integer(number), std::to_string(number)} : Made{"", "0"};
    }
    case Form::integers: {
        std::string bytes;
        std::vector<std::string> items;
        for (unsigned left = source.mode == Source::Mode::full ? 4 : source.count(); left > 0;
             --left) {
            const unsigned number = source.natural();
            bytes += integer(number);
            items.push_back(std::to_string(number));
        }
        items.resize(4, "0");
        return {source.mode == Source::Mode::least ? "" : element(0x86, bytes), list_text(items)};
    }
    case Form::texts: {
        std::string bytes;
        std::vector<std::string> items;
        for (unsigned left = source.count(); left > 0; --left) {
            const Made made = made_string(source.string(field.name));
            bytes += made.bytes;
            items.push_back(made.text);
        }
        items.resize(4, "NULL");
        // Always there but in the least event, so that no trailer is taken for an integer.
        return {source.mode == Source::Mode::least ? "" : element(0xa7, bytes), list_text(items)};
    }
    case Form::referrals: {
        if (!source.present())
            return {"", "NULL"};
        std::string bytes;
        std::vector<std::string> items;
        for (unsigned left = source.count(); left > 0; --left) {
            const int type = source.number();
            const Made address = made_string(source.octets("address"));
            bytes += sequence(integer(type), address.bytes);
            items.push_back(std::to_string(type) + " " + address.text);
        }
        return {sequence(integer(static_cast<long long>(items.size())), sequence(bytes)),
                list_text(items)};
    }
    case Form::name: {
        const std::string name = source.string(field.name).insert(0, 1, 'm').substr(0, 31);
        return {octets(name), quoted(name)};
    }
    case Form::description: {
        const std::string description = source.string(field.name).substr(0, 127);
        return {octets(description), quoted(description)};
    }
    case Form::config_value:
        return made_config_value(source, choices.config_type);
    case Form::parameters: {
        if (choices.parameter_types.empty())
            return {"", "NULL"};
        std::string bytes;
        std::vector<std::string> items;
        for (int type : choices.parameter_types) {
            const Made made = made_parameter(source, type);
            bytes += made.bytes;
            items.push_back(made.text);
        }
        return {sequence(bytes), list_text(items)};
    }
    case Form::connection: {
        if (!source.present())
            return {"", "NULL"};
        const unsigned connection = source.natural(), time = source.natural();
        const Made address = made_string(source.string("inetAddr"));
        return {sequence(integer(connection), integer(time), address.bytes),
                std::to_string(connection) + " " + std::to_string(time) + " " + address.text};
    }
    case Form::strings:
        // Missing only at the very end.
        return source.mode == Source::Mode::least ? Made{"", "NULL"}
                                                  : made_strings(source, field.name, 0x30);
    case Form::control_strings:
        return source.present() ? made_strings(source, field.name, 0x80) : Made{"", "NULL"};
    case Form::referral_strings:
        return source.present() ? made_strings(source, field.name, 0x81) : Made{"", "NULL"};
    }
    throw std::logic_error("no such form");
}

Sample make_event(const EventKind &kind, Source source, const Choices &choices)
{
    Sample sample;
    for (const Field &field : kind.fields) {
        const Made made = make_field(field, source, choices);
        sample.bytes += made.bytes;
        sample.text.push_back(field.name + ": " + made.text);
    }
    return sample;
}

// ---- The rules -------------------------------------------------------------------------------

struct Stop {
    int code;
    std::string assertion{};
};

[[noreturn]] void malformed()
{
    throw Stop{LDAPX_DECODING_ERROR};
}

// The fields as they are read with liblber, one call for each conversion.
class Rules {
public:
    Rules(std::string_view bytes, bool asserting) : asserting_(asserting)
    {
        berval value{bytes.size(), const_cast<char *>(bytes.data())};
        ber_.reset(ber_init(&value));
    }

    std::string field(const Field &field);

    std::string trailer()
    {
        return tag() == 0x02 ? address() : "none";
    }

    ber_tag_t tag()
    {
        ber_len_t ignored = 0;
        return ber_peek_tag(ber_.get(), &ignored);
    }
    // "{" and "[": whatever comes. ber_scanf crashes where there are no bytes at all.
    void open()
    {
        if (tag() == LBER_ERROR || ber_scanf(ber_.get(), "{") == LBER_ERROR)
            malformed();
    }
    int number()
    {
        ber_int_t value = 0;
        if (ber_scanf(ber_.get(), "i", &value) == LBER_ERROR)
            malformed();
        return value;
    }

    // An empty address is not passed over.
    std::string address()
    {
        const unsigned type = natural();
        if (tag() != 0x04)
            malformed();
        return std::to_string(type) + " " + quoted(length() > 0 ? take() : "");
    }

    std::size_t unread()
    {
        ber_len_t left = 0;
        ber_get_option(ber_.get(), LBER_OPT_BER_REMAINING_BYTES, &left);
        return left;
    }

private:
    struct Free {
        void operator()(BerElement *ber) const
        {
            ber_free(ber, 1);
        }
    };

    ber_len_t length()
    {
        ber_len_t length = 0;
        ber_peek_tag(ber_.get(), &length);
        return length;
    }
    unsigned natural()
    {
        berval contents{};
        if (ber_peek_element(ber_.get(), &contents) != LBER_ERROR && contents.bv_len == 5) {
            const auto *bytes = reinterpret_cast<const unsigned char *>(contents.bv_val);
            if (bytes[0] != 0 || bytes[1] < 0x80)
                malformed();
            ber_skip_element(ber_.get(), &contents);
            return bytes[1] * 0x1000000U + bytes[2] * 0x10000U + bytes[3] * 0x100U + bytes[4];
        }
        return static_cast<unsigned>(number());
    }
    std::string stamp()
    {
        open();
        const unsigned a = natural(), b = natural(), c = natural();
        return stamp_text(a, b, c);
    }
    std::string take() // "s", or the whole of an empty element
    {
        std::string text(length() + 1, '?');
        ber_len_t capacity = text.size();
        if (tag() == LBER_ERROR || ber_scanf(ber_.get(), "s", text.data(), &capacity) == LBER_ERROR)
            malformed();
        return text.substr(0, capacity);
    }
    std::string block() // as text
    {
        const std::string bytes = take();
        return bytes.empty() ? "NULL" : quoted(bytes);
    }
    std::string c_string() // as text, and only up to its first NUL
    {
        const std::string bytes = take();
        return bytes.empty() ? "NULL" : quoted(bytes.c_str());
    }
    void require(ber_tag_t expected, const char *assertion = "expectedTag == tag")
    {
        if (tag() == expected)
            return;
        if (asserting_)
            throw Stop{0, assertion};
        malformed();
    }
    void fits(long long count)
    {
        if (count > static_cast<long long>(unread()))
            malformed();
    }
    std::string referrals();
    std::string parameter();
    std::string strings();

    bool asserting_;
    std::unique_ptr<BerElement, Free> ber_;
    int type_ = 0; // the last signed number, which the next field may go by
};

std::string Rules::referrals()
{
    if (tag() != 0x30)
        return "NULL";
    open();
    const int count = number();
    open();
    if (count < 0)
        throw Stop{LDAPX_NO_MEMORY};
    fits(count);
    std::vector<std::string> items;
    for (int i = 0; i < count; ++i) {
        open();
        const int type = number();
        require(0x04);
        items.push_back(std::to_string(type) + " " + block());
    }
    return list_text(items);
}

std::string Rules::parameter()
{
    const ber_tag_t tag_now = tag();
    if (tag_now < 0x81 || tag_now > 0x87)
        malformed();
    std::string text = std::to_string(tag_now - 0x80) + " ";
    switch (tag_now) {
    case 0x81:
    case 0x84:
        return text + std::to_string(number());
    case 0x82:
        return text + c_string();
    case 0x83:
        return text + block();
    case 0x85: {
        open();
        const unsigned type = natural();
        if (tag() != 0x04)
            malformed();
        return text + std::to_string(type) + " " + (length() > 0 ? block() : "NULL");
    }
    case 0x86:
        return text + stamp();
    default: {
        open();
        const unsigned count = natural();
        open();
        fits(count);
        std::vector<std::string> items;
        for (unsigned i = 0; i < count; ++i)
            items.push_back(stamp());
        return text + list_text(items);
    }
    }
}

std::string Rules::strings()
{
    if (unread() == 0)
        return "NULL";
    const ber_len_t size = length();
    open();
    const std::size_t behind = unread() - size;
    std::vector<std::string> items;
    while (unread() > behind) {
        open();
        char *component = nullptr;
        if (ber_scanf(ber_.get(), "a", &component) == LBER_ERROR)
            malformed();
        items.push_back(quoted(component));
        ber_memfree(component);
    }
    return list_text(items);
}

std::string Rules::field(const Field &field)
{
    std::vector<std::string> items;
    switch (field.form) {
    case Form::signed_number:
        type_ = number();
        return std::to_string(type_);
    case Form::unsigned_number:
        return std::to_string(natural());
    case Form::time_stamp:
        return stamp();
    case Form::string:
        require(0x04);
        return c_string();
    case Form::tagged_string:
        require(0x85);
        return c_string();
    case Form::mechanism:
        if (tag() != 0x04 && !asserting_)
            return "NULL";
        require(0x04);
        return c_string();
    case Form::new_dn:
        if (tag() == 0x04)
            return c_string();
        if (berval ignored{}; tag() != LBER_ERROR)
            ber_skip_element(ber_.get(), &ignored);
        return "NULL";
    case Form::value:
        return tag() == 0x04 && length() > 0 ? block() : "NULL";
    case Form::verb:
        return tag() == 0x02 ? std::to_string(natural()) : "0";
    case Form::integers:
        if (tag() == 0x86) {
            open();
            while (tag() == 0x02) {
                if (items.size() == 4)
                    malformed();
                items.push_back(std::to_string(natural()));
            }
        }
        items.resize(4, "0");
        return list_text(items);
    case Form::texts:
        if (tag() == 0xa7) {
            open();
            while (tag() == 0x04) {
                items.push_back(c_string());
                if (items.size() > 3)
                    malformed();
            }
        }
        items.resize(4, "NULL");
        return list_text(items);
    case Form::referrals:
        return referrals();
    case Form::name:
    case Form::description:
        if (tag() != 0x04 || length() > (field.form == Form::name ? 31 : 127) ||
            (field.form == Form::name && length() == 0))
            malformed();
        return quoted(take().c_str());
    case Form::server_address:
        require(0x04, "((ber_tag_t) 0x04UL) == tag");
        return block();
    case Form::config_value: {
        const std::map<int, ber_tag_t> tags{{5, 0x81}, {2, 0x82}, {1, 0x83}, {3, 0x84}, {0, 0x85}};
        const auto found = tags.find(type_);
        if (found == tags.end() || tag() != found->second)
            malformed();
        switch (type_) {
        case 0:
            return "none";
        case 1:
            return block();
        case 3:
            return c_string();
        default:
            return std::to_string(number());
        }
    }
    case Form::parameters: {
        const int count = type_;
        if (count <= 0)
            return "NULL";
        fits(count);
        open();
        for (int i = 0; i < count; ++i)
            items.push_back(parameter());
        return list_text(items);
    }
    case Form::connection: {
        if (tag() != 0x30)
            return "NULL";
        open();
        const unsigned connection = natural(), time = natural();
        require(0x04);
        return std::to_string(connection) + " " + std::to_string(time) + " " + c_string();
    }
    case Form::strings:
        return strings();
    case Form::control_strings:
        return tag() == 0x80 ? strings() : "NULL";
    case Form::referral_strings:
        return tag() == 0x81 ? strings() : "NULL";
    }
    throw std::logic_error("no such form");
}

} // namespace

const std::vector<EventKind> &event_kinds()
{
    static const std::vector<EventKind> kinds = make_kinds();
    return kinds;
}

const EventKind &event_kind(ber_tag_t tag)
{
    const auto &kinds = event_kinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(),
                                    [tag](const EventKind &kind) { return kind.tag == tag; });
    if (found == kinds.end())
        throw std::logic_error("no such kind of event");
    return *found;
}

Sample full_event(const EventKind &kind)
{
    return make_event(kind, {Source::Mode::full}, {1, {1, 2, 3, 4, 5, 6, 7}});
}

Sample least_event(const EventKind &kind)
{
    return make_event(kind, {Source::Mode::least}, {1, {}});
}

Sample any_event(const EventKind &kind, std::mt19937 &random, const Variety &variety)
{
    Source source{Source::Mode::any, &random, &variety};
    const int config_types[] = {0, 1, 2, 3, 5};
    Choices choices{config_types[source.pick(5)], {}};
    for (unsigned left = source.count(); left > 0; --left)
        choices.parameter_types.push_back(static_cast<int>(1 + source.pick(7)));
    return make_event(kind, source, choices);
}

std::string trailer_bytes()
{
    return concat(integer(1), octets("10.0.0.1"));
}

std::string trailer_text()
{
    return "1 '10.0.0.1'";
}

Text describe(const EventKind &kind, const void *record)
{
    Text text;
    for (const Field &field : kind.fields)
        text.push_back(field.name + ": " + field_text(field, record));
    return text;
}

std::string describe_address(const void *record)
{
    if (record == nullptr)
        return "none";
    const auto *address = static_cast<const EVT_NetAddress *>(record);
    const char *data = static_cast<const char *>(record) + offsetof(EVT_NetAddress, data);
    return std::to_string(address->type) + " " + quoted(std::string_view(data, address->length)) +
           (data[address->length] == '\0' ? "" : " without NUL");
}

std::ostream &operator<<(std::ostream &out, const Verdict &verdict)
{
    out << "code " << verdict.code;
    if (!verdict.assertion.empty())
        out << ", assertion " << verdict.assertion;
    for (const std::string &line : verdict.text)
        out << "\n  " << line;
    return out << "\n  trailer: " << verdict.trailer << "\n  unread: " << verdict.unread << "\n";
}

Verdict expected_verdict(const EventKind &kind, std::string_view bytes, bool asserting)
{
    Verdict verdict;
    try {
        Rules rules(bytes, asserting);
        for (const Field &field : kind.fields)
            verdict.text.push_back(field.name + ": " + rules.field(field));
        verdict.trailer = rules.trailer();
        verdict.unread = rules.unread();
        return verdict;
    } catch (const Stop &stop) {
        return {stop.code, stop.assertion, stop.code == 0 ? verdict.text : Text(), "none", 0};
    }
}

std::ostream &operator<<(std::ostream &out, const MessageVerdict &verdict)
{
    out << "code " << verdict.code << ", type " << verdict.type << ", result " << verdict.result
        << ", tag " << verdict.tag;
    for (const std::string &line : verdict.text)
        out << "\n  " << line;
    return out << "\n  trailer: " << verdict.trailer << "\n";
}

MessageVerdict expected_message(std::string_view value)
{
    MessageVerdict verdict;
    const auto &kinds = event_kinds();
    try {
        Rules rules(value, false);
        rules.open();
        verdict.type = rules.number();
        verdict.result = rules.number();

        const ber_tag_t tag = rules.tag();
        const auto kind = std::find_if(kinds.begin(), kinds.end(),
                                       [tag](const EventKind &one) { return one.tag == tag; });
        if (kind == kinds.end() && tag != EVT_TAG_NET_ADDRESS)
            return verdict;
        rules.open();
        Text text;
        if (tag == EVT_TAG_NET_ADDRESS)
            text.push_back(rules.address());
        else
            for (const Field &field : kind->fields)
                text.push_back(field.name + ": " + rules.field(field));
        verdict.trailer = rules.trailer();
        verdict.tag = tag;
        verdict.text = text;
    } catch (const Stop &stop) {
        verdict.code = stop.code;
    }
    return verdict;
}

MessageVerdict seen_message(int code, int type, int result, const void *record, const void *address)
{
    MessageVerdict verdict{code, type, result, 0, {}, describe_address(address)};
    if (record != nullptr) {
        verdict.tag = static_cast<const ber_tag_t *>(record)[-1];
        verdict.text = verdict.tag == EVT_TAG_NET_ADDRESS
                           ? Text{describe_address(record)}
                           : describe(event_kind(verdict.tag), record);
    }
    return verdict;
}

std::string notification(int type, int result, ber_tag_t tag, std::string_view fields,
                         std::string_view trailer)
{
    return sequence(integer(type), integer(result), element(tag, fields), std::string(trailer));
}

} // namespace support
