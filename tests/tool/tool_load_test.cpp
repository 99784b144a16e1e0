// greirige load against a scripted server: what it reads, what it sends, what it says.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "ldapx.h"
#include "support/ber.h"
#include "support/updates.h"
#include "tool.h"

using namespace tool_test;
using namespace support;

namespace {

const Batch der{.width = 0};

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// An operation of a batch's list of failures.
std::string failed(int package, int code, const std::string &message,
                   const std::string &matched = "")
{
    return sequence(integer(package), sequence(enumerated(code), octets(matched), octets(message)));
}

// A server that takes loads, and a directory with the input.
class Server {
public:
    explicit Server(int transaction_size = 500)
    {
        peer.answer(LDAPX_LBURP_START_REQUEST, {.name = LDAPX_LBURP_START_RESPONSE,
                                                .value = sequence(integer(transaction_size))});
        peer.answer(LDAPX_LBURP_END_REQUEST, {.name = LDAPX_LBURP_END_RESPONSE});
    }

    void answer(const std::string &failures = "")
    {
        Response response{.name = LDAPX_LBURP_OPERATION_RESPONSE};
        if (!failures.empty()) {
            response.code = LDAP_OTHER;
            response.value = failures;
        }
        peer.answer(LDAPX_LBURP_OPERATION_REQUEST, response);
    }

    ProcessOptions options(const std::string &input = "") const
    {
        ProcessOptions all = isolated();
        all.directory = directory.path();
        all.stdin_text = input;
        return all;
    }
    Finished load(const Arguments &arguments, const std::string &input = "") const
    {
        Arguments all{"load"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return greirige(peer, all, options(input));
    }
    std::string file(const std::string &name) const
    {
        return directory.path() + '/' + name;
    }

    // The values of the batches that were sent.
    std::vector<std::string> batches() const
    {
        std::vector<std::string> values;
        for (const Request &request : peer.requests())
            if (request.name == LDAPX_LBURP_OPERATION_REQUEST)
                values.push_back(request.value.value_or(""));
        return values;
    }

    TcpPeer peer;
    TemporaryDirectory directory;
};

// The one batch that input makes; sequence() of nothing when there is another number of them.
std::string sent_for(const std::string &input)
{
    Server server;
    server.answer();
    const Finished finished = server.load({}, input);
    EXPECT_EQ(finished.status, 0) << finished.err << input;
    const auto batches = server.batches();
    EXPECT_EQ(batches.size(), 1u) << input;
    return batches.empty() ? "" : batches.front();
}

std::string deletion(const std::string &dn)
{
    return "dn: " + dn + "\nchangetype: delete\n\n";
}

// Deletes cn=1 to cn=count.
std::string deletions(int count)
{
    std::string text;
    for (int number = 1; number <= count; ++number)
        text += deletion("cn=" + std::to_string(number));
    return text;
}

std::string removals(int from, int to)
{
    std::string all;
    for (int number = from; number <= to; ++number)
        all += der.remove("cn=" + std::to_string(number));
    return all;
}

} // namespace

// ---- What is sent -------------------------------------------------------------------------------

TEST(Records, become_the_updates_that_they_say)
{
    EXPECT_EQ(hex(sent_for("version: 1\n"
                           "\n"
                           "dn: cn=a,o=x\n"
                           "objectClass: top\n"
                           "cn: a\n"
                           "objectClass: person\n"
                           "\n"
                           "dn: cn=b,o=x\n"
                           "changetype: add\n"
                           "cn: b\n"
                           "\n"
                           "\n"
                           "dn: cn=c,o=x\n"
                           "changetype: delete\n"
                           "\n"
                           "dn: cn=d,o=x\n"
                           "changetype: modify\n"
                           "add: mail\n"
                           "mail: a@x\n"
                           "mail: b@x\n"
                           "-\n"
                           "delete: title\n"
                           "-\n"
                           "delete: sn\n"
                           "sn: d\n"
                           "-\n"
                           "replace: ou\n"
                           "ou: x\n"
                           "-\n"
                           "replace: l\n"
                           "-\n"
                           "increment: uidNumber\n"
                           "uidNumber: 3\n"
                           "\n"
                           "dn: cn=e,o=x\n"
                           "changetype: modrdn\n"
                           "newrdn: cn=f\n"
                           "deleteoldrdn: 1\n"
                           "\n"
                           "dn: cn=g,o=x\n"
                           "changetype: moddn\n"
                           "newrdn: cn=h\n"
                           "deleteoldrdn: 0\n"
                           "newsuperior: o=y")),
              hex(der.request(
                  1, der.add("cn=a,o=x", {{"objectClass", {"top", "person"}}, {"cn", {"a"}}}) +
                         der.add("cn=b,o=x", {{"cn", {"b"}}}) + der.remove("cn=c,o=x") +
                         der.modify("cn=d,o=x", {{"mail", {"a@x", "b@x"}, LDAP_MOD_ADD},
                                                 {"title", {}, LDAP_MOD_DELETE},
                                                 {"sn", {"d"}, LDAP_MOD_DELETE},
                                                 {"ou", {"x"}, LDAP_MOD_REPLACE},
                                                 {"l", {}, LDAP_MOD_REPLACE},
                                                 {"uidNumber", {"3"}, LDAP_MOD_INCREMENT}}) +
                         der.rename("cn=e,o=x", "cn=f", true, std::nullopt) +
                         der.rename("cn=g,o=x", "cn=h", false, "o=y"))));
}

TEST(Records, are_read_however_they_are_written)
{
    const TemporaryDirectory directory;
    write_file(directory.path() + "/photo", std::string("\xff\0\n", 3));
    const std::string photo = "file://" + directory.path() + "/photo";
    EXPECT_EQ(
        hex(sent_for("# A comment,\n"
                     " which goes on.\n"
                     "\n"
                     "# One that belongs to the record.\n"
                     "DN:: Y249YSxvPXg=\r\n"
                     "cn:a\r\n"
                     "# In the middle,\r\n"
                     "  folded.\r\n"
                     "desc\r\n"
                     " ription: one\r\n"
                     "  two\r\n"
                     "CN:    b\r\n"
                     "sn:: AAH/\n"
                     "title:\n"
                     "cn;lang-de: c\n"
                     "jpegPhoto:< " +
                     photo + "\n")),
        hex(der.request(1, der.add("cn=a,o=x", {{"cn", {"a", "b"}},
                                                {"description", {"one two"}},
                                                {"sn", {std::string("\0\1\xff", 3)}},
                                                {"title", {""}},
                                                {"cn;lang-de", {"c"}},
                                                {"jpegPhoto", {std::string("\xff\0\n", 3)}}}))));
}

TEST(Records, carry_their_controls)
{
    EXPECT_EQ(hex(sent_for("dn: cn=a\n"
                           "control: 1.2.3 true: abc\n"
                           "control: 1.2.4 false\n"
                           "control: 1.2.5\n"
                           "control: 1.2.6:: AP8=\n"
                           "changetype: delete\n")),
              hex(der.request(1, der.remove("cn=a", std::vector<Control>{
                                                        {"1.2.3", "abc", 1},
                                                        {"1.2.4", std::nullopt, 0},
                                                        {"1.2.5", std::nullopt, 0},
                                                        {"1.2.6", std::string("\0\xff", 2), 0}}))));
}

TEST(Inputs, follow_one_another_and_include_others)
{
    Server server;
    server.answer();
    write_file(server.file("inner.ldif"), "version: 1\n" + deletion("cn=3"));
    write_file(server.file("outer.ldif"), deletion("cn=2") + "include: file://" +
                                              server.file("inner.ldif") + "\n" + deletion("cn=4"));
    write_file(server.file("first.ldif"), "version: 1\ndn: cn=1\nchangetype: delete");
    const Finished finished = server.load({"first.ldif", "outer.ldif", "-"}, deletion("cn=5"));
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(server.batches(), std::vector{der.request(1, removals(1, 5))});
}

TEST(Inputs, that_are_empty_are_loads_of_nothing)
{
    for (const char *input : {"", "\n\n", "# nothing\n", "version: 1\n"}) {
        const Server server;
        const Finished finished = server.load({"--json"}, input);
        EXPECT_EQ(finished.status, 0) << finished.err;
        EXPECT_EQ(document(finished)["records"], 0);
        EXPECT_EQ(document(finished)["complete"], true);
        EXPECT_EQ(server.batches().size(), 0u);
    }
}

TEST(Batches, are_as_large_as_the_server_announces_or_smaller)
{
    struct Case {
        int announced;
        Arguments arguments;
        std::size_t expected;
    };
    for (const Case &each : std::vector<Case>{{3, {}, 3},
                                              {3, {"--batch", "2"}, 2},
                                              {3, {"--batch", "4"}, 3},
                                              {0, {}, 7},
                                              {0, {"--batch", "5"}, 5}}) {
        Server server(each.announced);
        for (int answers = 0; answers < 7; ++answers)
            server.answer();
        EXPECT_EQ(server.load(each.arguments, deletions(7)).status, 0);
        const auto batches = server.batches();
        const int size = static_cast<int>(each.expected);
        EXPECT_EQ(batches.size(), (7 + each.expected - 1) / each.expected);
        for (int at = 0; at < static_cast<int>(batches.size()); ++at)
            EXPECT_EQ(
                hex(batches[static_cast<std::size_t>(at)]),
                hex(der.request(at + 1, removals(at * size + 1, std::min(7, at * size + size)))));
    }
}

TEST(Batches, are_sent_without_waiting_as_far_as_the_window_goes)
{
    for (const std::size_t window : {1U, 3U}) {
        const Server server; // which answers no batch
        Child child(
            command(server.peer, {"load", "--batch", "1", "--window", std::to_string(window)}),
            server.options(deletions(6)));
        wait_for_requests(server.peer, 2 + window);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(server.batches().size(), window);
        child.signal(SIGKILL);
        child.wait();
    }
}

TEST(StartLine, begins_with_the_record_at_that_line)
{
    for (const auto &[line, first] : std::vector<std::pair<int, int>>{
             {1, 1}, {2, 1}, {3, 1}, {4, 2}, {5, 2}, {6, 2}, {10, 4}, {13, 5}}) {
        Server server;
        server.answer();
        write_file(server.file("a.ldif"), deletions(4)); // three lines each
        EXPECT_EQ(server.load({"-j", std::to_string(line), "a.ldif", "-"}, deletion("cn=5")).status,
                  0);
        EXPECT_EQ(server.batches(), std::vector{der.request(1, removals(first, 5))}) << line;
    }
}

TEST(StartLine, passes_over_what_is_wrong_before_it)
{
    Server server;
    server.answer();
    write_file(server.file("a.ldif"),
               "version: 7\n\nnonsense\n\ninclude: file:///does/not/exist\n" + deletion("cn=1"));
    const Finished finished = server.load({"-j", "6", "a.ldif"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(server.batches(), std::vector{der.request(1, removals(1, 1))});
}

TEST(DryRun, reads_everything_and_sends_nothing)
{
    const Server server;
    const std::string input = "dn: cn=a\ncn: a\n\n" + deletions(2) +
                              "dn: cn=b\nchangetype: modify\nreplace: cn\n-\n\n"
                              "dn: cn=b\nchangetype: modrdn\nnewrdn: cn=c\ndeleteoldrdn: 1\n";
    const Finished finished = server.load({"-n"}, input);
    EXPECT_EQ(finished.out, "would load 5 records on " + server.peer.uri() +
                                ": 1 added, 2 deleted, 1 modified, 1 renamed\n");
    EXPECT_EQ(finished.status, 0);
    const Finished wrong = server.load({"--dry-run", "-c", "--json"}, input + "\nx\n\ndn: cn=y\n");
    EXPECT_EQ(wrong.err, "greirige: standard input:20: here \"dn:\" is expected, not \"x\"\n"
                         "greirige: standard input:22: the entry has no attributes\n");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(document(wrong)["records"], 7);
    EXPECT_EQ(document(wrong)["failed"], 2);
    EXPECT_EQ(server.peer.connections(), 0);
}

// ---- What cannot be read ------------------------------------------------------------------------

struct Mistake {
    std::string text; // after a record of two lines and an empty line
    int line;
    std::string reason;
};

class Mistakes : public testing::TestWithParam<Mistake> {};

TEST_P(Mistakes, are_told_with_file_line_and_reason_and_nothing_of_the_batch_is_sent)
{
    const auto &[text, line, reason] = GetParam();
    const Server server;
    write_file(server.file("a.ldif"), deletions(1) + text + "\n\n" + deletion("cn=2"));
    const Finished finished = server.load({"a.ldif"});
    EXPECT_TRUE(
        finished.err.starts_with("greirige: a.ldif:" + std::to_string(line) + ": " + reason + "\n"))
        << finished.err;
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.out.substr(0, 17), "0 records loaded ");
    EXPECT_EQ(server.batches().size(), 0u);
    EXPECT_NE(finished.err.find("-j 1 goes on there"), std::string::npos) << finished.err;
}

INSTANTIATE_TEST_SUITE_P(
    Each, Mistakes,
    testing::Values(
        Mistake{"cn: a\ndn: cn=a", 4, R"(here "dn:" is expected, not "cn: a")"},
        Mistake{"dn: cn=a\ncn", 5, R"(neither "attribute: value" nor a comment: "cn")"},
        Mistake{"dn: cn=a\n# a\n#b\ncn: a\n b\n: b", 9,
                R"(neither "attribute: value" nor a comment: ": b")"},
        Mistake{"dn: cn=a\nc n: a", 5, R"(the name of an attribute holds no blanks: "c n")"},
        Mistake{"dn: cn=a\ncn:: Y!==", 5, R"(the value of "cn" is not base64)"},
        Mistake{"dn: cn=a\ncn:: YQ", 5, R"(the value of "cn" is not base64)"},
        Mistake{"dn:: Y249YQBi\ncn: a", 4, R"(the value of "dn:" holds a zero byte)"},
        Mistake{"dn: cn=a\ncn:< file:///does/not/exist", 5,
                R"(cannot read "file:///does/not/exist": No such file or directory)"},
        Mistake{"dn: cn=a\ncn:< http://example.com/", 5,
                R"(cannot read "http://example.com/": not a file: URL)"},
        Mistake{"dn: cn=a", 4, "the entry has no attributes"},
        Mistake{"dn: cn=a\nchangetype: add", 5, "the entry has no attributes"},
        Mistake{"dn: cn=a\ncn: a\n-\nsn: b", 6,
                R"(a "-" in an entry (a change needs a "changetype:" line))"},
        Mistake{"dn: cn=a\ncn: a\ndn: cn=b\ncn: b", 6,
                R"("dn:" inside an entry (is an empty line missing?))"},
        Mistake{"dn: cn=a\ncn: a\nchangetype: modify", 6,
                R"("changetype:" inside an entry (is an empty line missing?))"},
        Mistake{"dn: cn=a\nchangetype: replace\ncn: b", 5,
                R"(the change type "replace" is none of add, delete, modify, modrdn and moddn)"},
        Mistake{"dn: cn=a\nchangetype: delete\ncn: b", 6,
                R"(nothing may follow "changetype: delete" (is an empty line missing?))"},
        Mistake{"dn: cn=a\nchangetype: modify\n-", 6, R"(a "-" that ends no change)"},
        Mistake{"dn: cn=a\nchangetype: modify\nadd: cn\ncn: b\n-\n-", 9,
                R"(a "-" that ends no change)"},
        Mistake{"dn: cn=a\nchangetype: modify\ncn: b", 6,
                R"(a change begins with add, delete, replace or increment, not with "cn")"},
        Mistake{"dn: cn=a\nchangetype: modify\nadd: cn\nsn: b", 7,
                R"(a value of "cn" or "-" is expected, not "sn")"},
        Mistake{"dn: cn=a\nchangetype: modify\nadd: cn\n-\nreplace: cn", 6,
                R"(no value to add to "cn" is given)"},
        Mistake{"dn: cn=a\nchangetype: modify\nadd: cn", 6, R"(no value to add to "cn" is given)"},
        Mistake{"dn: cn=a\nchangetype: modify\nadd:\nx: y", 6, "the change names no attribute"},
        Mistake{"dn: cn=a\nchangetype: modify\nincrement: n\nn: 1\nn: 2", 6,
                R"("n" is incremented by one value)"},
        Mistake{"dn: cn=a\nchangetype: modrdn", 5,
                R"(the change type is not followed by "newrdn:")"},
        Mistake{"dn: cn=a\nchangetype: modrdn\ndeleteoldrdn: 1", 6,
                R"(here "newrdn:" is expected, not "deleteoldrdn: 1")"},
        Mistake{"dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b", 6,
                R"("newrdn:" is not followed by "deleteoldrdn:")"},
        Mistake{"dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: yes", 7,
                R"("deleteoldrdn:" is 0 or 1, not "yes")"},
        Mistake{
            "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\nnewsuperior: o=x\nx: y",
            9, "nothing may follow a rename (is an empty line missing?)"},
        Mistake{"dn: cn=a\ncontrol: 1.2.3\ncn: a", 5,
                R"(a record with controls needs a "changetype:" line)"},
        Mistake{"dn: cn=a\ncontrol: abc\nchangetype: delete", 5,
                R"("abc" is not the OID of a control)"},
        Mistake{"dn: cn=a\ncontrol: 1.2.3 yes\nchangetype: delete", 5,
                R"(the criticality of a control is true or false, not "yes")"},
        Mistake{"dn: cn=a\ncontrol: 1.2.3 true abc\nchangetype: delete", 5,
                "after the control's criticality comes its value with a colon before it, not "
                "\"abc\""},
        Mistake{"dn: cn=a\ncontrol: 1.2.3:: ?\nchangetype: delete", 5,
                R"(the value of "control" is not base64)"},
        Mistake{" continued\ndn: cn=a", 4, "a continuation line that continues nothing"},
        Mistake{std::string("dn: cn=a\ncn: a\0b", 16), 5,
                "the line holds a zero byte (values that do are written in base64)"}));

TEST(Mistakes, in_what_is_no_record_end_the_load_with_and_without_c)
{
    struct Case {
        std::string text;
        std::string message;
    };
    for (const Case &each :
         std::vector<Case>{{"version: 2\n" + deletion("cn=2"),
                            "version \"2\" of LDIF is not known, only version 1"},
                           {"include: file:///does/not/exist\n",
                            "cannot include \"file:///does/not/exist\": No such file or directory"},
                           {"include: http://example.com/\n",
                            "cannot include \"http://example.com/\": not a file: URL"}})
        for (const Arguments &arguments : {Arguments{"a.ldif"}, Arguments{"-c", "a.ldif"}}) {
            const Server server;
            write_file(server.file("a.ldif"), deletions(1) + each.text);
            const Finished finished = server.load(arguments);
            EXPECT_TRUE(finished.err.starts_with("greirige: a.ldif:4: " + each.message + "\n"))
                << finished.err;
            EXPECT_EQ(finished.status, 1);
            EXPECT_EQ(server.batches().size(), 0u);
        }
}

TEST(Mistakes, in_included_files_name_them)
{
    const Server server;
    write_file(server.file("inner"), "\n\nnonsense\n");
    write_file(server.file("a.ldif"), "include: file://" + server.file("inner") + "\n");
    const Finished finished = server.load({"a.ldif"});
    EXPECT_TRUE(finished.err.starts_with("greirige: " + server.file("inner") + ":3: here "))
        << finished.err;
    // One that includes itself does not end the process.
    write_file(server.file("a.ldif"), "include: file://" + server.file("a.ldif") + "\n");
    EXPECT_EQ(server.load({"-n", "a.ldif"}).status, 1);
}

TEST(Mistakes, leave_the_batches_before_theirs_loaded)
{
    Server server;
    server.answer();
    write_file(server.file("a.ldif"), deletions(3) + "nonsense\n\n" + deletion("cn=4"));
    const Finished finished = server.load({"--batch", "2", "a.ldif"});
    EXPECT_EQ(finished.err,
              "greirige: a.ldif:10: here \"dn:\" is expected, not \"nonsense\"\n"
              "greirige: -j 7 goes on there (a load with --journal can be resumed)\n");
    EXPECT_EQ(finished.out.substr(0, 17), "2 records loaded ");
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(server.batches(), std::vector{der.request(1, removals(1, 2))});
}

TEST(Mistakes, are_rejected_and_passed_over_with_c)
{
    Server server;
    server.answer();
    write_file(server.file("a.ldif"),
               deletions(1) + "dn: cn=x\n# why?\nnonsense\n\n" + deletion("cn=2"));
    const Finished finished = server.load({"-c", "-S", "r.ldif", "a.ldif"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(finished.err, "greirige: a.ldif:6: neither \"attribute: value\" nor a comment: "
                            "\"nonsense\"\n");
    EXPECT_EQ(server.batches(), std::vector{der.request(1, removals(1, 2))});
    EXPECT_EQ(read_file(server.file("r.ldif")),
              "# rejected: a.ldif:6: neither \"attribute: value\" nor a comment: \"nonsense\"\n"
              "dn: cn=x\n# why?\nnonsense\n\n");
}

// ---- What fails ---------------------------------------------------------------------------------

TEST(Failures, are_told_and_rejected_each_with_its_reason)
{
    Server server;
    server.answer(failed(2, LDAP_ALREADY_EXISTS, "") + failed(4, 65, "no \"cn\"\nhere"));
    server.answer(failed(1, LDAP_NO_SUCH_OBJECT, "", "o=x"));
    write_file(server.file("photo"), "abc");
    write_file(server.file("a.ldif"), "version: 1\n" + deletions(1) +
                                          "# about b\n"
                                          "dn: cn=b\n"
                                          "description: a long\n"
                                          "  line\n"
                                          "jpegPhoto:< file://" +
                                          server.file("photo") +
                                          "\n\n"
                                          "dn: cn=c\r\nchangetype: delete\r\n\r\n"
                                          "dn: cn=d\nchangetype: modify\nreplace: cn\n-\n\n"
                                          "dn: cn=e\nchangetype: modrdn\nnewrdn: cn=f\n"
                                          "deleteoldrdn: 1");
    const Finished finished = server.load({"-c", "-S", "r.ldif", "--batch", "4", "a.ldif"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(
        finished.err,
        "greirige: a.ldif:6: cannot add \"cn=b\": Already exists (68)\n"
        "greirige: a.ldif:14: cannot modify \"cn=d\": Object class violation (65), the server "
        "says \"no \"cn\"\\0Ahere\"\n"
        "greirige: a.ldif:19: cannot rename \"cn=e\": No such object (32), the nearest entry "
        "that exists is \"o=x\" (check the spelling of the DN)\n");
    EXPECT_EQ(finished.out.substr(0, 17), "2 records loaded ");
    EXPECT_NE(finished.out.find("), 3 failed\n"), std::string::npos) << finished.out;
    const std::string rejects = read_file(server.file("r.ldif"));
    EXPECT_EQ(rejects,
              "# rejected: a.ldif:6: Already exists (68)\n"
              "# about b\n"
              "dn: cn=b\n"
              "description: a long\n"
              "  line\n"
              "jpegPhoto:< file://" +
                  server.file("photo") +
                  "\n\n"
                  "# rejected: a.ldif:14: Object class violation (65), the server says \"no "
                  "\"cn\"\\0Ahere\"\n"
                  "dn: cn=d\nchangetype: modify\nreplace: cn\n-\n\n"
                  "# rejected: a.ldif:19: No such object (32), the nearest entry that exists is "
                  "\"o=x\" (check the spelling of the DN)\n"
                  "dn: cn=e\nchangetype: modrdn\nnewrdn: cn=f\ndeleteoldrdn: 1\n\n");

    // The file is LDIF that says the same; a second attempt has its own reasons only.
    Server second;
    second.answer(failed(1, LDAP_BUSY, ""));
    write_file(second.file("r.ldif"), rejects);
    EXPECT_EQ(second.load({"-c", "-S", "again.ldif", "r.ldif"}).status, 4);
    EXPECT_EQ(second.batches(),
              std::vector{der.request(
                  1, der.add("cn=b", {{"description", {"a long line"}}, {"jpegPhoto", {"abc"}}}) +
                         der.modify("cn=d", {{"cn", {}, LDAP_MOD_REPLACE}}) +
                         der.rename("cn=e", "cn=f", true, std::nullopt))});
    EXPECT_TRUE(read_file(second.file("again.ldif"))
                    .starts_with("# rejected: r.ldif:3: Server is busy (51) (try again later)\n"
                                 "# about b\ndn: cn=b\n"))
        << read_file(second.file("again.ldif"));
}

TEST(Failures, end_the_load_without_c_and_what_was_under_way_is_told)
{
    Server server;
    server.answer(failed(2, LDAP_NO_SUCH_OBJECT, ""));
    server.answer(failed(1, LDAP_NO_SUCH_OBJECT, ""));
    server.answer();
    write_file(server.file("a.ldif"), deletions(40));
    const Finished finished = server.load({"--batch", "2", "--window", "2", "a.ldif"});
    EXPECT_EQ(finished.status, 4);
    const std::size_t sent = server.batches().size();
    ASSERT_GE(sent, 2U);
    ASSERT_LE(sent, 3U);
    const std::string after = std::to_string(2 * sent - 3);
    EXPECT_EQ(
        finished.err,
        "greirige: a.ldif:4: cannot delete \"cn=2\": No such object (32) (check the spelling "
        "of the DN)\n"
        "greirige: a.ldif:7: cannot delete \"cn=3\": No such object (32) (check the spelling "
        "of the DN)\n"
        "greirige: stopped at the first failure (-c goes on); of what had been sent after it, " +
            after + (after == "1" ? " record was" : " records were") +
            " loaded and 1 failed\n"
            "greirige: -j " +
            std::to_string(6 * sent + 1) +
            " goes on there (a load with --journal can be resumed)\n");
}

TEST(Failures, that_the_file_of_rejects_tells_are_not_told_twice_after_the_end)
{
    Server server;
    server.answer(failed(1, LDAP_BUSY, "") + failed(2, LDAP_BUSY, ""));
    write_file(server.file("a.ldif"), deletions(2));
    const Finished finished = server.load({"-S", "r.ldif", "a.ldif"});
    EXPECT_EQ(finished.status, 1);
    EXPECT_EQ(finished.err.find("cn=2"), std::string::npos) << finished.err;
    EXPECT_NE(read_file(server.file("r.ldif")).find("dn: cn=2\n"), std::string::npos);
}

TEST(Failures, of_a_batch_that_is_refused_leave_the_others_alone)
{
    Server server(1);
    server.answer();
    server.peer.answer(LDAPX_LBURP_OPERATION_REQUEST,
                       {.code = LDAP_PROTOCOL_ERROR, .name = LDAPX_LBURP_OPERATION_RESPONSE});
    for (int answers = 0; answers < 3; ++answers)
        server.answer();
    const Finished finished = server.load({"-c", "--json"}, deletions(3));
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(document(finished)["deleted"], 2);
    EXPECT_EQ(document(finished)["failed"], 1);
}

TEST(Failures, that_cannot_belong_to_what_was_sent_end_the_load)
{
    Server server;
    server.answer(failed(7, LDAP_BUSY, "what?"));
    const Finished finished = server.load({"-c"}, deletions(2));
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("the server says that something failed that was not sent"),
              std::string::npos)
        << finished.err;
}

TEST(Rejects, never_overwrite_the_input_or_the_journal)
{
    const Server server;
    write_file(server.file("a.ldif"), deletions(1));
    for (const Arguments &arguments :
         {Arguments{"-S", "./a.ldif", "a.ldif"}, Arguments{"--journal", "./a.ldif", "a.ldif"},
          Arguments{"-S", "x", "--journal", "x", "a.ldif"}}) {
        EXPECT_EQ(server.load(arguments).status, 2);
        EXPECT_EQ(read_file(server.file("a.ldif")), deletions(1));
    }
    const Finished finished = server.load({"-S", "/does/not/exist", "a.ldif"});
    EXPECT_EQ(finished.err, "greirige: -S \"/does/not/exist\": No such file or directory\n");
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(server.batches().size(), 0u);
}

// ---- What the whole comes to --------------------------------------------------------------------

TEST(Summary, counts_what_was_done)
{
    Server server;
    server.answer(failed(3, LDAP_BUSY, ""));
    const Finished finished = server.load(
        {"-c", "--json"}, "dn: cn=a\ncn: a\n\n" + deletions(2) +
                              "dn: cn=b\nchangetype: modify\nreplace: cn\n-\n\n"
                              "dn: cn=b\nchangetype: modrdn\nnewrdn: cn=c\ndeleteoldrdn: 1\n");
    auto summary = document(finished);
    for (const char *time : {"seconds", "secondsWaited"}) {
        EXPECT_GE(summary[time], 0) << time;
        summary.erase(time);
    }
    const nlohmann::ordered_json expected{{"operation", "load"},
                                          {"server", server.peer.uri()},
                                          {"files", {"standard input"}},
                                          {"complete", true},
                                          {"records", 5},
                                          {"added", 1},
                                          {"deleted", 1},
                                          {"modified", 1},
                                          {"renamed", 1},
                                          {"failed", 1},
                                          {"unknown", 0},
                                          {"dealtWithBefore", 0},
                                          {"foundDone", 0},
                                          {"batches", 1},
                                          {"transactionSize", 500}};
    EXPECT_EQ(summary, expected);
}

TEST(Loads, that_the_server_refuses_are_failures)
{
    TcpPeer peer;
    peer.answer(LDAPX_LBURP_START_REQUEST, {.code = LDAP_UNWILLING_TO_PERFORM,
                                            .name = LDAPX_LBURP_START_RESPONSE,
                                            .diagnostic = "not today"});
    ProcessOptions options = isolated();
    options.stdin_text = deletions(1);
    const Finished finished = greirige(peer, {"load"}, options);
    EXPECT_EQ(finished.err, "greirige: cannot load standard input on " + peer.uri() +
                                ": Server is unwilling to perform (53), the server says \"not "
                                "today\"\n");
    EXPECT_EQ(finished.status, 1);
}

TEST(Loads, whose_connection_is_lost_say_what_is_known_and_what_is_not)
{
    Server server;
    server.answer();
    server.peer.close_at(LDAPX_LBURP_OPERATION_REQUEST);
    write_file(server.file("a.ldif"), deletions(5));
    const Finished finished = server.load({"--batch", "2", "--window", "1", "a.ldif"});
    EXPECT_EQ(finished.status, 4);
    EXPECT_EQ(finished.err,
              "greirige: cannot load a.ldif on " + server.peer.uri() +
                  ": the server closed the connection (-1) (its log may say why)\n"
                  "greirige: whether 2 records that were sent (a.ldif:7 to a.ldif:10) were carried "
                  "out is not known; 2 records before have their outcome\n"
                  "greirige: -j 7 goes on there (a load with --journal can be resumed)\n");
    EXPECT_EQ(finished.out.substr(0, 17), "2 records loaded ");
}

TEST(Loads, give_up_a_server_that_is_silent)
{
    const Server server; // which answers no batch
    const Finished finished =
        greirige(server.peer, {"-o", "timeout=2", "load"}, server.options(deletions(1)));
    EXPECT_EQ(finished.status, 1);
    EXPECT_NE(finished.err.find("no answer within 2 seconds"), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find("whether 1 record that was sent"), std::string::npos)
        << finished.err;
}

TEST(Loads, that_a_signal_ends_tell_what_is_known_and_end_as_the_signal)
{
    for (const int number : {SIGINT, SIGTERM}) {
        Server server;
        server.answer();
        write_file(server.file("a.ldif"), deletions(3));
        Child child(
            command(server.peer, {"load", "--json", "--batch", "1", "--window", "1", "a.ldif"}),
            server.options());
        wait_for_requests(server.peer, 4);
        child.signal(number);
        const Finished finished = child.wait();
        EXPECT_EQ(finished.status, 128 + number);
        EXPECT_EQ(document(finished)["deleted"], 1);
        EXPECT_EQ(document(finished)["unknown"], 1);
        EXPECT_EQ(finished.err,
                  "greirige: interrupted\n"
                  "greirige: whether 1 record that was sent (a.ldif:4 to a.ldif:4) was carried out "
                  "is not known; 1 record before has its outcome\n"
                  "greirige: -j 4 goes on there (a load with --journal can be resumed)\n");
    }
}

TEST(Loads, that_wait_for_their_input_end_by_a_signal_too)
{
    const Server server;
    const TemporaryDirectory directory;
    Child child({"/bin/sh", "-c",
                 "mkfifo \"$1\"; exec 3<>\"$1\"; exec \"$0\" -x -H \"$2\" load \"$1\"",
                 command({})[0], directory.path() + "/pipe", server.peer.uri()},
                server.options());
    wait_for_requests(server.peer, 2);
    child.signal(SIGTERM);
    const Finished finished = child.wait();
    EXPECT_EQ(finished.status, 128 + SIGTERM);
    EXPECT_EQ(finished.err, "greirige: interrupted\n");
}
