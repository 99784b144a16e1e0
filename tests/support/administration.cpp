#define LDAP_DEPRECATED 1 // ldap_value_free
#include "support/administration.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace support {

namespace {

// Marks. The text and list marks are addresses that no operation can hand out.
constexpr int unwritten = -77;
char unwritten_text[] = "unwritten";
char *unwritten_list[] = {nullptr};

LDAPReplicaInfo unwritten_info()
{
    LDAPReplicaInfo info{
        unwritten, unwritten, unwritten, unwritten, unwritten, "", LDAP_REPLICA_TYPE{unwritten},
        unwritten};
    std::memset(info.namingContextDN, '~', sizeof info.namingContextDN);
    return info;
}

void say(std::string &text, const std::string &name, const std::string &value)
{
    text += (text.empty() ? "" : " ") + name + '=' + value;
}

void say_number(std::string &text, const std::string &name, int value)
{
    if (value != unwritten)
        say(text, name, std::to_string(value));
}

template <class Items>
std::string bracketed(const Items &items)
{
    std::string text;
    for (const std::string &item : items)
        text += (text.empty() ? "" : ", ") + item;
    return '[' + text + ']';
}

// The arguments. The C interface takes char *, so they are arrays.
char dn[] = "o=x";
char server[] = "cn=srv";
char other_server[] = "cn=two";
char attribute[] = "cn";
char second_attribute[] = "sn";
char *attributes[] = {attribute, second_attribute, nullptr};
char dns_name[] = "x.example";
unsigned short native_name[] = {0x0041, 0x20ac, 0xfffe, 0};

} // namespace

Outputs::Outputs()
    : info(unwritten_info()), text(unwritten_text), list(unwritten_list), count(unwritten)
{
    std::fill(std::begin(numbers), std::end(numbers), unwritten);
}

Outputs::~Outputs()
{
    release();
}

void Outputs::release()
{
    if (text != unwritten_text)
        ldapx_memfree(text);
    if (list != unwritten_list)
        ldap_value_free(list);
    text = unwritten_text;
    list = unwritten_list;
}

std::string Outputs::describe() const
{
    std::string said;
    say_number(said, "info.rootID", info.rootID);
    say_number(said, "info.state", info.state);
    say_number(said, "info.modificationTime", info.modificationTime);
    say_number(said, "info.purgeTime", info.purgeTime);
    say_number(said, "info.localReplicaID", info.localReplicaID);
    if (info.namingContextDN[0] != '~')
        say(said, "info.namingContextDN", info.namingContextDN);
    say_number(said, "info.replicaType", info.replicaType);
    say_number(said, "info.flags", info.flags);
    if (text != unwritten_text)
        say(said, "text", text == nullptr ? "NULL" : text);
    if (list != unwritten_list) {
        std::vector<std::string> names;
        for (char **name = list; name != nullptr && *name != nullptr; ++name)
            names.emplace_back(*name);
        say(said, "list", list == nullptr ? "NULL" : bracketed(names));
    }
    std::vector<std::string> written;
    for (int number : numbers)
        written.push_back(number == unwritten ? "-" : std::to_string(number));
    while (!written.empty() && written.back() == "-")
        written.pop_back();
    if (!written.empty())
        say(said, "numbers", bracketed(written));
    say_number(said, "count", count);
    return said;
}

std::string admin_name(int number)
{
    return "2.16.840.1.424242.1.27.100." + std::to_string(number);
}

const std::vector<Operation> &operations()
{
    static const std::string replica_info =
        concat(integer(1), integer(2), integer(3), integer(4), integer(5), octets("o=x"),
               integer(4), integer(-7));
    static const std::string replica_info_seen =
        "info.rootID=1 info.state=2 info.modificationTime=3 info.purgeTime=4 "
        "info.localReplicaID=5 info.namingContextDN=o=x info.replicaType=4 info.flags=-7";
    static const std::string filter =
        sequence(sequence(octets("inetOrgPerson"), sequence(octets("cn"), octets("sn"))),
                 sequence(octets("group"), sequence()));
    static const std::string privileges =
        sequence(sequence(integer(2)), set(sequence(integer(5)), sequence(integer(-1))));
    static const auto list_request =
        concat(octets("cn=srv"), octets("o=x"), request_sequence(octets("cn"), octets("sn")));
    static const auto filter_request =
        concat(octets("cn=srv"),
               request_sequence(request_sequence(octets("inetOrgPerson"),
                                                 request_sequence(octets("cn"), octets("sn"))),
                                request_sequence(octets("group"), request_sequence())));

    static const std::vector<Operation> table = {
        // Replicas
        {"ldap_add_replica", admin_name(7), admin_name(8),
         concat(integer(9), integer(2), octets("cn=srv"), octets("o=x")),
         [](LDAP *ld, Outputs &) {
             return ldap_add_replica(ld, dn, server, LDAP_RT_READONLY, 9);
         }},
        {"ldap_remove_replica", admin_name(11), admin_name(12),
         concat(integer(9), octets("cn=srv"), octets("o=x")),
         [](LDAP *ld, Outputs &) {
             return ldap_remove_replica(ld, dn, server, 9);
         }},
        {"ldap_change_replica_type", admin_name(15), admin_name(16),
         concat(integer(9), integer(4), octets("cn=srv"), octets("o=x")),
         [](LDAP *ld, Outputs &) {
             return ldap_change_replica_type(ld, dn, server, LDAP_RT_SPARSE_WRITE, 9);
         }},
        {"ldap_get_replica_info", admin_name(17), admin_name(18),
         concat(octets("cn=srv"), octets("o=x")),
         [](LDAP *ld, Outputs &out) { return ldap_get_replica_info(ld, dn, server, &out.info); },
         replica_info, replica_info_seen},
        {"ldap_get_replica_info_ext", admin_name(17), admin_name(18),
         concat(octets("cn=srv"), octets("o=x")),
         [](LDAP *ld, Outputs &out) {
             return ldap_get_replica_info_ext(ld, dn, server, &out.info, &out.text);
         },
         replica_info, replica_info_seen + " text=o=x"},
        {"ldap_list_replicas", admin_name(19), admin_name(20), octets("cn=srv"),
         [](LDAP *ld, Outputs &out) { return ldap_list_replicas(ld, server, &out.list); },
         sequence(octets("o=x"), octets(""), octets("o=y")), "list=[o=x, , o=y]"},

        // Synchronisation
        {"ldap_receive_all_updates", admin_name(21), admin_name(22),
         concat(octets("o=x"), octets("cn=srv"), octets("cn=two")),
         [](LDAP *ld, Outputs &) {
             return ldap_receive_all_updates(ld, dn, server, other_server);
         }},
        {"ldap_send_all_updates", admin_name(23), admin_name(24),
         concat(octets("o=x"), octets("cn=srv")),
         [](LDAP *ld, Outputs &) {
             return ldap_send_all_updates(ld, dn, server);
         }},
        {"ldap_request_partition_sync", admin_name(25), admin_name(26),
         concat(octets("cn=srv"), octets("o=x"), integer(300)),
         [](LDAP *ld, Outputs &) {
             return ldap_request_partition_sync(ld, server, dn, 300);
         }},
        {"ldap_request_naming_context_sync", admin_name(25), admin_name(26),
         concat(octets("cn=srv"), octets("o=x"), integer(300)),
         [](LDAP *ld, Outputs &) {
             return ldap_request_naming_context_sync(ld, server, dn, 300);
         }},
        {"ldap_request_schema_sync", admin_name(27), admin_name(28),
         concat(octets("o=x"), integer(300)),
         [](LDAP *ld, Outputs &) {
             return ldap_request_schema_sync(ld, dn, 300);
         }},

        // Replication filter
        {"ldap_set_replication_filter", admin_name(35), admin_name(36), filter_request,
         [](LDAP *ld, Outputs &) {
             return ldap_set_replication_filter(ld, server, "inetOrgPerson$cn$sn$$group$$$");
         }},
        {"ldap_get_replication_filter", admin_name(37), admin_name(38), octets("cn=srv"),
         [](LDAP *ld, Outputs &out) { return ldap_get_replication_filter(ld, server, &out.text); },
         filter, "text=inetOrgPerson$cn$sn$$group$$$", 0x54, true},

        // Identity and privileges
        {"ldap_get_bind_dn", admin_name(31), admin_name(32), std::nullopt,
         [](LDAP *ld, Outputs &out) { return ldap_get_bind_dn(ld, &out.text); },
         octets("cn=admin,o=x"), "text=cn=admin,o=x"},
        {"ldap_get_context_identity_name", admin_name(31), admin_name(32), std::nullopt,
         [](LDAP *ld, Outputs &out) { return ldap_get_context_identity_name(ld, &out.text); },
         octets("cn=admin,o=x"), "text=cn=admin,o=x"},
        {"ldap_get_effective_privileges", admin_name(33), admin_name(34),
         concat(octets("o=x"), octets("cn=srv"), octets("cn")),
         [](LDAP *ld, Outputs &out) {
             return ldap_get_effective_privileges(ld, dn, server, attribute, &out.numbers[0]);
         },
         integer(-19), "numbers=[-19]"},
        {"ldap_get_effective_privileges_list", admin_name(103), admin_name(104), list_request,
         [](LDAP *ld, Outputs &out) {
             return ldap_get_effective_privileges_list(ld, server, dn, attributes, out.numbers);
         },
         privileges, "numbers=[5, -1]"},
        {"ldap_get_effective_privileges_list_ext", admin_name(103), admin_name(104), list_request,
         [](LDAP *ld, Outputs &out) {
             return ldap_get_effective_privileges_list_ext(ld, server, dn, attributes, out.numbers,
                                                           2, &out.count);
         },
         privileges, "numbers=[5, -1] count=2"},
        {"ldap_refresh_server", admin_name(9), admin_name(10), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return ldap_refresh_server(ld);
         }},

        // Name conversion
        {"ldap_zil_to_ldap", admin_name(1), admin_name(2), octets(bytes("0041 20ac fffe 0000")),
         [](LDAP *ld, Outputs &out) { return ldap_zil_to_ldap(ld, native_name, &out.text); },
         octets("cn=native"), "text=cn=native"},
        {"ldap_dns_to_x500_dn", admin_name(101), admin_name(102), octets("x.example"),
         [](LDAP *ld, Outputs &out) { return ldap_dns_to_x500_dn(ld, dns_name, &out.text); },
         octets("dc=x,dc=example"), "text=dc=x,dc=example"},

        // Background processes
        {"wrapper_ldap_trigger_backlink", admin_name(43), admin_name(44), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_backlink(ld);
         }},
        {"wrapper_ldap_trigger_janitor", admin_name(47), admin_name(48), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_janitor(ld);
         }},
        {"wrapper_ldap_trigger_limber", admin_name(49), admin_name(50), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_limber(ld);
         }},
        {"wrapper_ldap_trigger_skulker", admin_name(51), admin_name(52), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_skulker(ld);
         }},
        {"wrapper_ldap_trigger_schema_sync", admin_name(53), admin_name(54), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_schema_sync(ld);
         }},
        {"wrapper_ldap_trigger_partition_purge", admin_name(55), admin_name(56), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return wrapper_ldap_trigger_partition_purge(ld);
         }},
        {"ldap_trigger_back_process", admin_name(49), admin_name(50), std::nullopt,
         [](LDAP *ld, Outputs &) {
             return ldap_trigger_back_process(ld, 3);
         }},
    };
    return table;
}

const Operation &operation(const std::string &function)
{
    const auto &table = operations();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const Operation &row) { return row.function == function; });
    if (found == table.end())
        throw std::invalid_argument("no operation " + function);
    return *found;
}

} // namespace support
