// The records' layout, which programs are compiled against, and the block around each record.

#include <cstddef>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "ldap_events.h"

namespace {

// The size of a record, then the offsets of its fields in the order of declaration.
using Layout = std::vector<std::size_t>;

#define AT(field) offsetof(Type, field)

} // namespace

TEST(EventRecord, shared_parts_have_the_published_layout)
{
    {
        using Type = EVT_EventSpecifier;
        EXPECT_EQ((Layout{sizeof(Type), AT(eventType), AT(eventStatus)}), (Layout{8, 0, 4}));
    }
    {
        using Type = EVT_FilteredEventSpecifier;
        EXPECT_EQ((Layout{sizeof(Type), AT(eventType), AT(eventStatus), AT(filter)}),
                  (Layout{16, 0, 4, 8}));
    }
    {
        using Type = EVT_TimeStamp;
        EXPECT_EQ((Layout{sizeof(Type), AT(seconds), AT(replicaNumber), AT(event)}),
                  (Layout{12, 0, 4, 8}));
    }
    {
        using Type = EVT_NetAddress;
        EXPECT_EQ((Layout{sizeof(Type), AT(type), AT(length), AT(data)}), (Layout{12, 0, 4, 8}));
    }
    {
        using Type = EVT_ReferralAddress;
        EXPECT_EQ((Layout{sizeof(Type), AT(type), AT(length), AT(address)}), (Layout{16, 0, 4, 8}));
    }
    {
        using Type = EVT_ConnectionEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connection), AT(time), AT(inetAddr)}),
                  (Layout{16, 0, 4, 8}));
    }
}

TEST(EventRecord, directory_events_have_the_published_layout)
{
    {
        using Type = EVT_EntryInfo;
        EXPECT_EQ((Layout{sizeof(Type), AT(perpetratorDN), AT(entryDN), AT(className), AT(verb),
                          AT(flags), AT(creationTime), AT(newDN)}),
                  (Layout{56, 0, 8, 16, 24, 28, 32, 48}));
    }
    {
        using Type = EVT_ValueInfo;
        EXPECT_EQ((Layout{sizeof(Type), AT(verb), AT(perpetratorDN), AT(entryDN), AT(attributeName),
                          AT(syntaxOID), AT(className), AT(timeStamp), AT(size), AT(value)}),
                  (Layout{72, 0, 8, 16, 24, 32, 40, 48, 60, 64}));
    }
    {
        using Type = EVT_EventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(dstime), AT(milliseconds), AT(curProcess), AT(verb),
                          AT(perpetratorDN), AT(intValues), AT(strValues)}),
                  (Layout{72, 0, 4, 8, 12, 16, 24, 40}));
    }
    {
        using Type = EVT_BinderyObjectInfo;
        EXPECT_EQ(
            (Layout{sizeof(Type), AT(entryDN), AT(type), AT(emuObjFlags), AT(security), AT(name)}),
            (Layout{32, 0, 8, 12, 16, 24}));
    }
    {
        using Type = EVT_SEVInfo;
        EXPECT_EQ((Layout{sizeof(Type), AT(entryDN), AT(retryCount), AT(valueDN), AT(referralCount),
                          AT(referrals)}),
                  (Layout{40, 0, 8, 16, 24, 32}));
    }
    {
        using Type = EVT_ModuleState;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionDN), AT(flags), AT(sourceModule), AT(name),
                          AT(description)}),
                  (Layout{184, 0, 8, 16, 24, 56}));
    }
    {
        using Type = EVT_ChangeConnState;
        EXPECT_EQ(
            (Layout{sizeof(Type), AT(connectionDN), AT(oldFlags), AT(newFlags), AT(sourceModule)}),
            (Layout{24, 0, 8, 12, 16}));
    }
    {
        using Type = EVT_ChangeServerAddr;
        EXPECT_EQ((Layout{sizeof(Type), AT(flags), AT(proto), AT(addrFamily), AT(addrSize),
                          AT(addr), AT(pstkname), AT(sourceModule)}),
                  (Layout{40, 0, 4, 8, 12, 16, 24, 32}));
    }
    {
        using Type = EVT_ChangeConfigParm;
        EXPECT_EQ((Layout{sizeof(Type), AT(type), AT(name), AT(value), AT(value.integer),
                          AT(value.boolean), AT(value.utf8Str), AT(value.binary.size),
                          AT(value.binary.data)}),
                  (Layout{32, 0, 8, 16, 16, 16, 16, 16, 24}));
    }
    {
        using Type = EVT_StatusLogInfo;
        EXPECT_EQ((Layout{sizeof(Type), AT(logTime), AT(moduleName), AT(messageLevel),
                          AT(messageEvent), AT(messageCode), AT(messageDesc), AT(statusDoc)}),
                  (Layout{56, 0, 8, 16, 24, 32, 40, 48}));
    }
    {
        using Type = EVT_DebugInfo;
        EXPECT_EQ((Layout{sizeof(Type), AT(dsTime), AT(milliseconds), AT(perpetratorDN),
                          AT(formatString), AT(verb), AT(paramCount), AT(parameters)}),
                  (Layout{40, 0, 4, 8, 16, 24, 28, 32}));
    }
    {
        using Type = DB_Parameter;
        EXPECT_EQ(
            (Layout{sizeof(Type), AT(type), AT(value), AT(value.integer), AT(value.utf8Str),
                    AT(value.timeStamp), AT(value.netAddress.type), AT(value.netAddress.length),
                    AT(value.netAddress.data), AT(value.binary.size), AT(value.binary.data),
                    AT(value.timeStampVector.count), AT(value.timeStampVector.timeStamps)}),
            (Layout{24, 0, 8, 8, 8, 8, 8, 12, 16, 8, 16, 8, 16}));
    }
}

TEST(EventRecord, events_of_ldap_operations_have_the_published_layout)
{
    {
        using Type = EVT_AuthEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(bindDN),
                          AT(bindType), AT(authMechanism), AT(controlOID), AT(resultCode)}),
                  (Layout{56, 0, 8, 12, 16, 24, 32, 40, 48}));
    }
    {
        using Type = EVT_SearchEventData;
        EXPECT_EQ(
            (Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(bindDN), AT(base),
                    AT(scope), AT(filter), AT(attrs), AT(controlOID), AT(resultCode)}),
            (Layout{72, 0, 8, 12, 16, 24, 32, 40, 48, 56, 64}));
    }
    {
        using Type = EVT_SearchEntryResponseEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(entryDN),
                          AT(className), AT(attrs), AT(resultCode)}),
                  (Layout{48, 0, 8, 12, 16, 24, 32, 40}));
    }
    {
        using Type = EVT_UpdateEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(operation),
                          AT(bindDN), AT(entryDN), AT(className), AT(controlOID), AT(resultCode)}),
                  (Layout{64, 0, 8, 12, 16, 24, 32, 40, 48, 56}));
    }
    {
        using Type = EVT_CompareEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(bindDN),
                          AT(compareDN), AT(assertionType), AT(assertionValue), AT(className),
                          AT(resultCode)}),
                  (Layout{64, 0, 8, 12, 16, 24, 32, 40, 48, 56}));
    }
    {
        using Type = EVT_ModDNEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(bindDN),
                          AT(oldRDN), AT(newRDN), AT(className), AT(controlOID), AT(resultCode)}),
                  (Layout{64, 0, 8, 12, 16, 24, 32, 40, 48, 56}));
    }
    {
        using Type = EVT_AbandonEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(operation),
                          AT(bindDN), AT(resultCode)}),
                  (Layout{40, 0, 8, 12, 16, 24, 32}));
    }
    {
        using Type = EVT_ExtOpEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(operation),
                          AT(extensionOID), AT(bindDN), AT(resultCode)}),
                  (Layout{48, 0, 8, 12, 16, 24, 32, 40}));
    }
    {
        using Type = EVT_SysExtOpEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(operation),
                          AT(extensionOID), AT(bindDN), AT(value1), AT(value2), AT(value3),
                          AT(value4), AT(resultCode)}),
                  (Layout{80, 0, 8, 12, 16, 24, 32, 40, 48, 56, 64, 72}));
    }
    {
        using Type = EVT_ResponseEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(operation),
                          AT(resultCode), AT(matchedDN), AT(referral)}),
                  (Layout{40, 0, 8, 12, 16, 20, 24, 32}));
    }
    {
        using Type = EVT_PasswordModifyEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(connectionData), AT(msgID), AT(time), AT(bindDN),
                          AT(entryDN), AT(passwordModifyType), AT(resultCode)}),
                  (Layout{40, 0, 8, 12, 16, 24, 32, 36}));
    }
    {
        using Type = EVT_UnknownEventData;
        EXPECT_EQ((Layout{sizeof(Type), AT(time), AT(inetAddr)}), (Layout{16, 0, 8}));
    }
}

TEST(EventRecord, tags_are_the_published_numbers)
{
    const std::vector<ber_tag_t> tags{EVT_TAG_ENTRY_INFO,
                                      EVT_TAG_VALUE_INFO,
                                      EVT_TAG_GENERAL_EVENT,
                                      EVT_TAG_SKULK,
                                      EVT_TAG_BINDERY_OBJECT,
                                      EVT_TAG_SEV_INFO,
                                      EVT_TAG_MODULE_STATE,
                                      EVT_TAG_NET_ADDRESS,
                                      EVT_TAG_CONN_STATE,
                                      EVT_TAG_CHANGE_SERVER_ADDR,
                                      EVT_TAG_CHANGE_CONFIG_PARAM,
                                      EVT_TAG_STATUS_LOG,
                                      EVT_TAG_DEBUG_INFO,
                                      EVT_TAG_AUTH,
                                      EVT_TAG_CONNECTION,
                                      EVT_TAG_SEARCH,
                                      EVT_TAG_SEARCH_ENTRY_RESPONSE,
                                      EVT_TAG_UPDATE,
                                      EVT_TAG_COMPARE,
                                      EVT_TAG_MODDN,
                                      EVT_TAG_ABANDON,
                                      EVT_TAG_EXTOP,
                                      EVT_TAG_SYS_EXTOP,
                                      EVT_TAG_RESPONSE,
                                      EVT_TAG_PASSWORD_MODIFY,
                                      EVT_TAG_UNKNOWN_OP};
    EXPECT_EQ(tags, (std::vector<ber_tag_t>{0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69,
                                            0x6c, 0x6d, 0x6f, 0x70, 0x71, 0x72, 0x73, 0x74, 0x75,
                                            0x76, 0x77, 0x78, 0x79, 0x7a, 0x7b, 0x7c, 0x7d}));
}

TEST(EventRecord, stands_behind_a_header_that_holds_its_tag)
{
    void *record = allocEventData(sizeof(EVT_UnknownEventData), EVT_TAG_UNKNOWN_OP);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(static_cast<ber_tag_t *>(record)[-1], EVT_TAG_UNKNOWN_OP);
    *static_cast<EVT_UnknownEventData *>(record) = {};
    ldap_event_free(record);
}

TEST(EventRecord, may_be_empty)
{
    void *record = allocEventData(0, EVT_TAG_SKULK);
    ASSERT_NE(record, nullptr);
    ldap_event_free(record);
}

TEST(EventRecord, whose_size_would_wrap_with_its_header_is_not_made)
{
    EXPECT_EQ(allocEventData(static_cast<std::size_t>(-1), EVT_TAG_SKULK), nullptr);
    EXPECT_EQ(allocEventData(static_cast<std::size_t>(-8), EVT_TAG_SKULK), nullptr);
}

TEST(EventRecord, of_an_unknown_tag_is_released_by_its_block_alone)
{
    for (ber_tag_t tag : {0x00UL, 0x60UL, EVT_TAG_SKULK, EVT_TAG_NET_ADDRESS, 0x6aUL, 0x6bUL,
                          0x6eUL, 0x7eUL, 0x1f61UL, ~0UL}) {
        // A pointer in it, taken for something to release, would end the process.
        void *record = allocEventData(256, tag);
        ASSERT_NE(record, nullptr);
        std::memset(record, 0x41, 256);
        ldap_event_free(record);
    }
}

TEST(EventRecord, of_NULL_must_not_be_released)
{
    EXPECT_DEATH(ldap_event_free(nullptr), "");
}

TEST(EventRecord, parts_of_NULL_are_released_as_nothing)
{
    freeReferralList(3, nullptr);
    freeStringSequence(nullptr);
    freeConnectionData(nullptr);
}
