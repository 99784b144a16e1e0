// Replicas: what the requests say, and how the two answers reach the caller's memory.

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

char dn[] = "o=x";
char server[] = "cn=srv";

// The eight elements of a replica's information, and what the record then says.
struct Field {
    std::string element;
    std::string seen;
};

std::vector<Field> fields(const std::string &partition = "o=x")
{
    return {{integer(INT_MIN), "info.rootID=-2147483648"},
            {integer(-1), "info.state=-1"},
            {integer(INT_MAX), "info.modificationTime=2147483647"},
            {integer(0), "info.purgeTime=0"},
            {integer(130), "info.localReplicaID=130"},
            {octets(partition), "info.namingContextDN=" + partition},
            {integer(99), "info.replicaType=99"},
            {integer(-32768), "info.flags=-32768"}};
}

std::string value_of(const std::vector<Field> &all)
{
    std::string value;
    for (const Field &field : all)
        value += field.element;
    return value;
}

// What the record says when only the first so many elements could be read: the DN is stored last.
std::string seen_of(const std::vector<Field> &all, std::size_t read)
{
    std::string text;
    for (std::size_t index = 0; index < read; ++index)
        if (index != 5 || read == all.size())
            text += (text.empty() ? "" : " ") + all[index].seen;
    return text;
}

int get_info(const std::string &value, Outputs &out, const std::string &function)
{
    Peer peer;
    peer.respond({.name = admin_name(18), .value = value});
    return operation(function).call(peer.ld(), out);
}

class ReplicaInfo : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Both, ReplicaInfo,
                         testing::Values("ldap_get_replica_info", "ldap_get_replica_info_ext"),
                         [](const auto &row) { return row.param; });

// A record at the head of a larger buffer, filled with one byte.
struct Room {
    static constexpr char blank = '~';
    std::string bytes = std::string(8192, blank);
    LDAPReplicaInfo *info = reinterpret_cast<LDAPReplicaInfo *>(bytes.data());
    const char *name = bytes.data() + offsetof(LDAPReplicaInfo, namingContextDN);

    // Nothing from this place on has been written.
    bool blank_from(std::size_t offset) const
    {
        return bytes.find_first_not_of(blank, offset) == std::string::npos;
    }
};

int list_replicas(const std::string &value, Outputs &out)
{
    Peer peer;
    peer.respond({.name = admin_name(20), .value = value});
    return ldap_list_replicas(peer.ld(), server, &out.list);
}

} // namespace

TEST(Replica, the_record_keeps_its_published_layout)
{
    EXPECT_EQ(sizeof(LDAP_REPLICA_TYPE), sizeof(int));
    EXPECT_EQ(offsetof(LDAPReplicaInfo, rootID), 0u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, state), 4u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, modificationTime), 8u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, purgeTime), 12u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, localReplicaID), 16u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, namingContextDN), 20u);
    EXPECT_EQ(sizeof(LDAPReplicaInfo::namingContextDN), 771u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, replicaType), 792u);
    EXPECT_EQ(offsetof(LDAPReplicaInfo, flags), 796u);
    EXPECT_EQ(sizeof(struct ldapreplicainfo), 800u);
}

TEST(Replica, the_types_keep_their_published_numbers)
{
    EXPECT_EQ(LDAP_RT_MASTER, 0);
    EXPECT_EQ(LDAP_RT_SECONDARY, 1);
    EXPECT_EQ(LDAP_RT_READONLY, 2);
    EXPECT_EQ(LDAP_RT_SUBREF, 3);
    EXPECT_EQ(LDAP_RT_SPARSE_WRITE, 4);
    EXPECT_EQ(LDAP_RT_SPARSE_READ, 5);
    EXPECT_EQ(LDAP_RT_COUNT, 6);
}

TEST(Replica, types_and_flags_of_any_number_are_sent_unchanged)
{
    Peer peer;
    for (const int number : {0, 1, 5, 6, 7, 128, -1, -129, INT_MAX, INT_MIN}) {
        const auto type = static_cast<LDAP_REPLICA_TYPE>(number);
        const std::string names = octets("cn=srv") + octets("o=x");

        peer.respond({.name = admin_name(8)});
        EXPECT_EQ(ldap_add_replica(peer.ld(), dn, server, type, 3), 0);
        EXPECT_EQ(peer.take_request().value, integer(3) + integer(number) + names);

        peer.respond({.name = admin_name(16)});
        EXPECT_EQ(ldap_change_replica_type(peer.ld(), dn, server, LDAP_RT_SUBREF, number), 0);
        EXPECT_EQ(peer.take_request().value, integer(number) + integer(3) + names);

        peer.respond({.name = admin_name(12)});
        EXPECT_EQ(ldap_remove_replica(peer.ld(), dn, server, number), 0);
        EXPECT_EQ(peer.take_request().value, integer(number) + names);
    }
}

TEST(Replica, names_of_any_length_are_sent_whole)
{
    for (const std::size_t length : {0u, 1u, 127u, 128u, 255u, 256u, 70000u}) {
        std::string name(length, 'n');
        Peer peer;
        peer.read_ahead();
        peer.respond({.name = admin_name(8)});
        EXPECT_EQ(ldap_add_replica(peer.ld(), name.data(), server, LDAP_RT_MASTER, 0), 0);
        EXPECT_EQ(peer.take_request().value,
                  integer(0) + integer(0) + octets("cn=srv") + octets(name));
    }
}

TEST_P(ReplicaInfo, numbers_of_any_value_reach_the_record)
{
    Outputs out;
    EXPECT_EQ(get_info(value_of(fields()), out, GetParam()), 0);
    EXPECT_EQ(out.describe().find(seen_of(fields(), 8)), 0u) << out.describe();
}

TEST_P(ReplicaInfo, elements_after_the_eighth_are_not_read)
{
    Outputs out;
    EXPECT_EQ(get_info(value_of(fields()) + bytes("30 84 ff"), out, GetParam()), 0);
    EXPECT_EQ(out.describe().find(seen_of(fields(), 8)), 0u) << out.describe();
}

TEST_P(ReplicaInfo, a_value_with_only_some_of_the_elements_cannot_be_decoded)
{
    const auto all = fields();
    std::size_t read = 0; // elements that are whole in the cut
    std::size_t end = all[0].element.size();
    for (const std::string &value : cuts(value_of(all))) {
        while (value.size() >= end)
            end += all[++read].element.size();
        Outputs out;
        EXPECT_EQ(get_info(value, out, GetParam()), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), seen_of(all, read)) << hex(value);
    }
    EXPECT_EQ(read, 7u);
}

TEST_P(ReplicaInfo, an_element_that_cannot_be_read_ends_the_decoding_where_it_stands)
{
    for (std::size_t bad = 0; bad < 8; ++bad) {
        auto all = fields();
        // Five bytes are more than an integer has; a zero byte cannot stand within a DN.
        all[bad].element =
            bad == 5 ? octets(std::string("o=x\0y", 5)) : bytes("02 05 00 80 00 00 00");
        Outputs out;
        EXPECT_EQ(get_info(value_of(all), out, GetParam()), 0x53) << bad;
        EXPECT_EQ(out.describe(), seen_of(all, bad)) << bad;
    }
}

TEST_P(ReplicaInfo, the_answer_to_a_list_request_is_not_decoded)
{
    Peer peer;
    peer.respond({.name = admin_name(20), .value = value_of(fields())});
    Outputs out;
    EXPECT_EQ(operation(GetParam()).call(peer.ld(), out), 0x5c);
    EXPECT_EQ(out.describe(), "");
}

TEST_P(ReplicaInfo, names_up_to_770_bytes_stay_within_their_field)
{
    for (const std::size_t length : {0u, 1u, 128u, 769u, 770u}) {
        const std::string name(length, 'n');
        Outputs out;
        EXPECT_EQ(get_info(value_of(fields(name)), out, GetParam()), 0);
        EXPECT_EQ(out.describe().find(seen_of(fields(name), 8)), 0u) << out.describe();
    }
}

TEST(Replica, a_longer_name_is_copied_whole_over_the_end_of_the_record)
{
    for (const std::size_t length : {771u, 772u, 775u, 776u, 779u, 780u, 2000u, 8000u}) {
        const std::string name(length, 'n');
        Room room;
        Peer peer;
        peer.respond({.name = admin_name(18), .value = value_of(fields(name))});
        EXPECT_EQ(ldap_get_replica_info(peer.ld(), dn, server, room.info), 0);
        EXPECT_EQ(room.info->localReplicaID, 130);
        EXPECT_EQ(std::memcmp(room.name, name.c_str(), length + 1), 0) << length;
        EXPECT_TRUE(room.blank_from(std::max(sizeof *room.info, 20 + length + 1))) << length;
    }
}

TEST(Replica, the_bounded_companion_keeps_to_the_record_and_hands_out_the_whole_name)
{
    for (const std::size_t length : {0u, 769u, 770u, 771u, 772u, 2000u, 100000u}) {
        std::string name(length, 'n');
        if (length > 770)
            name[770] = 'X';
        Room room;
        Peer peer;
        peer.respond({.name = admin_name(18), .value = value_of(fields(name))});
        char *whole = nullptr;
        EXPECT_EQ(ldap_get_replica_info_ext(peer.ld(), dn, server, room.info, &whole), 0);
        EXPECT_EQ(std::string(whole), name);
        EXPECT_EQ(std::string(room.info->namingContextDN), name.substr(0, 770));
        EXPECT_EQ(room.info->replicaType, 99);
        EXPECT_EQ(room.info->flags, -32768);
        EXPECT_TRUE(room.blank_from(sizeof *room.info));
        ldapx_memfree(whole);
    }
}

TEST(Replica, a_server_without_replicas_gives_no_list)
{
    Outputs out;
    EXPECT_EQ(list_replicas(sequence(), out), 0);
    EXPECT_EQ(out.describe(), "list=NULL");
}

TEST(Replica, the_list_holds_every_name_in_the_server_s_order)
{
    std::string names;
    std::string seen;
    for (std::size_t index = 0; index < 1000; ++index) {
        const std::string name = "o=" + std::to_string(index) + std::string(index % 300, 'n');
        names += octets(name);
        seen += (index == 0 ? "" : ", ") + name;
    }
    Outputs out;
    EXPECT_EQ(list_replicas(sequence(names), out), 0);
    EXPECT_EQ(out.describe(), "list=[" + seen + ']');
}

TEST(Replica, a_list_with_a_damaged_name_is_not_handed_out)
{
    for (const std::string &value :
         {sequence(octets("o=x"), bytes("04 05 6f")), sequence(octets("o=x"), bytes("04")),
          sequence(octets("o=x"), bytes("04 84 ff ff ff ff")),
          sequence(octets(std::string("a\0b", 3))), octets("o=x"),
          sequence(octets("o=x"), header(0x04, 1))}) {
        Outputs out;
        out.list = nullptr;
        EXPECT_EQ(list_replicas(value, out), 0x53) << hex(value);
        EXPECT_EQ(out.describe(), "list=NULL") << hex(value);
    }
}
