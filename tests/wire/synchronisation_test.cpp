// Synchronisation requests: what stands in for an argument that is missing.

#include <climits>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

char root[] = "o=x";
char server[] = "cn=srv";
char empty[] = "";

} // namespace

TEST(Synchronisation, receiving_from_no_server_in_particular_sends_the_placeholder)
{
    Peer peer;
    peer.respond({.name = admin_name(22)});
    EXPECT_EQ(ldap_receive_all_updates(peer.ld(), root, server, nullptr), 0);
    EXPECT_EQ(peer.take_request().value, octets("o=x") + octets("cn=srv") + octets("unusedParam"));
}

TEST(Synchronisation, receiving_needs_a_partition_and_a_server_and_sends_nothing_without)
{
    Peer peer;
    EXPECT_EQ(ldap_receive_all_updates(peer.ld(), nullptr, server, server), 0x59);
    EXPECT_EQ(ldap_receive_all_updates(peer.ld(), root, nullptr, server), 0x59);
    EXPECT_EQ(ldap_receive_all_updates(peer.ld(), nullptr, nullptr, nullptr), 0x59);
    EXPECT_TRUE(peer.quiet());
    EXPECT_EQ(peer.session_code(), 0);
}

TEST(Synchronisation, sending_from_no_server_in_particular_sends_an_empty_string)
{
    Peer peer;
    peer.respond({.name = admin_name(24)});
    EXPECT_EQ(ldap_send_all_updates(peer.ld(), root, nullptr), 0);
    EXPECT_EQ(peer.take_request().value, bytes("04 03 6f 3d 78  04 00"));
}

TEST(Synchronisation, empty_names_are_sent_as_they_are)
{
    Peer peer;
    peer.respond({.name = admin_name(22)});
    EXPECT_EQ(ldap_receive_all_updates(peer.ld(), empty, empty, empty), 0);
    EXPECT_EQ(peer.take_request().value, bytes("04 00 04 00 04 00"));
    peer.respond({.name = admin_name(26)});
    EXPECT_EQ(ldap_request_partition_sync(peer.ld(), empty, empty, 0), 0);
    EXPECT_EQ(peer.take_request().value, bytes("04 00 04 00 02 01 00"));
}

TEST(Synchronisation, any_delay_is_sent_unchanged)
{
    Peer peer;
    for (const int delay : {0, 1, -1, 127, 128, -128, -129, 86400, INT_MAX, INT_MIN}) {
        peer.respond({.name = admin_name(26)});
        EXPECT_EQ(ldap_request_partition_sync(peer.ld(), server, root, delay), 0);
        const std::string value = octets("cn=srv") + octets("o=x") + integer(delay);
        EXPECT_EQ(peer.take_request().value, value);

        peer.respond({.name = admin_name(26)});
        EXPECT_EQ(ldap_request_naming_context_sync(peer.ld(), server, root, delay), 0);
        EXPECT_EQ(peer.take_request().value, value);

        peer.respond({.name = admin_name(28)});
        EXPECT_EQ(ldap_request_schema_sync(peer.ld(), root, delay), 0);
        EXPECT_EQ(peer.take_request().value, octets("o=x") + integer(delay));
    }
}
