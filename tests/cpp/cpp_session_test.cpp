// The synchronous operations of the C++ layer against the scripted peer: the request that each
// sends, the value that it gives, and what it makes of refusals, garbage and silence.

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "greirige.hpp"
#include "support/ber.h"
#include "support/peer.h"

using namespace greirige;
using namespace support;
using namespace std::chrono_literals;
using std::string;

// AddressSanitizer ends the process at a size that malloc() would refuse; a server may ask for it.
extern "C" const char *__asan_default_options() // NOLINT
{
    return "allocator_may_return_null=1";
}

namespace {

string oid(int number)
{
    return "2.16.840.1.424242.1.27.100." + std::to_string(number);
}

string shown(const string &value)
{
    return value;
}
string shown(std::uint32_t value)
{
    return std::to_string(value);
}
string shown(int value)
{
    return std::to_string(value);
}
string shown(const std::vector<string> &values)
{
    string line;
    for (const string &value : values)
        line += value + ";";
    return line;
}
string shown(const std::vector<FilterClass> &classes)
{
    string line;
    for (const FilterClass &entry : classes)
        line += entry.name + "(" + shown(entry.attributes) + ")";
    return line;
}
string shown(const std::vector<AttributeRights> &rights)
{
    string line;
    for (const AttributeRights &entry : rights)
        line += entry.attribute + "=" + std::to_string(entry.privileges) + ";";
    return line;
}
string shown(const Backup &backup)
{
    return backup.state + " " + hex(backup.data) + " " + chunk_list(backup);
}
string shown(const ReplicaInfo &info)
{
    return std::to_string(info.root_id) + " " + std::to_string(info.state) + " " +
           std::to_string(info.modification_time) + " " + std::to_string(info.purge_time) + " " +
           std::to_string(info.local_replica_id) + " " + info.partition_dn + " " +
           string(to_string(info.type)) + " " + std::to_string(info.flags);
}

template <class T>
Result<string> described(Result<T> result)
{
    return std::move(result).transform([](const T &value) { return shown(value); });
}
Result<string> described(Result<void> result)
{
    return std::move(result).transform([] { return string("done"); });
}

// One operation: the call, its names (the response's is the next number), the request value, and
// for those that answer a response value with what becomes of it.
struct Row {
    string name;
    std::function<Result<string>(Session)> call;
    int request;
    std::optional<string> value;
    std::optional<string> answer = std::nullopt;
    string outcome = "done";
    int undecodable = LDAPX_ENCODING_ERROR;
    bool any_name = false;
    // Backup and restore say so of everything but a response of the right name.
    bool only_not_supported = false;
};

void PrintTo(const Row &row, std::ostream *stream)
{
    *stream << row.name;
}

string request_sequence(const string &content)
{
    return element(0x30, content, 4);
}

const std::vector<FilterClass> two_classes{{"inetOrgPerson", {"cn", "sn"}}, {"group", {}}};

string two_classes_value(string (*wrap)(const string &))
{
    return wrap(wrap(octets("inetOrgPerson") + wrap(octets("cn") + octets("sn"))) +
                wrap(octets("group") + wrap("")));
}
string response_sequence(const string &content)
{
    return sequence(content);
}

const std::vector<Row> &rows()
{
    static const std::vector<Row> table{
        {"split_partition", [](Session s) { return described(s.split_partition("ou=a", 3)); }, 3,
         integer(3) + octets("ou=a")},
        {"merge_partitions", [](Session s) { return described(s.merge_partitions("ou=a")); }, 5,
         integer(0) + octets("ou=a")},
        {"abort_partition_operation",
         [](Session s) { return described(s.abort_partition_operation("ou=a", -1)); }, 29,
         integer(-1) + octets("ou=a")},
        {"partition_entry_count",
         [](Session s) { return described(s.partition_entry_count("ou=a")); }, 13, octets("ou=a"),
         integer(70000), "70000"},
        {"split_orphan_partition",
         [](Session s) { return described(s.split_orphan_partition("ou=a", Server("cn=s"))); }, 39,
         octets("cn=s") + octets("ou=a")},
        {"remove_orphan_partition",
         [](Session s) { return described(s.remove_orphan_partition("ou=a", Server("cn=s"))); }, 41,
         octets("cn=s") + octets("ou=a")},
        {"add_replica",
         [](Session s) {
             return described(s.add_replica("ou=a", Server("cn=s"), ReplicaType::sparse_read, 9));
         },
         7, integer(9) + integer(5) + octets("cn=s") + octets("ou=a")},
        {"remove_replica",
         [](Session s) { return described(s.remove_replica("ou=a", Server("cn=s"), 4)); }, 11,
         integer(4) + octets("cn=s") + octets("ou=a")},
        {"change_replica_type",
         [](Session s) {
             return described(s.change_replica_type("ou=a", Server("cn=s"), ReplicaType::master));
         },
         15, integer(0) + integer(0) + octets("cn=s") + octets("ou=a")},
        {"replica_info",
         [](Session s) { return described(s.replica_info("ou=a", Server("cn=s"))); }, 17,
         octets("cn=s") + octets("ou=a"),
         concat(integer(1), integer(2), integer(3), integer(4), integer(5),
                octets(string(900, 'o')), integer(2), integer(-6)),
         "1 2 3 4 5 " + string(900, 'o') + " read-only -6"},
        {"list_replicas", [](Session s) { return described(s.list_replicas(Server("cn=s"))); }, 19,
         octets("cn=s"), sequence(octets("ou=a"), octets("ou=b")), "ou=a;ou=b;"},
        {"receive_all_updates",
         [](Session s) {
             return described(s.receive_all_updates("ou=a", Server("cn=t"), Origin("cn=f")));
         },
         21, octets("ou=a") + octets("cn=t") + octets("cn=f")},
        {"send_all_updates",
         [](Session s) { return described(s.send_all_updates("ou=a", Origin("cn=f"))); }, 23,
         octets("ou=a") + octets("cn=f")},
        {"request_partition_sync",
         [](Session s) { return described(s.request_partition_sync("ou=a", Server("cn=s"), 60)); },
         25, octets("cn=s") + octets("ou=a") + integer(60)},
        {"request_schema_sync",
         [](Session s) { return described(s.request_schema_sync("ou=a", 60)); }, 27,
         octets("ou=a") + integer(60)},
        {"set_replication_filter",
         [](Session s) { return described(s.set_replication_filter(Server("cn=s"), two_classes)); },
         35, octets("cn=s") + two_classes_value(request_sequence)},
        {"replication_filter",
         [](Session s) { return described(s.replication_filter(Server("cn=s"))); }, 37,
         octets("cn=s"), two_classes_value(response_sequence), "inetOrgPerson(cn;sn;)group()",
         LDAPX_DECODING_ERROR, true},
        {"replication_filter_text",
         [](Session s) { return described(s.replication_filter_text(Server("cn=s"))); }, 37,
         octets("cn=s"), two_classes_value(response_sequence), "inetOrgPerson$cn$sn$$group$$$",
         LDAPX_DECODING_ERROR, true},
        {"bind_dn", [](Session s) { return described(s.bind_dn()); }, 31, std::nullopt,
         octets("cn=me"), "cn=me"},
        {"effective_privileges",
         [](Session s) {
             return described(s.effective_privileges("ou=a", Subject("cn=me"), "sn"));
         },
         33, octets("ou=a") + octets("cn=me") + octets("sn"), integer(-5), "-5"},
        {"effective_privileges_list",
         [](Session s) {
             return described(s.effective_privileges_list("ou=a", Subject("cn=me"), {"cn", "sn"}));
         },
         103, octets("cn=me") + octets("ou=a") + request_sequence(octets("cn") + octets("sn")),
         sequence(sequence(integer(2)), set(sequence(integer(6)), sequence(integer(7)))),
         "cn=6;sn=7;"},
        {"dn_from_native", [](Session s) { return described(s.dn_from_native(u"A\u0142")); }, 1,
         octets(bytes("00 41 01 42 00 00")), octets("cn=A"), "cn=A"},
        {"dn_from_dns", [](Session s) { return described(s.dn_from_dns("a.x")); }, 101,
         octets("a.x"), octets("dc=a,dc=x"), "dc=a,dc=x"},
        {"trigger",
         [](Session s) { return described(s.trigger(BackgroundProcess::partition_purge)); }, 55,
         std::nullopt},
        {"refresh_server", [](Session s) { return described(s.refresh_server()); }, 9,
         std::nullopt},
        {"backup_object",
         [](Session s) { return described(s.backup_object("cn=a", Password("pw"), "17+2")); }, 96,
         octets("cn=a") + integer(17) + integer(2) + octets("pw"),
         concat(integer(4), integer(18), integer(3), octets(string("a\0b\xff", 4)),
                sequence(integer(2), set(sequence(integer(1)), sequence(integer(3))))),
         "18+3 61 00 62 ff 2;1;3;", LDAPX_DECODING_ERROR, false, true},
        {"restore_object",
         [](Session s) {
             return described(
                 s.restore_object("cn=a", Password("pw"), {"18+3", string("a\0b\xff", 4), {1, 3}}));
         },
         98,
         concat(octets("cn=a"), octets("pw"), integer(4), octets(string("a\0b\xff", 4)),
                request_sequence(
                    integer(2) +
                    element(0x31, request_sequence(integer(1)) + request_sequence(integer(3)), 4))),
         std::nullopt, "done", 0, false, true},
    };
    return table;
}

std::vector<Row> readers()
{
    std::vector<Row> those;
    for (const Row &row : rows())
        if (row.answer)
            those.push_back(row);
    return those;
}

struct NameOfRow {
    template <class Info>
    string operator()(const Info &info) const
    {
        return info.param.name;
    }
};

class EveryOperation : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(Of, EveryOperation, testing::ValuesIn(rows()), NameOfRow());
class EveryReader : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(Of, EveryReader, testing::ValuesIn(readers()), NameOfRow());

Result<string> answered(const Row &row, const Response &response)
{
    Peer peer;
    peer.respond(response);
    return row.call(Session(peer.ld()));
}

} // namespace

TEST_P(EveryOperation, sends_its_request_and_gives_its_value)
{
    const Row &row = GetParam();
    Peer peer;
    peer.respond({.name = oid(row.request + 1), .value = row.answer});
    Result<string> result = row.call(Session(peer.ld()));
    ASSERT_TRUE(result) << to_string(result.error());
    EXPECT_EQ(*result, row.outcome);

    Request request = peer.take_request();
    EXPECT_EQ(request.name, oid(row.request));
    ASSERT_EQ(request.value.has_value(), row.value.has_value());
    EXPECT_EQ(hex(request.value.value_or("")), hex(row.value.value_or("")));
    EXPECT_TRUE(peer.quiet());
}

TEST_P(EveryOperation, reports_a_refusal_with_the_server_s_own_words)
{
    Result<string> result = answered(GetParam(), {.code = LDAP_NO_SUCH_OBJECT,
                                                  .name = oid(GetParam().request + 1),
                                                  .diagnostic = "no such entry",
                                                  .matched_dn = "o=x"});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(),
              (Error{LDAP_NO_SUCH_OBJECT, "No such object",
                     GetParam().name == "replication_filter_text" ? "replication_filter"
                                                                  : GetParam().name,
                     "no such entry", "o=x"}));
}

TEST_P(EveryOperation, takes_no_response_without_its_name)
{
    const Row &row = GetParam();
    EXPECT_EQ(answered(row, {.value = row.answer}).error().code, LDAPX_NOT_SUPPORTED);
    Result<string> other = answered(row, {.name = oid(row.request + 1) + "0", .value = row.answer});
    if (row.any_name)
        EXPECT_EQ(other.value(), row.outcome);
    else
        EXPECT_EQ(other.error().code, LDAPX_NOT_SUPPORTED);
}

TEST_P(EveryOperation, ends_with_an_error_when_nothing_comes)
{
    Peer silent;
    silent.set_timeout(20ms);
    const auto expected = [](int code) {
        return GetParam().only_not_supported ? LDAPX_NOT_SUPPORTED : code;
    };
    EXPECT_EQ(GetParam().call(Session(silent.ld())).error().code, expected(LDAP_TIMEOUT));

    Peer closed;
    closed.close();
    EXPECT_EQ(GetParam().call(Session(closed.ld())).error().code, expected(LDAP_SERVER_DOWN));
}

TEST_P(EveryOperation, ends_with_an_error_on_garbage)
{
    Peer peer;
    peer.set_timeout(50ms);
    peer.send(bytes("30 0c 02 01 01 78 07 0a 01 00 04 00 04 05"));
    peer.finish();
    EXPECT_FALSE(GetParam().call(Session(peer.ld())));
}

TEST_P(EveryOperation, refuses_a_null_session)
{
    Result<string> result = GetParam().call(Session(nullptr));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, LDAPX_PARAM_ERROR);
    EXPECT_EQ(result.error().text, "the session is a null pointer");
}

TEST_P(EveryOperation, does_not_take_words_of_an_earlier_failure_for_its_own)
{
    Peer peer;
    peer.respond({.code = LDAP_BUSY, .diagnostic = "earlier", .matched_dn = "o=earlier"});
    ASSERT_FALSE(Session(peer.ld()).refresh_server());
    peer.close();
    Result<string> result = GetParam().call(Session(peer.ld()));
    ASSERT_FALSE(result);
    EXPECT_NE(result.error().diagnostic, "earlier");
    EXPECT_EQ(result.error().matched_dn, "");
}

TEST_P(EveryReader, requires_a_response_value)
{
    EXPECT_EQ(answered(GetParam(), {.name = oid(GetParam().request + 1)}).error().code,
              LDAPX_OPERATIONS_ERROR);
}

TEST_P(EveryReader, refuses_a_value_cut_at_any_byte)
{
    const Row &row = GetParam();
    for (const string &cut : cuts(*row.answer)) {
        Result<string> result = answered(row, {.name = oid(row.request + 1), .value = cut});
        ASSERT_FALSE(result) << hex(cut);
        EXPECT_EQ(result.error().code, row.undecodable) << hex(cut);
    }
}

TEST_P(EveryReader, refuses_bytes_that_are_no_element)
{
    const Row &row = GetParam();
    for (const string &value : {bytes("ff ff ff ff ff"), bytes("30 84 7f ff ff ff"),
                                bytes("02 85 ff ff ff ff ff 00"), bytes("04 80 6f 00 00")})
        EXPECT_FALSE(answered(row, {.name = oid(row.request + 1), .value = value})) << hex(value);
}

// A zero byte ends a C string: a name that holds one must not arrive as another name.
TEST(Strings, with_a_zero_byte_are_refused_and_nothing_is_sent)
{
    const std::string_view bad("ou=a\0,o=x", 9);
    const FilterClass bad_class{"c", {string(bad)}};
    const std::vector<FilterClass> bad_filter{bad_class};
    const std::vector<std::pair<string, std::function<Result<string>(Session)>>> calls{
        {"split_partition: dn",
         [&](Session s) {
             return described(s.split_partition(bad));
         }},
        {"merge_partitions: dn",
         [&](Session s) {
             return described(s.merge_partitions(bad));
         }},
        {"abort_partition_operation: dn",
         [&](Session s) {
             return described(s.abort_partition_operation(bad));
         }},
        {"partition_entry_count: dn",
         [&](Session s) {
             return described(s.partition_entry_count(bad));
         }},
        {"split_orphan_partition: name",
         [&](Session s) {
             return described(s.split_orphan_partition(bad, Server("s")));
         }},
        {"split_orphan_partition: server",
         [&](Session s) {
             return described(s.split_orphan_partition("o", Server(bad)));
         }},
        {"remove_orphan_partition: name",
         [&](Session s) {
             return described(s.remove_orphan_partition(bad, Server("s")));
         }},
        {"remove_orphan_partition: server",
         [&](Session s) {
             return described(s.remove_orphan_partition("o", Server(bad)));
         }},
        {"add_replica: dn",
         [&](Session s) {
             return described(s.add_replica(bad, Server("s"), ReplicaType::master));
         }},
        {"add_replica: server",
         [&](Session s) {
             return described(s.add_replica("o", Server(bad), ReplicaType::master));
         }},
        {"remove_replica: dn",
         [&](Session s) {
             return described(s.remove_replica(bad, Server("s")));
         }},
        {"remove_replica: server",
         [&](Session s) {
             return described(s.remove_replica("o", Server(bad)));
         }},
        {"change_replica_type: dn",
         [&](Session s) {
             return described(s.change_replica_type(bad, Server("s"), ReplicaType::master));
         }},
        {"change_replica_type: server",
         [&](Session s) {
             return described(s.change_replica_type("o", Server(bad), ReplicaType::master));
         }},
        {"replica_info: dn",
         [&](Session s) {
             return described(s.replica_info(bad, Server("s")));
         }},
        {"replica_info: server",
         [&](Session s) {
             return described(s.replica_info("o", Server(bad)));
         }},
        {"list_replicas: server",
         [&](Session s) {
             return described(s.list_replicas(Server(bad)));
         }},
        {"receive_all_updates: dn",
         [&](Session s) {
             return described(s.receive_all_updates(bad, Server("s")));
         }},
        {"receive_all_updates: receiver",
         [&](Session s) {
             return described(s.receive_all_updates("o", Server(bad)));
         }},
        {"receive_all_updates: origin",
         [&](Session s) {
             return described(s.receive_all_updates("o", Server("s"), Origin(bad)));
         }},
        {"send_all_updates: dn",
         [&](Session s) {
             return described(s.send_all_updates(bad));
         }},
        {"send_all_updates: origin",
         [&](Session s) {
             return described(s.send_all_updates("o", Origin(bad)));
         }},
        {"request_partition_sync: dn",
         [&](Session s) {
             return described(s.request_partition_sync(bad, Server("s")));
         }},
        {"request_partition_sync: server",
         [&](Session s) {
             return described(s.request_partition_sync("o", Server(bad)));
         }},
        {"request_schema_sync: dn",
         [&](Session s) {
             return described(s.request_schema_sync(bad));
         }},
        {"set_replication_filter: server",
         [&](Session s) {
             return described(s.set_replication_filter(Server(bad), "$"));
         }},
        {"set_replication_filter: filter",
         [&](Session s) {
             return described(s.set_replication_filter(Server("s"), bad));
         }},
        {"format_filter",
         [&](Session s) {
             return described(s.set_replication_filter(Server("s"), bad_filter));
         }},
        {"replication_filter: server",
         [&](Session s) {
             return described(s.replication_filter(Server(bad)));
         }},
        {"effective_privileges: dn",
         [&](Session s) {
             return described(s.effective_privileges(bad, Subject("s"), "a"));
         }},
        {"effective_privileges: subject",
         [&](Session s) {
             return described(s.effective_privileges("o", Subject(bad), "a"));
         }},
        {"effective_privileges: attribute",
         [&](Session s) {
             return described(s.effective_privileges("o", Subject("s"), bad));
         }},
        {"effective_privileges_list: dn",
         [&](Session s) {
             return described(s.effective_privileges_list(bad, Subject("s"), {"a"}));
         }},
        {"effective_privileges_list: subject",
         [&](Session s) {
             return described(s.effective_privileges_list("o", Subject(bad), {"a"}));
         }},
        {"effective_privileges_list: attributes",
         [&](Session s) {
             return described(s.effective_privileges_list("o", Subject("s"), {"a", bad}));
         }},
        {"dn_from_native: name",
         [&](Session s) {
             return described(s.dn_from_native(std::u16string_view(u"a\0b", 3)));
         }},
        {"dn_from_dns: name",
         [&](Session s) {
             return described(s.dn_from_dns(bad));
         }},
    };
    Peer peer;
    for (const auto &[where, call] : calls) {
        Result<string> result = call(Session(peer.ld()));
        ASSERT_FALSE(result) << where;
        EXPECT_EQ(result.error().code, LDAPX_PARAM_ERROR) << where;
        EXPECT_EQ(result.error().where, where);
    }
    EXPECT_TRUE(peer.quiet());
}

TEST(StringLists, come_from_any_list_of_strings)
{
    const std::vector<string> strings{"cn", "sn"};
    const std::array<std::string_view, 2> views{"cn", "sn"};
    const char *const pointers[] = {"cn", "sn"};
    for (const StringList &list :
         {StringList(strings), StringList(views), StringList(pointers), StringList{"cn", "sn"},
          StringList(std::span<const string>(strings))}) {
        ASSERT_EQ(list.size(), 2u);
        EXPECT_EQ(list[0], "cn");
        EXPECT_EQ(list[1], "sn");
    }
}

TEST(EntryCount, holds_all_of_the_answer_s_32_bits)
{
    Peer peer;
    peer.respond({.name = oid(14), .value = integer(2147483647)});
    peer.respond({.name = oid(14), .value = bytes("02 04 ff ff ff fe")});
    EXPECT_EQ(Session(peer.ld()).partition_entry_count("o=x").value(), 2147483647u);
    EXPECT_EQ(Session(peer.ld()).partition_entry_count("o=x").value(), 4294967294u);
}

TEST(Synchronisation, from_no_particular_server_says_so)
{
    Peer peer;
    peer.respond({.name = oid(22)});
    peer.respond({.name = oid(24)});
    EXPECT_TRUE(Session(peer.ld()).receive_all_updates("o=x", Server("cn=t")));
    EXPECT_TRUE(Session(peer.ld()).send_all_updates("o=x"));
    EXPECT_EQ(peer.take_request().value, octets("o=x") + octets("cn=t") + octets("unusedParam"));
    EXPECT_EQ(peer.take_request().value, octets("o=x") + octets(""));
}

TEST(Replicas, that_do_not_exist_are_an_empty_list)
{
    Peer peer;
    peer.respond({.name = oid(20), .value = sequence()});
    EXPECT_TRUE(Session(peer.ld()).list_replicas(Server("cn=s")).value().empty());
}

TEST(Replicas, types_without_a_name_pass_both_ways)
{
    Peer peer;
    peer.respond({.name = oid(8)});
    EXPECT_TRUE(
        Session(peer.ld()).add_replica("o=x", Server("cn=s"), static_cast<ReplicaType>(77)));
    EXPECT_EQ(peer.take_request().value, integer(0) + integer(77) + octets("cn=s") + octets("o=x"));
    peer.respond({.name = oid(18),
                  .value = concat(integer(0), integer(0), integer(0), integer(0), integer(0),
                                  octets("o=x"), integer(78), integer(0))});
    EXPECT_EQ(Session(peer.ld()).replica_info("o=x", Server("cn=s")).value().type,
              static_cast<ReplicaType>(78));
}

// Around the two lengths at which the C function begins to cut.
TEST(Identity, comes_whole_however_long)
{
    for (std::size_t length : {0u, 1u, 769u, 770u, 771u, 772u, 2000u, 100000u}) {
        const string dn(length, 'd');
        Peer peer;
        peer.respond({.name = oid(32), .value = octets(dn)});
        EXPECT_EQ(Session(peer.ld()).bind_dn().value(), dn) << length;
    }
}

TEST(Identity, must_be_an_octet_string)
{
    Peer peer;
    peer.respond({.name = oid(32), .value = octets("cn=me", 0x0c)});
    EXPECT_EQ(Session(peer.ld()).bind_dn().error().code, LDAPX_ENCODING_ERROR);
}

TEST(Privileges, that_cannot_be_matched_with_their_attributes_are_refused)
{
    for (const string &value :
         {sequence(sequence(integer(1)), set(sequence(integer(6)))),
          sequence(sequence(integer(3)),
                   set(sequence(integer(6)), sequence(integer(7)), sequence(integer(8)))),
          sequence(sequence(integer(0)), set()), sequence(sequence(integer(-1)), set())}) {
        Peer peer;
        peer.respond({.name = oid(104), .value = value});
        Result<std::vector<AttributeRights>> rights =
            Session(peer.ld()).effective_privileges_list("o=x", Subject("cn=me"), {"cn", "sn"});
        ASSERT_FALSE(rights) << hex(value);
        EXPECT_EQ(rights.error().code, LDAPX_DECODING_ERROR) << hex(value);
    }
}

TEST(Privileges, of_no_attribute_are_an_empty_list)
{
    Peer peer;
    peer.respond({.name = oid(104), .value = sequence(sequence(integer(0)), set())});
    EXPECT_TRUE(Session(peer.ld())
                    .effective_privileges_list("o=x", Subject("cn=me"), std::vector<string>())
                    .value()
                    .empty());
}

TEST(Filters, have_a_text_and_come_back_from_it)
{
    EXPECT_EQ(format_filter(two_classes).value(), "inetOrgPerson$cn$sn$$group$$$");
    EXPECT_EQ(format_filter({}).value(), "$");
    for (const char *text : {"$", "a$$$", "a$b$$$", "a$b$c$$d$$e$f$$$"})
        EXPECT_EQ(parse_filter(text)
                      .and_then([](const auto &classes) { return format_filter(classes); })
                      .value(),
                  text);
    EXPECT_EQ(parse_filter("inetOrgPerson$cn$sn$$group$$$").value(), two_classes);
}

TEST(Filters, that_would_say_something_else_are_refused)
{
    for (const FilterClass &entry : std::vector<FilterClass>{
             {"", {}}, {"a$b", {}}, {"a", {""}}, {"a", {"$"}}, {string("a\0b", 3), {}}})
        EXPECT_EQ(format_filter(std::vector{entry}).error().code, LDAPX_PARAM_ERROR);
    for (const string text : {"", "a", "a$", "a$$", "a$b", "a$b$", "a$b$$", "$$", "$a", "a$$$b$$$"})
        EXPECT_EQ(parse_filter(text).error().code, LDAPX_PARAM_ERROR) << text;
    EXPECT_FALSE(parse_filter(string("a\0b$$$", 6)));
}

TEST(Filters, as_text_are_sent_only_when_they_are_whole)
{
    Peer peer;
    Result<void> result = Session(peer.ld()).set_replication_filter(Server("s"), "a$$$b$$$");
    EXPECT_EQ(result.error().where, "set_replication_filter: filter");
    EXPECT_TRUE(peer.quiet());
    peer.respond({.name = oid(36)});
    EXPECT_TRUE(Session(peer.ld()).set_replication_filter(Server("s"), "a$b$$$"));
    EXPECT_TRUE(peer.take_request().value.has_value());
}

TEST(Filters, of_a_server_with_an_empty_name_are_refused)
{
    for (const string &entry :
         {sequence(octets(""), sequence()), sequence(octets("c"), sequence(octets("")))}) {
        Peer peer;
        peer.respond({.name = oid(38), .value = sequence(entry)});
        Result<std::vector<FilterClass>> filter =
            Session(peer.ld()).replication_filter(Server("cn=s"));
        ASSERT_FALSE(filter) << hex(entry);
        EXPECT_EQ(filter.error().code, LDAPX_DECODING_ERROR) << hex(entry);
    }
}

namespace {

string backup_answer(const string &data, const std::vector<int> &chunks)
{
    string sizes;
    for (const int size : chunks)
        sizes += sequence(integer(size));
    return concat(integer(static_cast<int>(data.size())), integer(7), integer(8), octets(data),
                  sequence(integer(static_cast<int>(chunks.size())), set(sizes)));
}

Result<Backup> backup_of(const string &answer)
{
    Peer peer;
    peer.respond({.name = oid(97), .value = answer});
    return Session(peer.ld()).backup_object("cn=a", Password("pw"));
}

} // namespace

TEST(Backups, begin_without_a_state_and_go_on_from_the_last)
{
    Peer peer;
    peer.respond({.name = oid(97), .value = backup_answer("abc", {3})});
    peer.respond({.name = oid(97), .value = backup_answer("abcd", {4})});
    const Session session(peer.ld());
    const Backup first = session.backup_object("cn=a", Password("")).value();
    EXPECT_EQ(first, (Backup{"7+8", "abc", {3}}));
    EXPECT_EQ(session.backup_object("cn=a", Password(""), first.state).value().data, "abcd");
    EXPECT_EQ(peer.take_request().value, octets("cn=a") + integer(0) + integer(0) + octets(""));
    EXPECT_EQ(peer.take_request().value, octets("cn=a") + integer(7) + integer(8) + octets(""));
}

TEST(Backups, hold_any_data_and_any_number_of_chunks)
{
    for (const auto &[data, chunks] : std::vector<std::pair<string, std::vector<int>>>{
             {"", {}},
             {string(1, '\0'), {1}},
             {string(100000, '\xfe'), std::vector<int>(1000, 100)},
             {"abc", {0, 2147483647, 10}}}) {
        const Backup backup = backup_of(backup_answer(data, chunks)).value();
        EXPECT_EQ(backup.data, data);
        EXPECT_EQ(backup.chunks, std::vector<std::int32_t>(chunks.begin(), chunks.end()));
    }
}

TEST(Backups, with_sizes_that_cannot_be_are_refused)
{
    EXPECT_EQ(backup_of(backup_answer("abc", {1, -2})).error().code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(backup_of(concat(integer(3), integer(7), integer(8), octets("abc"),
                               sequence(integer(-3), set())))
                  .error()
                  .code,
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(backup_of(concat(integer(3), integer(7), integer(8), octets("abc"),
                               sequence(integer(2147483647), set(sequence(integer(3))))))
                  .error()
                  .code,
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(backup_of(concat(integer(-1), integer(7), integer(8), octets("abc"),
                               sequence(integer(0), set())))
                  .error()
                  .code,
              LDAPX_NO_MEMORY);
    // More announced than sent: the rest is zero.
    EXPECT_EQ(backup_of(concat(integer(5), integer(7), integer(8), octets("abc"),
                               sequence(integer(0), set())))
                  .value()
                  .data,
              string("abc\0\0", 5));
}

TEST(Backups, go_on_from_no_state_that_is_none)
{
    Peer peer;
    for (const char *state : {"7", "0+5", "5+0", "x+y", "+"}) {
        const Result<Backup> backup =
            Session(peer.ld()).backup_object("cn=a", Password("pw"), state);
        ASSERT_FALSE(backup) << state;
        EXPECT_EQ(backup.error().code, LDAPX_ENCODING_ERROR) << state;
    }
    EXPECT_TRUE(peer.quiet());
}

TEST(Backups, come_back_as_they_were_taken)
{
    const Backup backup = backup_of(backup_answer(string("\0data\0", 6), {2, 4})).value();
    Peer peer;
    peer.respond({.name = oid(99)});
    EXPECT_TRUE(Session(peer.ld()).restore_object("cn=a", Password("pw"), backup));
    const string value = peer.take_request().value.value_or("");
    Reader reader(value);
    EXPECT_EQ(reader.take(0x04), "cn=a");
    EXPECT_EQ(reader.take(0x04), "pw");
    EXPECT_EQ(reader.take_integer(), 6);
    EXPECT_EQ(reader.take(0x04), string("\0data\0", 6));
    EXPECT_EQ(reader.take(0x30),
              integer(2) +
                  element(0x31, request_sequence(integer(2)) + request_sequence(integer(4)), 4));
    EXPECT_EQ(chunk_list(backup), "2;2;4;");
    EXPECT_EQ(chunk_list(Backup()), "0;");
}

TEST(Triggers, send_the_request_of_their_process)
{
    for (const auto &[process, request] :
         std::vector<std::pair<BackgroundProcess, int>>{{BackgroundProcess::backlink, 43},
                                                        {BackgroundProcess::janitor, 47},
                                                        {BackgroundProcess::limber, 49},
                                                        {BackgroundProcess::skulker, 51},
                                                        {BackgroundProcess::schema_sync, 53},
                                                        {BackgroundProcess::partition_purge, 55}}) {
        Peer peer;
        peer.respond({.name = oid(request + 1)});
        EXPECT_TRUE(Session(peer.ld()).trigger(process));
        EXPECT_EQ(peer.take_request().name, oid(request));
    }
    Peer peer;
    EXPECT_EQ(Session(peer.ld()).trigger(static_cast<BackgroundProcess>(7)).error().code,
              LDAPX_PARAM_ERROR);
    EXPECT_TRUE(peer.quiet());
}

TEST(Names, of_numbers_go_both_ways)
{
    static_assert(to_string(ReplicaType::sparse_write) == "sparse-write");
    static_assert(replica_type("read-only") == ReplicaType::read_only);
    static_assert(to_string(BackgroundProcess::schema_sync) == "schema-sync");
    static_assert(background_process("janitor") == BackgroundProcess::janitor);
    for (int number = 0; number < LDAP_RT_COUNT; ++number)
        EXPECT_EQ(replica_type(to_string(static_cast<ReplicaType>(number))),
                  static_cast<ReplicaType>(number));
    for (int number = 1; number <= 6; ++number)
        EXPECT_EQ(background_process(to_string(static_cast<BackgroundProcess>(number))),
                  static_cast<BackgroundProcess>(number));
    EXPECT_EQ(to_string(static_cast<ReplicaType>(6)), "unknown");
    EXPECT_EQ(to_string(static_cast<ReplicaType>(-1)), "unknown");
    EXPECT_EQ(to_string(static_cast<BackgroundProcess>(0)), "unknown");
    EXPECT_EQ(to_string(static_cast<BackgroundProcess>(7)), "unknown");
    EXPECT_FALSE(replica_type("unknown"));
    EXPECT_FALSE(background_process(""));
}
