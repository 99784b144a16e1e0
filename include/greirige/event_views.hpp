// greirige/event_views.hpp - what an event can be: its kind, and a view of its fields for each
// kind.
//
// Copyright 2026 the greirige authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "ldap_events.h"

namespace greirige {

// ---- Kinds of event -----------------------------------------------------------------------------

// The tag that opens an event's data and says of which kind it is. A server may send others.
enum class EventTag : ber_tag_t {
    none = 0, // the event has no data, or none that can be told
    entry = EVT_TAG_ENTRY_INFO,
    value = EVT_TAG_VALUE_INFO,
    general = EVT_TAG_GENERAL_EVENT,
    skulk = EVT_TAG_SKULK,
    bindery_object = EVT_TAG_BINDERY_OBJECT,
    server_to_server = EVT_TAG_SEV_INFO,
    module_state = EVT_TAG_MODULE_STATE,
    net_address = EVT_TAG_NET_ADDRESS,
    connection_state = EVT_TAG_CONN_STATE,
    server_address = EVT_TAG_CHANGE_SERVER_ADDR,
    config_parameter = EVT_TAG_CHANGE_CONFIG_PARAM,
    status_log = EVT_TAG_STATUS_LOG,
    debug = EVT_TAG_DEBUG_INFO,
    authentication = EVT_TAG_AUTH,
    connection = EVT_TAG_CONNECTION,
    search = EVT_TAG_SEARCH,
    search_entry = EVT_TAG_SEARCH_ENTRY_RESPONSE,
    update = EVT_TAG_UPDATE,
    compare = EVT_TAG_COMPARE,
    rename = EVT_TAG_MODDN,
    abandon = EVT_TAG_ABANDON,
    extended_operation = EVT_TAG_EXTOP,
    system_extended_operation = EVT_TAG_SYS_EXTOP,
    response = EVT_TAG_RESPONSE,
    password_modify = EVT_TAG_PASSWORD_MODIFY,
    unknown_operation = EVT_TAG_UNKNOWN_OP,
};

// The enumerator's name with hyphens, "search-entry"; "unknown" for a tag without one.
constexpr std::string_view to_string(EventTag tag)
{
    switch (tag) {
    case EventTag::none:
        return "none";
    case EventTag::entry:
        return "entry";
    case EventTag::value:
        return "value";
    case EventTag::general:
        return "general";
    case EventTag::skulk:
        return "skulk";
    case EventTag::bindery_object:
        return "bindery-object";
    case EventTag::server_to_server:
        return "server-to-server";
    case EventTag::module_state:
        return "module-state";
    case EventTag::net_address:
        return "net-address";
    case EventTag::connection_state:
        return "connection-state";
    case EventTag::server_address:
        return "server-address";
    case EventTag::config_parameter:
        return "config-parameter";
    case EventTag::status_log:
        return "status-log";
    case EventTag::debug:
        return "debug";
    case EventTag::authentication:
        return "authentication";
    case EventTag::connection:
        return "connection";
    case EventTag::search:
        return "search";
    case EventTag::search_entry:
        return "search-entry";
    case EventTag::update:
        return "update";
    case EventTag::compare:
        return "compare";
    case EventTag::rename:
        return "rename";
    case EventTag::abandon:
        return "abandon";
    case EventTag::extended_operation:
        return "extended-operation";
    case EventTag::system_extended_operation:
        return "system-extended-operation";
    case EventTag::response:
        return "response";
    case EventTag::password_modify:
        return "password-modify";
    case EventTag::unknown_operation:
        return "unknown-operation";
    }
    return "unknown";
}

// ---- What fields hold ---------------------------------------------------------------------------

// A string, UTF-8; nothing where the server sent an empty one.
using Text = std::optional<std::string_view>;
// Any bytes, zero bytes too.
using Bytes = std::span<const std::byte>;

// When a change was made and by which replica; "event" tells apart what one second holds.
struct TimeStamp {
    std::uint32_t seconds = 0;
    std::uint32_t replica = 0;
    std::uint32_t event = 0;

    friend bool operator==(const TimeStamp &, const TimeStamp &) = default;
};

struct Address {
    std::uint32_t type = 0;
    Bytes data;
};

// An address of another server.
struct Referral {
    std::int32_t type = 0;
    Bytes data;
};

// The connection on which an LDAP operation came.
struct Connection {
    std::uint32_t connection = 0;
    std::uint32_t time = 0;
    Text address; // the client's
};

// The value of a configuration parameter, none for a parameter without one.
using ConfigValue = std::variant<std::monostate, std::int32_t, bool, Text, Bytes>;

// One argument of a debug message. Its type is the server's number for the form of the value: 1
// and 4 a number, 2 a string, 3 bytes, 5 an address, 6 a time stamp, 7 several.
struct DebugParameter {
    int type = 0;
    std::variant<std::int32_t, Text, Bytes, Address, TimeStamp, std::vector<TimeStamp>> value;
};

namespace detail {

// A record's member as what a view holds. Lengths are those that the record states.

inline Text view(const char *string)
{
    return string ? Text(string) : Text();
}
inline std::uint32_t view(unsigned int number)
{
    return number;
}
inline std::int32_t view(int number)
{
    return number;
}
inline TimeStamp view(const EVT_TimeStamp &stamp)
{
    return {stamp.seconds, stamp.replicaNumber, stamp.event};
}
inline Bytes view_bytes(const char *data, std::size_t size)
{
    return data ? std::as_bytes(std::span(data, size)) : Bytes();
}
inline std::vector<std::string_view> view(char *const *strings)
{
    char *const *end = strings;
    while (end && *end)
        ++end;
    return {strings, end};
}
inline std::optional<Connection> view(const EVT_ConnectionEventData *connection)
{
    if (!connection)
        return std::nullopt;
    return Connection{connection->connection, connection->time, view(connection->inetAddr)};
}
inline Address view(const EVT_NetAddress &address)
{
    // The bytes run past the member's declaration, within the record's block.
    const char *data = reinterpret_cast<const char *>(&address) + offsetof(EVT_NetAddress, data);
    return {address.type, view_bytes(data, address.length)};
}
inline ConfigValue view_config(const EVT_ChangeConfigParm &record)
{
    switch (record.type) {
    case 1:
        return view_bytes(record.value.binary.data,
                          static_cast<std::size_t>(record.value.binary.size));
    case 2:
        return record.value.boolean != 0;
    case 3:
        return view(record.value.utf8Str);
    case 5:
        return view(record.value.integer);
    default:
        return {};
    }
}
inline DebugParameter view(const DB_Parameter &parameter)
{
    const DB_value &value = parameter.value;
    switch (parameter.type) {
    case 2:
        return {parameter.type, view(value.utf8Str)};
    case 3:
        return {parameter.type, view_bytes(value.binary.data, value.binary.size)};
    case 5:
        return {parameter.type,
                Address{value.netAddress.type,
                        view_bytes(value.netAddress.data, value.netAddress.length)}};
    case 6:
        return {parameter.type, view(value.timeStamp)};
    case 7: {
        std::vector<TimeStamp> stamps;
        stamps.reserve(value.timeStampVector.count);
        for (unsigned int i = 0; i < value.timeStampVector.count; ++i)
            stamps.push_back(view(value.timeStampVector.timeStamps[i]));
        return {parameter.type, std::move(stamps)};
    }
    default:
        return {parameter.type, view(value.integer)};
    }
}

// How many a record lists: a negative count, which a server can send, lists none.
inline std::size_t listed(int count)
{
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}
inline std::vector<DebugParameter> view_parameters(const EVT_DebugInfo &record)
{
    std::vector<DebugParameter> views;
    views.reserve(listed(record.paramCount));
    for (int i = 0; i < record.paramCount; ++i)
        views.push_back(view(record.parameters[i]));
    return views;
}
inline std::vector<Referral> view_referrals(const EVT_SEVInfo &record)
{
    std::vector<Referral> views;
    views.reserve(listed(record.referralCount));
    for (int i = 0; i < record.referralCount; ++i) {
        const EVT_ReferralAddress &referral = record.referrals[i];
        views.push_back({referral.type,
                         view_bytes(referral.address, static_cast<std::size_t>(referral.length))});
    }
    return views;
}

} // namespace detail

// ---- Views --------------------------------------------------------------------------------------
//
// One type for each kind of event. Beside its fields each has the C record that it shows, its tag,
// and two tables that the layer works with: layout is what stands on the wire, one letter for each
// element (see event_layout.hpp); fields() calls visit(name, the view's member, where its value
// comes from), which is a member of the record or a function of the whole record.

// An event without data: a skulk event, or one of a kind that nothing is known of.
struct NoData {
    template <class Visit>
    static void fields(Visit &&)
    {
    }
};

// An entry was created, deleted, renamed or moved.
struct EntryEvent {
    using Record = EVT_EntryInfo;
    static constexpr EventTag tag = EventTag::entry;
    static constexpr std::string_view layout = "ssstuuD";

    Text perpetrator_dn; // who did it
    Text entry_dn;
    Text class_name;
    std::uint32_t verb = 0;
    std::uint32_t flags = 0;
    TimeStamp creation_time;
    Text new_dn;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = EntryEvent;
        visit("perpetrator_dn", &View::perpetrator_dn, &Record::perpetratorDN);
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("class_name", &View::class_name, &Record::className);
        visit("verb", &View::verb, &Record::verb);
        visit("flags", &View::flags, &Record::flags);
        visit("creation_time", &View::creation_time, &Record::creationTime);
        visit("new_dn", &View::new_dn, &Record::newDN);
    }
};

// A value was added or deleted.
struct ValueEvent {
    using Record = EVT_ValueInfo;
    static constexpr EventTag tag = EventTag::value;
    static constexpr std::string_view layout = "ssssstV";

    std::uint32_t verb = 0; // 0 when the server did not send it
    Text perpetrator_dn;
    Text entry_dn;
    Text attribute_name;
    Text syntax_oid;
    Text class_name;
    TimeStamp time_stamp;
    Bytes value;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ValueEvent;
        visit("verb", &View::verb, &Record::verb);
        visit("perpetrator_dn", &View::perpetrator_dn, &Record::perpetratorDN);
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("attribute_name", &View::attribute_name, &Record::attributeName);
        visit("syntax_oid", &View::syntax_oid, &Record::syntaxOID);
        visit("class_name", &View::class_name, &Record::className);
        visit("time_stamp", &View::time_stamp, &Record::timeStamp);
        visit("value", &View::value,
              [](const Record &r) { return detail::view_bytes(r.value, r.size); });
    }
};

// Any other event.
struct GeneralEvent {
    using Record = EVT_EventData;
    static constexpr EventTag tag = EventTag::general;
    static constexpr std::string_view layout = "uuuupL";

    std::uint32_t time = 0;
    std::uint32_t milliseconds = 0;
    std::uint32_t process = 0;
    std::uint32_t verb = 0;
    Text perpetrator_dn;
    std::array<std::uint32_t, 4> numbers{}; // unused ones are 0
    std::array<Text, 3> strings{};

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = GeneralEvent;
        visit("time", &View::time, &Record::dstime);
        visit("milliseconds", &View::milliseconds, &Record::milliseconds);
        visit("process", &View::process, &Record::curProcess);
        visit("verb", &View::verb, &Record::verb);
        visit("perpetrator_dn", &View::perpetrator_dn, &Record::perpetratorDN);
        visit("numbers", &View::numbers,
              [](const Record &r) { return std::to_array(r.intValues); });
        visit("strings", &View::strings, [](const Record &r) {
            return std::array<Text, 3>{detail::view(r.strValues[0]), detail::view(r.strValues[1]),
                                       detail::view(r.strValues[2])};
        });
    }
};

// A bindery object.
struct BinderyObjectEvent {
    using Record = EVT_BinderyObjectInfo;
    static constexpr EventTag tag = EventTag::bindery_object;
    static constexpr std::string_view layout = "suuus";

    Text entry_dn;
    std::uint32_t type = 0;
    std::uint32_t emulated_flags = 0;
    std::uint32_t security = 0;
    Text name;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = BinderyObjectEvent;
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("type", &View::type, &Record::type);
        visit("emulated_flags", &View::emulated_flags, &Record::emuObjFlags);
        visit("security", &View::security, &Record::security);
        visit("name", &View::name, &Record::name);
    }
};

// A server-to-server event.
struct ServerToServerEvent {
    using Record = EVT_SEVInfo;
    static constexpr EventTag tag = EventTag::server_to_server;
    static constexpr std::string_view layout = "susR";

    Text entry_dn;
    std::uint32_t retry_count = 0;
    Text value_dn;
    std::vector<Referral> referrals;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ServerToServerEvent;
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("retry_count", &View::retry_count, &Record::retryCount);
        visit("value_dn", &View::value_dn, &Record::valueDN);
        visit("referrals", &View::referrals,
              [](const Record &r) { return detail::view_referrals(r); });
    }
};

// A module was loaded or unloaded.
struct ModuleStateEvent {
    using Record = EVT_ModuleState;
    static constexpr EventTag tag = EventTag::module_state;
    static constexpr std::string_view layout = "suNMs";

    Text connection_dn;
    std::uint32_t flags = 0;
    Text source_module;
    std::string_view name;
    std::string_view description;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ModuleStateEvent;
        visit("connection_dn", &View::connection_dn, &Record::connectionDN);
        visit("flags", &View::flags, &Record::flags);
        visit("source_module", &View::source_module, &Record::sourceModule);
        visit("name", &View::name, [](const Record &r) { return std::string_view(r.name); });
        visit("description", &View::description,
              [](const Record &r) { return std::string_view(r.description); });
    }
};

// A network address.
struct NetAddressEvent {
    using Record = EVT_NetAddress;
    static constexpr EventTag tag = EventTag::net_address;
    static constexpr std::string_view layout = "a";

    Address address;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = NetAddressEvent;
        visit("address", &View::address, [](const Record &r) { return detail::view(r); });
    }
};

// A connection changed its state.
struct ConnectionStateEvent {
    using Record = EVT_ChangeConnState;
    static constexpr EventTag tag = EventTag::connection_state;
    static constexpr std::string_view layout = "suus";

    Text connection_dn;
    std::uint32_t old_flags = 0;
    std::uint32_t new_flags = 0;
    Text source_module;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ConnectionStateEvent;
        visit("connection_dn", &View::connection_dn, &Record::connectionDN);
        visit("old_flags", &View::old_flags, &Record::oldFlags);
        visit("new_flags", &View::new_flags, &Record::newFlags);
        visit("source_module", &View::source_module, &Record::sourceModule);
    }
};

// The server's address changed.
struct ServerAddressEvent {
    using Record = EVT_ChangeServerAddr;
    static constexpr EventTag tag = EventTag::server_address;
    static constexpr std::string_view layout = "unnsss";

    std::uint32_t flags = 0;
    std::int32_t protocol = 0;
    std::int32_t address_family = 0;
    Bytes address;
    Text stack_name;
    Text source_module;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ServerAddressEvent;
        visit("flags", &View::flags, &Record::flags);
        visit("protocol", &View::protocol, &Record::proto);
        visit("address_family", &View::address_family, &Record::addrFamily);
        visit("address", &View::address, [](const Record &r) {
            return detail::view_bytes(r.addr, static_cast<std::size_t>(r.addrSize));
        });
        visit("stack_name", &View::stack_name, &Record::pstkname);
        visit("source_module", &View::source_module, &Record::sourceModule);
    }
};

// A configuration parameter changed.
struct ConfigParameterEvent {
    using Record = EVT_ChangeConfigParm;
    static constexpr EventTag tag = EventTag::config_parameter;
    static constexpr std::string_view layout = "nsC";

    std::int32_t type = 0;
    Text name;
    ConfigValue value;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ConfigParameterEvent;
        visit("type", &View::type, &Record::type);
        visit("name", &View::name, &Record::name);
        visit("value", &View::value, [](const Record &r) { return detail::view_config(r); });
    }
};

// A line of the status log.
struct StatusLogEvent {
    using Record = EVT_StatusLogInfo;
    static constexpr EventTag tag = EventTag::status_log;
    static constexpr std::string_view layout = "ussssss";

    std::uint32_t time = 0;
    Text module_name;
    Text message_level;
    Text message_event;
    Text message_code;
    Text message;
    Text status_document;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = StatusLogEvent;
        visit("time", &View::time, &Record::logTime);
        visit("module_name", &View::module_name, &Record::moduleName);
        visit("message_level", &View::message_level, &Record::messageLevel);
        visit("message_event", &View::message_event, &Record::messageEvent);
        visit("message_code", &View::message_code, &Record::messageCode);
        visit("message", &View::message, &Record::messageDesc);
        visit("status_document", &View::status_document, &Record::statusDoc);
    }
};

// A debug message and its arguments.
struct DebugEvent {
    using Record = EVT_DebugInfo;
    static constexpr EventTag tag = EventTag::debug;
    static constexpr std::string_view layout = "uussnnP";

    std::uint32_t time = 0;
    std::uint32_t milliseconds = 0;
    Text perpetrator_dn;
    Text format;
    std::int32_t verb = 0;
    std::vector<DebugParameter> parameters;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = DebugEvent;
        visit("time", &View::time, &Record::dsTime);
        visit("milliseconds", &View::milliseconds, &Record::milliseconds);
        visit("perpetrator_dn", &View::perpetrator_dn, &Record::perpetratorDN);
        visit("format", &View::format, &Record::formatString);
        visit("verb", &View::verb, &Record::verb);
        visit("parameters", &View::parameters,
              [](const Record &r) { return detail::view_parameters(r); });
    }
};

// A bind.
struct AuthenticationEvent {
    using Record = EVT_AuthEventData;
    static constexpr EventTag tag = EventTag::authentication;
    static constexpr std::string_view layout = "cuususnk";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text bind_dn;
    std::uint32_t bind_type = 0;
    Text mechanism;
    std::vector<std::string_view> controls; // their OIDs
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = AuthenticationEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("bind_type", &View::bind_type, &Record::bindType);
        visit("mechanism", &View::mechanism, &Record::authMechanism);
        visit("controls", &View::controls, &Record::controlOID);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// A connection was opened or closed.
struct ConnectionEvent {
    using Record = EVT_ConnectionEventData;
    static constexpr EventTag tag = EventTag::connection;
    static constexpr std::string_view layout = "uus";

    std::uint32_t connection = 0;
    std::uint32_t time = 0;
    Text address;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ConnectionEvent;
        visit("connection", &View::connection, &Record::connection);
        visit("time", &View::time, &Record::time);
        visit("address", &View::address, &Record::inetAddr);
    }
};

// A search.
struct SearchEvent {
    using Record = EVT_SearchEventData;
    static constexpr EventTag tag = EventTag::search;
    static constexpr std::string_view layout = "cuussusnSk";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text bind_dn;
    Text base;
    std::uint32_t scope = 0;
    Text filter;
    std::vector<std::string_view> attributes;
    std::vector<std::string_view> controls;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = SearchEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("base", &View::base, &Record::base);
        visit("scope", &View::scope, &Record::scope);
        visit("filter", &View::filter, &Record::filter);
        visit("attributes", &View::attributes, &Record::attrs);
        visit("controls", &View::controls, &Record::controlOID);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An entry that a search returned.
struct SearchEntryEvent {
    using Record = EVT_SearchEntryResponseEventData;
    static constexpr EventTag tag = EventTag::search_entry;
    static constexpr std::string_view layout = "cuussnS";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text entry_dn;
    Text class_name;
    std::vector<std::string_view> attributes;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = SearchEntryEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("class_name", &View::class_name, &Record::className);
        visit("attributes", &View::attributes, &Record::attrs);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An add, a delete or a modify.
struct UpdateEvent {
    using Record = EVT_UpdateEventData;
    static constexpr EventTag tag = EventTag::update;
    static constexpr std::string_view layout = "cuuusssnk";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    std::uint32_t operation = 0;
    Text bind_dn;
    Text entry_dn;
    Text class_name;
    std::vector<std::string_view> controls;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = UpdateEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("operation", &View::operation, &Record::operation);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("class_name", &View::class_name, &Record::className);
        visit("controls", &View::controls, &Record::controlOID);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// A compare.
struct CompareEvent {
    using Record = EVT_CompareEventData;
    static constexpr EventTag tag = EventTag::compare;
    static constexpr std::string_view layout = "cuusssssn";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text bind_dn;
    Text compare_dn;
    Text assertion_type;
    Text assertion_value;
    Text class_name;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = CompareEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("compare_dn", &View::compare_dn, &Record::compareDN);
        visit("assertion_type", &View::assertion_type, &Record::assertionType);
        visit("assertion_value", &View::assertion_value, &Record::assertionValue);
        visit("class_name", &View::class_name, &Record::className);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// A rename.
struct RenameEvent {
    using Record = EVT_ModDNEventData;
    static constexpr EventTag tag = EventTag::rename;
    static constexpr std::string_view layout = "cuussssnk";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text bind_dn;
    Text old_rdn;
    Text new_rdn;
    Text class_name;
    std::vector<std::string_view> controls;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = RenameEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("old_rdn", &View::old_rdn, &Record::oldRDN);
        visit("new_rdn", &View::new_rdn, &Record::newRDN);
        visit("class_name", &View::class_name, &Record::className);
        visit("controls", &View::controls, &Record::controlOID);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An abandon.
struct AbandonEvent {
    using Record = EVT_AbandonEventData;
    static constexpr EventTag tag = EventTag::abandon;
    static constexpr std::string_view layout = "cuuusn";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    std::uint32_t operation = 0;
    Text bind_dn;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = AbandonEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("operation", &View::operation, &Record::operation);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An extended operation.
struct ExtendedOperationEvent {
    using Record = EVT_ExtOpEventData;
    static constexpr EventTag tag = EventTag::extended_operation;
    static constexpr std::string_view layout = "cuuussn";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    std::uint32_t operation = 0;
    Text extension_oid;
    Text bind_dn;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ExtendedOperationEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("operation", &View::operation, &Record::operation);
        visit("extension_oid", &View::extension_oid, &Record::extensionOID);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An extended operation of the system.
struct SystemExtendedOperationEvent {
    using Record = EVT_SysExtOpEventData;
    static constexpr EventTag tag = EventTag::system_extended_operation;
    static constexpr std::string_view layout = "cuuussssssn";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    std::uint32_t operation = 0;
    Text extension_oid;
    Text bind_dn;
    Text value1;
    Text value2;
    Text value3;
    Text value4;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = SystemExtendedOperationEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("operation", &View::operation, &Record::operation);
        visit("extension_oid", &View::extension_oid, &Record::extensionOID);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("value1", &View::value1, &Record::value1);
        visit("value2", &View::value2, &Record::value2);
        visit("value3", &View::value3, &Record::value3);
        visit("value4", &View::value4, &Record::value4);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// The response to an operation.
struct ResponseEvent {
    using Record = EVT_ResponseEventData;
    static constexpr EventTag tag = EventTag::response;
    static constexpr std::string_view layout = "cuuunsr";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    std::uint32_t operation = 0;
    std::int32_t result_code = 0;
    Text matched_dn;
    std::vector<std::string_view> referrals;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = ResponseEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("operation", &View::operation, &Record::operation);
        visit("result_code", &View::result_code, &Record::resultCode);
        visit("matched_dn", &View::matched_dn, &Record::matchedDN);
        visit("referrals", &View::referrals, &Record::referral);
    }
};

// A password was changed.
struct PasswordModifyEvent {
    using Record = EVT_PasswordModifyEventData;
    static constexpr EventTag tag = EventTag::password_modify;
    static constexpr std::string_view layout = "cuussnn";

    std::optional<Connection> connection;
    std::uint32_t message_id = 0;
    std::uint32_t time = 0;
    Text bind_dn;
    Text entry_dn;
    std::int32_t modify_type = 0;
    std::int32_t result_code = 0;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = PasswordModifyEvent;
        visit("connection", &View::connection, &Record::connectionData);
        visit("message_id", &View::message_id, &Record::msgID);
        visit("time", &View::time, &Record::time);
        visit("bind_dn", &View::bind_dn, &Record::bindDN);
        visit("entry_dn", &View::entry_dn, &Record::entryDN);
        visit("modify_type", &View::modify_type, &Record::passwordModifyType);
        visit("result_code", &View::result_code, &Record::resultCode);
    }
};

// An operation that the server does not know.
struct UnknownOperationEvent {
    using Record = EVT_UnknownEventData;
    static constexpr EventTag tag = EventTag::unknown_operation;
    static constexpr std::string_view layout = "us";

    std::uint32_t time = 0;
    Text address;

    template <class Visit>
    static void fields(Visit &&visit)
    {
        using View = UnknownOperationEvent;
        visit("time", &View::time, &Record::time);
        visit("address", &View::address, &Record::inetAddr);
    }
};

// What an event's data can be.
using EventData =
    std::variant<NoData, EntryEvent, ValueEvent, GeneralEvent, BinderyObjectEvent,
                 ServerToServerEvent, ModuleStateEvent, NetAddressEvent, ConnectionStateEvent,
                 ServerAddressEvent, ConfigParameterEvent, StatusLogEvent, DebugEvent,
                 AuthenticationEvent, ConnectionEvent, SearchEvent, SearchEntryEvent, UpdateEvent,
                 CompareEvent, RenameEvent, AbandonEvent, ExtendedOperationEvent,
                 SystemExtendedOperationEvent, ResponseEvent, PasswordModifyEvent,
                 UnknownOperationEvent>;

// Calls visit(name, value) for each field of a view, in the order of its declaration. The value is
// one of: Text, std::string_view, Bytes, std::uint32_t, std::int32_t, TimeStamp, Address,
// std::optional<Connection>, ConfigValue, and arrays and vectors of numbers, Text,
// std::string_view, Referral and DebugParameter.
template <class View, class Visitor>
void for_each_field(const View &view, Visitor &&visit)
{
    View::fields(
        [&](std::string_view name, auto member, const auto &) { visit(name, view.*member); });
}

namespace detail {

// A record seen through its view.
template <class View>
EventData view_of(const void *record)
{
    const auto &shown = *static_cast<const typename View::Record *>(record);
    View made;
    View::fields([&](std::string_view, auto member, const auto &source) {
        if constexpr (std::is_member_object_pointer_v<std::remove_cvref_t<decltype(source)>>)
            made.*member = view(shown.*source);
        else
            made.*member = source(shown);
    });
    return made;
}

// What is known of a kind of event.
struct EventKind {
    EventTag tag;
    std::string_view layout;
    EventData (*view)(const void *record);
};

template <std::size_t... Index>
constexpr auto make_event_kinds(std::index_sequence<Index...>)
{
    return std::array{EventKind{std::variant_alternative_t<Index + 1, EventData>::tag,
                                std::variant_alternative_t<Index + 1, EventData>::layout,
                                view_of<std::variant_alternative_t<Index + 1, EventData>>}...};
}
// All that have a view, NoData left out.
inline constexpr std::array event_kinds =
    make_event_kinds(std::make_index_sequence<std::variant_size_v<EventData> - 1>());

// A null pointer for a tag of which nothing is known.
constexpr const EventKind *event_kind(EventTag tag)
{
    for (const EventKind &kind : event_kinds)
        if (kind.tag == tag)
            return &kind;
    return nullptr;
}

} // namespace detail

} // namespace greirige
