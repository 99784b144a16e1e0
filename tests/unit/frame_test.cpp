// What belongs to no operation alone: result codes, the catalogue of names, version, release.

#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "ldap_events.h"
#include "ldapx.h"

TEST(ResultCodes, have_the_numbers_that_callers_compare_with)
{
    EXPECT_EQ(LDAPX_OPERATIONS_ERROR, 1);
    EXPECT_EQ(LDAPX_ENCODING_ERROR, 0x53);
    EXPECT_EQ(LDAPX_DECODING_ERROR, 0x54);
    EXPECT_EQ(LDAPX_PARAM_ERROR, 0x59);
    EXPECT_EQ(LDAPX_NO_MEMORY, 0x5a);
    EXPECT_EQ(LDAPX_NOT_SUPPORTED, 0x5c);
}

TEST(ResultCodes, of_the_library_have_a_text_that_is_not_the_one_of_an_unknown_code)
{
    std::string unknown = ldapx_err2string(0x7000);
    std::set<std::string> texts;
    for (int code : {LDAPX_OPERATIONS_ERROR, LDAPX_ENCODING_ERROR, LDAPX_DECODING_ERROR,
                     LDAPX_PARAM_ERROR, LDAPX_NO_MEMORY, LDAPX_NOT_SUPPORTED}) {
        ASSERT_NE(ldapx_err2string(code), nullptr);
        texts.insert(ldapx_err2string(code));
    }
    EXPECT_EQ(texts.size(), 6U);
    EXPECT_FALSE(texts.contains(""));
    EXPECT_FALSE(texts.contains(unknown));
    EXPECT_STREQ(ldapx_err2string(LDAPX_ENCODING_ERROR), "Encoding error");
    EXPECT_STREQ(ldapx_err2string(LDAPX_DECODING_ERROR), "Decoding error");
    EXPECT_STREQ(ldapx_err2string(LDAPX_NO_MEMORY), "Out of memory");
}

TEST(ResultCodes, of_servers_and_of_the_ldap_library_keep_the_ldap_library_s_text)
{
    const std::set<int> own = {LDAPX_ENCODING_ERROR, LDAPX_DECODING_ERROR, LDAPX_PARAM_ERROR,
                               LDAPX_NO_MEMORY, LDAPX_NOT_SUPPORTED};
    for (int code = -30; code < 200; code++)
        if (!own.contains(code)) {
            ASSERT_NE(ldapx_err2string(code), nullptr) << code;
            EXPECT_STREQ(ldapx_err2string(code), ldap_err2string(code)) << code;
        }
    EXPECT_STREQ(ldapx_err2string(LDAP_SUCCESS), "Success");
    EXPECT_STREQ(ldapx_err2string(LDAP_SERVER_DOWN), "Can't contact LDAP server");
}

TEST(Version, is_the_project_s_and_semantic)
{
    EXPECT_STREQ(ldapx_version(), PROJECT_VERSION);
    EXPECT_TRUE(std::regex_match(ldapx_version(), std::regex("[0-9]+\\.[0-9]+\\.[0-9]+")));
    EXPECT_EQ(ldapx_version(), ldapx_version()) << "static, not allocated";
}

TEST(Release, ignores_null_and_takes_blocks_of_the_standard_allocator)
{
    ldapx_memfree(nullptr);
    for (std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{1} << 20})
        ldapx_memfree(std::malloc(size)); // the sanitizers object to a leak or a mismatch
}

// ---- The catalogue ------------------------------------------------------------------------------

namespace {

struct Name {
    const char *macro;
    const char *defined;
    std::string expected;
};

std::string administrative(const char *number)
{
    return std::string("2.16.840.1.424242.1.27.100.") + number;
}
std::string bulk_update(const char *number)
{
    return std::string("2.16.840.1.424242.1.142.") + number;
}

#define NAME(macro, expected)                                                                      \
    {                                                                                              \
        "LDAPX_" #macro, LDAPX_##macro, expected                                                   \
    }
#define PAIR(stem, request, response)                                                              \
    NAME(stem##_REQUEST, administrative(#request)), NAME(stem##_RESPONSE, administrative(#response))

const Name catalogue[] = {
    PAIR(ZIL_TO_LDAP, 1, 2),
    PAIR(SPLIT_PARTITION, 3, 4),
    PAIR(MERGE_PARTITIONS, 5, 6),
    PAIR(ADD_REPLICA, 7, 8),
    PAIR(REFRESH_SERVER, 9, 10),
    PAIR(REMOVE_REPLICA, 11, 12),
    PAIR(PARTITION_ENTRY_COUNT, 13, 14),
    PAIR(CHANGE_REPLICA_TYPE, 15, 16),
    PAIR(GET_REPLICA_INFO, 17, 18),
    PAIR(LIST_REPLICAS, 19, 20),
    PAIR(RECEIVE_ALL_UPDATES, 21, 22),
    PAIR(SEND_ALL_UPDATES, 23, 24),
    PAIR(REQUEST_PARTITION_SYNC, 25, 26),
    PAIR(REQUEST_SCHEMA_SYNC, 27, 28),
    PAIR(ABORT_PARTITION_OPERATION, 29, 30),
    PAIR(GET_BIND_DN, 31, 32),
    PAIR(GET_EFFECTIVE_PRIVILEGES, 33, 34),
    PAIR(SET_REPLICATION_FILTER, 35, 36),
    PAIR(GET_REPLICATION_FILTER, 37, 38),
    PAIR(SPLIT_ORPHAN_PARTITION, 39, 40),
    PAIR(REMOVE_ORPHAN_PARTITION, 41, 42),
    PAIR(TRIGGER_BACKLINK, 43, 44),
    PAIR(TRIGGER_JANITOR, 47, 48),
    PAIR(TRIGGER_LIMBER, 49, 50),
    PAIR(TRIGGER_SKULKER, 51, 52),
    PAIR(TRIGGER_SCHEMA_SYNC, 53, 54),
    PAIR(TRIGGER_PARTITION_PURGE, 55, 56),
    PAIR(MONITOR_EVENTS, 79, 80),
    NAME(MONITOR_EVENTS_FILTERED_REQUEST, administrative("84")),
    NAME(EVENT_NOTIFICATION, administrative("81")),
    PAIR(BACKUP_OBJECT, 96, 97),
    PAIR(RESTORE_OBJECT, 98, 99),
    PAIR(DNS_TO_X500_DN, 101, 102),
    PAIR(GET_EFFECTIVE_PRIVILEGES_LIST, 103, 104),
    NAME(LBURP_START_REQUEST, bulk_update("100.1")),
    NAME(LBURP_START_RESPONSE, bulk_update("100.2")),
    NAME(LBURP_END_REQUEST, bulk_update("100.4")),
    NAME(LBURP_END_RESPONSE, bulk_update("100.5")),
    NAME(LBURP_OPERATION_REQUEST, bulk_update("100.6")),
    NAME(LBURP_OPERATION_RESPONSE, bulk_update("100.7")),
    NAME(LBURP_INCREMENTAL_UPDATE, bulk_update("1.4.2")),
};

} // namespace

TEST(Catalogue, has_every_name_with_its_oid)
{
    for (const Name &name : catalogue)
        EXPECT_EQ(name.defined, name.expected) << name.macro;
}

TEST(Catalogue, uses_no_oid_twice)
{
    std::set<std::string> oids;
    for (const Name &name : catalogue)
        EXPECT_TRUE(oids.insert(name.defined).second) << name.macro;
}

TEST(Catalogue, of_the_header_holds_these_names_and_no_others)
{
    std::set<std::string> expected;
    std::set<std::string> defined;
    for (const Name &name : catalogue)
        expected.insert(name.macro);
    std::ifstream header(LDAPX_HEADER);
    ASSERT_TRUE(header) << LDAPX_HEADER;
    const std::regex definition("#define (LDAPX_[A-Z0-9_]+) \"[0-9.]+\".*");
    std::smatch match;
    for (std::string line; std::getline(header, line);)
        if (std::regex_match(line, match, definition))
            defined.insert(match[1]);
    EXPECT_EQ(defined, expected);
}
