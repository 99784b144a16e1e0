// Object backup and restore over the wire: requests, responses, and what the caller then holds.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/peer.h"

using namespace support;

namespace {

constexpr int marker = 0x33; // a session code that no operation stores
const std::string backup_name = "2.16.840.1.424242.1.27.100.97";
const std::string restore_name = "2.16.840.1.424242.1.27.100.99";

// Everything that a backup reads and writes.
struct Backup {
    int rc = marker;
    int session_code = marker;
    char *state = nullptr;
    char *data = nullptr;
    char *chunks = nullptr;
    int size = -4711;

    explicit Backup(const char *earlier = nullptr)
    {
        if (earlier != nullptr)
            state = strdup(earlier);
    }
    ~Backup()
    {
        ldapx_memfree(state);
        ldapx_memfree(data);
        ldapx_memfree(chunks);
    }
    Backup(const Backup &) = delete;
    Backup &operator=(const Backup &) = delete;

    void run(Peer &peer, const char *dn = "cn=a", const char *password = "secret")
    {
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
        rc = ldap_backup_object(peer.ld(), dn, password, &state, &data, &chunks, &size);
        session_code = peer.session_code();
    }
    std::string bytes() const
    {
        return data != nullptr ? std::string(data, static_cast<std::size_t>(size)) : "NULL";
    }
    // The list has no terminator: it ends behind its last number, of which its count tells.
    std::string list() const
    {
        if (chunks == nullptr)
            return "NULL";
        const char *end = chunks;
        for (long left = std::max(0, std::atoi(chunks)) + 1; left > 0; ++end)
            left -= *end == ';';
        return std::string(static_cast<const char *>(chunks), end);
    }
    void expect_nothing_handed_out() const
    {
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(chunks, nullptr);
    }
};

std::string chunk(int size)
{
    return sequence(integer(size));
}

template <class... Chunks>
std::string chunk_table(int count, const Chunks &...chunks)
{
    return sequence(integer(count), set(chunks...));
}

std::string backup_value(int size, int mts, int revision, const std::string &data,
                         const std::string &table)
{
    return concat(integer(size), integer(mts), integer(revision), octets(data), table);
}

const std::string good_value = backup_value(4, 17, 2, "data", chunk_table(2, chunk(1), chunk(3)));

// The result of a backup answered with this value.
void answer(Backup &backup, const std::optional<std::string> &value)
{
    Peer peer;
    peer.respond({.name = backup_name, .value = value});
    backup.run(peer);
    EXPECT_EQ(backup.session_code, backup.rc);
}

struct Restored {
    int rc = marker;
    int session_code = marker;
    std::optional<std::string> value = std::nullopt; // of the request, if one was sent
    std::string list;                                // the caller's list as the call left it
};

Restored restore(const std::string &data, const std::optional<std::string> &list,
                 const Response &response = {.name = restore_name}, const char *password = "secret")
{
    Peer peer;
    peer.respond(response);
    std::string object = data;
    std::string text = list.value_or("");
    const int size = static_cast<int>(data.size());
    Restored restored;
    restored.rc = ldap_restore_object(peer.ld(), "cn=a", password, object.data(),
                                      list ? text.data() : nullptr, size);
    restored.session_code = peer.session_code();
    if (!peer.quiet()) {
        const Request request = peer.take_request();
        EXPECT_EQ(request.name, "2.16.840.1.424242.1.27.100.98");
        EXPECT_FALSE(request.controls);
        restored.value = request.value;
    }
    EXPECT_TRUE(peer.quiet());
    EXPECT_EQ(object, data);
    restored.list = text;
    return restored;
}

std::string sent_chunk_table(int count, const std::vector<int> &sizes = {})
{
    std::string chunks;
    for (const int size : sizes)
        chunks += element(0x30, integer(size), 4);
    return element(0x30, concat(integer(count), element(0x31, chunks, 4)), 4);
}

std::string restore_value(const std::string &data, const std::string &table)
{
    return concat(octets("cn=a"), octets("secret"), integer(static_cast<int>(data.size())),
                  octets(data), table);
}

} // namespace

// ---- Backup: the request

TEST(BackupRequest, of_a_first_backup_sends_two_zero_marks)
{
    Peer peer;
    peer.respond({.name = backup_name, .value = good_value});
    Backup backup;
    backup.run(peer);
    EXPECT_EQ(backup.rc, 0);
    const Request request = peer.take_request();
    EXPECT_EQ(request.name, "2.16.840.1.424242.1.27.100.96");
    EXPECT_EQ(request.value, bytes("04 04 63 6e 3d 61"
                                   "02 01 00"
                                   "02 01 00"
                                   "04 06 73 65 63 72 65 74"));
    EXPECT_FALSE(request.controls);
    EXPECT_TRUE(peer.quiet());
}

TEST(BackupRequest, sends_the_marks_of_the_earlier_backup)
{
    struct Row {
        const char *state;
        int mts, revision;
    };
    for (const Row &row :
         {Row{"1200+3", 1200, 3}, Row{"-7+-8", -7, -8}, Row{"2147483647+1", INT_MAX, 1},
          Row{"+5+6", 5, 6}, Row{"5++6", 5, 6}, Row{" 5 + 6 ", 5, 6}, Row{"5x+6y", 5, 6},
          Row{"5+6+7", 5, 6}, Row{"4294967297+1", 1, 1}}) {
        Peer peer;
        peer.respond({.name = backup_name, .value = good_value});
        Backup backup(row.state);
        backup.run(peer);
        EXPECT_EQ(backup.rc, 0) << row.state;
        EXPECT_EQ(peer.take_request().value,
                  concat(octets("cn=a"), integer(row.mts), integer(row.revision), octets("secret")))
            << row.state;
        EXPECT_STREQ(backup.state, "17+2");
    }
}

TEST(BackupRequest, without_a_password_sends_an_empty_one)
{
    Peer peer;
    peer.respond({.name = backup_name, .value = good_value});
    Backup backup;
    backup.run(peer, "cn=a", nullptr);
    EXPECT_EQ(peer.take_request().value,
              concat(octets("cn=a"), integer(0), integer(0), octets("")));
}

TEST(BackupRequest, without_a_dn_is_refused_before_anything_happens)
{
    Peer peer;
    Backup backup("1200+3");
    backup.run(peer, nullptr);
    EXPECT_EQ(backup.rc, LDAPX_PARAM_ERROR);
    EXPECT_EQ(backup.session_code, marker);
    EXPECT_STREQ(backup.state, "1200+3");
    EXPECT_EQ(ldap_backup_object(peer.ld(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              LDAPX_PARAM_ERROR);
    EXPECT_TRUE(peer.quiet());
}

TEST(BackupRequest, with_a_state_that_lacks_a_mark_is_refused_before_anything_is_sent)
{
    for (const char *state : {"0+5", "x+5", "5+0", "5+x", "5", "5+", "+5", "", "+", "+++", "0", "-",
                              "4294967296+1", "99999999999999999999+0"}) {
        Peer peer;
        Backup backup(state);
        backup.run(peer);
        EXPECT_EQ(backup.rc, LDAPX_ENCODING_ERROR) << state;
        EXPECT_EQ(backup.session_code, marker) << state;
        EXPECT_EQ(backup.size, -4711) << state;
        backup.expect_nothing_handed_out();
        EXPECT_TRUE(peer.quiet()) << state;
    }
}

TEST(BackupRequest, cuts_the_caller_s_state_at_its_plus)
{
    Peer peer;
    Backup refused("12+0");
    refused.run(peer);
    EXPECT_STREQ(refused.state, "12");

    peer.respond({.code = LDAP_BUSY, .name = backup_name});
    Backup failed("1200+3");
    failed.run(peer);
    EXPECT_EQ(failed.rc, LDAP_BUSY);
    EXPECT_STREQ(failed.state, "1200");
}

// ---- Backup: the response

TEST(BackupResponse, hands_out_the_data_its_size_its_chunks_and_the_new_state)
{
    Backup backup("1200+3");
    answer(backup, good_value);
    EXPECT_EQ(backup.rc, 0);
    EXPECT_EQ(backup.size, 4);
    EXPECT_EQ(backup.bytes(), "data");
    EXPECT_EQ(backup.list(), "2;1;3;");
    EXPECT_STREQ(backup.state, "17+2");
}

TEST(BackupResponse, keeps_zero_bytes_in_the_data)
{
    std::string every_byte;
    for (int byte = 0; byte < 256; ++byte)
        every_byte += static_cast<char>(byte);
    for (const std::string &data :
         {std::string("\0a\0\0b\0", 6), std::string(5, '\0'), every_byte, std::string()}) {
        Backup backup;
        answer(backup, backup_value(static_cast<int>(data.size()), 1, 1, data, chunk_table(0)));
        EXPECT_EQ(backup.rc, 0);
        EXPECT_NE(backup.data, nullptr);
        EXPECT_EQ(backup.bytes(), data);
    }
}

TEST(BackupResponse, writes_the_chunk_list_to_the_character)
{
    struct Row {
        std::string table;
        std::string list;
    };
    for (const Row &row : {
             Row{chunk_table(0), "0;"},
             Row{chunk_table(2, chunk(10), chunk(20)), "2;10;20;"},
             Row{chunk_table(3, chunk(512), chunk(512), chunk(17)), "3;512;512;17;"},
             Row{chunk_table(1, chunk(INT_MIN)), "1;-2147483648;"},
             Row{chunk_table(2, chunk(INT_MAX), chunk(0), chunk(9)), "2;2147483647;0;"},
             // A count below zero reads no chunk.
             Row{chunk_table(-1, chunk(10)), "-1;"},
             Row{chunk_table(INT_MIN), "-2147483648;"},
         }) {
        Backup backup;
        answer(backup, backup_value(0, 1, 1, "", row.table));
        EXPECT_EQ(backup.rc, 0) << row.list;
        EXPECT_EQ(backup.list(), row.list);
    }
}

TEST(BackupResponse, may_list_ten_thousand_chunks)
{
    std::string chunks;
    std::string list = "10000;";
    for (int i = 0; i < 10000; ++i) {
        chunks += chunk(i);
        list += std::to_string(i) + ";";
    }
    Backup backup;
    answer(backup, backup_value(0, 1, 1, "", chunk_table(10000, chunks)));
    EXPECT_EQ(backup.rc, 0);
    EXPECT_TRUE(backup.list() == list);
}

TEST(BackupResponse, prints_any_marks_as_they_come)
{
    struct Row {
        int mts, revision;
        const char *state;
    };
    for (const Row &row :
         {Row{0, 0, "0+0"}, Row{-1, INT_MIN, "-1+-2147483648"}, Row{INT_MAX, 1, "2147483647+1"}}) {
        Backup backup;
        answer(backup, backup_value(0, row.mts, row.revision, "", chunk_table(0)));
        EXPECT_EQ(backup.rc, 0);
        EXPECT_STREQ(backup.state, row.state);
    }
}

TEST(BackupResponse, trusts_the_announced_size_and_fills_up_with_zeros)
{
    Backup larger;
    answer(larger, backup_value(8, 1, 1, "data", chunk_table(0)));
    EXPECT_EQ(larger.rc, 0);
    EXPECT_EQ(larger.bytes(), std::string("data\0\0\0\0", 8));

    Backup smaller;
    answer(smaller, backup_value(2, 1, 1, "data", chunk_table(0)));
    EXPECT_EQ(smaller.rc, 0);
    EXPECT_EQ(smaller.bytes(), "da");
}

TEST(BackupResponse, does_not_look_for_the_ends_of_the_table_nor_at_tags)
{
    for (const std::string &value : {
             good_value + octets("behind it"),
             backup_value(4, 17, 2, "data",
                          bytes("30 00 02 01 02 31 00 30 00 02 01 01 30 00 02 01 03")),
             concat(enumerated(4), enumerated(17), enumerated(2), octets("data", 0x80),
                    element(0xa0, concat(enumerated(2), element(0xa1, chunk(1) + chunk(3))))),
         }) {
        Backup backup;
        answer(backup, value);
        EXPECT_EQ(backup.rc, 0) << hex(value);
        EXPECT_EQ(backup.list(), "2;1;3;");
        EXPECT_EQ(backup.bytes(), "data");
        EXPECT_STREQ(backup.state, "17+2");
    }
}

TEST(BackupResponse, cut_at_any_byte_cannot_be_decoded)
{
    const std::size_t sized = integer(4).size(); // from here on the size has been read
    for (const std::string &cut : cuts(good_value)) {
        Backup backup("1200+3");
        answer(backup, cut);
        EXPECT_EQ(backup.rc, LDAPX_DECODING_ERROR) << hex(cut);
        EXPECT_EQ(backup.size, cut.size() < sized ? -4711 : 4) << hex(cut);
        EXPECT_STREQ(backup.state, "1200");
        backup.expect_nothing_handed_out();
    }
}

TEST(BackupResponse, with_elements_that_do_not_fit_cannot_be_decoded)
{
    const std::string four = concat(integer(4), integer(17), integer(2), octets("data"));
    for (const std::string &value : {
             four + chunk_table(3, chunk(1), chunk(2)), // one chunk too few
             four + chunk_table(1, integer(1)),         // a chunk that is no SEQUENCE
             four + sequence(integer(1)),               // no SET
             four + sequence(set(chunk(1))),            // no count
             four,                                      // no table
             concat(integer(2147483648), four),         // numbers of 33 bits
             concat(integer(4), integer(2147483648), four),
             concat(integer(4), integer(1), integer(2147483648), four),
             four + sequence(integer(2147483648), set()),
             four + chunk_table(1, sequence(integer(2147483648))),
             concat(integer(4), integer(1), integer(1), integer(1)), // the table missing
         }) {
        Backup backup;
        answer(backup, value);
        EXPECT_EQ(backup.rc, LDAPX_DECODING_ERROR) << hex(value);
        EXPECT_EQ(backup.state, nullptr);
        backup.expect_nothing_handed_out();
    }
}

TEST(BackupResponse, announcing_more_chunks_than_bytes_cannot_be_decoded)
{
    const std::string lie = sequence(integer(INT_MAX), set(chunk(1)));
    Backup backup;
    answer(backup, backup_value(4, 17, 2, "data", lie));
    EXPECT_EQ(backup.rc, LDAPX_DECODING_ERROR);
    backup.expect_nothing_handed_out();
}

TEST(BackupResponse, without_a_value_is_an_operations_error)
{
    Backup backup;
    answer(backup, std::nullopt);
    EXPECT_EQ(backup.rc, LDAPX_OPERATIONS_ERROR);
    EXPECT_EQ(backup.size, -4711);
    backup.expect_nothing_handed_out();
}

TEST(BackupResponse, under_another_name_or_none_is_not_supported_whatever_the_server_says)
{
    for (const int code : {0, LDAP_INVALID_CREDENTIALS})
        for (const auto &name :
             {std::optional<std::string>(), std::optional<std::string>(restore_name),
              std::optional<std::string>(backup_name + "0")}) {
            Peer peer;
            peer.respond({.code = code, .name = name, .value = good_value});
            Backup backup;
            backup.run(peer);
            EXPECT_EQ(backup.rc, LDAPX_NOT_SUPPORTED);
            EXPECT_EQ(backup.session_code, LDAPX_NOT_SUPPORTED);
            EXPECT_EQ(backup.size, -4711);
            backup.expect_nothing_handed_out();
        }
}

TEST(BackupResponse, under_its_name_with_a_failure_gives_the_server_s_code)
{
    Peer peer;
    peer.respond({.code = LDAP_INVALID_CREDENTIALS, .name = backup_name, .value = good_value});
    Backup backup;
    backup.run(peer);
    EXPECT_EQ(backup.rc, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(backup.session_code, LDAP_INVALID_CREDENTIALS);
    backup.expect_nothing_handed_out();
}

TEST(BackupResponse, that_never_comes_is_not_supported)
{
    Peer peer;
    peer.close();
    Backup backup("1200+3");
    backup.run(peer);
    EXPECT_EQ(backup.rc, LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(backup.session_code, LDAPX_NOT_SUPPORTED);
    EXPECT_STREQ(backup.state, "1200");
}

// ---- Restore

TEST(RestoreRequest, sends_the_object_and_its_chunk_table)
{
    const Restored restored = restore("data", "2;10;20;");
    EXPECT_EQ(restored.rc, 0);
    EXPECT_EQ(restored.session_code, 0);
    EXPECT_EQ(restored.value, bytes("04 04 63 6e 3d 61"
                                    "04 06 73 65 63 72 65 74"
                                    "02 01 04"
                                    "04 04 64 61 74 61"
                                    "30 84 00 00 00 1b"
                                    "   02 01 02"
                                    "   31 84 00 00 00 12"
                                    "      30 84 00 00 00 03 02 01 0a"
                                    "      30 84 00 00 00 03 02 01 14"));
    EXPECT_EQ(restored.list, std::string("2\0"
                                         "10\0"
                                         "20\0",
                                         8));
}

TEST(RestoreRequest, sends_every_chunk_whatever_the_count_says)
{
    EXPECT_EQ(restore("data", "1;10;20").value,
              restore_value("data", sent_chunk_table(1, {10, 20})));
    EXPECT_EQ(restore("data", "9;10").value, restore_value("data", sent_chunk_table(9, {10})));
    EXPECT_EQ(restore("data", "-1;").value, restore_value("data", sent_chunk_table(-1)));
    EXPECT_EQ(restore("data", "0;").value, restore_value("data", sent_chunk_table(0)));
    EXPECT_EQ(restore("data", ";;2;;x;-5;").value,
              restore_value("data", sent_chunk_table(2, {0, -5})));
}

TEST(RestoreRequest, without_a_list_or_with_an_empty_one_sends_no_chunk)
{
    for (const auto &list : {std::optional<std::string>(), std::optional<std::string>(""),
                             std::optional<std::string>(";;;")}) {
        const Restored restored = restore("data", list);
        EXPECT_EQ(restored.rc, 0);
        EXPECT_EQ(restored.value, restore_value("data", sent_chunk_table(0)));
    }
}

TEST(RestoreRequest, keeps_zero_bytes_in_the_data)
{
    for (const std::string &data :
         {std::string("\0a\0\0b\0", 6), std::string(300, '\0'), std::string(70000, '\xff')})
        EXPECT_EQ(restore(data, "0;").value, restore_value(data, sent_chunk_table(0)));
    EXPECT_EQ(restore("", "0;").value, restore_value("", sent_chunk_table(0)));
}

TEST(RestoreRequest, without_a_password_sends_an_empty_one)
{
    EXPECT_EQ(restore("data", "0;", {.name = restore_name}, nullptr).value,
              concat(octets("cn=a"), octets(""), integer(4), octets("data"), sent_chunk_table(0)));
}

TEST(RestoreRequest, sends_what_a_backup_handed_out)
{
    const std::string data("\0chunk one\0chunk two", 20);
    Backup backup;
    answer(backup, backup_value(20, 5, 6, data, chunk_table(2, chunk(10), chunk(10))));
    EXPECT_EQ(restore(backup.bytes(), backup.list()).value,
              restore_value(data, sent_chunk_table(2, {10, 10})));
}

TEST(RestoreRequest, without_a_dn_or_data_is_refused_before_anything_happens)
{
    Peer peer;
    ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
    char data[] = "data";
    char list[] = "1;4;";
    EXPECT_EQ(ldap_restore_object(peer.ld(), nullptr, "", data, list, 4), LDAPX_PARAM_ERROR);
    EXPECT_EQ(ldap_restore_object(peer.ld(), "cn=a", "", nullptr, list, 4), LDAPX_PARAM_ERROR);
    EXPECT_STREQ(list, "1;4;");
    EXPECT_EQ(peer.session_code(), marker);
    EXPECT_TRUE(peer.quiet());
}

TEST(RestoreRequest, with_a_negative_size_cannot_be_encoded)
{
    for (const int size : {-1, -2, INT_MIN}) {
        Peer peer;
        char data[] = "data";
        char list[] = "1;4;";
        EXPECT_EQ(ldap_restore_object(peer.ld(), "cn=a", "", data, list, size),
                  LDAPX_ENCODING_ERROR);
        EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
        EXPECT_STREQ(list, "1;4;");
        EXPECT_TRUE(peer.quiet());
    }
}

TEST(RestoreResponse, gives_the_server_s_code_under_the_right_name)
{
    for (const int code : {0, LDAP_INVALID_CREDENTIALS, LDAP_OTHER}) {
        const Restored restored =
            restore("data", "0;", {.code = code, .name = restore_name, .value = "never read"});
        EXPECT_EQ(restored.rc, code);
        EXPECT_EQ(restored.session_code, code);
    }
}

TEST(RestoreResponse, under_another_name_or_none_is_not_supported_whatever_the_server_says)
{
    for (const int code : {0, LDAP_INVALID_CREDENTIALS})
        for (const auto &name :
             {std::optional<std::string>(), std::optional<std::string>(backup_name),
              std::optional<std::string>(restore_name + "0")}) {
            const Restored restored = restore("data", "0;", {.code = code, .name = name});
            EXPECT_EQ(restored.rc, LDAPX_NOT_SUPPORTED);
            EXPECT_EQ(restored.session_code, LDAPX_NOT_SUPPORTED);
        }
}

TEST(RestoreResponse, that_never_comes_is_not_supported)
{
    Peer peer;
    peer.close();
    char data[] = "data";
    char list[] = "1;4;";
    EXPECT_EQ(ldap_restore_object(peer.ld(), "cn=a", "", data, list, 4), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(peer.session_code(), LDAPX_NOT_SUPPORTED);
}
