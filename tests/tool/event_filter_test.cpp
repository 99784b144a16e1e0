// The filters of monitors, on an event made by hand.

#include "event_filter.h"

#include "traffic.h"

#include <gtest/gtest.h>

#include <string>

using namespace sandbox;

namespace {

Event value_event()
{
    const auto client = std::make_shared<Client>();
    client->address = "127.0.0.1:4711";
    const std::string entry = "uid=jsmith,ou=People,dc=example,dc=com";
    const std::string admin = "cn=admin,dc=example,dc=com";
    return {value_added,
            0,
            encode_value(value_added, {admin, entry, "telephoneNumber", "1.2.3", "inetOrgPerson",
                                       TimeStamp{}, "+49 (30) 12*34"}),
            client,
            admin,
            entry};
}

bool matches(const std::string &filter)
{
    return EventFilter(filter).matches(value_event());
}

std::string refusal(const std::string &filter)
{
    try {
        EventFilter parsed(filter);
    } catch (const EventFilter::Malformed &error) {
        return error.what();
    }
    return "accepted";
}

TEST(EventFilter, MatchesWhatTheEventIs)
{
    EXPECT_TRUE(matches(""));
    EXPECT_TRUE(matches("(type=value-add)"));
    EXPECT_TRUE(matches("(type=10)"));
    EXPECT_FALSE(matches("(type=11)"));
    EXPECT_TRUE(matches("(type=value-*)"));
    EXPECT_TRUE(matches("(result=0)"));
    EXPECT_TRUE(matches("(inetAddr=127.0.0.1:*)"));
    EXPECT_TRUE(matches("(perpetratorDN=CN=Admin, dc=example,dc=com)"));
}

TEST(EventFilter, ComparesTextNumbersAndNamesByTheirOwnRules)
{
    EXPECT_TRUE(matches("(ATTRIBUTENAME=TELEPHONENUMBER)"));
    EXPECT_TRUE(matches("(attributeName~=telephonenumber)"));
    EXPECT_FALSE(matches("(attributeName:caseExactMatch:=telephonenumber)"));
    EXPECT_TRUE(matches("(attributeName:caseExactMatch:=telephoneNumber)"));
    EXPECT_FALSE(matches("(attributeName=telephone)"));
    EXPECT_TRUE(matches("(verb=010)")) << "a number, not text";
    EXPECT_TRUE(matches("(verb>=9)"));
    EXPECT_FALSE(matches("(verb<=9)"));
    EXPECT_TRUE(matches("(entryDN=UID=JSmith,ou=people , DC=example,dc=com)"));
    EXPECT_TRUE(matches("(value=\\2b49 \\2830\\29 12\\2a34)"));
    EXPECT_FALSE(matches("(newDN=*)"));
    EXPECT_TRUE(matches("(value=*)"));
    EXPECT_FALSE(matches("(bindDN=cn=admin,dc=example,dc=com)")) << "another record's field";
}

TEST(EventFilter, MatchesPartsInTheirOrder)
{
    EXPECT_TRUE(matches("(value=+49*)"));
    EXPECT_TRUE(matches("(value=*34)"));
    EXPECT_TRUE(matches("(value=*9*0*\\2a*)"));
    EXPECT_FALSE(matches("(value=*30*49*)"));
    EXPECT_TRUE(matches("(className=inet*Person)"));
    EXPECT_FALSE(matches("(className=inetOrgPerson*Person)")) << "the parts would overlap";
    EXPECT_TRUE(matches("(entryDN=*,ou=people,*)"));
}

TEST(EventFilter, KnowsWhereAnEntryLies)
{
    EXPECT_TRUE(matches("(entryDN:dnSubtreeMatch:=dc=example,dc=com)"));
    EXPECT_TRUE(matches("(entryDN:dnSubtreeMatch:=uid=jsmith,ou=people,dc=example,dc=com)"));
    EXPECT_TRUE(matches("(entryDN:dnSubtreeMatch:=)")) << "everything lies below the root";
    EXPECT_FALSE(matches("(entryDN:dnSubtreeMatch:=c=example,dc=com)"));
    EXPECT_FALSE(matches("(entryDN:dnSubtreeMatch:=ou=sales,dc=example,dc=com)"));
    EXPECT_TRUE(matches("(entryDN:dnOneLevelMatch:=ou=people,dc=example,dc=com)"));
    EXPECT_FALSE(matches("(entryDN:dnOneLevelMatch:=dc=example,dc=com)"));
    EXPECT_FALSE(matches("(entryDN:dnSubordinateMatch:=uid=jsmith,ou=people,dc=example,dc=com)"));
    EXPECT_TRUE(matches("(entryDN:dnSuperiorMatch:=cn=x,uid=jsmith,ou=people,dc=example,dc=com)"));
}

TEST(EventFilter, CombinesFilters)
{
    EXPECT_TRUE(matches("(&(type=10)(!(result>=1))(|(value=no)(className=inetOrgPerson)))"));
    EXPECT_FALSE(matches("(&(type=10)(className=person))"));
    EXPECT_FALSE(matches("(!(type=10))"));
    EXPECT_TRUE(matches("(&)")) << "true, as RFC 4526 has it";
    EXPECT_FALSE(matches("(|)"));
}

TEST(EventFilter, RefusesWhatIsNoneAndSaysWhy)
{
    EXPECT_EQ(refusal("type=10"), "\"(\" expected before \"type=10\"");
    EXPECT_EQ(refusal("(type=10"), "\")\" expected at the end");
    EXPECT_EQ(refusal("(type=10)x"), "\"x\" follows the filter");
    EXPECT_EQ(refusal("(type)"), "\"type\" compares nothing");
    EXPECT_EQ(refusal("(=10)"), "\"=10\" compares nothing");
    EXPECT_EQ(refusal("(>=10)"), "no event has the attribute \"\"");
    EXPECT_EQ(refusal("()"), "\"\" compares nothing");
    EXPECT_EQ(refusal("(!)"), "\"(\" expected before \")\"");
    EXPECT_EQ(refusal("(shoeSize=42)"), "no event has the attribute \"shoeSize\"");
    EXPECT_EQ(refusal("(verb=many)"), "\"many\" is no number");
    EXPECT_EQ(refusal("(entryDN=nobody)"), "\"nobody\" is no name of an entry");
    EXPECT_EQ(refusal("(value=\\2)"), "\"\\\" needs two hexadecimal digits");
    EXPECT_EQ(refusal("(value=\\zz)"), "\"\\\" needs two hexadecimal digits");
    EXPECT_EQ(refusal("(value:=x)"), "\"\" is no matching rule here");
    EXPECT_EQ(refusal("(value:dnSubtreeMatch:=dc=com)"), "value is no name");
    EXPECT_EQ(refusal("(verb>=1*)"), "\"*\" stands for itself as \\2a");
    EXPECT_EQ(refusal(""), "accepted");
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "(!";
    EXPECT_EQ(refusal(deep), "nested too deeply");
}

} // namespace
