// The events that monitors can ask for. The numbers are the sandbox's own.
#pragma once

#include "ber.h"

#include <array>
#include <string_view>

namespace sandbox {

enum EventType : int {
    any_event = 0, // as a specifier: every type but those that are marked "on request"

    entry_added = 1,
    entry_deleted = 2,
    entry_renamed = 3,
    entry_moved = 4,
    entry_modified = 5,
    value_added = 10,
    value_deleted = 11,
    monitor_started = 20,
    monitor_ended = 21,

    skulk_event = 30,
    bindery_object_event = 31,
    server_to_server_event = 32,
    module_state_event = 33,
    net_address_event = 34,
    connection_state_event = 35,
    server_address_event = 36,
    config_parameter_event = 37,
    status_log_event = 38,
    debug_event = 39,
    recordless_6a_event = 40,
    recordless_6b_event = 41,
    recordless_6e_event = 42,

    bind_event = 100,
    connection_opened = 101,
    connection_closed = 102,
    search_event = 103,
    search_entry_event = 104,
    add_event = 105,
    delete_event = 106,
    modify_event = 107,
    compare_event = 108,
    rename_event = 109,
    abandon_event = 110,
    extended_event = 111,
    system_extended_event = 112,
    response_event = 113,
    password_event = 114,
    unknown_operation_event = 115,
};

struct EventKind {
    EventType type;
    ber::Tag tag; // of its record
    std::string_view name;
    bool on_request = false; // there are very many of them, or few care
};

inline constexpr EventKind event_kinds[] = {
    {entry_added, 0x61, "entry-add"},
    {entry_deleted, 0x61, "entry-delete"},
    {entry_renamed, 0x61, "entry-rename"},
    {entry_moved, 0x61, "entry-move"},
    {entry_modified, 0x61, "entry-modify"},
    {value_added, 0x62, "value-add"},
    {value_deleted, 0x62, "value-delete"},
    {monitor_started, 0x63, "monitor-start", true},
    {monitor_ended, 0x63, "monitor-end", true},
    {skulk_event, 0x64, "skulk"},
    {bindery_object_event, 0x65, "bindery-object"},
    {server_to_server_event, 0x66, "server-to-server"},
    {module_state_event, 0x67, "module-state"},
    {net_address_event, 0x68, "net-address"},
    {connection_state_event, 0x69, "connection-state"},
    {recordless_6a_event, 0x6a, "recordless-6a"},
    {recordless_6b_event, 0x6b, "recordless-6b"},
    {server_address_event, 0x6c, "server-address"},
    {config_parameter_event, 0x6d, "config-parameter"},
    {recordless_6e_event, 0x6e, "recordless-6e"},
    {status_log_event, 0x6f, "status-log"},
    {debug_event, 0x70, "debug"},
    {bind_event, 0x71, "bind"},
    {connection_opened, 0x72, "connection-open"},
    {connection_closed, 0x72, "connection-close"},
    {search_event, 0x73, "search"},
    {search_entry_event, 0x74, "search-entry", true},
    {add_event, 0x75, "add"},
    {delete_event, 0x75, "delete"},
    {modify_event, 0x75, "modify"},
    {compare_event, 0x76, "compare"},
    {rename_event, 0x77, "rename"},
    {abandon_event, 0x78, "abandon"},
    {extended_event, 0x79, "extended"},
    {system_extended_event, 0x7a, "system-extended"},
    {response_event, 0x7b, "response", true},
    {password_event, 0x7c, "password"},
    {unknown_operation_event, 0x7d, "unknown-operation"},
};
inline constexpr int highest_event_type = unknown_operation_event;

// nullptr for a number that is no type of ours.
constexpr const EventKind *find_event_kind(int type)
{
    for (const EventKind &kind : event_kinds)
        if (kind.type == type)
            return &kind;
    return nullptr;
}

// Which results a specifier asks for: its status selector.
enum EventStatus : int { any_result = 0, successes_only = 1, failures_only = 2 };

} // namespace sandbox
