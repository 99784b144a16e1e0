#include "event_samples.h"

#include "ldap_events.h"

namespace sandbox {

namespace {

constexpr std::uint32_t sample_time = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr TimeStamp stamp{sample_time, 1, 7};
constexpr char admin[] = "cn=admin,dc=example,dc=com";
constexpr char person[] = "uid=jsmith,ou=people,dc=example,dc=com";
constexpr char renamed[] = "uid=john.smith,ou=people,dc=example,dc=com";
constexpr char moved[] = "uid=jsmith,ou=sales,dc=example,dc=com";
constexpr char server[] = "cn=server1,ou=servers,dc=example,dc=com";
constexpr std::string_view address("\x7f\0\0\1", 4);

Record entry(EventType type, const char *new_dn)
{
    return encode_entry(type, {admin, person, "inetOrgPerson", stamp, new_dn});
}

Record value(EventType type)
{
    return encode_value(type, {admin, person, "telephoneNumber", "1.3.6.1.4.1.1466.115.121.1.50",
                               "inetOrgPerson", stamp, "+49 30 123456"});
}

Record general(EventType type)
{
    return encode_general(
        type, {sample_time, 250, 42, admin, {1, 2, 3, 4}, {"first", "second", "third"}});
}

Record server_to_server()
{
    const std::string referral = ber::sequence(ber::integer(ipv4_address), ber::octets(address));
    return Record(EVT_TAG_SEV_INFO)
        .text("entryDN", person)
        .number("retryCount", 3)
        .text("valueDN", server)
        .raw(ber::sequence(ber::integer(2), ber::sequence(referral, referral)));
}

Record debug()
{
    const auto time_stamp = [](ber::Tag tag) {
        return ber::constructed(tag, ber::integer(stamp.seconds), ber::integer(stamp.replica),
                                ber::integer(stamp.event));
    };
    const std::string text = ber::octets("text", 0x82);
    return Record(EVT_TAG_DEBUG_INFO)
        .number("dstime", sample_time)
        .number("milliseconds", 250)
        .text("perpetratorDN", admin)
        .text("formatString", "%d %s %b %i %a %t %v")
        .number("verb", debug_event)
        .number("paramCount", 7)
        .raw(ber::sequence(ber::integer(1, 0x81), text,
                           ber::octets(std::string_view("\0\1\2", 3), 0x83), ber::integer(4, 0x84),
                           ber::constructed(0x85, ber::integer(ipv4_address), ber::octets(address)),
                           time_stamp(0x86),
                           ber::constructed(0x87, ber::integer(2),
                                            ber::sequence(time_stamp(ber::sequence_tag),
                                                          time_stamp(ber::sequence_tag)))));
}

Record sample(EventType type, const Origin &origin)
{
    const Client &client = *origin.client;
    const std::vector<std::string> controls = {"2.16.840.1.113730.3.4.2"};
    switch (type) {
    case entry_added:
    case entry_deleted:
    case entry_modified:
        return entry(type, "");
    case entry_renamed:
        return entry(type, renamed);
    case entry_moved:
        return entry(type, moved);
    case value_added:
    case value_deleted:
        return value(type);
    case monitor_started:
    case monitor_ended:
        return general(type);
    case skulk_event:
        return Record(EVT_TAG_SKULK);
    case bindery_object_event:
        return Record(EVT_TAG_BINDERY_OBJECT)
            .text("entryDN", person)
            .number("type", 1)
            .number("emuObjFlags", 2)
            .number("security", 0x31)
            .text("name", "JSMITH");
    case server_to_server_event:
        return server_to_server();
    case module_state_event:
        return Record(EVT_TAG_MODULE_STATE)
            .text("connectionDN", server)
            .number("flags", 1)
            .text("name", "sample.module")
            .text("description", "a module that was loaded")
            .text("sourceModule", "loader");
    case net_address_event:
        return Record(EVT_TAG_NET_ADDRESS).number("type", ipv4_address).text("data", address);
    case connection_state_event:
        return Record(EVT_TAG_CONN_STATE)
            .text("connectionDN", server)
            .number("oldFlags", 1)
            .number("newFlags", 3)
            .text("sourceModule", "connections");
    case server_address_event:
        return Record(EVT_TAG_CHANGE_SERVER_ADDR)
            .number("flags", 1)
            .number("proto", 6)
            .number("addrFamily", 2)
            .text("addr", address)
            .text("pstkname", "tcp")
            .text("sourceModule", "listener");
    case config_parameter_event:
        return Record(EVT_TAG_CHANGE_CONFIG_PARAM)
            .number("type", 3)
            .text("name", "logLevel")
            .text("value", "verbose", 0x84);
    case status_log_event:
        return Record(EVT_TAG_STATUS_LOG)
            .number("logTime", sample_time)
            .text("moduleName", "sandbox")
            .text("messageLevel", "information")
            .text("messageEvent", "start")
            .text("messageCode", "S-1")
            .text("messageDesc", "the sandbox has started")
            .text("statusDoc", "ready");
    case debug_event:
        return debug();
    case bind_event:
        return encode_bind(origin, LDAP_AUTH_SASL & 0x1f, "SCRAM-SHA-1", LDAP_SUCCESS, controls);
    case connection_opened:
    case connection_closed:
        return encode_connection(client, sample_time);
    case search_event:
        return encode_search(
            origin, {"dc=example,dc=com", LDAP_SCOPE_SUBTREE, "(uid=j*)", {"cn", "mail"}, controls},
            LDAP_SUCCESS);
    case search_entry_event:
        return encode_search_entry(origin, person, "inetOrgPerson", {"cn", "mail"});
    case add_event:
        return encode_update(origin, LDAP_REQ_ADD, person, "inetOrgPerson", LDAP_SUCCESS, controls);
    case delete_event:
        return encode_update(origin, LDAP_REQ_DELETE, person, "inetOrgPerson", LDAP_SUCCESS,
                             controls);
    case modify_event:
        return encode_update(origin, LDAP_REQ_MODIFY, person, "inetOrgPerson", LDAP_SUCCESS,
                             controls);
    case compare_event:
        return encode_compare(origin, {person, "sn", "Smith", "inetOrgPerson"}, LDAP_COMPARE_TRUE);
    case rename_event:
        return encode_rename(origin, "uid=jsmith", "uid=john.smith", "inetOrgPerson", LDAP_SUCCESS,
                             controls);
    case abandon_event:
        return encode_abandon(origin, 7, LDAP_SUCCESS);
    case extended_event:
        return encode_extended(origin, LDAP_EXOP_WHO_AM_I, LDAP_SUCCESS);
    case system_extended_event:
        return encode_system_extended(origin, 3, LDAPX_SPLIT_PARTITION_REQUEST,
                                      {"0", "ou=people,dc=example,dc=com", "third", "fourth"},
                                      LDAP_SUCCESS);
    case response_event:
        return encode_response(origin, LDAP_REQ_SEARCH, LDAP_SUCCESS, "dc=example,dc=com",
                               {"ldap://127.0.0.1:3890/ou=people,dc=example,dc=com"});
    case password_event:
        return encode_password(origin, person, 1, LDAP_SUCCESS);
    case unknown_operation_event:
        return encode_unknown_operation(client, sample_time);
    case recordless_6a_event:
    case recordless_6b_event:
    case recordless_6e_event:
    case any_event:
        break;
    }
    return Record(find_event_kind(type)->tag);
}

} // namespace

std::vector<Event> sample_events(const std::shared_ptr<const Client> &client)
{
    const Origin origin{client, sample_time, 9, sample_time, admin};
    std::vector<Event> events;
    for (const EventKind &kind : event_kinds) {
        const int result = kind.type == compare_event ? LDAP_COMPARE_TRUE : LDAP_SUCCESS;
        events.push_back({kind.type, result, sample(kind.type, origin), client, admin, person});
    }
    return events;
}

} // namespace sandbox
