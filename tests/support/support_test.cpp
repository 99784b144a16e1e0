// The test support itself: a test that relies on it must be able to trust it.

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/peer.h"

using namespace support;
using namespace std::chrono_literals;

namespace {

struct Answer {
    int rc = 0;
    std::string name;
    std::string value;
};

Answer exchange(Peer &peer, const std::string &name, std::string value)
{
    berval request{value.size(), value.data()};
    char *oid = nullptr;
    berval *data = nullptr;
    Answer answer;
    answer.rc =
        ldap_extended_operation_s(peer.ld(), name.c_str(), &request, nullptr, nullptr, &oid, &data);
    answer.name = oid ? oid : "none";
    answer.value = data ? std::string(data->bv_val, data->bv_len) : "none";
    ldap_memfree(oid);
    ber_bvfree(data);
    return answer;
}

} // namespace

TEST(Ber, integers_take_the_fewest_bytes_of_two_s_complement)
{
    EXPECT_EQ(integer(0), bytes("02 01 00"));
    EXPECT_EQ(integer(127), bytes("02 01 7f"));
    EXPECT_EQ(integer(128), bytes("02 02 00 80"));
    EXPECT_EQ(integer(-1), bytes("02 01 ff"));
    EXPECT_EQ(integer(-128), bytes("02 01 80"));
    EXPECT_EQ(integer(-129), bytes("02 02 ff 7f"));
    EXPECT_EQ(integer(2147483648), bytes("02 05 00 80 00 00 00"));
    EXPECT_EQ(integer(INT64_MIN), bytes("02 08 80 00 00 00 00 00 00 00"));
    EXPECT_EQ(enumerated(5), bytes("0a 01 05"));
}

TEST(Ber, lengths_take_the_long_form_from_128_on_or_when_asked)
{
    EXPECT_EQ(octets(std::string(127, 'x')).substr(0, 3), bytes("04 7f 78"));
    EXPECT_EQ(octets(std::string(128, 'x')).substr(0, 4), bytes("04 81 80 78"));
    EXPECT_EQ(octets(std::string(65536, 'x')).substr(0, 6), bytes("04 83 01 00 00 78"));
    EXPECT_EQ(element(0x04, "x", 2), bytes("04 82 00 01 78"));
    EXPECT_EQ(header(0x30, 0xffffffff), bytes("30 84 ff ff ff ff"));
    EXPECT_EQ(element(0x7f2a, ""), bytes("7f 2a 00"));
}

TEST(Ber, constructed_values_read_like_their_tables)
{
    EXPECT_EQ(sequence(integer(0), octets("o=x")), bytes("30 08 02 01 00 04 03 6f 3d 78"));
    EXPECT_EQ(set(boolean(true), boolean(false), null()), bytes("31 08 01 01 ff 01 01 00 05 00"));
    EXPECT_EQ(octets("x", 0x80), bytes("80 01 78"));
    EXPECT_EQ(cuts(bytes("02 01 00")), (std::vector<std::string>{"", "\x02", "\x02\x01"}));
    EXPECT_EQ(hex(bytes("02 01 FF")), "02 01 ff");
}

TEST(Ber, the_reader_takes_back_what_was_written)
{
    std::string value =
        concat(integer(-70000), octets("abc"), element(0x30, std::string(300, 'y')));
    Reader reader(value);
    EXPECT_EQ(reader.take_integer(), -70000);
    EXPECT_EQ(reader.take(0x04), "abc");
    EXPECT_EQ(reader.take(0x30), std::string(300, 'y'));
    EXPECT_TRUE(reader.at_end());
    EXPECT_THROW(reader.take(0x30), std::runtime_error);
}

TEST(Peer, an_exchange_carries_name_and_value_both_ways)
{
    Peer peer;
    peer.respond({.name = "1.2.3.5", .value = "out"});
    Answer answer = exchange(peer, "1.2.3.4", "in");
    EXPECT_EQ(answer.rc, 0);
    EXPECT_EQ(answer.name, "1.2.3.5");
    EXPECT_EQ(answer.value, "out");

    Request request = peer.take_request();
    EXPECT_EQ(request.id, 1);
    EXPECT_EQ(request.operation, 0x77);
    EXPECT_EQ(request.name, "1.2.3.4");
    EXPECT_EQ(request.value, "in");
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST(Peer, successive_responses_answer_successive_requests)
{
    Peer peer;
    peer.respond({.name = "1.1"});
    peer.respond({.code = LDAP_NO_SUCH_OBJECT, .diagnostic = "gone", .matched_dn = "o=x"});
    EXPECT_EQ(exchange(peer, "1.2", "").name, "1.1");
    EXPECT_EQ(exchange(peer, "1.3", "").rc, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(peer.session_code(), LDAP_NO_SUCH_OBJECT);
    EXPECT_FALSE(peer.quiet());
    EXPECT_EQ(peer.take_request().name, "1.2");
    Request second = peer.take_request();
    EXPECT_EQ(second.id, 2);
    EXPECT_EQ(second.name, "1.3");
    EXPECT_EQ(second.value, "");
}

TEST(Peer, values_larger_than_the_socket_travel_both_ways)
{
    std::string large(3 << 20, 'v');
    Peer peer;
    peer.read_ahead();
    peer.respond({.name = "1.1", .value = large});
    EXPECT_EQ(exchange(peer, "1.2", large).value, large);
    EXPECT_EQ(peer.take_request().value, large);
}

TEST(Peer, silence_a_cut_message_and_a_closed_connection_end_the_call)
{
    Peer silent;
    silent.set_timeout(20ms);
    EXPECT_EQ(exchange(silent, "1.2", "").rc, LDAP_TIMEOUT);

    Peer cutting;
    cutting.send(extended_response(1, {.name = "1.1"}).substr(0, 9));
    cutting.finish();
    EXPECT_EQ(exchange(cutting, "1.2", "").rc, LDAP_SERVER_DOWN);
    EXPECT_EQ(cutting.take_request().name, "1.2");

    Peer closed;
    closed.close();
    EXPECT_EQ(exchange(closed, "1.2", "").rc, LDAP_SERVER_DOWN);
    EXPECT_THROW(closed.take_request(), std::runtime_error);
}

TEST(Peer, intermediate_responses_are_fetched_one_by_one)
{
    Peer peer;
    int msgid = 0;
    ASSERT_EQ(ldap_extended_operation(peer.ld(), "1.2", nullptr, nullptr, nullptr, &msgid), 0);
    EXPECT_FALSE(peer.take_request().value);
    peer.respond_intermediate("1.3", "first");
    peer.respond_intermediate(std::nullopt, "second", msgid);
    peer.respond({.name = "1.4"});

    for (std::string expected : {"first", "second"}) {
        Message message = peer.result(msgid);
        ASSERT_EQ(ldap_msgtype(message.get()), LDAP_RES_INTERMEDIATE);
        berval *data = nullptr;
        ASSERT_EQ(ldap_parse_intermediate(peer.ld(), message.get(), nullptr, &data, nullptr, 0), 0);
        EXPECT_EQ(std::string(data->bv_val, data->bv_len), expected);
        ber_bvfree(data);
    }
    EXPECT_EQ(ldap_msgtype(peer.result(msgid).get()), LDAP_RES_EXTENDED);
}
