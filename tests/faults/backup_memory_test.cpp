// Object backup and restore and memory: every single allocation may fail, and nothing is lost but
// a chunk list that could not grow.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "faults/bare_exchange.h"
#include "support/ber.h"
#include "support/memory.h"
#include "support/peer.h"

using namespace support;

namespace {

class BackupMemory : public testing::Test {
protected:
    // The LDAP library reads its configuration when the first session is made.
    static void SetUpTestSuite()
    {
        Peer first;
    }
};

std::string value_of(int size, const std::string &data, int chunks)
{
    std::string table;
    for (int i = 0; i < chunks; ++i)
        table += sequence(integer(10 + i));
    return concat(integer(size), integer(17), integer(2), octets(data),
                  sequence(integer(chunks), set(table)));
}

// The caller's variables. They begin empty and what they then hold is released in the body of a
// sweep, where blocks that remain count as lost.
struct Outputs {
    char *state = nullptr;
    char *data = nullptr;
    char *chunks = nullptr;
    int size = 0;

    Outputs() = default;
    Outputs(const Outputs &) = delete;
    Outputs &operator=(const Outputs &) = delete;
    ~Outputs()
    {
        ldapx_memfree(state);
        ldapx_memfree(data);
        ldapx_memfree(chunks);
    }
    int backup(LDAP *ld)
    {
        return ldap_backup_object(ld, "cn=a", "secret", &state, &data, &chunks, &size);
    }
};

// The LDAP library's part: as bare_exchange(), but a failure to exchange leaves no name, and that
// is looked at first.
int name_first(int rc)
{
    return rc == LDAPX_ENCODING_ERROR || rc == LDAPX_NO_MEMORY || rc == LDAP_SUCCESS
               ? rc
               : LDAPX_NOT_SUPPORTED;
}

std::vector<Outcome> sweep_answered(Fail mode, const Response &response,
                                    const std::function<int(LDAP *ld, Outputs &out)> &call)
{
    return sweep(mode, [&](Step &step) {
        Peer peer;
        peer.respond(response);
        peer.finish(); // a lost response must not be waited for
        Outputs out;
        step.run([&] { return call(peer.ld(), out); });
    });
}

void expect_libldap_part(const std::vector<Outcome> &outcomes,
                         const std::vector<Outcome> &yardstick, std::size_t count)
{
    for (std::size_t n = 0; n < count; ++n) {
        EXPECT_EQ(outcomes[n], yardstick[n]) << "allocation " << n + 1;
        EXPECT_TRUE((outcomes[n].died.empty() && outcomes[n].lost == 0) ||
                    is_libldap_failure(outcomes[n]))
            << outcomes[n];
    }
}

struct Expected {
    int rc;
    std::size_t lost;
};

} // namespace

TEST_F(BackupMemory, may_run_out_at_any_allocation_of_a_backup)
{
    const Response response = {.name = LDAPX_BACKUP_OBJECT_RESPONSE,
                               .value = value_of(4, "data", 2)};
    const Expected own[] = {
        {LDAPX_NO_MEMORY, 0},      // the reader
        {LDAPX_NO_MEMORY, 0},      // its bytes
        {LDAPX_DECODING_ERROR, 0}, // the data as it is read
        {LDAPX_NO_MEMORY, 0},      // the text of a number
        {LDAPX_NO_MEMORY, 0},      // the list with the count
        {LDAPX_NO_MEMORY, 1},      // with the first chunk: the list is lost
        {LDAPX_NO_MEMORY, 1},      // with the second
        {LDAPX_NO_MEMORY, 0},      // the caller's data
        {LDAPX_NO_MEMORY, 0},      // the caller's list; the data is the caller's by now
        {LDAP_SUCCESS, 0},         // the caller's state
    };
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const auto outcomes =
            sweep_answered(mode, response, [](LDAP *ld, Outputs &out) { return out.backup(ld); });
        const auto yardstick = sweep_answered(mode, response, [](LDAP *ld, Outputs &) {
            return name_first(bare_exchange(ld, LDAPX_BACKUP_OBJECT_REQUEST,
                                            LDAPX_BACKUP_OBJECT_RESPONSE, "siis", "cn=a", 0, 0,
                                            "secret"));
        });
        const std::size_t bare = yardstick.size() - 1;
        ASSERT_GT(bare, 10u);
        ASSERT_EQ(outcomes.size(), bare + std::size(own) + 1);
        expect_libldap_part(outcomes, yardstick, bare);
        for (std::size_t n = 0; n < std::size(own); ++n) {
            EXPECT_EQ(outcomes[bare + n].rc, own[n].rc) << "own allocation " << n + 1;
            EXPECT_EQ(outcomes[bare + n].lost, own[n].lost) << "own allocation " << n + 1;
            EXPECT_EQ(outcomes[bare + n].died, "");
        }
        EXPECT_EQ(outcomes.back().rc, 0);
        EXPECT_EQ(outcomes.back().lost, 0u);
    }
}

TEST_F(BackupMemory, loses_nothing_whatever_the_server_answers)
{
    const std::string name = LDAPX_BACKUP_OBJECT_RESPONSE;
    const std::string good = value_of(4, "data", 2);
    for (const Response &response :
         {Response{.name = name, .value = good}, Response{.name = name},
          Response{.name = name, .value = ""}, Response{.name = name, .value = good.substr(0, 20)},
          Response{.name = name, .value = good.substr(0, good.size() - 3)},
          Response{.name = name, .value = value_of(-1, "data", 0)},
          Response{.code = LDAP_BUSY, .name = name, .value = good}, Response{.value = good},
          Response{.name = name + "0", .value = good}, Response{.code = LDAP_BUSY}}) {
        const Outcome outcome = run_failing(Fail::never, 0, [&](Step &step) {
            Peer peer;
            peer.respond(response);
            Outputs out;
            step.run([&] { return out.backup(peer.ld()); });
        });
        EXPECT_EQ(outcome.lost, 0u) << hex(response.value.value_or(""));
        EXPECT_EQ(outcome.died, "");
    }
}

TEST_F(BackupMemory, a_negative_size_is_more_than_there_is)
{
    for (const int size : {-1, INT_MIN}) {
        Peer peer;
        peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = value_of(size, "data", 1)});
        Outputs out;
        EXPECT_EQ(out.backup(peer.ld()), LDAPX_NO_MEMORY);
        EXPECT_EQ(peer.session_code(), LDAPX_NO_MEMORY);
        EXPECT_EQ(out.size, size);
        EXPECT_EQ(out.data, nullptr);
        EXPECT_EQ(out.chunks, nullptr);
    }
}

TEST_F(BackupMemory, hands_out_blocks_that_are_exactly_as_large_as_their_content)
{
    Peer peer;
    peer.respond({.name = LDAPX_BACKUP_OBJECT_RESPONSE, .value = value_of(6, "data", 2)});
    Outputs out;
    out.state = strdup("1200+3");
    int rc = -1;
    const Usage usage = measure([&] { rc = out.backup(peer.ld()); });
    EXPECT_EQ(rc, 0);
    std::vector<std::size_t> sizes;
    for (const Block &block : usage.blocks)
        sizes.push_back(block.size);
    EXPECT_EQ(sizes, (std::vector<std::size_t>{6, std::strlen("2;10;11;"), sizeof "17+2"}))
        << usage.describe();
    EXPECT_EQ(usage.kept, 2) << "three new blocks, and the old state has been released";
}

TEST_F(BackupMemory, may_run_out_at_any_allocation_of_a_restore)
{
    const Response response = {.name = LDAPX_RESTORE_OBJECT_RESPONSE, .value = "unread"};
    const auto ours = [](LDAP *ld, Outputs &) {
        char data[] = "data";
        char list[] = "1;4;";
        return ldap_restore_object(ld, "cn=a", "secret", data, list, 4);
    };
    // The same calls without the library.
    const auto bare = [](LDAP *ld, Outputs &) {
        BerElement *element = ber_alloc_t(0);
        if (element == nullptr)
            return LDAPX_NO_MEMORY;
        void *scratch = nullptr;
        berval *value = nullptr, *data = nullptr;
        char *name = nullptr;
        int rc = LDAP_SUCCESS;
        if (ber_printf(element, "ssio", "cn=a", "secret", 4, "data", ber_len_t{4}) == -1) {
            rc = LDAPX_ENCODING_ERROR;
        } else {
            const int closing = ber_printf(element, "{i[{i}]}", 1, 4);
            scratch = std::malloc(4);
            if (scratch == nullptr)
                rc = LDAPX_NO_MEMORY;
            else if (ber_flatten(element, &value) == -1)
                rc = closing;
            else
                rc = ldap_extended_operation_s(ld, LDAPX_RESTORE_OBJECT_REQUEST, value, nullptr,
                                               nullptr, &name, &data);
            if (value != nullptr && name == nullptr)
                rc = LDAPX_NOT_SUPPORTED;
        }
        ber_free(element, 1);
        ber_bvfree(value);
        ber_bvfree(data);
        ldap_memfree(name);
        ldapx_memfree(scratch);
        return rc;
    };
    for (const Fail mode : {Fail::once, Fail::from_then_on}) {
        const auto outcomes = sweep_answered(mode, response, ours);
        const auto yardstick = sweep_answered(mode, response, bare);
        ASSERT_GT(yardstick.size(), 10u);
        ASSERT_EQ(outcomes.size(), yardstick.size());
        expect_libldap_part(outcomes, yardstick, outcomes.size());
        EXPECT_EQ(outcomes.back().rc, 0);
    }
}

// The element grows in steps of about four kilobytes, so that with one of these sizes each part
// of the chunk table is the one that finds no room. Some of those writes are not checked; nothing
// is lost on any of these paths, and the result is the one that was stored in the session.
TEST_F(BackupMemory, may_run_out_in_any_part_of_the_chunk_table)
{
    std::set<int> results;
    for (std::size_t size = 3990; size < 4045; ++size) {
        const std::string object(size, 'd');
        const Outcome outcome = run_failing(Fail::once, 3, [&](Step &step) {
            Peer peer;
            peer.respond({.name = LDAPX_RESTORE_OBJECT_RESPONSE});
            std::string data = object;
            char list[] = "2;10;20;";
            int rc = 0;
            step.run([&] {
                return rc = ldap_restore_object(peer.ld(), "cn=a", "", data.data(), list,
                                                static_cast<int>(data.size()));
            });
            if (rc != peer.session_code())
                throw std::runtime_error("not the session's code");
        });
        EXPECT_EQ(outcome.died, "") << size;
        EXPECT_EQ(outcome.lost, 0u) << size;
        results.insert(outcome.rc);
    }
    EXPECT_TRUE(results.count(LDAPX_NO_MEMORY) == 1) << "the scratch";
    EXPECT_TRUE(results.count(LDAPX_ENCODING_ERROR) == 1) << "the data or a chunk";
}
