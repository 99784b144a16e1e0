// Partitions: the bytes that each function sends, and what it makes of every answer.

#include <climits>
#include <thread>

#include <gtest/gtest.h>

#include "support/ber.h"
#include "support/peer.h"
#include "wire/partition_operations.h"

using namespace support;
using namespace std::chrono_literals;

namespace {

char dn[] = "o=x";

// What the LDAP library's own call makes of the same exchange: its result and the code that it
// leaves in the session.
struct Bare {
    int rc;
    int session_code;
};

Bare bare_exchange(Peer &peer, const Operation &operation)
{
    berval value{operation.value.size(), const_cast<char *>(operation.value.data())};
    char *oid = nullptr;
    berval *data = nullptr;
    int rc = ldap_extended_operation_s(peer.ld(), operation.request.c_str(), &value, nullptr,
                                       nullptr, &oid, &data);
    ldap_memfree(oid);
    ber_bvfree(data);
    return {rc, peer.session_code()};
}

class PartitionOperation : public testing::TestWithParam<Operation> {
protected:
    const Operation &operation = GetParam();

    // The result of the call when the server answers this.
    int call(const Response &response)
    {
        Peer peer;
        peer.respond(response);
        return operation.call(peer.ld());
    }

    // What a server that does the operation answers.
    Response success() const
    {
        Response response{.name = operation.response};
        if (operation.decodes())
            response.value = operation.answer;
        return response;
    }
};

INSTANTIATE_TEST_SUITE_P(, PartitionOperation, testing::ValuesIn(partition::operations()),
                         FunctionName());

class OperationWithoutAnswer : public PartitionOperation {};

std::vector<Operation> without_answer()
{
    std::vector<Operation> all = partition::operations();
    std::erase_if(all, [](const Operation &operation) { return operation.decodes(); });
    return all;
}

INSTANTIATE_TEST_SUITE_P(, OperationWithoutAnswer, testing::ValuesIn(without_answer()),
                         FunctionName());

} // namespace

TEST_P(PartitionOperation, sends_one_request_with_its_name_and_value_and_no_controls)
{
    Peer peer;
    peer.respond(success());
    EXPECT_EQ(operation.call(peer.ld()), LDAP_SUCCESS);
    Request request = peer.take_request();
    EXPECT_EQ(request.id, 1);
    EXPECT_EQ(request.operation, 0x77);
    EXPECT_EQ(request.name, operation.request);
    EXPECT_EQ(request.value, operation.value) << hex(request.value.value_or(""));
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionOperation, leaves_the_default_controls_of_the_session_in_force)
{
    Peer peer;
    char oid[] = "1.2.3";
    LDAPControl control{oid, {0, nullptr}, 1};
    LDAPControl *controls[] = {&control, nullptr};
    ASSERT_EQ(ldap_set_option(peer.ld(), LDAP_OPT_SERVER_CONTROLS, controls), 0);
    peer.respond(success());
    EXPECT_EQ(operation.call(peer.ld()), LDAP_SUCCESS);
    EXPECT_EQ(peer.take_request().controls, sequence(octets("1.2.3"), boolean(true)));
}

TEST_P(PartitionOperation, works_again_and_again_on_one_session)
{
    Peer peer;
    for (int id = 1; id <= 3; id++) {
        peer.respond(success());
        EXPECT_EQ(operation.call(peer.ld()), LDAP_SUCCESS);
        EXPECT_EQ(peer.take_request().id, id);
    }
    EXPECT_TRUE(peer.quiet());
}

TEST_P(PartitionOperation, requires_the_response_name_as_a_whole_string)
{
    Response response = success();
    response.name = std::nullopt;
    EXPECT_EQ(call(response), LDAPX_NOT_SUPPORTED);
    for (const std::string &name :
         {operation.response + "0", operation.response + ".1", operation.response + " ",
          operation.response.substr(0, operation.response.size() - 1), operation.response.substr(1),
          operation.request, std::string("2"), administrative(1)}) {
        response.name = name;
        EXPECT_EQ(call(response), LDAPX_NOT_SUPPORTED) << name;
    }
}

TEST_P(PartitionOperation, returns_the_server_s_code_unchanged_whatever_the_response_name)
{
    for (int code : {1, 32, 50, 53, 0x50, 0x53, 0x5c, 118, 4096})
        for (const std::optional<std::string> &name :
             {std::optional<std::string>(), std::optional(operation.response),
              std::optional<std::string>("1.2.3")}) {
            EXPECT_EQ(call({.code = code, .name = name, .diagnostic = "no", .matched_dn = "o=x"}),
                      code);
            EXPECT_EQ(call({.code = code, .name = name, .value = operation.answer}), code);
        }
}

TEST_P(OperationWithoutAnswer, releases_a_value_that_the_server_sends_anyway_unread)
{
    for (const std::string &value :
         {std::string(), bytes("02 01"), bytes("30 84 ff ff ff ff"), std::string(100000, '\xff')})
        EXPECT_EQ(call({.name = operation.response, .value = value}), LDAP_SUCCESS);
}

TEST_P(PartitionOperation, leaves_the_session_s_result_code_as_the_ldap_library_sets_it)
{
    std::vector<Response> responses = {success(), {}, {.name = "1.2.3"}};
    responses.push_back({.code = LDAP_UNWILLING_TO_PERFORM, .name = operation.response});
    responses.push_back({.name = operation.response, .value = "\x04"});
    for (const Response &response : responses) {
        Peer bare;
        Peer peer;
        for (Peer *each : {&bare, &peer}) {
            int marked = LDAP_ALIAS_PROBLEM;
            ldap_set_option(each->ld(), LDAP_OPT_RESULT_CODE, &marked);
            each->respond(response);
        }
        Bare expected = bare_exchange(bare, operation);
        operation.call(peer.ld());
        EXPECT_EQ(peer.session_code(), expected.session_code);
    }
}

TEST_P(PartitionOperation, returns_the_ldap_library_s_own_failures_unchanged)
{
    auto both = [this](auto prepare) {
        Peer bare;
        Peer peer;
        prepare(bare);
        prepare(peer);
        Bare expected = bare_exchange(bare, operation);
        EXPECT_EQ(operation.call(peer.ld()), expected.rc);
        EXPECT_EQ(peer.session_code(), expected.session_code);
        return expected.rc;
    };
    EXPECT_EQ(both([](Peer &peer) { peer.set_timeout(10ms); }), LDAP_TIMEOUT);
    EXPECT_EQ(both([](Peer &peer) { peer.close(); }), LDAP_SERVER_DOWN);
    EXPECT_EQ(both([](Peer &peer) { peer.finish(); }), LDAP_SERVER_DOWN);
    EXPECT_EQ(both([](Peer &peer) {
                  peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
                  peer.finish();
              }),
              LDAP_SERVER_DOWN);
    EXPECT_EQ(both([](Peer &peer) {
                  int version = LDAP_VERSION2;
                  ldap_set_option(peer.ld(), LDAP_OPT_PROTOCOL_VERSION, &version);
              }),
              LDAP_NOT_SUPPORTED);
}

TEST_P(PartitionOperation, treats_a_response_cut_at_any_byte_as_the_ldap_library_does)
{
    for (const std::string &cut : cuts(extended_response(1, success()))) {
        Peer bare;
        Peer peer;
        for (Peer *each : {&bare, &peer}) {
            each->send(cut);
            each->finish();
        }
        int expected = bare_exchange(bare, operation).rc;
        EXPECT_NE(expected, LDAP_SUCCESS);
        EXPECT_EQ(operation.call(peer.ld()), expected) << cut.size() << " bytes";
    }
}

// ---- Request values -----------------------------------------------------------------------------

TEST(PartitionRequest, flags_are_sent_as_the_shortest_integer_of_their_value)
{
    struct {
        int flags;
        const char *element;
    } const cases[] = {
        {0, "02 01 00"},
        {1, "02 01 01"},
        {127, "02 01 7f"},
        {128, "02 02 00 80"},
        {255, "02 02 00 ff"},
        {256, "02 02 01 00"},
        {0x12345678, "02 04 12 34 56 78"},
        {INT_MAX, "02 04 7f ff ff ff"},
        {-1, "02 01 ff"},
        {-128, "02 01 80"},
        {-129, "02 02 ff 7f"},
        {INT_MIN, "02 04 80 00 00 00"},
    };
    for (const auto &function : partition::flagged)
        for (const auto &[flags, element] : cases) {
            Peer peer;
            peer.respond({.name = administrative(function.number + 1)});
            EXPECT_EQ(function.function(peer.ld(), dn, flags), 0);
            EXPECT_EQ(peer.take_request().value, bytes(element) + bytes("04 03 6f 3d 78"))
                << function.name << " " << flags;
        }
}

TEST(PartitionRequest, names_of_every_length_are_sent_whole)
{
    for (std::size_t length : {0U, 1U, 127U, 128U, 255U, 256U, 65535U, 65536U, 1U << 20}) {
        std::string name(length, 'n');
        std::string expected = octets(name);
        auto request_value = [&](int number, auto call) {
            Peer peer;
            peer.read_ahead();
            peer.respond({.name = administrative(number + 1), .value = bytes("02 01 01")});
            EXPECT_EQ(call(peer.ld()), 0);
            // Compared before it is shown: a failure must not print megabytes.
            return peer.take_request().value.value_or("none");
        };
        for (const auto &[function_name, function, number] : partition::flagged) {
            auto f = function;
            EXPECT_TRUE(request_value(number, [&](LDAP *ld) { return f(ld, name.data(), 3); }) ==
                        bytes("02 01 03") + expected)
                << function_name << " " << length;
        }
        for (const auto &[function_name, function, number] : partition::orphan) {
            auto f = function;
            EXPECT_TRUE(request_value(number, [&](LDAP *ld) { return f(ld, name.data(), dn); }) ==
                        expected + octets("o=x"))
                << function_name << " " << length;
            EXPECT_TRUE(request_value(number, [&](LDAP *ld) { return f(ld, dn, name.data()); }) ==
                        octets("o=x") + expected)
                << function_name << " " << length;
        }
        for (const auto &[function_name, function, number] : partition::count) {
            auto f = function;
            unsigned long entries = 0;
            EXPECT_TRUE(
                request_value(number, [&](LDAP *ld) { return f(ld, name.data(), &entries); }) ==
                expected)
                << function_name << " " << length;
        }
    }
}

TEST(PartitionRequest, names_are_sent_byte_for_byte)
{
    // UTF-8, escapes, and bytes that are no UTF-8 at all: nothing is interpreted.
    for (std::string name : {"ou=Z\xc3\xbcrich\\, West,o=x", "\xff\xfe", " o = x "}) {
        Peer peer;
        peer.respond({.name = administrative(4)});
        EXPECT_EQ(ldap_split_partition(peer.ld(), name.data(), 0), 0);
        EXPECT_EQ(peer.take_request().value, integer(0) + octets(name));
    }
}

// ---- The entry count's answer -------------------------------------------------------------------

namespace {

constexpr unsigned long untouched = 0xa5a5a5a5a5a5a5a5;

struct Counted {
    int rc;
    unsigned long count;
};

Counted count_entries(partition::Count function, const Response &response,
                      unsigned long before = untouched)
{
    Peer peer;
    peer.respond(response);
    Counted counted{0, before};
    counted.rc = function(peer.ld(), dn, &counted.count);
    return counted;
}

class EntryCount : public testing::TestWithParam<partition::CountFunction> {
protected:
    static Counted answer(const std::optional<std::string> &value, unsigned long before = untouched)
    {
        return count_entries(GetParam().function, {.name = administrative(14), .value = value},
                             before);
    }
    static void expect_undecodable(const std::string &value)
    {
        Counted counted = answer(value);
        EXPECT_EQ(counted.rc, LDAPX_ENCODING_ERROR) << hex(value);
        EXPECT_EQ(counted.count, untouched) << hex(value);
    }
};

INSTANTIATE_TEST_SUITE_P(, EntryCount, testing::ValuesIn(partition::count),
                         [](const auto &count) { return std::string(count.param.name); });

} // namespace

TEST_P(EntryCount, gives_the_number_that_the_server_sent)
{
    for (unsigned long entries : {0UL, 1UL, 127UL, 128UL, 65535UL, 1000000UL, 2147483647UL}) {
        Counted counted = answer(integer(static_cast<long long>(entries)), 0);
        EXPECT_EQ(counted.rc, LDAP_SUCCESS);
        EXPECT_EQ(counted.count, entries);
    }
}

TEST_P(EntryCount, stores_four_bytes_and_leaves_the_others_as_the_caller_set_them)
{
    Counted counted = answer(integer(42));
    EXPECT_EQ(counted.rc, LDAP_SUCCESS);
    EXPECT_EQ(counted.count, 0xa5a5a5a50000002a);
    counted = answer(integer(-1), 0);
    EXPECT_EQ(counted.rc, LDAP_SUCCESS);
    EXPECT_EQ(counted.count, 0x00000000ffffffff);
    counted = answer(integer(INT_MIN));
    EXPECT_EQ(counted.rc, LDAP_SUCCESS);
    EXPECT_EQ(counted.count, 0xa5a5a5a580000000);
}

TEST_P(EntryCount, reads_integers_in_longer_forms_than_necessary)
{
    EXPECT_EQ(answer(bytes("02 04 00 00 00 07"), 0).count, 7U);
    EXPECT_EQ(answer(bytes("02 81 01 07"), 0).count, 7U);
    EXPECT_EQ(answer(bytes("02 84 00 00 00 01 07"), 0).count, 7U);
}

TEST_P(EntryCount, reads_the_first_element_and_nothing_behind_it)
{
    for (const char *rest : {"02 01 05", "04", "ff ff ff", "30 84 ff ff ff ff"}) {
        Counted counted = answer(integer(9) + bytes(rest), 0);
        EXPECT_EQ(counted.rc, LDAP_SUCCESS);
        EXPECT_EQ(counted.count, 9U);
    }
}

TEST_P(EntryCount, without_a_value_is_an_operations_error)
{
    Counted counted = answer(std::nullopt);
    EXPECT_EQ(counted.rc, LDAPX_OPERATIONS_ERROR);
    EXPECT_EQ(counted.count, untouched);
}

TEST_P(EntryCount, does_not_decode_an_empty_value)
{
    expect_undecodable("");
}

TEST_P(EntryCount, does_not_decode_a_value_cut_at_any_byte)
{
    for (const std::string &value : {integer(5), integer(70000), integer(INT_MAX),
                                     bytes("02 81 01 07"), bytes("02 84 00 00 00 01 07")})
        for (const std::string &cut : cuts(value))
            expect_undecodable(cut);
}

TEST_P(EntryCount, does_not_decode_a_value_of_another_type)
{
    for (const std::string &value :
         {enumerated(5), boolean(true), octets("5"), null(), sequence(integer(5)), set(integer(5)),
          integer(5, 0x80), integer(5, 0x42), octets(integer(5)), bytes("22 01 05"),
          bytes("1f 02 01 05"), bytes("00 00")})
        expect_undecodable(value);
}

TEST_P(EntryCount, does_not_decode_an_integer_that_is_wider_than_four_bytes)
{
    for (const char *value :
         {"02 05 00 80 00 00 00", "02 05 00 00 00 00 01", "02 05 ff ff ff ff ff",
          "02 08 7f ff ff ff ff ff ff ff", "02 09 00 ff ff ff ff ff ff ff ff"})
        expect_undecodable(bytes(value));
}

TEST_P(EntryCount, does_not_believe_a_length_beyond_the_value)
{
    for (const char *value :
         {"02 02 05", "02 7f 05", "02 80 05 00 00", "02 84 ff ff ff ff 05", "02 84 7f ff ff ff 05",
          "02 88 ff ff ff ff ff ff ff ff 05", "02 ff 05"})
        expect_undecodable(bytes(value));
}

TEST_P(EntryCount, does_not_decode_anything_under_a_wrong_name)
{
    for (const std::optional<std::string> &name :
         {std::optional<std::string>(), std::optional(administrative(13)),
          std::optional(administrative(140)), std::optional(administrative(1))}) {
        Counted counted = count_entries(GetParam().function, {.name = name, .value = integer(5)});
        EXPECT_EQ(counted.rc, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(counted.count, untouched);
    }
}

TEST_P(EntryCount, leaves_the_count_alone_when_the_server_refuses)
{
    Counted counted = count_entries(
        GetParam().function,
        {.code = LDAP_NO_SUCH_OBJECT, .name = administrative(14), .value = integer(5)});
    EXPECT_EQ(counted.rc, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(counted.count, untouched);
}

// ---- Sessions on threads ------------------------------------------------------------------------

TEST(Sessions, on_two_threads_do_not_disturb_each_other)
{
    auto work = [](int seed) {
        Peer peer;
        for (int round = 0; round < 50; round++) {
            for (const Operation &operation : partition::operations()) {
                peer.respond({.name = operation.response, .value = bytes("02 01 01")});
                EXPECT_EQ(operation.call(peer.ld()), LDAP_SUCCESS) << operation.function;
                EXPECT_EQ(peer.take_request().value, operation.value) << operation.function;
            }
            int entries = seed * 1000 + round;
            unsigned long count = 0;
            peer.respond({.name = administrative(14), .value = integer(entries)});
            EXPECT_EQ(ldap_partition_entry_count(peer.ld(), dn, &count), LDAP_SUCCESS);
            EXPECT_EQ(count, static_cast<unsigned long>(entries));
            peer.take_request();

            peer.respond({.code = seed, .diagnostic = std::to_string(seed)});
            EXPECT_EQ(ldap_split_partition(peer.ld(), dn, seed), seed);
            EXPECT_EQ(peer.session_code(), seed);
            EXPECT_EQ(peer.take_request().value, integer(seed) + octets("o=x"));
        }
        EXPECT_TRUE(peer.quiet());
    };
    std::thread first(work, 1);
    std::thread second(work, 2);
    first.join();
    second.join();
}
