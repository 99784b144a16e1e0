// The sandbox's parts that need no slapd: BER, message heads, names, the sample tree.

#include "ber.h"
#include "dn.h"
#include "message.h"
#include "sample_tree.h"

#include "support/ber.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace sandbox;

namespace {

TEST(Ber, WritesWhatAnotherWriterWrites)
{
    for (const std::int64_t value :
         {std::int64_t{0}, std::int64_t{1}, std::int64_t{127}, std::int64_t{128}, std::int64_t{255},
          std::int64_t{256}, std::int64_t{32767}, std::int64_t{32768}, std::int64_t{-1},
          std::int64_t{-128}, std::int64_t{-129}, std::int64_t{-32768}, std::int64_t{INT32_MAX},
          std::int64_t{INT32_MIN}, std::int64_t{UINT32_MAX},
          std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()})
        EXPECT_EQ(ber::integer(value), support::integer(value)) << value;
    for (const std::size_t size : {0U, 1U, 127U, 128U, 255U, 256U, 65535U, 65536U, 16777216U})
        EXPECT_TRUE(ber::octets(std::string(size, 'x')) == support::octets(std::string(size, 'x')))
            << size;
    EXPECT_EQ(ber::boolean(true), support::boolean(true));
    EXPECT_EQ(ber::boolean(false), support::boolean(false));
    EXPECT_EQ(ber::sequence(ber::integer(1), ber::octets("o=x")),
              support::sequence(support::integer(1), support::octets("o=x")));
}

TEST(Ber, ReadsBackWhatIsWritten)
{
    for (const std::int32_t value : {0, 1, -1, 127, 128, -128, -129, 65535, INT32_MAX, INT32_MIN}) {
        const std::string bytes = ber::integer(value);
        ber::Reader reader(bytes);
        EXPECT_EQ(reader.integer(), value);
        reader.finish();
    }
    const std::string bytes = ber::sequence(ber::octets("a"), ber::boolean(true), ber::octets(""));
    ber::Reader reader(bytes);
    ber::Reader inner = reader.enter(ber::sequence_tag);
    EXPECT_EQ(inner.octets(), "a");
    EXPECT_TRUE(inner.boolean());
    EXPECT_EQ(inner.octets(), "");
    EXPECT_TRUE(inner.at_end());
    EXPECT_TRUE(reader.at_end());
}

TEST(Ber, ReadsAnElementThatIsCutNowhere)
{
    const std::string bytes =
        ber::sequence(ber::integer(70000), ber::octets(std::string(200, 'x')));
    for (const std::string &cut : support::cuts(bytes)) {
        ber::Reader reader(cut);
        EXPECT_THROW(reader.element(), ber::Malformed) << cut.size();
    }
}

TEST(Ber, RefusesWhatLdapDoesNotUse)
{
    for (const char *hex :
         {"1f 81 01 00", // a tag of several bytes
          "04 80 00 00", // an indefinite length
          "04 89 01 01 01 01 01 01 01 01 01 00", "04 88 ff ff ff ff ff ff ff ff 00", "04 7f 00"}) {
        const std::string bytes = support::bytes(hex);
        ber::Reader reader(bytes);
        EXPECT_THROW(reader.element(), ber::Malformed) << hex;
    }
    const std::string text = ber::octets("x");
    EXPECT_THROW(ber::Reader(text).integer(), ber::Malformed);
    for (const std::string &content : {std::string(), std::string(5, '\1')}) {
        const std::string number = ber::element(ber::integer_tag, content);
        EXPECT_THROW(ber::Reader(number).integer(), ber::Malformed);
    }
    EXPECT_THROW(ber::Reader(text).finish(), ber::Malformed);
}

TEST(MessageHead, IsKnownAsSoonAsItIsThere)
{
    const std::string bytes =
        message(300, ber::constructed(0x63, ber::octets(std::string(1000, 'x'))));
    std::size_t enough = 0;
    for (const std::string &cut : support::cuts(bytes)) {
        const auto head = read_head(cut, 4096); // never throws for what may become a message
        if (!head)
            continue;
        if (enough == 0)
            enough = cut.size();
        EXPECT_EQ(head->id, 300);
        EXPECT_EQ(head->operation, 0x63);
        EXPECT_EQ(head->size, bytes.size());
    }
    EXPECT_EQ(enough, 9U) << "30 82 xx xx 02 02 01 2c 63";
    EXPECT_THROW(read_head(bytes, bytes.size() - 1), ber::Malformed);
    EXPECT_TRUE(read_head(bytes, bytes.size()));
}

TEST(MessageHead, LooksNoFurtherThanItsOwnMessage)
{
    const std::string short_one = ber::sequence(ber::integer(1));
    EXPECT_THROW(read_head(short_one + ber::octets("x"), 4096), ber::Malformed);
}

TEST(Requests, AreDescribedInAFewWords)
{
    const auto describe = [](const std::string &operation) {
        return describe_request(message(1, operation));
    };
    const std::string name = ber::octets("o=x");
    EXPECT_EQ(describe(ber::constructed(0x60, ber::integer(3), name, ber::octets("pw", 0x80))),
              "bind \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x60, ber::integer(3), ber::octets(""),
                                        ber::element(0xa3, ber::octets("SCRAM-SHA-1")))),
              "bind SASL SCRAM-SHA-1");
    EXPECT_EQ(describe(ber::constructed(0x63, name)), "search \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x66, name)), "modify \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x68, name)), "add \"o=x\"");
    EXPECT_EQ(describe(ber::octets("o=x", 0x4a)), "delete \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x6c, name)), "rename \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x6e, name)), "compare \"o=x\"");
    EXPECT_EQ(describe(ber::constructed(0x77, ber::octets("1.2.3", 0x80))), "extended 1.2.3");
    EXPECT_EQ(describe_request("rubbish"), "unreadable request");
    // Only the first bytes of a large one are there.
    const std::string large = message(
        1, ber::constructed(0x68, name, ber::sequence(ber::octets(std::string(100000, 'x')))));
    EXPECT_EQ(describe_request(large.substr(0, 100)), "add \"o=x\"");
}

TEST(Names, AreTakenApart)
{
    EXPECT_EQ(normalised_dn("OU = a , o=b"), "OU=a,o=b");
    EXPECT_FALSE(normalised_dn("no name"));
    EXPECT_FALSE(normalised_dn(std::string("o=a\0b", 5)));
    EXPECT_EQ(first_rdn("ou=a\\, b,o=c"), (std::pair<std::string, std::string>("ou", "a, b")));
}

TEST(SampleTree, HasExactlyTheSizeAskedForAndIsAlwaysTheSame)
{
    for (const std::size_t size : {smallest_tree, std::size_t{101}, std::size_t{1200}}) {
        std::ostringstream first;
        std::ostringstream second;
        write_sample_tree(first, "dc=example,dc=com", size);
        write_sample_tree(second, "dc=example,dc=com", size);
        EXPECT_EQ(first.str(), second.str());

        std::istringstream lines(first.str());
        std::set<std::string> names;
        std::size_t entries = 0;
        for (std::string line; std::getline(lines, line);)
            if (line.rfind("dn:", 0) == 0) {
                ++entries;
                names.insert(line);
            }
        EXPECT_EQ(entries, size);
        EXPECT_EQ(names.size(), size);
    }
}

} // namespace
