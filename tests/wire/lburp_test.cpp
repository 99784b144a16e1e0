// Bulk update over the wire: what each request sends and what each response says.

#include <climits>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/peer.h"
#include "support/response.h"
#include "support/stated_leak.h"
#include "support/updates.h"

using namespace support;

namespace {

constexpr int untouched = -4711;

Request sent_batch(int number, std::vector<LBURPUpdateOperationList *> batch)
{
    Peer peer;
    int id = untouched;
    EXPECT_EQ(ldap_lburp_operation_request(peer.ld(), number, batch.data(), &id), 0);
    EXPECT_EQ(peer.session_code(), 0);
    Request request = peer.take_request();
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.142.100.6");
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
    return request;
}

// A batch that must be refused before anything is sent.
int refused_batch(std::vector<LBURPUpdateOperationList *> batch)
{
    Peer peer;
    int id = untouched;
    const int rc = ldap_lburp_operation_request(peer.ld(), 1, batch.data(), &id);
    EXPECT_EQ(peer.session_code(), rc);
    EXPECT_EQ(id, untouched);
    EXPECT_TRUE(peer.quiet());
    return rc;
}

// What the two parse functions of a session return and hand out.
struct Parsed {
    int rc = untouched;
    int session_code = untouched;
    int result_code = untouched;
    std::string message;
    int size = untouched;
};

std::string taken(char *text)
{
    const std::string copy = text != nullptr ? text : "NULL";
    ldap_memfree(text);
    return copy;
}

Parsed parsed_start(const Response &response)
{
    Collected collected(response);
    Parsed parsed;
    char *message = nullptr;
    parsed.rc = ldap_parse_lburp_start_response(collected.ld(), collected.message(),
                                                &parsed.result_code, &message, &parsed.size, 0);
    parsed.session_code = collected.session_code();
    parsed.message = taken(message);
    return parsed;
}

Parsed parsed_end(const Response &response)
{
    Collected collected(response);
    Parsed parsed;
    char *message = nullptr;
    parsed.rc = ldap_parse_lburp_end_response(collected.ld(), collected.message(),
                                              &parsed.result_code, &message, 0);
    parsed.session_code = collected.session_code();
    parsed.message = taken(message);
    return parsed;
}

const std::string start_name = "2.16.840.1.424242.1.142.100.2";
const std::string end_name = "2.16.840.1.424242.1.142.100.5";
const std::string operation_name = "2.16.840.1.424242.1.142.100.7";

// A list of failed operations as the caller gets it.
struct Failed {
    int id = 0;
    int code = 0;
    std::string message;
    bool operator==(const Failed &) const = default;
};
void PrintTo(const Failed &failed, std::ostream *stream)
{
    *stream << failed.id << ": " << failed.code << " " << failed.message;
}

struct ParsedBatch {
    int rc = untouched;
    int session_code = untouched;
    int result_code = untouched;
    std::string message;
    int count = untouched;
    bool array = false;
    int spare_id = untouched; // packageID of the record behind the last, where there is an array
    std::vector<Failed> failed;
};

// spare_written: the response leaves a packageID in the spare record.
ParsedBatch parsed_batch(const Response &response, bool spare_written = false)
{
    Collected collected(response);
    ParsedBatch parsed;
    char *message = nullptr;
    LBURPUpdateResult somewhere{};
    LBURPUpdateResult *failed = &somewhere; // must be overwritten
    parsed.rc = ldap_parse_lburp_operation_response(collected.ld(), collected.message(),
                                                    &parsed.result_code, &message, &parsed.count,
                                                    &failed, 0);
    parsed.session_code = collected.session_code();
    parsed.message = taken(message);
    parsed.array = failed != nullptr;
    for (int i = 0; failed != nullptr && i < parsed.count; ++i) {
        parsed.failed.push_back({failed[i].packageID, failed[i].resultCode,
                                 failed[i].errorMsg != nullptr ? failed[i].errorMsg : "NULL"});
        ldapx_memfree(failed[i].errorMsg);
    }
    if (failed != nullptr && spare_written)
        parsed.spare_id = failed[parsed.count].packageID;
    ldapx_memfree(failed);
    return parsed;
}

ParsedBatch parsed_value(const std::string &value, bool spare_written = false)
{
    return parsed_batch({.name = operation_name, .value = value}, spare_written);
}

std::string failed_element(int id, const std::string &code, const std::string &matched,
                           const std::string &message)
{
    return sequence(integer(id), sequence(code, octets(matched), octets(message)));
}

void expect_undecodable(const ParsedBatch &parsed)
{
    EXPECT_EQ(parsed.rc, LDAPX_DECODING_ERROR);
    EXPECT_EQ(parsed.session_code, LDAPX_DECODING_ERROR);
    EXPECT_EQ(parsed.count, 0);
    EXPECT_FALSE(parsed.array);
}

} // namespace

// ---- Start and end

TEST(LburpStartRequest, always_sends_the_one_update_style)
{
    Peer peer;
    int id = untouched;
    ASSERT_EQ(ldap_lburp_start_request(peer.ld(), &id), 0);
    EXPECT_EQ(peer.session_code(), 0);
    const Request request = peer.take_request();
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.142.100.1");
    EXPECT_EQ(request.value, element(0x30, octets("2.16.840.1.424242.1.142.1.4.2"), 4));
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST(LburpEndRequest, carries_the_sequence_number_in_der)
{
    Peer peer;
    int id = untouched;
    ASSERT_EQ(ldap_lburp_end_request(peer.ld(), 5, &id), 0);
    EXPECT_EQ(peer.session_code(), 0);
    const Request request = peer.take_request();
    EXPECT_EQ(request.id, id);
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.142.100.4");
    EXPECT_EQ(request.value, bytes("30 03 02 01 05"));
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST(LburpEndRequest, sends_zero_negative_and_extreme_numbers_as_they_are)
{
    for (const int number : {0, -1, 127, 128, -70000, INT_MAX, INT_MIN}) {
        Peer peer;
        int id = 0;
        EXPECT_EQ(ldap_lburp_end_request(peer.ld(), number, &id), 0);
        EXPECT_EQ(peer.take_request().value, sequence(integer(number)));
    }
}

TEST(LburpRequests, on_a_lost_connection_return_and_store_the_library_s_own_code)
{
    Peer peer;
    peer.close();
    Record record(LDAP_REQ_DELETE, "cn=a");
    auto batch = batch_of(record);
    int id = 0;
    EXPECT_EQ(ldap_lburp_start_request(peer.ld(), &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(peer.session_code(), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_lburp_operation_request(peer.ld(), 1, batch.data(), &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(peer.session_code(), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_lburp_end_request(peer.ld(), 1, &id), LDAP_SERVER_DOWN);
    EXPECT_EQ(peer.session_code(), LDAP_SERVER_DOWN);
}

TEST(LburpRequests, send_the_session_s_default_controls)
{
    Peer peer;
    Controls defaults(std::vector<Control>{{"1.2.3.4"}});
    ldap_set_option(peer.ld(), LDAP_OPT_SERVER_CONTROLS, defaults.get());
    int id = 0;
    ASSERT_EQ(ldap_lburp_start_request(peer.ld(), &id), 0);
    EXPECT_EQ(peer.take_request().controls, sequence(octets("1.2.3.4")));
}

TEST(LburpStartResponse, gives_the_announced_transaction_size)
{
    const Parsed parsed =
        parsed_start({.name = start_name, .value = sequence(integer(500)), .diagnostic = "go"});
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.session_code, 0);
    EXPECT_EQ(parsed.result_code, 0);
    EXPECT_EQ(parsed.message, "go");
    EXPECT_EQ(parsed.size, 500);
}

TEST(LburpStartResponse, takes_any_signed_32_bit_size)
{
    for (const int size : {0, -1, INT_MAX, INT_MIN}) {
        const Parsed parsed = parsed_start({.name = start_name, .value = sequence(integer(size))});
        EXPECT_EQ(parsed.rc, 0);
        EXPECT_EQ(parsed.size, size);
    }
}

TEST(LburpStartResponse, looks_at_neither_the_tags_nor_what_follows_the_integer)
{
    for (const std::string &value :
         {set(enumerated(7)), sequence(integer(7), octets("more")),
          concat(sequence(integer(7)), octets("behind")), bytes("30 00 02 01 07")}) {
        const Parsed parsed = parsed_start({.name = start_name, .value = value});
        EXPECT_EQ(parsed.rc, 0) << hex(value);
        EXPECT_EQ(parsed.size, 7) << hex(value);
    }
}

TEST(LburpStartResponse, without_a_value_is_good_and_leaves_the_size_alone)
{
    const Parsed parsed = parsed_start({.name = start_name});
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.session_code, 0);
    EXPECT_EQ(parsed.size, untouched);
}

TEST(LburpStartResponse, under_a_wrong_name_is_good_when_its_value_can_be_read)
{
    for (const std::string &name : {end_name, start_name + "0", std::string("1.2")}) {
        Parsed parsed = parsed_start({.name = name, .value = sequence(integer(500))});
        EXPECT_EQ(parsed.rc, 0);
        EXPECT_EQ(parsed.session_code, 0);
        EXPECT_EQ(parsed.size, 500);

        parsed = parsed_start({.name = name});
        EXPECT_EQ(parsed.rc, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.session_code, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.size, untouched);

        parsed = parsed_start({.name = name, .value = sequence(octets("no number"))});
        EXPECT_EQ(parsed.rc, LDAPX_DECODING_ERROR);
        EXPECT_EQ(parsed.size, untouched);
    }
}

TEST(LburpStartResponse, without_a_name_is_not_supported_whatever_its_value)
{
    const Parsed parsed = parsed_start({.code = LDAP_UNWILLING_TO_PERFORM,
                                        .value = sequence(integer(500)),
                                        .diagnostic = "not here"});
    EXPECT_EQ(parsed.rc, LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(parsed.session_code, LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(parsed.result_code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(parsed.message, "not here");
    EXPECT_EQ(parsed.size, untouched);
}

TEST(LburpStartResponse, with_a_value_cut_anywhere_cannot_be_decoded)
{
    for (const std::string &cut : cuts(sequence(integer(70000)))) {
        const Parsed parsed = parsed_start({.name = start_name, .value = cut});
        EXPECT_EQ(parsed.rc, LDAPX_DECODING_ERROR) << hex(cut);
        EXPECT_EQ(parsed.session_code, LDAPX_DECODING_ERROR) << hex(cut);
        EXPECT_EQ(parsed.size, untouched) << hex(cut);
    }
}

TEST(LburpStartResponse, with_a_size_of_more_than_32_bits_cannot_be_decoded)
{
    const Parsed parsed =
        parsed_start({.name = start_name, .value = sequence(integer(2147483648))});
    EXPECT_EQ(parsed.rc, LDAPX_DECODING_ERROR);
    EXPECT_EQ(parsed.size, untouched);
}

TEST(LburpEndResponse, needs_its_name_and_nothing_else)
{
    for (const auto &value : {std::optional<std::string>(), std::optional<std::string>(""),
                              std::optional<std::string>("\x30\x7f no BER at all")}) {
        const Parsed parsed = parsed_end({.name = end_name, .value = value, .diagnostic = "bye"});
        EXPECT_EQ(parsed.rc, 0);
        EXPECT_EQ(parsed.session_code, 0);
        EXPECT_EQ(parsed.result_code, 0);
        EXPECT_EQ(parsed.message, "bye");
    }
}

TEST(LburpEndResponse, under_another_name_or_none_is_not_supported)
{
    for (const auto &name : {std::optional<std::string>(), std::optional<std::string>(start_name),
                             std::optional<std::string>(end_name + "0"),
                             std::optional<std::string>(end_name.substr(0, end_name.size() - 1))}) {
        const Parsed parsed = parsed_end({.code = LDAP_BUSY, .name = name, .value = "x"});
        EXPECT_EQ(parsed.rc, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.session_code, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.result_code, LDAP_BUSY);
    }
}

TEST(LburpResponses, report_the_server_s_own_code_beside_success)
{
    EXPECT_EQ(parsed_end({.code = LDAP_BUSY, .name = end_name}).rc, 0);
    EXPECT_EQ(parsed_end({.code = LDAP_BUSY, .name = end_name}).result_code, LDAP_BUSY);
    EXPECT_EQ(parsed_start({.code = LDAP_BUSY, .name = start_name}).result_code, LDAP_BUSY);
    EXPECT_EQ(parsed_batch({.code = LDAP_BUSY, .name = operation_name}).result_code, LDAP_BUSY);
}

// An intermediate response has no result: ldap_parse_result() fails. A search's end has a result
// and is no extended response: ldap_parse_extended_result() fails. Either way the message stays
// the caller's, whatever freeIt says.
TEST(LburpResponses, pass_on_what_the_ldap_library_says_of_other_messages)
{
    struct Row {
        unsigned long tag;
        std::string content;
        int code;
    };
    const Row rows[] = {
        {0x79, octets("1.2.3", 0x80), LDAP_NO_RESULTS_RETURNED},
        {0x65, concat(enumerated(0), octets(""), octets("done")), LDAP_PARAM_ERROR},
    };
    for (const Row &row : rows) {
        Collected collected(row.tag, row.content);
        int code = 0;
        int size = untouched;
        int count = untouched;
        LBURPUpdateResult *failed = nullptr;
        char *message = nullptr;
        EXPECT_EQ(ldap_parse_lburp_start_response(collected.ld(), collected.message(), &code,
                                                  &message, &size, 1),
                  row.code);
        EXPECT_EQ(taken(message), row.code == LDAP_PARAM_ERROR ? "done" : "NULL");
        EXPECT_EQ(collected.session_code(), row.code);
        EXPECT_EQ(size, untouched);
        message = nullptr;
        EXPECT_EQ(
            ldap_parse_lburp_end_response(collected.ld(), collected.message(), &code, &message, 1),
            row.code);
        ldap_memfree(message);
        EXPECT_EQ(collected.session_code(), row.code);
        message = nullptr;
        EXPECT_EQ(ldap_parse_lburp_operation_response(collected.ld(), collected.message(), &code,
                                                      &message, &count, &failed, 1),
                  row.code);
        ldap_memfree(message);
        EXPECT_EQ(collected.session_code(), row.code);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(failed, nullptr);
    }
}

// Sanitizer builds see it when a message is released twice or never.
TEST(LburpResponses, release_the_message_when_asked)
{
    int code = 0;
    int size = 0;
    int count = 0;
    char *message = nullptr;
    LBURPUpdateResult *failed = nullptr;
    {
        Collected collected({.name = start_name});
        EXPECT_EQ(ldap_parse_lburp_start_response(collected.ld(), collected.release(), &code,
                                                  &message, &size, 1),
                  0);
        ldap_memfree(message);
    }
    {
        Collected collected({.name = "1.2"}); // a wrong name is found after the release
        EXPECT_EQ(
            ldap_parse_lburp_end_response(collected.ld(), collected.release(), &code, &message, 1),
            LDAPX_NOT_SUPPORTED);
        ldap_memfree(message);
    }
    {
        Collected collected({.name = operation_name, .value = "x"});
        EXPECT_EQ(ldap_parse_lburp_operation_response(collected.ld(), collected.release(), &code,
                                                      &message, &count, &failed, 1),
                  LDAPX_DECODING_ERROR);
        ldap_memfree(message);
    }
}

// ---- Batches

TEST(LburpBatch, of_one_delete_has_the_documented_bytes)
{
    Record record(LDAP_REQ_DELETE, "cn=a");
    EXPECT_EQ(sent_batch(1, batch_of(record)).value, bytes("30 84 00 00 00 0f"
                                                           "   02 01 01"
                                                           "   30 84 00 00 00 06"
                                                           "      4a 04 63 6e 3d 61"));
}

TEST(LburpBatch, without_operations_holds_the_sequence_number_alone)
{
    EXPECT_EQ(sent_batch(7, batch_of()).value, bytes("30 84 00 00 00 03 02 01 07"));
}

TEST(LburpBatch, sends_any_sequence_number_as_it_is)
{
    for (const int number : {0, -1, INT_MAX, INT_MIN})
        EXPECT_EQ(sent_batch(number, batch_of()).value, Batch().request(number, ""));
}

TEST(LburpBatch, holds_the_operations_flat_in_the_order_of_the_array)
{
    Changes person{{"objectClass", {"top", "person"}}, {"sn", {"A"}, LDAP_MOD_BVALUES}};
    Changes change{{"sn", {"B"}, LDAP_MOD_REPLACE}};
    char rdn[] = "cn=b";
    const std::vector<Control> controls = {{"1.2.3", "value", 1}};
    Record add(LDAP_REQ_ADD, "cn=a,o=x", controls);
    Record modify(LDAP_REQ_MODIFY, "cn=a,o=x");
    Record rename(LDAP_REQ_MODDN, "cn=a,o=x");
    Record remove(LDAP_REQ_DELETE, "cn=b,o=x", controls);
    add.carry(person);
    modify.carry(change);
    rename.carry(rdn);

    const Batch wire;
    EXPECT_EQ(sent_batch(3, batch_of(add, modify, rename, remove)).value,
              wire.request(3, concat(wire.add("cn=a,o=x", person.list(), controls),
                                     wire.modify("cn=a,o=x", change.list()),
                                     wire.rename("cn=a,o=x", "cn=b", true, "cn=b"),
                                     wire.remove("cn=b,o=x", controls))));
}

TEST(LburpBatch, sends_a_rename_s_new_rdn_again_in_the_place_of_the_new_superior)
{
    char rdn[] = "cn=b";
    Record record(LDAP_REQ_MODDN, "cn=a");
    record.carry(rdn);
    EXPECT_EQ(sent_batch(1, batch_of(record)).value, bytes("30 84 00 00 00 24"
                                                           "   02 01 01"
                                                           "   30 84 00 00 00 1b"
                                                           "      6c 84 00 00 00 15"
                                                           "         04 04 63 6e 3d 61"
                                                           "         04 04 63 6e 3d 62"
                                                           "         01 01 ff"
                                                           "         04 04 63 6e 3d 62"));
}

// The flag overlays the low half of the address of the new RDN.
TEST(LburpBatch, keeps_the_old_rdn_only_where_the_new_one_s_address_ends_in_32_zero_bits)
{
    // Somewhere in eight gigabytes of addresses there is one.
    constexpr std::size_t step = std::size_t{1} << 32;
    void *addresses =
        mmap(nullptr, 2 * step, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(addresses, MAP_FAILED);
    const auto past = reinterpret_cast<std::uintptr_t>(addresses) % step;
    char *rdn = static_cast<char *>(addresses) + (step - past) % step;
    ASSERT_EQ(mprotect(rdn, 4096, PROT_READ | PROT_WRITE), 0);
    std::strcpy(rdn, "cn=b");
    Record record(LDAP_REQ_MODDN, "cn=a");
    record.carry(rdn);
    EXPECT_EQ(sent_batch(1, batch_of(record)).value,
              Batch().request(1, Batch().rename("cn=a", "cn=b", false, "cn=b")));
    munmap(addresses, 2 * step);
}

TEST(LburpBatch, never_sends_client_controls)
{
    Controls client(std::vector<Control>{{"1.2.3", std::nullopt, 1}});
    Record record(LDAP_REQ_DELETE, "cn=a");
    record.get()->ClientControls = client.get();
    EXPECT_EQ(sent_batch(1, batch_of(record)).value, Batch().request(1, Batch().remove("cn=a")));
}

TEST(LburpBatch, with_an_unknown_operation_is_refused_and_nothing_is_sent)
{
    Record good(LDAP_REQ_DELETE, "cn=a");
    for (const int operation : {0x70, 0, -1, 0x63, 0x77, 0x4b, 0x168}) {
        Record unknown(operation, "cn=a");
        EXPECT_EQ(refused_batch(batch_of(unknown)), LDAPX_NOT_SUPPORTED) << operation;
        EXPECT_EQ(refused_batch(batch_of(good, unknown, good)), LDAPX_NOT_SUPPORTED) << operation;
    }
}

TEST(LburpBatch, of_a_hundred_thousand_operations_arrives_whole)
{
    constexpr int size = 100000;
    std::vector<std::unique_ptr<Record>> records;
    std::vector<LBURPUpdateOperationList *> batch;
    std::string operations;
    for (int i = 0; i < size; ++i) {
        const std::string dn = "cn=" + std::to_string(i);
        records.push_back(std::make_unique<Record>(LDAP_REQ_DELETE, dn));
        batch.push_back(records.back()->get());
        operations += Batch().remove(dn);
    }
    batch.push_back(nullptr);

    Peer peer;
    peer.read_ahead();
    int id = 0;
    ASSERT_EQ(ldap_lburp_operation_request(peer.ld(), 1, batch.data(), &id), 0);
    EXPECT_TRUE(peer.take_request().value == Batch().request(1, operations));
}

// ---- Responses to batches

TEST(LburpOperationResponse, without_a_value_means_that_nothing_failed)
{
    const ParsedBatch parsed = parsed_batch({.name = operation_name, .diagnostic = "all well"});
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.session_code, 0);
    EXPECT_EQ(parsed.result_code, 0);
    EXPECT_EQ(parsed.message, "all well");
    EXPECT_EQ(parsed.count, 0);
    EXPECT_FALSE(parsed.array);
}

TEST(LburpOperationResponse, without_a_value_may_be_read_without_places_for_the_list)
{
    Collected collected({.name = operation_name});
    int code = untouched;
    char *message = nullptr;
    EXPECT_EQ(ldap_parse_lburp_operation_response(collected.ld(), collected.message(), &code,
                                                  &message, nullptr, nullptr, 0),
              0);
    EXPECT_EQ(code, 0);
    ldap_memfree(message);
    EXPECT_EQ(ldap_parse_lburp_operation_response(collected.ld(), collected.message(), nullptr,
                                                  nullptr, nullptr, nullptr, 0),
              0);
    Collected other({.name = LDAPX_LBURP_END_RESPONSE});
    EXPECT_EQ(ldap_parse_lburp_operation_response(other.ld(), other.message(), nullptr, nullptr,
                                                  nullptr, nullptr, 0),
              LDAPX_NOT_SUPPORTED);
}

TEST(LburpOperationResponse, with_an_empty_value_gives_an_empty_array)
{
    const ParsedBatch parsed = parsed_value("");
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.count, 0);
    EXPECT_TRUE(parsed.array);
}

TEST(LburpOperationResponse, names_the_failed_operation_its_code_and_its_message)
{
    const ParsedBatch parsed = parsed_value(failed_element(7, enumerated(32), "", "no such entry"));
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.session_code, 0);
    EXPECT_EQ(parsed.count, 1);
    EXPECT_EQ(parsed.failed, (std::vector<Failed>{{7, 32, "no such entry"}}));
}

TEST(LburpOperationResponse, lists_failures_one_behind_the_other)
{
    const ParsedBatch parsed = parsed_value(concat(
        failed_element(1, enumerated(68), "o=x", "exists"), failed_element(-5, integer(-1), "", ""),
        failed_element(INT_MAX, enumerated(53), "", "no")));
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.failed,
              (std::vector<Failed>{{1, 68, "exists"}, {-5, -1, ""}, {INT_MAX, 53, "no"}}));
}

TEST(LburpOperationResponse, lists_ten_thousand_failures)
{
    std::string value;
    std::vector<Failed> expected;
    for (int i = 0; i < 10000; ++i) {
        expected.push_back({i, 32, "entry " + std::to_string(i) + " is not there"});
        value += failed_element(i, enumerated(32), "o=x", expected.back().message);
    }
    const ParsedBatch parsed = parsed_value(value);
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_TRUE(parsed.failed == expected);
}

TEST(LburpOperationResponse, drops_an_element_that_ends_after_its_number)
{
    ParsedBatch parsed = parsed_value(sequence(integer(7)), true);
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.count, 0);
    EXPECT_TRUE(parsed.array);
    EXPECT_EQ(parsed.spare_id, 7);

    parsed = parsed_value(
        concat(failed_element(1, enumerated(32), "", "gone"), sequence(integer(7))), true);
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.failed, (std::vector<Failed>{{1, 32, "gone"}}));
    EXPECT_EQ(parsed.spare_id, 7);
}

TEST(LburpOperationResponse, cut_at_any_byte_counts_whole_elements_or_cannot_be_decoded)
{
    const std::string first = failed_element(1, enumerated(32), "", "gone");
    const std::string second = failed_element(2, enumerated(68), "o=x", "exists");
    const std::string value = first + second;
    for (const std::string &cut : cuts(value)) {
        StatedLeak messages; // of elements before one that cannot be decoded
        const ParsedBatch parsed = parsed_value(cut);
        if (cut.empty() || cut == first) {
            EXPECT_EQ(parsed.rc, 0) << hex(cut);
            EXPECT_EQ(parsed.count, cut.empty() ? 0 : 1) << hex(cut);
        } else {
            expect_undecodable(parsed);
        }
    }
}

// Headers are passed over without a look at their lengths, so here a cut can fall anywhere.
TEST(LburpOperationResponse, with_headers_that_lie_is_cut_by_its_elements_alone)
{
    const std::string number = bytes("30 00 02 01 07");
    const std::string rest = bytes("30 00 0a 01 20 04 00 04 01 78");
    const std::string value = number + rest + number + rest;
    EXPECT_EQ(parsed_value(value).failed, (std::vector<Failed>{{7, 32, "x"}, {7, 32, "x"}}));
    const std::size_t whole = number.size() + rest.size();
    for (const std::string &cut : cuts(value)) {
        StatedLeak messages; // of elements before one that cannot be decoded
        const ParsedBatch parsed = parsed_value(cut);
        const std::size_t into = cut.size() % whole;
        if (into == 0 || into == number.size()) {
            EXPECT_EQ(parsed.rc, 0) << hex(cut);
            EXPECT_EQ(parsed.count, static_cast<int>(cut.size() / whole)) << hex(cut);
        } else {
            expect_undecodable(parsed);
        }
    }
}

TEST(LburpOperationResponse, with_something_else_in_it_cannot_be_decoded)
{
    const std::string good = failed_element(1, enumerated(32), "", "gone");
    for (const std::string &value : {
             sequence(good),                 // a list wrapped once more
             sequence(sequence(integer(7))), // also where that would read as a number
             sequence(enumerated(7), sequence(enumerated(32), octets(""), octets("gone"))),
             sequence(octets("7"), sequence(enumerated(32), octets(""), octets("gone"))),
             sequence(sequence(enumerated(32), octets(""), octets("gone"))), // no number
             sequence(integer(2147483648)),                                  // more than 32 bits
             sequence(element(0x02, "")) + bytes("30"), // nothing behind a number
             good + sequence(integer(2), sequence(enumerated(32), octets(""))),
             good + octets("in between") + good,
             // A referral is taken for the next element's header.
             sequence(integer(1), sequence(enumerated(10), octets(""), octets(""),
                                           element(0xa3, octets("ldap://x")))),
             // A message with a zero byte in it is no string.
             sequence(integer(1),
                      sequence(enumerated(32), octets(""), octets(std::string("a\0b", 3)))),
         }) {
        StatedLeak messages;
        expect_undecodable(parsed_value(value));
    }
}

TEST(LburpOperationResponse, under_another_name_or_none_is_not_supported_and_not_read)
{
    const std::string value = failed_element(7, enumerated(32), "", "no such entry");
    for (const auto &name : {std::optional<std::string>(), std::optional<std::string>(start_name),
                             std::optional<std::string>(operation_name + "0")}) {
        const ParsedBatch parsed = parsed_batch({.code = LDAP_OTHER, .name = name, .value = value});
        EXPECT_EQ(parsed.rc, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.session_code, LDAPX_NOT_SUPPORTED);
        EXPECT_EQ(parsed.result_code, LDAP_OTHER);
        EXPECT_EQ(parsed.count, 0);
        EXPECT_FALSE(parsed.array);
    }
}

TEST(LburpOperationResponse, with_the_server_code_other_still_lists_what_failed)
{
    const ParsedBatch parsed =
        parsed_batch({.code = LDAP_OTHER,
                      .name = operation_name,
                      .value = failed_element(7, enumerated(32), "", "no such entry")});
    EXPECT_EQ(parsed.rc, 0);
    EXPECT_EQ(parsed.result_code, LDAP_OTHER);
    EXPECT_EQ(parsed.failed, (std::vector<Failed>{{7, 32, "no such entry"}}));
}
