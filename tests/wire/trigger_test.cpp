// Background processes by number.

#include <climits>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/peer.h"

using namespace support;

TEST(Trigger, each_number_starts_its_process)
{
    const int first_names[] = {43, 47, 49, 51, 53, 55};
    Peer peer;
    for (int process = 1; process <= 6; ++process) {
        const int name = first_names[process - 1];
        peer.respond({.name = admin_name(name + 1), .value = "ignored"});
        EXPECT_EQ(ldap_trigger_back_process(peer.ld(), process), 0);
        const Request request = peer.take_request();
        EXPECT_EQ(request.name, admin_name(name));
        EXPECT_FALSE(request.value);

        peer.respond({.name = admin_name(name)});
        EXPECT_EQ(ldap_trigger_back_process(peer.ld(), process), 0x5c);
        peer.take_request();

        peer.respond({.code = LDAP_BUSY});
        EXPECT_EQ(ldap_trigger_back_process(peer.ld(), process), LDAP_BUSY);
        peer.take_request();
    }
}

TEST(Trigger, any_other_number_is_refused_and_nothing_is_sent)
{
    Peer peer;
    for (const int process : {0, 7, 8, -1, -6, 256 + 1, INT_MAX, INT_MIN})
        EXPECT_EQ(ldap_trigger_back_process(peer.ld(), process), 0x59) << process;
    EXPECT_TRUE(peer.quiet());
    EXPECT_EQ(peer.session_code(), 0);
}
