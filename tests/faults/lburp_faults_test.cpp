// Bulk update when a step of a call fails: the code, the session's code, what is still sent, and
// the release of exactly what exists.

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/berfail.h"
#include "support/peer.h"
#include "support/response.h"
#include "support/stated_leak.h"
#include "support/updates.h"

using namespace support;

namespace {

constexpr int marker = 0x33; // a session code that no operation stores

// The calls that are no release and do not store the result.
Names steps(const Calls &calls)
{
    Names made = calls.made();
    std::erase_if(made, [](const std::string &name) {
        return name == "ber_free" || name == "ber_bvfree" || name == "ldap_memfree" ||
               name == "ldap_set_option" || name == "ber_peek_tag" || name == "ber_get_option";
    });
    return made;
}

// ---- The three requests

struct RequestRow {
    const char *name;
    int (*send)(LDAP *ld, int *id);
    Names success; // its steps
};

int send_start(LDAP *ld, int *id)
{
    return ldap_lburp_start_request(ld, id);
}
int send_end(LDAP *ld, int *id)
{
    return ldap_lburp_end_request(ld, 5, id);
}
int send_empty_batch(LDAP *ld, int *id)
{
    LBURPUpdateOperationList *none[] = {nullptr};
    return ldap_lburp_operation_request(ld, 5, none, id);
}

class LburpRequestFaults : public testing::TestWithParam<RequestRow> {
protected:
    LburpRequestFaults()
    {
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
        calls = std::make_unique<Calls>();
    }
    int send()
    {
        return GetParam().send(peer.ld(), &id);
    }
    Names up_to(std::size_t count) const
    {
        const Names &all = GetParam().success;
        return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)};
    }

    Peer peer;
    int id = -4711;
    std::unique_ptr<Calls> calls;
};

INSTANTIATE_TEST_SUITE_P(, LburpRequestFaults,
                         testing::Values(RequestRow{"Start",
                                                    send_start,
                                                    {"ber_alloc", "ber_printf {s}", "ber_flatten",
                                                     "ldap_extended_operation"}},
                                         RequestRow{"End",
                                                    send_end,
                                                    {"ber_alloc_t", "ber_printf {i}", "ber_flatten",
                                                     "ldap_extended_operation"}},
                                         RequestRow{"EmptyBatch",
                                                    send_empty_batch,
                                                    {"ber_alloc", "ber_printf {i", "ber_printf }",
                                                     "ber_flatten", "ldap_extended_operation"}}),
                         [](const auto &row) { return row.param.name; });

// ---- The encoders

struct EncoderRow {
    const char *name;
    int operation;
    int (*encode)(BerElement *ber, LDAPControl **controls);
    Names formats;
};

Changes &some_changes()
{
    static Changes changes{{"cn", {"a"}}, {"sn", {"b"}, LDAP_MOD_REPLACE | LDAP_MOD_BVALUES}};
    return changes;
}
LDAP *session()
{
    static Peer peer;
    return peer.ld();
}
int encode_add(BerElement *ber, LDAPControl **controls)
{
    return LBURPEncodeAdd(session(), "cn=a", some_changes().get(), controls, ber);
}
int encode_delete(BerElement *ber, LDAPControl **controls)
{
    return LBURPEncodeDelete(session(), "cn=a", controls, ber);
}
int encode_modify(BerElement *ber, LDAPControl **controls)
{
    return LBURPEncodeMod(session(), "cn=a", some_changes().get(), controls, ber);
}
int encode_rename(BerElement *ber, LDAPControl **controls)
{
    return LBURPEncodeModRDN(session(), "cn=a", "cn=b", "o=y", 1, controls, ber);
}

const std::vector<Control> controls_of_each_form = {{"1.2"}, {"1.3", "value", 1}};
char new_rdn[] = "cn=b";

// A list of controls as it is written, with the closing formats of the encoder.
Names with_controls(Names before, const std::string &each, const std::string &all, Names after)
{
    for (const std::string &step : {std::string("t{"), std::string("{s"), each, std::string("{s"),
                                    std::string("b"), std::string("O"), each, all})
        before.push_back(step);
    before.insert(before.end(), after.begin(), after.end());
    for (std::string &format : before)
        format = "ber_printf " + format;
    return before;
}

class LburpEncoderFaults : public testing::TestWithParam<EncoderRow> {
protected:
    const EncoderRow &row = GetParam();
    Controls controls = Controls(controls_of_each_form);
};

INSTANTIATE_TEST_SUITE_P(
    , LburpEncoderFaults,
    testing::Values(
        EncoderRow{"Add", LDAP_REQ_ADD, encode_add,
                   with_controls({"{t{s{", "{s[v]}", "{s[V]}", "}}"}, "N}", "}", {"N}"})},
        EncoderRow{"Delete", LDAP_REQ_DELETE, encode_delete,
                   with_controls({"{ts"}, "}", "N}", {"N}"})},
        EncoderRow{"Modify", LDAP_REQ_MODIFY, encode_modify,
                   with_controls({"{t{s{", "{e{s[v]}}", "{e{s[V]}}", "}}"}, "N}", "}", {"}"})},
        EncoderRow{"Rename", LDAP_REQ_MODDN, encode_rename,
                   with_controls({"{t{ssb", "s", "}"}, "N}", "}", {"}"})}),
    [](const auto &row) { return row.param.name; });

// ---- The responses

const std::string start_name = LDAPX_LBURP_START_RESPONSE;
const std::string operation_name = LDAPX_LBURP_OPERATION_RESPONSE;

std::string failed_element(int id, const std::string &message)
{
    return sequence(integer(id), sequence(enumerated(32), octets("o=x"), octets(message)));
}

// What the parse functions hand out, marked beforehand.
struct Outputs {
    int code = marker;
    char *message = nullptr;
    int number = marker; // transaction size or count
    LBURPUpdateResult *failed = nullptr;

    Outputs() = default;
    Outputs(const Outputs &) = delete;
    Outputs &operator=(const Outputs &) = delete;
    ~Outputs()
    {
        for (int i = 0; failed != nullptr && i < number; ++i)
            ldapx_memfree(failed[i].errorMsg);
        ldapx_memfree(failed);
        ldap_memfree(message);
    }
};

int parse_start(const Collected &response, Outputs &out)
{
    return ldap_parse_lburp_start_response(response.ld(), response.message(), &out.code,
                                           &out.message, &out.number, 0);
}
int parse_end(const Collected &response, Outputs &out)
{
    return ldap_parse_lburp_end_response(response.ld(), response.message(), &out.code, &out.message,
                                         0);
}
int parse_operation(const Collected &response, Outputs &out)
{
    return ldap_parse_lburp_operation_response(response.ld(), response.message(), &out.code,
                                               &out.message, &out.number, &out.failed, 0);
}

struct ResponseRow {
    const char *name;
    std::string response_name;
    std::string value;
    int (*parse)(const Collected &response, Outputs &out);
    int number_on_failure;
};

class LburpResponseFaults : public testing::TestWithParam<ResponseRow> {
protected:
    const ResponseRow &row = GetParam();
    Collected response = Collected({.name = row.response_name, .value = row.value});
    Outputs out;
    Calls calls;
};

INSTANTIATE_TEST_SUITE_P(
    , LburpResponseFaults,
    testing::Values(ResponseRow{"Start", start_name, sequence(integer(500)), parse_start, marker},
                    ResponseRow{"End", LDAPX_LBURP_END_RESPONSE, "ignored", parse_end, marker},
                    ResponseRow{"Operation", operation_name, failed_element(1, "gone"),
                                parse_operation, 0}),
    [](const auto &row) { return row.param.name; });

} // namespace

TEST_P(LburpRequestFaults, success_takes_each_step_once_and_releases_in_order)
{
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(steps(*calls), GetParam().success);
    EXPECT_EQ(calls->released(), (Names{"ber_bvfree(requestbv)", "ber_free(requestber)"}));
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_EQ(peer.session_code(), 0);
}

TEST_P(LburpRequestFaults, without_a_request_element_nothing_happens_and_no_code_is_stored)
{
    calls->fail(GetParam().success[0]);
    EXPECT_EQ(send(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->made(), up_to(1));
    EXPECT_EQ(calls->released(), Names());
    EXPECT_EQ(peer.session_code(), marker);
    EXPECT_EQ(id, -4711);
    EXPECT_TRUE(peer.quiet());
}

TEST_P(LburpRequestFaults, a_request_that_cannot_be_encoded_is_not_sent)
{
    const auto writes = static_cast<int>(GetParam().success.size()) - 3;
    for (int nth = 1; nth <= writes; ++nth) {
        calls = nullptr;
        calls = std::make_unique<Calls>();
        calls->fail("ber_printf", nth);
        EXPECT_EQ(send(), LDAPX_ENCODING_ERROR);
        EXPECT_EQ(steps(*calls), up_to(1 + static_cast<std::size_t>(nth)));
        EXPECT_EQ(calls->released(), Names{"ber_free(requestber)"});
        EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
    }
    EXPECT_EQ(id, -4711);
    EXPECT_TRUE(peer.quiet());
}

TEST_P(LburpRequestFaults, a_request_that_cannot_be_flattened_is_not_sent)
{
    calls->fail("ber_flatten");
    EXPECT_EQ(send(), LDAPX_NO_MEMORY);
    EXPECT_EQ(steps(*calls), up_to(GetParam().success.size() - 1));
    EXPECT_EQ(calls->released(), Names{"ber_free(requestber)"});
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_TRUE(peer.quiet());
}

TEST_P(LburpRequestFaults, the_code_of_a_failed_send_comes_back_unchanged_and_is_stored)
{
    for (const int code : {LDAP_SERVER_DOWN, LDAP_NO_MEMORY, LDAP_OTHER, -100, 0x12345}) {
        calls->fail("ldap_extended_operation", 1, code);
        EXPECT_EQ(send(), code);
        EXPECT_EQ(peer.session_code(), code);
    }
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_TRUE(peer.quiet());
}

TEST_P(LburpEncoderFaults, writes_with_its_own_mixture_of_closing_formats)
{
    BerElement *ber = ber_alloc_t(0);
    Calls calls;
    EXPECT_EQ(row.encode(ber, controls.get()), 0);
    EXPECT_EQ(steps(calls), row.formats);
    EXPECT_EQ(calls.released(), Names());
    ber_free(ber, 1);
}

TEST_P(LburpEncoderFaults, releases_the_caller_s_element_when_any_write_fails)
{
    for (std::size_t nth = 1; nth <= row.formats.size(); ++nth) {
        Calls calls;
        BerElement *ber = ber_alloc_t(0);
        calls.fail("ber_printf", static_cast<int>(nth));
        EXPECT_EQ(row.encode(ber, controls.get()), LDAPX_ENCODING_ERROR);
        EXPECT_EQ(calls.count("ber_printf"), static_cast<int>(nth)) << "it stops there";
        EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
        EXPECT_EQ(calls.unreleased(), Names());
    }
}

// In a sanitizer build a second release of the element would end the test.
TEST_P(LburpEncoderFaults, in_a_batch_releases_the_element_once_and_sends_nothing)
{
    Record record(row.operation, "cn=a", controls_of_each_form);
    if (row.operation == LDAP_REQ_MODDN)
        record.carry(new_rdn);
    else
        record.carry(some_changes());
    for (const bool behind_another : {false, true})
        for (std::size_t nth = 1; nth <= row.formats.size(); ++nth) {
            Record first(LDAP_REQ_DELETE, "cn=a"); // two writes, "{ts" and "N}"
            auto batch = behind_another ? batch_of(first, record) : batch_of(record, first);
            Peer peer;
            int id = -4711;
            Calls calls;
            const int nth_of_all = 1 + (behind_another ? 2 : 0) + static_cast<int>(nth);
            calls.fail("ber_printf", nth_of_all);
            EXPECT_EQ(ldap_lburp_operation_request(peer.ld(), 1, batch.data(), &id),
                      LDAPX_ENCODING_ERROR);
            EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
            EXPECT_EQ(calls.count("ber_printf"), nth_of_all);
            EXPECT_EQ(calls.count("ber_flatten"), 0);
            EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
            EXPECT_EQ(calls.unreleased(), Names());
            EXPECT_EQ(id, -4711);
            EXPECT_TRUE(peer.quiet());
        }
}

TEST(LburpBatchFaults, an_unknown_operation_releases_the_element_once)
{
    Record good(LDAP_REQ_DELETE, "cn=a");
    Record unknown(0x70, "cn=a");
    auto batch = batch_of(good, unknown);
    Peer peer;
    int id = 0;
    Calls calls;
    EXPECT_EQ(ldap_lburp_operation_request(peer.ld(), 1, batch.data(), &id), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(peer.session_code(), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(steps(calls),
              (Names{"ber_alloc", "ber_printf {i", "ber_printf {ts", "ber_printf N}"}));
    EXPECT_EQ(calls.released(), Names{"ber_free(requestber)"});
}

TEST_P(LburpResponseFaults, the_code_of_a_message_without_a_readable_result_comes_back)
{
    for (const int code : {LDAP_DECODING_ERROR, LDAP_NO_MEMORY, 0x12345}) {
        calls.fail("ldap_parse_result", 1, code);
        EXPECT_EQ(row.parse(response, out), code);
        EXPECT_EQ(response.session_code(), code);
    }
    EXPECT_EQ(calls.count("ldap_parse_extended_result"), 0);
    EXPECT_EQ(calls.unreleased(), Names());
    EXPECT_EQ(out.code, marker);
    EXPECT_EQ(out.number, row.number_on_failure);
    EXPECT_EQ(out.failed, nullptr);
}

TEST_P(LburpResponseFaults, the_code_of_a_message_that_is_no_extended_response_comes_back)
{
    calls.fail("ldap_parse_extended_result", 1, LDAP_DECODING_ERROR);
    EXPECT_EQ(row.parse(response, out), LDAP_DECODING_ERROR);
    EXPECT_EQ(response.session_code(), LDAP_DECODING_ERROR);
    EXPECT_EQ(calls.unreleased(), Names());
    EXPECT_EQ(out.code, 0) << "the result had been read";
    EXPECT_EQ(out.number, row.number_on_failure);
    EXPECT_EQ(out.failed, nullptr);
}

TEST_P(LburpResponseFaults, success_releases_all_but_what_is_the_caller_s)
{
    EXPECT_EQ(row.parse(response, out), 0);
    EXPECT_EQ(response.session_code(), 0);
    Names unreleased = calls.unreleased();
    std::erase_if(unreleased, [](const std::string &name) {
        return name == "a" || name == "realloc"; // message and array of the failed operation
    });
    EXPECT_EQ(unreleased, Names());
    EXPECT_EQ(calls.count("ldap_set_option"), 1);
}

TEST(LburpStartResponseFaults, a_value_that_finds_no_reader_is_out_of_memory)
{
    for (const std::string &name : {start_name, std::string("1.2")}) {
        Collected response({.name = name, .value = sequence(integer(500))});
        Outputs out;
        Calls calls;
        calls.fail("ber_init");
        EXPECT_EQ(parse_start(response, out), LDAPX_NO_MEMORY);
        EXPECT_EQ(response.session_code(), LDAPX_NO_MEMORY);
        EXPECT_EQ(out.number, marker);
        EXPECT_EQ(calls.unreleased(), Names());
    }
}

TEST(LburpStartResponseFaults, without_a_name_the_value_is_not_opened)
{
    Collected response({.value = sequence(integer(500))});
    Outputs out;
    Calls calls;
    EXPECT_EQ(parse_start(response, out), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(steps(calls), (Names{"ldap_parse_result", "ldap_parse_extended_result"}));
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST(LburpEndResponseFaults, a_value_is_never_opened)
{
    Collected response({.name = LDAPX_LBURP_END_RESPONSE, .value = sequence(integer(500))});
    Outputs out;
    Calls calls;
    EXPECT_EQ(parse_end(response, out), 0);
    EXPECT_EQ(steps(calls), (Names{"ldap_parse_result", "ldap_parse_extended_result"}));
    EXPECT_EQ(calls.unreleased(), Names());
}

class LburpOperationResponseFaults : public testing::Test {
protected:
    void expect_no_list(int code)
    {
        EXPECT_EQ(response.session_code(), code);
        EXPECT_EQ(out.number, 0);
        EXPECT_EQ(out.failed, nullptr);
    }

    Collected response =
        Collected({.name = operation_name,
                   .value = concat(failed_element(1, "gone"), failed_element(2, "gone too"))});
    Outputs out;
    Calls calls;
};

TEST_F(LburpOperationResponseFaults, reads_element_by_element)
{
    EXPECT_EQ(parse_operation(response, out), 0);
    EXPECT_EQ(out.number, 2);
    EXPECT_EQ(steps(calls), (Names{"ldap_parse_result", "ldap_parse_extended_result", "ber_init",
                                   "ber_scanf {", "ber_scanf i", "ber_scanf {iaa", "ber_scanf {",
                                   "ber_scanf i", "ber_scanf {iaa"}));
    EXPECT_EQ(calls.unreleased(), (Names{"a", "a", "realloc"}));
}

TEST_F(LburpOperationResponseFaults, a_value_that_finds_no_reader_is_out_of_memory)
{
    calls.fail("ber_init");
    EXPECT_EQ(parse_operation(response, out), LDAPX_NO_MEMORY);
    expect_no_list(LDAPX_NO_MEMORY);
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_F(LburpOperationResponseFaults, without_a_first_array_it_is_out_of_memory)
{
    calls.fail("malloc");
    EXPECT_EQ(parse_operation(response, out), LDAPX_NO_MEMORY);
    expect_no_list(LDAPX_NO_MEMORY);
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_F(LburpOperationResponseFaults, an_array_that_cannot_grow_is_released_without_its_messages)
{
    for (const int nth : {1, 2}) {
        Outputs outputs;
        calls.fail("realloc", nth);
        StatedLeak leak;
        EXPECT_EQ(parse_operation(response, outputs), LDAPX_NO_MEMORY);
        EXPECT_EQ(outputs.number, 0);
        EXPECT_EQ(outputs.failed, nullptr);
    }
    // One message in the first run and two in the second: lost, and nothing else.
    EXPECT_EQ(calls.unreleased(), (Names{"a", "a", "a"}));
}

TEST_F(LburpOperationResponseFaults, an_element_that_cannot_be_read_loses_the_messages_before_it)
{
    calls.fail("ber_scanf", 6);
    StatedLeak leak;
    EXPECT_EQ(parse_operation(response, out), LDAPX_DECODING_ERROR);
    expect_no_list(LDAPX_DECODING_ERROR);
    EXPECT_EQ(calls.unreleased(), Names{"a"});
}

TEST_F(LburpOperationResponseFaults, the_code_other_of_the_ldap_library_is_success_with_no_list)
{
    for (const char *function : {"ldap_parse_result", "ldap_parse_extended_result"}) {
        calls.fail(function, 1, LDAP_OTHER);
        EXPECT_EQ(parse_operation(response, out), 0);
        expect_no_list(0);
    }
    EXPECT_EQ(calls.unreleased(), Names());
}

TEST_F(LburpOperationResponseFaults, server_down_comes_back_as_it_is)
{
    calls.fail("ldap_parse_result", 1, LDAP_SERVER_DOWN);
    EXPECT_EQ(parse_operation(response, out), LDAP_SERVER_DOWN);
    expect_no_list(LDAP_SERVER_DOWN);
}
