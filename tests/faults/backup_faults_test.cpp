// Object backup and restore when a step of the call fails: the code, the session's code, what the
// caller then holds, what is still sent, and the release of exactly what exists, in its order.

#include <cstring>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/berfail.h"
#include "support/peer.h"
#include "support/stated_leak.h"

using namespace support;

namespace {

constexpr int marker = 0x33; // a session code that no operation stores

std::string chunk(int size)
{
    return sequence(integer(size));
}

const std::string two_chunks = concat(integer(4), integer(17), integer(2), octets("data"),
                                      sequence(integer(2), set(chunk(1), chunk(3))));

// The calls that are no release.
Names steps(const Calls &calls)
{
    Names made = calls.made();
    std::erase_if(made, [](const std::string &name) {
        return name == "ber_free" || name == "ber_bvfree" || name == "ldap_memfree" ||
               name == "ldap_set_option" || name == "ber_peek_tag" || name == "ber_get_option";
    });
    return made;
}

// The releases of something.
Names released(const Calls &calls)
{
    Names names = calls.released();
    std::erase_if(names, [](const std::string &name) { return name.ends_with("(NULL)"); });
    return names;
}

class BackupFaults : public testing::Test {
protected:
    BackupFaults() : state(strdup("1200+3"))
    {
        peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = two_chunks});
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
        calls = std::make_unique<Calls>();
    }
    ~BackupFaults() override
    {
        calls = nullptr;
        ldapx_memfree(state);
        ldapx_memfree(data);
        ldapx_memfree(chunks);
    }

    int run()
    {
        return ldap_backup_object(peer.ld(), "cn=a", "secret", &state, &data, &chunks, &size);
    }
    // How often the library calls a function of the allocator when all goes well. The compiler may
    // turn one into another, so this is counted.
    int calls_in_success(const char *function)
    {
        Peer another;
        another.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = two_chunks});
        char *none = nullptr;
        char *object = nullptr;
        char *list = nullptr;
        int length = 0;
        const int before = calls->count(function);
        EXPECT_EQ(ldap_backup_object(another.ld(), "cn=a", "", &none, &object, &list, &length), 0);
        const int count = calls->count(function) - before;
        ldapx_memfree(none);
        ldapx_memfree(object);
        ldapx_memfree(list);
        return count;
    }
    void expect_sent(bool sent)
    {
        EXPECT_EQ(!peer.quiet(), sent);
    }
    void expect_state_cut()
    {
        EXPECT_EQ(std::memcmp(state,
                              "1200\0"
                              "3",
                              7),
                  0);
    }

    Peer peer;
    char *state;
    char *data = nullptr;
    char *chunks = nullptr;
    int size = marker;
    std::unique_ptr<Calls> calls;
};

class RestoreFaults : public testing::Test {
protected:
    RestoreFaults()
    {
        ldap_set_option(peer.ld(), LDAP_OPT_RESULT_CODE, &marker);
        calls = std::make_unique<Calls>();
    }

    int run()
    {
        return ldap_restore_object(peer.ld(), "cn=a", "secret", data, list, 4);
    }
    void answer(const Response &response)
    {
        peer.respond(response);
    }
    std::string list_now() const
    {
        return {list, sizeof list};
    }

    Peer peer;
    char data[5] = "data";
    char list[9] = "2;10;20;";
    std::unique_ptr<Calls> calls;
};

const Names restore_writes = {"ber_printf ssio", "ber_printf {i[", "ber_printf {i}",
                              "ber_printf {i}", "ber_printf ]}"};

} // namespace

// ---- Backup

TEST_F(BackupFaults, success_releases_everything_in_its_own_order)
{
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(steps(*calls),
              (Names{"ber_alloc", "ber_printf siis", "ber_flatten", "ldap_extended_operation_s",
                     "ber_init", "ber_scanf i", "ber_scanf i", "ber_scanf i", "ber_scanf o",
                     "ber_scanf {i[", "ber_scanf {i}", "ber_scanf {i}"}));
    EXPECT_EQ(released(*calls),
              (Names{"free(?)", // the caller's old state
                     "ber_free(requestber)", "ber_bvfree(requestbv)", "ber_free(returnedber)",
                     "ber_bvfree(returnedbv)", "ldap_memfree(returnedOID)", "free(realloc)",
                     "ldap_memfree(o)", "free(malloc)"}));
    EXPECT_EQ(calls->unreleased(), (Names{"calloc", "malloc", "malloc"})) << "the caller's now";
    EXPECT_EQ(calls->count("ldap_set_option"), 1);
}

TEST_F(BackupFaults, without_a_request_element_nothing_happens_and_no_code_is_stored)
{
    calls->fail("ber_alloc");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->made(), Names{"ber_alloc"});
    EXPECT_EQ(released(*calls), Names());
    EXPECT_EQ(peer.session_code(), marker);
    EXPECT_STREQ(state, "1200+3") << "not even looked at";
}

TEST_F(BackupFaults, a_refused_state_releases_the_request_element_and_stores_no_code)
{
    for (const char *refused : {"0+5", "5+0", "5"}) {
        std::strcpy(state, refused);
        EXPECT_EQ(run(), LDAPX_ENCODING_ERROR);
        EXPECT_EQ(peer.session_code(), marker);
    }
    EXPECT_EQ(steps(*calls), (Names{"ber_alloc", "ber_alloc", "ber_alloc"}));
    EXPECT_EQ(calls->unreleased(), Names());
    expect_sent(false);
}

TEST_F(BackupFaults, a_request_that_cannot_be_encoded_is_not_sent)
{
    calls->fail("ber_printf");
    EXPECT_EQ(run(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(released(*calls), Names{"ber_free(requestber)"});
    expect_state_cut();
    expect_sent(false);
}

TEST_F(BackupFaults, a_request_that_cannot_be_flattened_is_not_sent)
{
    calls->fail("ber_flatten");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(released(*calls), Names{"ber_free(requestber)"});
    expect_state_cut();
    expect_sent(false);
}

TEST_F(BackupFaults, a_failed_exchange_without_a_name_is_not_supported)
{
    calls->fail("ldap_extended_operation_s", 1, LDAP_SERVER_DOWN);
    EXPECT_EQ(run(), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(peer.session_code(), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(released(*calls), (Names{"ber_free(requestber)", "ber_bvfree(requestbv)"}));
    expect_state_cut();
}

TEST_F(BackupFaults, a_value_that_finds_no_reader_is_out_of_memory)
{
    calls->fail("ber_init");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_EQ(size, marker);
}

TEST_F(BackupFaults, any_read_that_fails_cannot_be_decoded)
{
    for (int nth = 1; nth <= 7; ++nth) {
        Peer another;
        another.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = two_chunks});
        calls = nullptr;
        calls = std::make_unique<Calls>();
        calls->fail("ber_scanf", nth);
        std::strcpy(state, "1200+3");
        size = marker;
        EXPECT_EQ(ldap_backup_object(another.ld(), "cn=a", "", &state, &data, &chunks, &size),
                  LDAPX_DECODING_ERROR);
        EXPECT_EQ(another.session_code(), LDAPX_DECODING_ERROR);
        EXPECT_EQ(calls->count("ber_scanf"), nth) << "nothing is read behind it";
        EXPECT_EQ(calls->unreleased(), Names());
        EXPECT_EQ(size, nth == 1 ? marker : 4);
        EXPECT_EQ(data, nullptr);
        EXPECT_EQ(chunks, nullptr);
        expect_state_cut();
    }
}

TEST_F(BackupFaults, a_lying_chunk_count_asks_for_no_block)
{
    Peer lying;
    lying.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE,
                   .value = concat(integer(4), integer(17), integer(2), octets("data"),
                                   sequence(integer(6), set(chunk(1))))});
    EXPECT_EQ(ldap_backup_object(lying.ld(), "cn=a", "", &state, &data, &chunks, &size),
              LDAPX_DECODING_ERROR);
    EXPECT_EQ(calls->count("malloc") + calls->count("calloc") + calls->count("realloc"), 0);
}

TEST_F(BackupFaults, without_scratch_it_is_out_of_memory)
{
    calls->fail("malloc");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(chunks, nullptr);
}

TEST_F(BackupFaults, a_list_that_cannot_grow_is_lost)
{
    calls->fail("realloc", calls_in_success("realloc")); // for the last chunk
    {
        StatedLeak leak;
        EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    }
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->unreleased(), Names{"realloc"}) << "the one block that is lost";
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(chunks, nullptr);
}

TEST_F(BackupFaults, without_room_for_the_data_it_is_out_of_memory)
{
    calls->fail("calloc");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_EQ(size, 4);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(chunks, nullptr);
    expect_state_cut();
}

TEST_F(BackupFaults, without_room_for_the_list_the_data_stays_with_the_caller)
{
    calls->fail("malloc", calls_in_success("malloc") - 1);
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->unreleased(), Names{"calloc"});
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::memcmp(data, "data", 4), 0);
    EXPECT_EQ(chunks, nullptr);
    expect_state_cut();
}

TEST_F(BackupFaults, without_room_for_the_state_the_backup_is_good_and_the_state_null)
{
    calls->fail("malloc", calls_in_success("malloc"));
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(peer.session_code(), 0);
    EXPECT_EQ(calls->unreleased(), (Names{"calloc", "malloc"}));
    EXPECT_EQ(state, nullptr);
    EXPECT_NE(data, nullptr);
    EXPECT_NE(chunks, nullptr);
}

// ---- Restore

TEST_F(RestoreFaults, success_releases_everything_in_its_own_order)
{
    answer({.name = LDAPX_RESTORE_OBJECT_RESPONSE, .value = "unread"});
    EXPECT_EQ(run(), 0);
    Names expected = {"ber_alloc"};
    expected.insert(expected.end(), restore_writes.begin(), restore_writes.end());
    expected.insert(expected.end(), {"ber_flatten", "ldap_extended_operation_s"});
    EXPECT_EQ(steps(*calls), expected);
    EXPECT_EQ(released(*calls),
              (Names{"ber_free(requestber)", "ber_bvfree(requestbv)", "ber_bvfree(returnedbv)",
                     "ldap_memfree(returnedOID)", "free(malloc)"}));
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_EQ(calls->count("ldap_set_option"), 1);
}

TEST_F(RestoreFaults, without_a_request_element_nothing_happens_and_no_code_is_stored)
{
    calls->fail("ber_alloc");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->made(), Names{"ber_alloc"});
    EXPECT_EQ(peer.session_code(), marker);
    EXPECT_STREQ(list, "2;10;20;");
}

TEST_F(RestoreFaults, fields_that_cannot_be_encoded_leave_the_list_uncut)
{
    calls->fail("ber_printf");
    EXPECT_EQ(run(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(steps(*calls), (Names{"ber_alloc", restore_writes[0]}));
    EXPECT_EQ(released(*calls), Names{"ber_free(requestber)"});
    EXPECT_STREQ(list, "2;10;20;");
    EXPECT_TRUE(peer.quiet());
}

// The opening of the chunk table is not checked: what follows it stands in the request bare.
TEST_F(RestoreFaults, a_table_that_cannot_be_opened_is_not_noticed)
{
    answer({.name = LDAPX_RESTORE_OBJECT_RESPONSE});
    calls->fail("ber_printf", 2);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(peer.take_request().value,
              concat(octets("cn=a"), octets("secret"), integer(4), octets("data"),
                     element(0x30, integer(10), 4), element(0x30, integer(20), 4)));
    EXPECT_EQ(calls->unreleased(), Names());
}

TEST_F(RestoreFaults, a_chunk_that_cannot_be_encoded_ends_the_call_and_the_cutting)
{
    calls->fail("ber_printf", 3);
    EXPECT_EQ(run(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(peer.session_code(), LDAPX_ENCODING_ERROR);
    EXPECT_EQ(calls->count("ber_printf"), 3);
    EXPECT_EQ(released(*calls), Names{"ber_free(requestber)"});
    EXPECT_EQ(list_now(), std::string("2\0"
                                      "10\0"
                                      "20;\0",
                                      9));
    EXPECT_TRUE(peer.quiet());
}

// The closing is not checked either: the open request cannot be flattened, and the result is what
// the closing returned.
TEST_F(RestoreFaults, a_table_that_cannot_be_closed_gives_the_closing_s_own_value)
{
    calls->fail("ber_printf", 5);
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(peer.session_code(), -1);
    EXPECT_EQ(calls->count("ldap_extended_operation_s"), 0);
    EXPECT_EQ(released(*calls), (Names{"ber_free(requestber)", "free(malloc)"}));
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RestoreFaults, without_scratch_it_is_out_of_memory_and_nothing_is_sent)
{
    calls->fail("malloc");
    EXPECT_EQ(run(), LDAPX_NO_MEMORY);
    EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
    EXPECT_EQ(calls->count("ber_flatten"), 0);
    EXPECT_EQ(released(*calls), Names{"ber_free(requestber)"});
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RestoreFaults, the_scratch_is_as_large_as_the_object_whatever_the_list)
{
    for (const char *text : {"0;", "", "2;10;20;"}) {
        std::strcpy(list, text);
        const int before = calls->count("malloc");
        calls->fail("malloc");
        EXPECT_EQ(run(), LDAPX_NO_MEMORY);
        EXPECT_EQ(calls->count("malloc"), before + 1);
    }
    calls->fail("malloc");
    EXPECT_EQ(ldap_restore_object(peer.ld(), "cn=a", "", data, nullptr, 4), LDAPX_NO_MEMORY);
}

TEST_F(RestoreFaults, a_request_that_cannot_be_flattened_gives_what_closing_the_table_returned)
{
    BerElement *same = ber_alloc_t(0);
    ber_printf(same, "ssio", "cn=a", "secret", 4, data, ber_len_t{4});
    ber_printf(same, "{i[", 2);
    ber_printf(same, "{i}", 10);
    ber_printf(same, "{i}", 20);
    const int closing = ber_printf(same, "]}");
    ber_free(same, 1);
    ASSERT_GT(closing, 0);

    calls->fail("ber_flatten");
    EXPECT_EQ(run(), closing);
    EXPECT_EQ(peer.session_code(), closing);
    EXPECT_EQ(calls->count("ldap_extended_operation_s"), 0);
    EXPECT_EQ(calls->unreleased(), Names());
    EXPECT_TRUE(peer.quiet());
}

TEST_F(RestoreFaults, a_failed_exchange_without_a_name_is_not_supported)
{
    calls->fail("ldap_extended_operation_s", 1, LDAP_SERVER_DOWN);
    EXPECT_EQ(run(), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(peer.session_code(), LDAPX_NOT_SUPPORTED);
    EXPECT_EQ(released(*calls),
              (Names{"ber_free(requestber)", "ber_bvfree(requestbv)", "free(malloc)"}));
}
