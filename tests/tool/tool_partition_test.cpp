// greirige partition: what is sent, what is shown.

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace support;
using namespace tool_test;
using Json = nlohmann::ordered_json;

namespace {

struct Case {
    Arguments arguments;
    std::string request;
    std::string value;
    std::string response;
    std::string text;
    Json details;
};

const Case cases[] = {
    {{"partition", "split", "o=x"},
     LDAPX_SPLIT_PARTITION_REQUEST,
     concat(integer(0), octets("o=x")),
     LDAPX_SPLIT_PARTITION_RESPONSE,
     "o=x is the root of a partition\n",
     {{"dn", "o=x"}, {"flags", 0}}},
    {{"partition", "split", "o=x", "--flags", "-7"},
     LDAPX_SPLIT_PARTITION_REQUEST,
     concat(integer(-7), octets("o=x")),
     LDAPX_SPLIT_PARTITION_RESPONSE,
     "o=x is the root of a partition\n",
     {{"dn", "o=x"}, {"flags", -7}}},
    {{"partition", "split", "o=x", "--flags", "0x10"},
     LDAPX_SPLIT_PARTITION_REQUEST,
     concat(integer(16), octets("o=x")),
     LDAPX_SPLIT_PARTITION_RESPONSE,
     "o=x is the root of a partition\n",
     {{"dn", "o=x"}, {"flags", 16}}},
    {{"partition", "split", ""},
     LDAPX_SPLIT_PARTITION_REQUEST,
     concat(integer(0), octets("")),
     LDAPX_SPLIT_PARTITION_RESPONSE,
     " is the root of a partition\n",
     {{"dn", ""}, {"flags", 0}}},
    {{"--yes", "partition", "merge", "ou=Bücher,o=x"},
     LDAPX_MERGE_PARTITIONS_REQUEST,
     concat(integer(0), octets("ou=Bücher,o=x")),
     LDAPX_MERGE_PARTITIONS_RESPONSE,
     "ou=Bücher,o=x belongs to its parent partition\n",
     {{"dn", "ou=Bücher,o=x"}, {"flags", 0}}},
    {{"--yes", "partition", "abort", "o=x", "--flags=3"},
     LDAPX_ABORT_PARTITION_OPERATION_REQUEST,
     concat(integer(3), octets("o=x")),
     LDAPX_ABORT_PARTITION_OPERATION_RESPONSE,
     "o=x: the running operation is aborted\n",
     {{"dn", "o=x"}, {"flags", 3}}},
    {{"partition", "split-orphan", "o=lost", "cn=s,o=x"},
     LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST,
     concat(octets("cn=s,o=x"), octets("o=lost")),
     LDAPX_SPLIT_ORPHAN_PARTITION_RESPONSE,
     "o=lost is an orphan partition\n",
     {{"serverDN", "cn=s,o=x"}, {"contextName", "o=lost"}}},
    {{"--yes", "partition", "remove-orphan", "o=lost", "cn=s,o=x"},
     LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST,
     concat(octets("cn=s,o=x"), octets("o=lost")),
     LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE,
     "o=lost is removed\n",
     {{"serverDN", "cn=s,o=x"}, {"contextName", "o=lost"}}},
};

class Partition : public testing::TestWithParam<Case> {};

TEST_P(Partition, operation_is_sent_and_reported_as_text)
{
    TcpPeer peer;
    const Case &it = GetParam();
    peer.answer(it.request, {.name = it.response});
    const Finished finished = greirige(peer, it.arguments);
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(finished.out, it.text);
    EXPECT_EQ(hex(*peer.request(it.request).value), hex(it.value));
}

TEST_P(Partition, operation_is_reported_as_json)
{
    TcpPeer peer;
    const Case &it = GetParam();
    peer.answer(it.request, {.name = it.response});
    Arguments arguments = it.arguments;
    arguments.emplace_back("--json");
    const Finished finished = greirige(peer, arguments);
    Json expected{{"operation", it.arguments[it.arguments[0] == "--yes" ? 1 : 0] + ' ' +
                                    it.arguments[it.arguments[0] == "--yes" ? 2 : 1]},
                  {"server", peer.uri()}};
    expected.update(it.details);
    expected["done"] = true;
    EXPECT_EQ(document(finished).dump(), expected.dump());
    EXPECT_EQ(finished.status, 0);
}

TEST_P(Partition, operation_that_the_server_refuses_fails_with_status_1)
{
    TcpPeer peer;
    const Case &it = GetParam();
    peer.answer(it.request, {.code = LDAP_UNWILLING_TO_PERFORM, .diagnostic = "not today"});
    const Finished finished = greirige(peer, it.arguments);
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.out, "");
    EXPECT_TRUE(finished.err.starts_with("greirige: cannot ")) << finished.err;
    EXPECT_TRUE(finished.err.ends_with(" on " + peer.uri() +
                                       ": Server is unwilling to perform (53), the server says "
                                       "\"not today\"\n"))
        << finished.err;
}

INSTANTIATE_TEST_SUITE_P(Each, Partition, testing::ValuesIn(cases), CommandName());

class Count : public testing::Test {
protected:
    void answer(long long count)
    {
        peer.answer(LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
                    {.name = LDAPX_PARTITION_ENTRY_COUNT_RESPONSE, .value = integer(count)});
    }
    void refuse()
    {
        peer.answer(LDAPX_PARTITION_ENTRY_COUNT_REQUEST, {.code = LDAP_NO_SUCH_OBJECT});
    }
    std::string cannot_count(const std::string &dn, const std::string &why) const
    {
        return "greirige: cannot count the entries of \"" + dn + "\" on " + peer.uri() + ": " +
               why + '\n';
    }

    TcpPeer peer;
    const std::string missing = "No such object (32) (check the spelling of the DN)";
};

TEST_F(Count, of_one_partition_is_a_line)
{
    answer(1204);
    const Finished finished = greirige(peer, {"partition", "count", "o=x"});
    EXPECT_EQ(finished.out, "1204 entries in o=x\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(*peer.request(LDAPX_PARTITION_ENTRY_COUNT_REQUEST).value, octets("o=x"));
}

TEST_F(Count, of_several_partitions_is_a_table)
{
    answer(1204);
    answer(7);
    const Finished finished = greirige(peer, {"partition", "count", "o=x", "ou=日本,o=x"});
    EXPECT_EQ(finished.out, "ENTRIES  PARTITION\n"
                            "   1204  o=x\n"
                            "      7  ou=日本,o=x\n");
    EXPECT_EQ(finished.status, 0);
}

TEST_F(Count, of_several_partitions_is_a_json_array)
{
    answer(1204);
    answer(0);
    const Finished finished = greirige(peer, {"--json", "partition", "count", "o=x", "o=y"});
    const Json expected{{"operation", "partition count"},
                        {"server", peer.uri()},
                        {"partitions", Json::array({{{"dn", "o=x"}, {"entries", 1204}},
                                                    {{"dn", "o=y"}, {"entries", 0}}})}};
    EXPECT_EQ(document(finished), expected);
    EXPECT_EQ(finished.status, 0);
}

TEST_F(Count, that_fails_for_some_is_done_in_part)
{
    answer(1204);
    refuse();
    answer(7);
    const Finished finished = greirige(peer, {"partition", "count", "o=x", "o=y", "o=z"});
    EXPECT_EQ(finished.out, "ENTRIES  PARTITION\n"
                            "   1204  o=x\n"
                            "      -  o=y\n"
                            "      7  o=z\n");
    EXPECT_EQ(finished.err, cannot_count("o=y", missing));
    EXPECT_EQ(finished.status, 4);
}

TEST_F(Count, that_fails_for_some_has_the_errors_in_the_json_document)
{
    answer(1204);
    refuse();
    const Finished finished = greirige(peer, {"--json", "partition", "count", "o=x", "o=y"});
    const Json partitions = document(finished)["partitions"];
    EXPECT_EQ(partitions[0], Json({{"dn", "o=x"}, {"entries", 1204}}));
    EXPECT_EQ(partitions[1],
              Json({{"dn", "o=y"}, {"error", {{"code", 32}, {"message", missing}}}}));
    EXPECT_EQ(finished.status, 4);
}

TEST_F(Count, that_fails_for_all_has_failed)
{
    refuse();
    refuse();
    const Finished finished = greirige(peer, {"partition", "count", "o=x", "o=y"});
    EXPECT_EQ(finished.out, "");
    EXPECT_EQ(finished.err, cannot_count("o=x", missing) + cannot_count("o=y", missing));
    EXPECT_EQ(finished.status, 1);
}

TEST_F(Count, stops_when_the_connection_is_lost)
{
    answer(1204);
    peer.close_at(LDAPX_PARTITION_ENTRY_COUNT_REQUEST);
    answer(7);
    const Finished finished = greirige(peer, {"partition", "count", "o=x", "o=y", "o=z"});
    EXPECT_EQ(finished.err,
              cannot_count("o=y", "the server closed the connection (-1) (its log may say why)") +
                  cannot_count("o=z", "not counted, the connection is lost"));
    EXPECT_EQ(finished.out, "ENTRIES  PARTITION\n"
                            "   1204  o=x\n"
                            "      -  o=y\n"
                            "      -  o=z\n");
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(peer.connections(), 1); // a second one would not be bound
}

TEST_F(Count, without_a_value_or_with_a_wrong_one_has_failed)
{
    peer.answer(LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
                {.name = LDAPX_PARTITION_ENTRY_COUNT_RESPONSE});
    peer.answer(LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
                {.name = LDAPX_PARTITION_ENTRY_COUNT_RESPONSE, .value = octets("7")});
    peer.answer(LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
                {.name = LDAPX_PARTITION_ENTRY_COUNT_RESPONSE, .value = ""});
    const Finished finished = greirige(peer, {"partition", "count", "o=x", "o=y", "o=z"});
    EXPECT_EQ(finished.err,
              cannot_count("o=x", "the server's answer holds no value (1)") +
                  cannot_count("o=y", "the server's answer cannot be read (83) (is this a server "
                                      "that offers the operation?)") +
                  cannot_count("o=z", "the server's answer cannot be read (83) (is this a server "
                                      "that offers the operation?)"));
    EXPECT_EQ(finished.status, 1);
}

TEST(Bytes, that_are_not_utf8_are_marked_and_complete)
{
    TcpPeer peer;
    for (int i = 0; i < 2; ++i)
        peer.answer(LDAPX_SPLIT_PARTITION_REQUEST, {.name = LDAPX_SPLIT_PARTITION_RESPONSE});
    const Finished text = greirige(peer, {"partition", "split", "o=\xff"});
    EXPECT_EQ(text.out, "base64:bz3/ is the root of a partition\n");
    const Finished json = greirige(peer, {"--json", "partition", "split", "o=\xff"});
    EXPECT_EQ(document(json)["dn"], Json({{"base64", "bz3/"}}));
}

} // namespace
