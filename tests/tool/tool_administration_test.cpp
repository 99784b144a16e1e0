// Replicas, synchronisation, filters, identities, rights, names and triggers: what is sent and what
// is shown. And every command of the tool against servers that answer nonsense.

#include <fstream>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "tool.h"

using namespace support;
using namespace tool_test;
using Json = nlohmann::ordered_json;

namespace {

// A command whose answer is only that it was done.
struct Case {
    Arguments arguments;
    std::string request;
    std::optional<std::string> value;
    std::string response;
    std::string text;
    Json details;
};

const std::string server = "cn=s,o=x";

const Case cases[] = {
    {{"replica", "add", "o=x", server, "read-only", "--flags", "5"},
     LDAPX_ADD_REPLICA_REQUEST,
     concat(integer(5), integer(2), octets(server), octets("o=x")),
     LDAPX_ADD_REPLICA_RESPONSE,
     "cn=s,o=x holds a read-only replica of o=x\n",
     {{"dn", "o=x"}, {"serverDN", server}, {"type", "read-only"}, {"flags", 5}}},
    {{"--yes", "replica", "remove", "o=x", server},
     LDAPX_REMOVE_REPLICA_REQUEST,
     concat(integer(0), octets(server), octets("o=x")),
     LDAPX_REMOVE_REPLICA_RESPONSE,
     "cn=s,o=x holds no replica of o=x any more\n",
     {{"dn", "o=x"}, {"serverDN", server}, {"flags", 0}}},
    {{"replica", "retype", "o=x", server, "sparse-read"},
     LDAPX_CHANGE_REPLICA_TYPE_REQUEST,
     concat(integer(0), integer(5), octets(server), octets("o=x")),
     LDAPX_CHANGE_REPLICA_TYPE_RESPONSE,
     "the replica of o=x on cn=s,o=x is sparse-read\n",
     {{"dn", "o=x"}, {"serverDN", server}, {"type", "sparse-read"}, {"flags", 0}}},
    {{"sync", "receive", "o=x", server},
     LDAPX_RECEIVE_ALL_UPDATES_REQUEST,
     concat(octets("o=x"), octets(server), octets("unusedParam")),
     LDAPX_RECEIVE_ALL_UPDATES_RESPONSE,
     "cn=s,o=x receives all updates of o=x\n",
     {{"dn", "o=x"}, {"toServerDN", server}}},
    {{"sync", "receive", "o=x", server, "cn=t"},
     LDAPX_RECEIVE_ALL_UPDATES_REQUEST,
     concat(octets("o=x"), octets(server), octets("cn=t")),
     LDAPX_RECEIVE_ALL_UPDATES_RESPONSE,
     "cn=s,o=x receives all updates of o=x\n",
     {{"dn", "o=x"}, {"toServerDN", server}, {"fromServerDN", "cn=t"}}},
    {{"sync", "send", "o=x"},
     LDAPX_SEND_ALL_UPDATES_REQUEST,
     concat(octets("o=x"), octets("")),
     LDAPX_SEND_ALL_UPDATES_RESPONSE,
     "the server sends all updates of o=x\n",
     {{"dn", "o=x"}}},
    {{"sync", "send", "o=x", server},
     LDAPX_SEND_ALL_UPDATES_REQUEST,
     concat(octets("o=x"), octets(server)),
     LDAPX_SEND_ALL_UPDATES_RESPONSE,
     "cn=s,o=x sends all updates of o=x\n",
     {{"dn", "o=x"}, {"serverDN", server}}},
    {{"sync", "partition", "o=x", server, "--delay", "30"},
     LDAPX_REQUEST_PARTITION_SYNC_REQUEST,
     concat(octets(server), octets("o=x"), integer(30)),
     LDAPX_REQUEST_PARTITION_SYNC_RESPONSE,
     "cn=s,o=x synchronises o=x\n",
     {{"dn", "o=x"}, {"serverDN", server}, {"delay", 30}}},
    {{"sync", "schema", "o=x", "--delay=-1"},
     LDAPX_REQUEST_SCHEMA_SYNC_REQUEST,
     concat(octets("o=x"), integer(-1)),
     LDAPX_REQUEST_SCHEMA_SYNC_RESPONSE,
     "the schema of o=x is synchronised\n",
     {{"dn", "o=x"}, {"delay", -1}}},
    {{"refresh"},
     LDAPX_REFRESH_SERVER_REQUEST,
     std::nullopt,
     LDAPX_REFRESH_SERVER_RESPONSE,
     "the server refreshes itself\n",
     Json::object()},
    {{"trigger", "backlink"},
     LDAPX_TRIGGER_BACKLINK_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_BACKLINK_RESPONSE,
     "the background process backlink is started\n",
     {{"process", "backlink"}}},
    {{"trigger", "janitor"},
     LDAPX_TRIGGER_JANITOR_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_JANITOR_RESPONSE,
     "the background process janitor is started\n",
     {{"process", "janitor"}}},
    {{"trigger", "limber"},
     LDAPX_TRIGGER_LIMBER_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_LIMBER_RESPONSE,
     "the background process limber is started\n",
     {{"process", "limber"}}},
    {{"trigger", "skulker"},
     LDAPX_TRIGGER_SKULKER_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_SKULKER_RESPONSE,
     "the background process skulker is started\n",
     {{"process", "skulker"}}},
    {{"trigger", "schema-sync"},
     LDAPX_TRIGGER_SCHEMA_SYNC_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_SCHEMA_SYNC_RESPONSE,
     "the background process schema-sync is started\n",
     {{"process", "schema-sync"}}},
    {{"trigger", "partition-purge"},
     LDAPX_TRIGGER_PARTITION_PURGE_REQUEST,
     std::nullopt,
     LDAPX_TRIGGER_PARTITION_PURGE_RESPONSE,
     "the background process partition-purge is started\n",
     {{"process", "partition-purge"}}},
};

class Administration : public testing::TestWithParam<Case> {};

TEST_P(Administration, operation_is_sent_and_reported_as_text)
{
    TcpPeer peer;
    const Case &it = GetParam();
    peer.answer(it.request, {.name = it.response});
    const Finished finished = greirige(peer, it.arguments);
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(finished.out, it.text);
    EXPECT_EQ(finished.status, 0);
    const auto value = peer.request(it.request).value;
    EXPECT_EQ(hex(value.value_or("none")), hex(it.value.value_or("none")));
}

TEST_P(Administration, operation_is_reported_as_json)
{
    TcpPeer peer;
    const Case &it = GetParam();
    peer.answer(it.request, {.name = it.response});
    Arguments arguments = it.arguments;
    arguments.emplace_back("--json");
    Json json = document(greirige(peer, arguments));
    EXPECT_TRUE(json["operation"].is_string());
    EXPECT_EQ(json["server"], peer.uri());
    EXPECT_EQ(json["done"], true);
    for (const char *common : {"operation", "server", "done"})
        json.erase(common);
    EXPECT_EQ(json.dump(), it.details.dump());
}

INSTANTIATE_TEST_SUITE_P(Each, Administration, testing::ValuesIn(cases), CommandName());

TEST(ReplicaType, of_every_name_is_sent_as_its_number)
{
    const char *names[] = {"master", "secondary",    "read-only",
                           "subref", "sparse-write", "sparse-read"};
    for (int number = 0; number < 6; ++number) {
        TcpPeer peer;
        peer.answer(LDAPX_ADD_REPLICA_REQUEST, {.name = LDAPX_ADD_REPLICA_RESPONSE});
        EXPECT_EQ(greirige(peer, {"replica", "add", "o=x", server, names[number]}).status, 0);
        EXPECT_EQ(*peer.request(LDAPX_ADD_REPLICA_REQUEST).value,
                  concat(integer(0), integer(number), octets(server), octets("o=x")));
    }
}

// Commands that read something.

class Reading : public testing::Test {
protected:
    void answer(const std::string &request, const std::string &response, const std::string &value)
    {
        peer.answer(request, {.name = response, .value = value});
    }
    TcpPeer peer;
};

std::string replica_info(const std::string &dn, int type)
{
    return concat(integer(32774), integer(1), integer(1700000000), integer(-2), integer(3),
                  octets(dn), integer(type), integer(8));
}

TEST_F(Reading, replica_info_is_shown_as_aligned_lines)
{
    answer(LDAPX_GET_REPLICA_INFO_REQUEST, LDAPX_GET_REPLICA_INFO_RESPONSE, replica_info("o=x", 1));
    const Finished finished = greirige(peer, {"replica", "info", "o=x", server});
    EXPECT_EQ(finished.out, "partition          o=x\n"
                            "type               secondary\n"
                            "state              1\n"
                            "flags              8\n"
                            "root entry         32774\n"
                            "replica number     3\n"
                            "modification time  1700000000\n"
                            "purge time         -2\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(*peer.request(LDAPX_GET_REPLICA_INFO_REQUEST).value,
              concat(octets(server), octets("o=x")));
}

TEST_F(Reading, replica_info_is_a_json_document_with_the_whole_dn)
{
    const std::string dn = "ou=" + std::string(2000, 'u') + ",o=x";
    answer(LDAPX_GET_REPLICA_INFO_REQUEST, LDAPX_GET_REPLICA_INFO_RESPONSE, replica_info(dn, 77));
    const Json json = document(greirige(peer, {"--json", "replica", "info", "o=x", server}));
    const Json expected{{"operation", "replica info"},
                        {"server", peer.uri()},
                        {"dn", "o=x"},
                        {"serverDN", server},
                        {"partition", dn},
                        {"type", "type 77"},
                        {"replicaType", 77},
                        {"state", 1},
                        {"flags", 8},
                        {"rootID", 32774},
                        {"localReplicaID", 3},
                        {"modificationTime", 1700000000},
                        {"purgeTime", -2}};
    EXPECT_EQ(json.dump(), expected.dump());
}

TEST_F(Reading, replica_list_is_one_name_on_a_line)
{
    answer(LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE,
           sequence(octets("o=x"), octets("ou=y\n,o=x")));
    const Finished finished = greirige(peer, {"replica", "list", server});
    EXPECT_EQ(finished.out, "o=x\nou=y\\0A,o=x\n");
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(*peer.request(LDAPX_LIST_REPLICAS_REQUEST).value, octets(server));
}

TEST_F(Reading, replica_list_is_a_json_array)
{
    answer(LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE,
           sequence(octets("o=x"), octets("o=\xfe")));
    const Json json = document(greirige(peer, {"--json", "replica", "list", server}));
    EXPECT_EQ(json["replicas"], Json::array({"o=x", Json{{"base64", "bz3+"}}}));
}

TEST_F(Reading, replica_list_may_be_empty)
{
    for (int i = 0; i < 2; ++i)
        answer(LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE, sequence());
    const Finished text = greirige(peer, {"replica", "list", server});
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err, "greirige: \"cn=s,o=x\" holds no replicas\n");
    EXPECT_EQ(text.status, 0);
    const Finished json = greirige(peer, {"--json", "replica", "list", server});
    EXPECT_EQ(document(json)["replicas"], Json::array());
}

std::string filter_value()
{
    return sequence(sequence(octets("inetOrgPerson"), sequence(octets("cn"), octets("sn"))),
                    sequence(octets("group"), sequence()));
}

TEST_F(Reading, filter_is_shown_one_class_on_a_line)
{
    answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
           filter_value());
    const Finished finished = greirige(peer, {"filter", "get", server});
    EXPECT_EQ(finished.out, "inetOrgPerson cn sn\ngroup\n");
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(*peer.request(LDAPX_GET_REPLICATION_FILTER_REQUEST).value, octets(server));
}

TEST_F(Reading, filter_is_shown_as_flat_text_when_asked)
{
    answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
           filter_value());
    const Finished finished = greirige(peer, {"filter", "get", server, "--raw"});
    EXPECT_EQ(finished.out, "inetOrgPerson$cn$sn$$group$$$\n");
}

TEST_F(Reading, filter_is_a_json_document)
{
    answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
           filter_value());
    const Json json = document(greirige(peer, {"--json", "filter", "get", server}));
    EXPECT_EQ(json["filter"], "inetOrgPerson$cn$sn$$group$$$");
    EXPECT_EQ(json["classes"],
              Json::array({{{"class", "inetOrgPerson"}, {"attributes", {"cn", "sn"}}},
                           {{"class", "group"}, {"attributes", Json::array()}}}));
}

TEST_F(Reading, filter_without_classes_is_told)
{
    answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE, sequence());
    const Finished finished = greirige(peer, {"filter", "get", server});
    EXPECT_EQ(finished.out, "");
    EXPECT_EQ(finished.err, "greirige: \"cn=s,o=x\" has a filter without classes\n");
    EXPECT_EQ(finished.status, 0);
}

TEST_F(Reading, filter_that_no_text_can_express_has_failed)
{
    for (int i = 0; i < 2; ++i) // a class without a name
        answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
               sequence(sequence(octets(""), sequence(octets("cn")))));
    for (const Arguments &arguments :
         {Arguments{"filter", "get", server}, Arguments{"filter", "get", server, "--raw"}}) {
        const Finished finished = greirige(peer, arguments);
        EXPECT_EQ(finished.err,
                  "greirige: cannot read the replication filter of \"cn=s,o=x\" on " + peer.uri() +
                      ": the server's answer cannot be read (84): text follows the dollar sign "
                      "that closes the filter\n");
        EXPECT_EQ(finished.out, "");
        EXPECT_EQ(finished.status, 1);
    }
}

TEST_F(Reading, filter_that_is_malformed_has_failed)
{
    answer(LDAPX_GET_REPLICATION_FILTER_REQUEST, LDAPX_GET_REPLICATION_FILTER_RESPONSE,
           sequence(sequence(octets("a"), sequence()), integer(1)));
    const Finished finished = greirige(peer, {"filter", "get", server});
    EXPECT_EQ(finished.out, "");
    EXPECT_EQ(finished.err, "greirige: cannot read the replication filter of \"cn=s,o=x\" on " +
                                peer.uri() +
                                ": the server's answer cannot be read (84) (is this a server that "
                                "offers the operation?)\n");
    EXPECT_EQ(finished.status, 1);
}

class SetFilter : public testing::Test {
protected:
    // The filter that is sent for these arguments.
    std::string sent(const Arguments &arguments, const ProcessOptions &options = isolated())
    {
        TcpPeer peer;
        peer.answer(LDAPX_SET_REPLICATION_FILTER_REQUEST,
                    {.name = LDAPX_SET_REPLICATION_FILTER_RESPONSE});
        Arguments all{"filter", "set", server};
        all.insert(all.end(), arguments.begin(), arguments.end());
        finished = greirige(peer, all, options);
        EXPECT_EQ(finished.status, 0) << finished.err;
        const std::string value =
            peer.request(LDAPX_SET_REPLICATION_FILTER_REQUEST).value.value_or("");
        Reader reader(value);
        EXPECT_EQ(reader.take(0x04), server);
        return flat(reader.take(0x30));
    }
    static std::string flat(const std::string &classes)
    {
        std::string text;
        for (Reader reader(classes); !reader.at_end();) {
            const std::string one = reader.take(0x30);
            Reader parts(one);
            text += parts.take(0x04) + '$';
            const std::string attributes = parts.take(0x30);
            for (Reader names(attributes); !names.at_end();)
                text += names.take(0x04) + '$';
            text += '$';
        }
        return text + '$';
    }
    Finished finished;
};

TEST_F(SetFilter, takes_a_class_and_its_attributes_as_one_argument)
{
    EXPECT_EQ(sent({"inetOrgPerson  cn\tsn ", "group"}), "inetOrgPerson$cn$sn$$group$$$");
    EXPECT_EQ(finished.out, "cn=s,o=x replicates 2 classes\n");
    EXPECT_EQ(sent({"group"}), "group$$$");
    EXPECT_EQ(finished.out, "cn=s,o=x replicates 1 class\n");
}

TEST_F(SetFilter, takes_lines_of_a_file_or_of_standard_input)
{
    const TemporaryDirectory directory;
    std::ofstream(directory.path() + "/filter") << "# people\ninetOrgPerson cn sn\n\ngroup\n";
    EXPECT_EQ(sent({"-f", directory.path() + "/filter"}), "inetOrgPerson$cn$sn$$group$$$");
    ProcessOptions options = isolated();
    options.stdin_text = "a b\nc";
    EXPECT_EQ(sent({"-f", "-"}, options), "a$b$$c$$$");
}

TEST_F(SetFilter, refuses_a_zero_byte_from_a_file)
{
    ProcessOptions options = isolated();
    options.stdin_text = std::string("a b\0c\n", 6);
    EXPECT_EQ(greirige({"-n", "filter", "set", server, "-f", "-"}, options).err,
              "greirige: \"b\\00c\": a name in a filter cannot hold a zero byte\n");
    EXPECT_EQ(greirige({"-n", "filter", "set", server, "--raw", "-f", "-"}, options).status, 2);
}

TEST_F(SetFilter, takes_flat_text)
{
    EXPECT_EQ(sent({"--raw", "inetOrgPerson$cn$sn$$group$$$"}), "inetOrgPerson$cn$sn$$group$$$");
    EXPECT_EQ(sent({"--raw", "$"}), "$");
    EXPECT_EQ(sent({"--raw", "[a,b]$$$"}), "[a,b]$$$");
    EXPECT_EQ(finished.out, "cn=s,o=x replicates 1 class\n");
}

TEST_F(SetFilter, understands_what_get_shows_whatever_the_names_are)
{
    const std::string odd[] = {"two words", "back\\slash", "#hash", "tab\tnew\nline",
                               "\xff\xfe",  "Bücher",      "\x7f",  "a#b"};
    std::string classes;
    std::string expected;
    for (const std::string &name : odd) {
        classes += sequence(octets(name), sequence(octets(name), octets("cn")));
        expected += name + '$' + name + "$cn$$";
    }
    TcpPeer peer;
    peer.answer(LDAPX_GET_REPLICATION_FILTER_REQUEST,
                {.name = LDAPX_GET_REPLICATION_FILTER_RESPONSE, .value = sequence(classes)});
    ProcessOptions options = isolated();
    options.stdin_text = greirige(peer, {"filter", "get", server}).out;
    EXPECT_EQ(options.stdin_text.substr(0, 28), "two\\20words two\\20words cn\nb");
    EXPECT_EQ(sent({"-f", "-"}, options), expected + '$');
}

TEST_F(Reading, identity_is_shown)
{
    answer(LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, octets("cn=a,o=x"));
    answer(LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, octets(""));
    answer(LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, octets("cn=a,o=x"));
    EXPECT_EQ(greirige(peer, {"whoami"}).out, "cn=a,o=x\n");
    EXPECT_EQ(greirige(peer, {"whoami"}).out, "anonymous\n");
    EXPECT_EQ(document(greirige(peer, {"--json", "whoami"}))["identity"], "cn=a,o=x");
    EXPECT_FALSE(peer.request(LDAPX_GET_BIND_DN_REQUEST).value);
}

TEST_F(Reading, identity_is_shown_whole_however_long)
{
    const std::string dn = "cn=" + std::string(2000, 'x');
    answer(LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, octets(dn));
    const Finished finished = greirige(peer, {"whoami"});
    EXPECT_EQ(finished.out, dn + '\n');
    EXPECT_EQ(finished.err, "");
}

std::string rights_value(long long count, std::initializer_list<long long> privileges)
{
    std::string entries;
    for (const long long one : privileges)
        entries += sequence(integer(one));
    return sequence(sequence(integer(count)), set(entries));
}

TEST_F(Reading, rights_are_a_table)
{
    answer(LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
           LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE, rights_value(3, {7, -1, 32}));
    const Finished finished =
        greirige(peer, {"rights", "o=x", "cn=me", "cn", "name", "[All attributes, rights]"});
    EXPECT_EQ(finished.out, "RIGHTS  ATTRIBUTE\n"
                            "     7  cn\n"
                            "    -1  name\n"
                            "    32  [All attributes, rights]\n");
    EXPECT_EQ(finished.status, 0);
    const std::string value = *peer.request(LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST).value;
    Reader reader(value);
    EXPECT_EQ(reader.take(0x04), "cn=me");
    EXPECT_EQ(reader.take(0x04), "o=x");
    EXPECT_EQ(hex(reader.take(0x30)),
              hex(concat(octets("cn"), octets("name"), octets("[All attributes, rights]"))));
}

TEST_F(Reading, rights_are_a_json_array)
{
    answer(LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
           LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE, rights_value(2, {7, 0}));
    const Finished finished = greirige(peer, {"--json", "rights", "o=x", "cn=me", "cn", "sn"});
    EXPECT_EQ(document(finished)["rights"],
              Json::array({{{"attribute", "cn"}, {"privileges", 7}},
                           {{"attribute", "sn"}, {"privileges", 0}}}));
    EXPECT_EQ(finished.err, "");
    EXPECT_EQ(finished.status, 0);
}

// The answers come without names: where there are fewer, or more, nobody can tell which is whose.
TEST_F(Reading, rights_for_another_number_of_attributes_have_failed)
{
    for (const auto &[value, why] : std::vector<std::pair<std::string, std::string>>{
             {rights_value(1, {7}), ": the server answered for another number of attributes"},
             {rights_value(0, {}), ": the server answered for another number of attributes"},
             {rights_value(-5, {}), ": the server answered for another number of attributes"},
             {rights_value(2147483647, {1, 2, 3}),
              " (is this a server that offers the operation?)"}}) {
        TcpPeer other;
        other.answer(LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
                     {.name = LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE, .value = value});
        const Finished finished = greirige(other, {"rights", "o=x", "cn=me", "cn", "sn"});
        EXPECT_EQ(finished.out, "");
        EXPECT_EQ(finished.err, "greirige: cannot ask for the rights of \"cn=me\" on \"o=x\" on " +
                                    other.uri() + ": the server's answer cannot be read (84)" +
                                    why + '\n');
        EXPECT_EQ(finished.status, 1);
    }
}

TEST_F(Reading, names_are_converted)
{
    for (int i = 0; i < 2; ++i)
        answer(LDAPX_DNS_TO_X500_DN_REQUEST, LDAPX_DNS_TO_X500_DN_RESPONSE, octets("dc=x"));
    const Finished finished = greirige(peer, {"name", "from-dns", "x.example"});
    EXPECT_EQ(finished.out, "dc=x\n");
    EXPECT_EQ(*peer.request(LDAPX_DNS_TO_X500_DN_REQUEST).value, octets("x.example"));
    const Json json = document(greirige(peer, {"--json", "name", "from-dns", "x.example"}));
    EXPECT_EQ(json["name"], "x.example");
    EXPECT_EQ(json["dn"], "dc=x");
}

TEST_F(Reading, native_names_travel_as_16_bit_units)
{
    answer(LDAPX_ZIL_TO_LDAP_REQUEST, LDAPX_ZIL_TO_LDAP_RESPONSE, octets("cn=Aé😀"));
    const Finished finished = greirige(peer, {"name", "from-native", "Aé😀"});
    EXPECT_EQ(finished.out, "cn=Aé😀\n");
    EXPECT_EQ(hex(*peer.request(LDAPX_ZIL_TO_LDAP_REQUEST).value),
              hex(octets(bytes("00 41 00 e9 d8 3d de 00 00 00"))));
}

TEST_F(Reading, empty_names_are_sent_as_they_are)
{
    answer(LDAPX_ZIL_TO_LDAP_REQUEST, LDAPX_ZIL_TO_LDAP_RESPONSE, octets(""));
    EXPECT_EQ(greirige(peer, {"name", "from-native", ""}).out, "\n");
    EXPECT_EQ(*peer.request(LDAPX_ZIL_TO_LDAP_REQUEST).value, octets(bytes("00 00")));
}

// Every command against answers that are none.

struct Asked {
    Arguments arguments;
    std::string request;
    std::string response;
    bool reads;           // looks at the response's value
    bool lenient = false; // takes a response of any name
};

const Asked every_command[] = {
    {{"partition", "split", "o=x"},
     LDAPX_SPLIT_PARTITION_REQUEST,
     LDAPX_SPLIT_PARTITION_RESPONSE,
     false},
    {{"--yes", "partition", "merge", "o=x"},
     LDAPX_MERGE_PARTITIONS_REQUEST,
     LDAPX_MERGE_PARTITIONS_RESPONSE,
     false},
    {{"--yes", "partition", "abort", "o=x"},
     LDAPX_ABORT_PARTITION_OPERATION_REQUEST,
     LDAPX_ABORT_PARTITION_OPERATION_RESPONSE,
     false},
    {{"partition", "count", "o=x"},
     LDAPX_PARTITION_ENTRY_COUNT_REQUEST,
     LDAPX_PARTITION_ENTRY_COUNT_RESPONSE,
     true},
    {{"partition", "split-orphan", "o=x", server},
     LDAPX_SPLIT_ORPHAN_PARTITION_REQUEST,
     LDAPX_SPLIT_ORPHAN_PARTITION_RESPONSE,
     false},
    {{"--yes", "partition", "remove-orphan", "o=x", server},
     LDAPX_REMOVE_ORPHAN_PARTITION_REQUEST,
     LDAPX_REMOVE_ORPHAN_PARTITION_RESPONSE,
     false},
    {{"replica", "add", "o=x", server, "master"},
     LDAPX_ADD_REPLICA_REQUEST,
     LDAPX_ADD_REPLICA_RESPONSE,
     false},
    {{"--yes", "replica", "remove", "o=x", server},
     LDAPX_REMOVE_REPLICA_REQUEST,
     LDAPX_REMOVE_REPLICA_RESPONSE,
     false},
    {{"replica", "retype", "o=x", server, "master"},
     LDAPX_CHANGE_REPLICA_TYPE_REQUEST,
     LDAPX_CHANGE_REPLICA_TYPE_RESPONSE,
     false},
    {{"replica", "info", "o=x", server},
     LDAPX_GET_REPLICA_INFO_REQUEST,
     LDAPX_GET_REPLICA_INFO_RESPONSE,
     true},
    {{"replica", "list", server}, LDAPX_LIST_REPLICAS_REQUEST, LDAPX_LIST_REPLICAS_RESPONSE, true},
    {{"sync", "receive", "o=x", server},
     LDAPX_RECEIVE_ALL_UPDATES_REQUEST,
     LDAPX_RECEIVE_ALL_UPDATES_RESPONSE,
     false},
    {{"sync", "send", "o=x"},
     LDAPX_SEND_ALL_UPDATES_REQUEST,
     LDAPX_SEND_ALL_UPDATES_RESPONSE,
     false},
    {{"sync", "partition", "o=x", server},
     LDAPX_REQUEST_PARTITION_SYNC_REQUEST,
     LDAPX_REQUEST_PARTITION_SYNC_RESPONSE,
     false},
    {{"sync", "schema", "o=x"},
     LDAPX_REQUEST_SCHEMA_SYNC_REQUEST,
     LDAPX_REQUEST_SCHEMA_SYNC_RESPONSE,
     false},
    {{"filter", "get", server},
     LDAPX_GET_REPLICATION_FILTER_REQUEST,
     LDAPX_GET_REPLICATION_FILTER_RESPONSE,
     true,
     true},
    {{"filter", "set", server, "a"},
     LDAPX_SET_REPLICATION_FILTER_REQUEST,
     LDAPX_SET_REPLICATION_FILTER_RESPONSE,
     false},
    {{"whoami"}, LDAPX_GET_BIND_DN_REQUEST, LDAPX_GET_BIND_DN_RESPONSE, true},
    {{"rights", "o=x", "cn=me", "cn"},
     LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_REQUEST,
     LDAPX_GET_EFFECTIVE_PRIVILEGES_LIST_RESPONSE,
     true},
    {{"name", "from-dns", "x"}, LDAPX_DNS_TO_X500_DN_REQUEST, LDAPX_DNS_TO_X500_DN_RESPONSE, true},
    {{"name", "from-native", "x"}, LDAPX_ZIL_TO_LDAP_REQUEST, LDAPX_ZIL_TO_LDAP_RESPONSE, true},
    {{"refresh"}, LDAPX_REFRESH_SERVER_REQUEST, LDAPX_REFRESH_SERVER_RESPONSE, false},
    {{"trigger", "janitor"}, LDAPX_TRIGGER_JANITOR_REQUEST, LDAPX_TRIGGER_JANITOR_RESPONSE, false},
};

class Nonsense : public testing::TestWithParam<Asked> {
protected:
    void expect_failure(const TcpPeer &peer, const std::string &words)
    {
        const Finished finished = greirige(peer, GetParam().arguments);
        EXPECT_EQ(finished.status, 1) << finished.out;
        EXPECT_EQ(finished.out, "");
        EXPECT_TRUE(finished.err.starts_with("greirige: cannot ")) << finished.err;
        EXPECT_NE(finished.err.find(" on " + peer.uri() + ": " + words), std::string::npos)
            << finished.err;
        EXPECT_EQ(std::count(finished.err.begin(), finished.err.end(), '\n'), 1) << finished.err;
    }
};

TEST_P(Nonsense, that_is_no_ldap_is_a_failure)
{
    TcpPeer peer;
    peer.answer_raw(GetParam().request, "\r\nI do not understand\r\n"); // tag 0d, length 10
    expect_failure(peer, "the server");
}

TEST_P(Nonsense, of_a_connection_that_ends_is_a_failure)
{
    TcpPeer peer;
    peer.close_at(GetParam().request);
    expect_failure(peer, "the server closed the connection (-1)");
}

TEST_P(Nonsense, of_another_operation_is_a_failure)
{
    TcpPeer peer;
    peer.answer(GetParam().request, {.name = GetParam().response + "1"});
    expect_failure(peer, GetParam().lenient
                             ? "the server's answer holds no value (1)"
                             : "the server answered another operation than the one asked for (92)");
}

TEST_P(Nonsense, without_a_name_is_a_failure)
{
    TcpPeer peer;
    peer.answer(GetParam().request, {});
    expect_failure(peer, "the server answered another operation than the one asked for (92)");
}

TEST_P(Nonsense, of_an_unknown_operation_is_a_failure)
{
    TcpPeer peer;
    peer.answer(GetParam().request, {.code = LDAP_PROTOCOL_ERROR, .diagnostic = "never heard"});
    expect_failure(peer, "Protocol error (2), the server says \"never heard\" (supportedExtension");
}

TEST_P(Nonsense, for_a_value_is_a_failure_where_a_value_is_read)
{
    const Asked &asked = GetParam();
    for (const std::string &value :
         {std::string(), std::string("\x30\x82\x10"), std::string("\x01\x01\xff", 3),
          std::string(1000, '\x30'), bytes("30 84 7f ff ff ff 02 01")}) {
        TcpPeer peer;
        peer.answer(asked.request, {.name = asked.response, .value = value});
        if (asked.reads)
            expect_failure(peer, "the server's answer cannot be read (8");
        else
            EXPECT_EQ(greirige(peer, asked.arguments).status, 0);
    }
    TcpPeer peer;
    peer.answer(asked.request, {.name = asked.response});
    if (asked.reads)
        expect_failure(peer, "the server's answer holds no value (1)");
    else
        EXPECT_EQ(greirige(peer, asked.arguments).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Each, Nonsense, testing::ValuesIn(every_command), CommandName());

} // namespace
