// What holds for every synchronous administrative operation alike.

#include <random>

#include <gtest/gtest.h>

#include "support/administration.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

struct Result {
    int rc;
    std::string written;
};

Result call(const Operation &operation, Peer &peer)
{
    Outputs out;
    const int rc = operation.call(peer.ld(), out);
    return {rc, out.describe()};
}

Result call_answered(const Operation &operation, const Response &response)
{
    Peer peer;
    peer.respond(response);
    Result result = call(operation, peer);
    EXPECT_EQ(peer.take_request().name, operation.request_name);
    EXPECT_TRUE(peer.quiet());
    return result;
}

// What libldap alone makes of the same exchange.
struct Bare {
    int rc;
    int session_code;
};

Bare bare_exchange(const Operation &operation, Peer &peer)
{
    std::string value = operation.request_value.value_or("");
    berval requestbv{value.size(), value.data()};
    char *oid = nullptr;
    berval *data = nullptr;
    const int rc = ldap_extended_operation_s(peer.ld(), operation.request_name.c_str(),
                                             operation.request_value ? &requestbv : nullptr,
                                             nullptr, nullptr, &oid, &data);
    ldap_memfree(oid);
    ber_bvfree(data);
    return {rc, peer.session_code()};
}

class Every : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, Every, testing::ValuesIn(operations()), FunctionName());

// Those that read a response value.
std::vector<Operation> readers()
{
    std::vector<Operation> rows;
    for (const Operation &row : operations())
        if (row.answer)
            rows.push_back(row);
    return rows;
}
class EveryReader : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Operation, EveryReader, testing::ValuesIn(readers()), FunctionName());

} // namespace

TEST_P(Every, sends_its_name_and_value_and_hands_out_the_answer)
{
    const Operation &operation = GetParam();
    Peer peer;
    peer.respond({.name = operation.response_name, .value = operation.answer});

    const Result result = call(operation, peer);
    EXPECT_EQ(result.rc, 0);
    EXPECT_EQ(result.written, operation.outcome);

    const Request request = peer.take_request();
    EXPECT_EQ(request.operation, 0x77);
    EXPECT_EQ(request.name, operation.request_name);
    EXPECT_EQ(request.value.has_value(), operation.request_value.has_value());
    EXPECT_EQ(hex(request.value.value_or("")), hex(operation.request_value.value_or("")));
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST_P(Every, leaves_the_session_s_default_controls_in_force)
{
    const Operation &operation = GetParam();
    Peer peer;
    LDAPControl assertion{const_cast<char *>("1.2.3.4"), {0, nullptr}, 1};
    LDAPControl *controls[] = {&assertion, nullptr};
    ASSERT_EQ(ldap_set_option(peer.ld(), LDAP_OPT_SERVER_CONTROLS, controls), 0);
    peer.respond({.name = operation.response_name, .value = operation.answer});

    EXPECT_EQ(call(operation, peer).rc, 0);
    EXPECT_EQ(peer.take_request().controls, sequence(octets("1.2.3.4"), boolean(true)));
}

TEST_P(Every, needs_a_name_in_the_response)
{
    const Result result = call_answered(GetParam(), {.value = GetParam().answer});
    EXPECT_EQ(result.rc, 0x5c);
    EXPECT_EQ(result.written, "");
}

TEST_P(Every, needs_the_whole_expected_name_in_the_response)
{
    const Operation &operation = GetParam();
    const std::string &expected = operation.response_name;
    for (const std::string &name :
         {expected + "0", expected + ".1", expected.substr(0, expected.size() - 1),
          operation.request_name, std::string("1.2"), ' ' + expected}) {
        const Result result = call_answered(operation, {.name = name, .value = operation.answer});
        EXPECT_EQ(result.rc, operation.lenient ? 0 : 0x5c) << name;
        EXPECT_EQ(result.written, operation.lenient ? operation.outcome : "") << name;
    }
}

TEST_P(Every, passes_the_server_s_code_on_before_it_looks_at_anything_else)
{
    const Operation &operation = GetParam();
    for (const int code : {LDAP_INSUFFICIENT_ACCESS, LDAP_NO_SUCH_OBJECT, LDAP_OTHER, 4711}) {
        for (const std::optional<std::string> &name :
             {std::optional<std::string>(), std::optional<std::string>(operation.response_name),
              std::optional<std::string>("1.2")}) {
            const Result result =
                call_answered(operation, {.code = code, .name = name, .value = operation.answer});
            EXPECT_EQ(result.rc, code);
            EXPECT_EQ(result.written, "");
        }
    }
}

TEST_P(Every, passes_the_ldap_library_s_code_on)
{
    Peer gone;
    gone.close();
    EXPECT_EQ(call(GetParam(), gone).rc, LDAP_SERVER_DOWN);

    Peer silent;
    silent.set_timeout(std::chrono::milliseconds(20));
    const Result result = call(GetParam(), silent);
    EXPECT_EQ(result.rc, LDAP_TIMEOUT);
    EXPECT_EQ(result.written, "");
}

TEST_P(Every, takes_a_message_that_is_cut_anywhere_as_the_ldap_library_does)
{
    const Operation &operation = GetParam();
    const Response good{.name = operation.response_name, .value = operation.answer};
    for (const std::string &cut : cuts(extended_response(1, good))) {
        Peer bare, peer;
        for (Peer *each : {&bare, &peer}) {
            each->send(cut);
            each->finish();
        }
        const Bare expected = bare_exchange(operation, bare);
        const Result result = call(operation, peer);
        EXPECT_LT(result.rc, 0) << hex(cut);
        EXPECT_EQ(result.rc, expected.rc) << hex(cut);
        EXPECT_EQ(result.written, "") << hex(cut);
        EXPECT_EQ(peer.session_code(), expected.session_code) << hex(cut);
    }
}

TEST_P(Every, leaves_the_session_s_result_code_as_the_ldap_library_set_it)
{
    const Operation &operation = GetParam();
    const Response good{.name = operation.response_name, .value = operation.answer};
    for (const Response &response :
         {good, Response{}, Response{.name = "1.2", .value = good.value},
          Response{.name = good.name}, Response{.name = good.name, .value = "\x02"},
          Response{.code = LDAP_BUSY, .name = good.name}}) {
        Peer bare, peer;
        bare.respond(response);
        peer.respond(response);
        call(operation, peer);
        EXPECT_EQ(peer.session_code(), bare_exchange(operation, bare).session_code);
    }
}

TEST_P(Every, can_be_repeated_on_one_session)
{
    const Operation &operation = GetParam();
    Peer peer;
    for (int round = 0; round < 3; ++round) {
        peer.respond({.name = operation.response_name, .value = operation.answer});
        const Result result = call(operation, peer);
        EXPECT_EQ(result.rc, 0);
        EXPECT_EQ(result.written, operation.outcome);
        EXPECT_EQ(peer.take_request().value, operation.request_value);
    }
}

TEST_P(Every, ignores_a_value_that_it_does_not_expect)
{
    const Operation &operation = GetParam();
    if (operation.answer)
        return; // the readers below
    for (const std::string &value :
         {std::string(), bytes("02 01 00"), bytes("30 84 ff ff ff ff"), std::string(70000, '\0')}) {
        const Result result =
            call_answered(operation, {.name = operation.response_name, .value = value});
        EXPECT_EQ(result.rc, 0);
        EXPECT_EQ(result.written, "");
    }
}

TEST_P(EveryReader, needs_a_value_in_the_response)
{
    const Result result = call_answered(GetParam(), {.name = GetParam().response_name});
    EXPECT_EQ(result.rc, 1);
    EXPECT_EQ(result.written, "");
}

TEST_P(EveryReader, cannot_decode_a_value_without_bytes)
{
    const Operation &operation = GetParam();
    const Result result = call_answered(operation, {.name = operation.response_name, .value = ""});
    EXPECT_EQ(result.rc, operation.undecodable);
    // Only the filter's text has been made by then.
    EXPECT_EQ(result.written, operation.lenient ? "text=" : "");
}

TEST_P(EveryReader, cannot_decode_a_value_that_is_cut_anywhere)
{
    const Operation &operation = GetParam();
    for (const std::string &value : cuts(*operation.answer)) {
        const Result result =
            call_answered(operation, {.name = operation.response_name, .value = value});
        EXPECT_EQ(result.rc, operation.undecodable) << hex(value);
    }
}

TEST_P(EveryReader, takes_damaged_bytes_or_gives_the_code_of_a_value_it_cannot_decode)
{
    const Operation &operation = GetParam();
    const bool bounded = operation.function == "ldap_get_effective_privileges_list_ext";
    std::minstd_rand random(20260401);
    Peer peer;
    for (int round = 0; round < 500; ++round) {
        std::string value = *operation.answer;
        for (auto changes = 1 + random() % 3; changes > 0; --changes)
            value[random() % value.size()] = static_cast<char>(random());
        peer.respond({.name = operation.response_name, .value = value});
        const int rc = call(operation, peer).rc;
        EXPECT_TRUE(rc == 0 || rc == operation.undecodable || (bounded && rc == 0x54))
            << rc << ' ' << hex(value);
        peer.take_request();
    }
}
