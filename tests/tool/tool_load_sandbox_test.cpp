// greirige load against the sandbox: what becomes of the directory, and loads that are interrupted
// and resumed.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "sandbox.h"
#include "support/relay.h"
#include "tool.h"

using namespace tool_test;
using namespace support;
using namespace std::chrono_literals;
using sandbox_test::admin_dn;
using sandbox_test::base;
using sandbox_test::Sandbox;

namespace {

Sandbox &sandbox()
{
    static Sandbox one({"--entries", "100"});
    return one;
}

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

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

std::string person(const std::string &name, const std::string &parent)
{
    return "dn: cn=" + name + ',' + parent +
           "\nobjectClass: person\nobjectClass: posixAccount\ncn: " + name + "\nsn: " + name +
           "\nuid: " + name + "\nuidNumber: 1000\ngidNumber: 1\nhomeDirectory: /home\n\n";
}

std::string change(const std::string &name, const std::string &parent, const std::string &what)
{
    return "dn: cn=" + name + ',' + parent + "\nchangetype: " + what + "\n\n";
}

// A part of the tree and all that happens to it: every kind of change, each of which fails or shows
// when it is carried out twice.
std::string history(const std::string &top, int people)
{
    const std::string room = "ou=room," + top;
    std::string text = "version: 1\n\ndn: " + top +
                       "\nobjectClass: organizationalUnit\n\ndn: " + room +
                       "\nobjectClass: organizationalUnit\n\n";
    const auto for_each = [&](const std::function<std::string(int, const std::string &)> &make) {
        for (int number = 0; number < people; ++number)
            text += make(number, "p" + std::to_string(number));
    };
    for_each([&](int, const std::string &name) { return person(name, top); });
    for_each([&](int, const std::string &name) {
        return change(name, top, "modify\nincrement: uidNumber\nuidNumber: 7\n-");
    });
    for_each([&](int number, const std::string &name) {
        return change(name, top,
                      number % 2 == 0
                          ? "modify\nadd: description\ndescription: one\ndescription: two\n-"
                          : "modify\ndelete: sn\nsn: " + name + "\n-\nadd: sn\nsn: new\n-");
    });
    for_each([&](int number, const std::string &name) {
        return number % 3 == 0   ? change(name, top, "delete")
               : number % 3 == 1 ? change(name, top,
                                          "modrdn\nnewrdn: cn=r" + std::to_string(number) +
                                              "\ndeleteoldrdn: 1\nnewsuperior: " + room)
                                 : change(name, top, "modify\nreplace: sn\nsn: last\nsn: least\n-");
    });
    return text;
}

// The whole part of the tree as LDIF, in order.
std::string tree(const std::string &top)
{
    const Finished found = sandbox().client_as_admin(
        "ldapsearch", {"-LLL", "-o", "ldif-wrap=no", "-b", top, "(objectClass=*)"});
    std::vector<std::string> entries;
    for (std::size_t begin = 0, end = 0; (end = found.out.find("\n\n", begin)) != std::string::npos;
         begin = end + 2)
        entries.push_back(found.out.substr(begin, end - begin));
    std::sort(entries.begin(), entries.end());
    std::string all;
    for (const std::string &entry : entries)
        all += entry + '\n';
    return all;
}

// The same whatever the top of the tree is called.
std::string nameless_tree(const std::string &top)
{
    const std::string rdn = top.substr(0, top.find(','));
    return replaced(replaced(tree(top), top, "TOP"), replaced(rdn, "=", ": ") + '\n', "ou: TOP\n");
}

// A tree of its own with a history, and the command that loads it.
class Case {
public:
    explicit Case(int people = 60) : top_("ou=case" + std::to_string(++count_) + ',' + base)
    {
        write_file(file("a.ldif"), history(top_, people));
        people_ = people;
    }

    const std::string &top() const
    {
        return top_;
    }
    std::string file(const std::string &name) const
    {
        return directory_.path() + '/' + name;
    }
    Arguments command_line(const Arguments &arguments,
                           const std::string &url = sandbox().url()) const
    {
        Arguments all = command({"-x", "-H", url, "-D", admin_dn, "-w", "secret", "load"});
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    ProcessOptions options() const
    {
        ProcessOptions all = isolated();
        all.directory = directory_.path();
        all.timeout = 60s;
        return all;
    }
    Finished load(const Arguments &arguments, const std::string &url = sandbox().url()) const
    {
        return run(command_line(arguments, url), options());
    }
    std::string journal() const
    {
        return read_file(file("j"));
    }
    // How often something stands in the journal.
    std::size_t noted(const std::string &what) const
    {
        const std::string text = journal();
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at)
            ++found;
        return found;
    }

    // The tree is what the whole history makes, in one run, of another tree.
    void expect_everything_once() const
    {
        const Case whole(people_);
        const Finished finished = whole.load({"a.ldif"});
        EXPECT_EQ(finished.status, 0) << finished.err;
        EXPECT_EQ(nameless_tree(top_), nameless_tree(whole.top()));
    }

private:
    static inline int count_ = 0;
    TemporaryDirectory directory_;
    std::string top_;
    int people_ = 0;
};

const Arguments with_journal{"--batch", "20", "--journal", "j", "a.ldif"};
const Arguments with_journal_as_json{"--json", "--batch", "20", "--journal", "j", "a.ldif"};

} // namespace

// ---- Effects ------------------------------------------------------------------------------------

TEST(Load, changes_the_directory_as_the_records_say)
{
    const Case whole(4);
    const Finished finished = whole.load({"a.ldif"});
    EXPECT_EQ(finished.status, 0) << finished.err;
    const std::string classes = "objectClass: person\nobjectClass: posixAccount\n";
    const std::string account = "uidNumber: 1007\ngidNumber: 1\nhomeDirectory: /home\n";
    EXPECT_EQ(nameless_tree(whole.top()),
              "dn: cn=p2,TOP\n" + classes + "cn: p2\nuid: p2\n" + account +
                  "description: one\ndescription: two\nsn: last\nsn: least\n"
                  "dn: cn=r1,ou=room,TOP\n" +
                  classes + "uid: p1\n" + account +
                  "sn: new\ncn: r1\n"
                  "dn: TOP\nobjectClass: organizationalUnit\nou: TOP\n"
                  "dn: ou=room,TOP\nobjectClass: organizationalUnit\nou: room\n");
}

TEST(Load, rejects_can_be_corrected_and_loaded)
{
    const Case one(0);
    write_file(one.file("b.ldif"),
               "dn: " + one.top() + "\nobjectClass: organizationalUnit\n\n" +
                   person("a", one.top()) + "dn: cn=b," + one.top() +
                   "\nobjectClass: person\ncn: b\nsnn: b\n\n" +
                   change("c", one.top(), "modrdn\nnewrdn: cn=d\ndeleteoldrdn: 1") +
                   change("a", one.top(), "modify\nadd: description\ndescription: x\n-"));
    const Finished first = one.load({"-c", "-S", "r.ldif", "b.ldif"});
    EXPECT_EQ(first.status, 4);
    const std::string rejects = read_file(one.file("r.ldif"));
    EXPECT_NE(rejects.find("# rejected: b.ldif:14: Undefined attribute type (17), the server says "
                           "\"snn: attribute type undefined\"\ndn: cn=b,"),
              std::string::npos)
        << rejects;
    EXPECT_NE(rejects.find("# rejected: b.ldif:19: No such object (32)"), std::string::npos);

    write_file(one.file("r.ldif"),
               replaced(replaced(rejects, "snn:", "sn:"), "dn: cn=c", "dn: cn=a"));
    const Finished second = one.load({"r.ldif"});
    EXPECT_EQ(second.status, 0) << second.err;
    const std::string after = tree(one.top());
    EXPECT_NE(after.find("dn: cn=b," + one.top() + "\n"), std::string::npos) << after;
    EXPECT_NE(after.find("dn: cn=d," + one.top() + "\n"), std::string::npos) << after;
    EXPECT_EQ(after.find("dn: cn=a,"), std::string::npos) << after;
}

TEST(Load, of_twenty_thousand_entries_shows_its_progress_on_a_terminal)
{
    const Case one(0);
    std::ofstream file(one.file("large.ldif"));
    file << "dn: " << one.top() << "\nobjectClass: organizationalUnit\n\n";
    for (int number = 0; number < 20000; ++number)
        file << person("n" + std::to_string(number), one.top());
    file.close();
    ProcessOptions options = one.options();
    options.terminal = true;
    const Finished finished = run(one.command_line({"--json", "large.ldif"}), options);
    EXPECT_EQ(finished.status, 0) << finished.err;
    EXPECT_EQ(document(finished)["added"], 20001);
    EXPECT_NE(finished.err.find(" records, "), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find(" MB of 3.4 MB, "), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find("/s, "), std::string::npos) << finished.err;
    EXPECT_NE(finished.err.find(" left"), std::string::npos) << finished.err;
    EXPECT_TRUE(finished.err.ends_with("\r\x1b[K")) << finished.err;
    EXPECT_EQ(sandbox_test::search(sandbox().admin(), one.top(), "(objectClass=person)").size(),
              20000u);
}

// ---- Interruptions ------------------------------------------------------------------------------

TEST(Interruption, by_a_kill_at_any_point_loses_nothing_and_repeats_nothing)
{
    const DelayingRelay relay(sandbox().port(), 2ms);
    for (const std::size_t point : {1U, 2U, 4U, 6U, 9U, 12U}) {
        const Case one;
        Child child(one.command_line(with_journal, relay.url()), one.options());
        while (one.noted("{\"sent\"") < point)
            std::this_thread::sleep_for(1ms);
        child.signal(SIGKILL);
        EXPECT_EQ(child.wait().status, 128 + SIGKILL) << point;
        EXPECT_EQ(one.noted("finished"), 0u);

        const Finished resumed = one.load(with_journal_as_json, relay.url());
        EXPECT_EQ(resumed.status, 0) << resumed.err;
        EXPECT_EQ(resumed.err, "");
        const auto summary = document(resumed);
        EXPECT_EQ(summary["records"].get<int>() + summary["dealtWithBefore"].get<int>(), 242)
            << point;
        one.expect_everything_once();
    }
}

TEST(Interruption, by_a_kill_again_and_again_comes_to_an_end)
{
    const DelayingRelay relay(sandbox().port(), 2ms);
    const Case one;
    int kills = 0;
    for (std::size_t sent = 0; one.noted("finished") == 0 && kills < 100;) {
        Child child(one.command_line(with_journal, relay.url()), one.options());
        while (one.noted("{\"sent\"") < sent + 2 && one.noted("finished") == 0)
            std::this_thread::sleep_for(1ms);
        sent = one.noted("{\"sent\"");
        child.signal(SIGKILL);
        child.wait();
        ++kills;
    }
    EXPECT_GE(kills, 3);
    EXPECT_LT(kills, 100);
    one.expect_everything_once();
}

TEST(Interruption, of_the_connection_is_reported_and_resumed)
{
    for (const bool requests : {true, false})
        for (const std::size_t bytes : {300U, 900U, 2000U, 5000U, 9000U}) {
            const std::size_t cut = requests ? 3 * bytes : bytes / 6 + 90;
            DelayingRelay relay(sandbox().port(), 1ms);
            (requests ? relay.cut_after_requests(cut) : relay.cut_after_answers(cut));
            const Case one;
            const Finished broken = one.load(with_journal_as_json, relay.url());
            ASSERT_TRUE(relay.was_cut()) << requests << ' ' << cut << broken.out;
            EXPECT_TRUE(broken.status == 1 || broken.status == 4) << broken.err;
            EXPECT_NE(broken.err.find("the server closed the connection"), std::string::npos)
                << broken.err;
            EXPECT_NE(broken.err.find("the same command goes on where this one ended"),
                      std::string::npos)
                << broken.err;
            const int confirmed = document(broken)["records"];

            const Finished resumed = one.load(with_journal_as_json, relay.url());
            EXPECT_EQ(resumed.status, 0) << resumed.err;
            EXPECT_EQ(document(resumed)["dealtWithBefore"], confirmed) << cut;
            EXPECT_EQ(document(resumed)["records"], 242 - confirmed) << cut;
            one.expect_everything_once();
        }
}

TEST(Interruption, by_a_signal_leaves_nothing_in_doubt)
{
    const DelayingRelay relay(sandbox().port(), 5ms);
    const Case one;
    Child child(one.command_line(with_journal, relay.url()), one.options());
    while (one.noted("{\"done\"") < 2)
        std::this_thread::sleep_for(1ms);
    child.signal(SIGTERM);
    const Finished ended = child.wait();
    EXPECT_EQ(ended.status, 128 + SIGTERM);
    EXPECT_EQ(ended.err, "greirige: interrupted\n"
                         "greirige: the same command goes on where this one ended\n");
    EXPECT_EQ(one.noted("{\"sent\""), one.noted("{\"done\""));
    const Finished resumed = one.load(with_journal_as_json);
    EXPECT_EQ(resumed.status, 1); // on another server, as far as anybody can tell
    EXPECT_EQ(one.load(with_journal_as_json, relay.url()).status, 0);
    one.expect_everything_once();
}

// ---- What is in doubt ---------------------------------------------------------------------------

namespace {

// A load of some records whose outcomes nobody knows: they were carried out, but the journal's
// last lines never came to the disk.
class Doubt {
public:
    Doubt(const std::string &before, const std::string &in_doubt)
    {
        write_file(one.file("a.ldif"), "dn: " + one.top() +
                                           "\nobjectClass: organizationalUnit\n\n" +
                                           replaced(before + in_doubt, "TOP", one.top()));
        EXPECT_EQ(one.load(with_journal).status, 0);
        state = tree(one.top());
        std::string text = one.journal();
        text.erase(text.rfind("{\"done\""));
        write_file(one.file("j"), text);
    }
    Finished resume(const Arguments &more = {}) const
    {
        Arguments arguments = with_journal_as_json;
        arguments.insert(arguments.begin(), more.begin(), more.end());
        return one.load(arguments);
    }

    Case one{0};
    std::string state;
};

void ldapmodify(const std::string &text)
{
    const Finished finished = sandbox().client_as_admin("ldapmodify", {"-c"}, text);
    EXPECT_EQ(finished.status, 0) << finished.err;
}

const std::string increment = "modify\nincrement: uidNumber\nuidNumber: 5\n-";

} // namespace

TEST(InDoubt, what_was_carried_out_is_not_carried_out_again)
{
    const std::string a = person("a", "TOP");
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", person("a", "TOP") + person("b", "TOP")},
        {a, change("a", "TOP", "delete")},
        {a, change("a", "TOP", "modrdn\nnewrdn: cn=z\ndeleteoldrdn: 1")},
        {a, change("a", "TOP", "modify\nadd: description\ndescription: x\n-")},
        {a, change("a", "TOP", "modify\ndelete: sn\nsn: a\n-\nadd: sn\nsn: b\n-")},
        {a, change("a", "TOP", "modify\nreplace: sn\nsn: b\nsn: c\n-")},
        {a + change("a", "TOP", "modify\nadd: description\ndescription: x\n-"),
         change("a", "TOP", "modify\ndelete: description\n-")},
        {a, change("a", "TOP", increment)},
    };
    for (const auto &[before, in_doubt] : cases) {
        const Doubt doubt(before, in_doubt);
        const Finished resumed = doubt.resume();
        EXPECT_EQ(resumed.status, 0) << resumed.err << in_doubt;
        EXPECT_EQ(resumed.err, "") << in_doubt;
        const auto summary = document(resumed);
        EXPECT_EQ(summary["foundDone"], summary["records"]) << in_doubt;
        EXPECT_GT(summary["foundDone"], 0) << in_doubt;
        EXPECT_EQ(summary["batches"], 0) << in_doubt;
        EXPECT_EQ(tree(doubt.one.top()), doubt.state) << in_doubt;
    }
}

TEST(InDoubt, what_was_not_carried_out_is_carried_out)
{
    const std::string a = person("a", "TOP");
    struct Undone {
        std::string before;
        std::string in_doubt;
        std::string undo;
    };
    const std::vector<Undone> cases{
        {"", person("a", "TOP") + person("b", "TOP") + person("c", "TOP"),
         change("b", "TOP", "delete")},
        {a, change("a", "TOP", "delete"), a},
        {a, change("a", "TOP", "modrdn\nnewrdn: cn=z\ndeleteoldrdn: 1"),
         change("z", "TOP", "modrdn\nnewrdn: cn=a\ndeleteoldrdn: 1")},
        {a, change("a", "TOP", "modify\nadd: description\ndescription: x\ndescription: y\n-"),
         change("a", "TOP", "modify\ndelete: description\n-")},
        {a, change("a", "TOP", "modify\ndelete: sn\nsn: a\n-\nadd: sn\nsn: b\n-"),
         change("a", "TOP", "modify\nreplace: sn\nsn: a\n-")},
        {a, change("a", "TOP", increment),
         change("a", "TOP", "modify\nincrement: uidNumber\nuidNumber: -5\n-")},
    };
    for (const Undone &each : cases) {
        const Doubt doubt(each.before, each.in_doubt);
        ldapmodify(replaced(each.undo.find("changetype") == std::string::npos
                                ? replaced(each.undo, "objectClass: person\n",
                                           "changetype: add\nobjectClass: person\n")
                                : each.undo,
                            "TOP", doubt.one.top()));
        EXPECT_NE(tree(doubt.one.top()), doubt.state);
        const Finished resumed = doubt.resume();
        EXPECT_EQ(resumed.status, 0) << resumed.err << each.in_doubt;
        EXPECT_EQ(document(resumed)["batches"], 1) << each.in_doubt;
        EXPECT_EQ(tree(doubt.one.top()), doubt.state) << each.in_doubt;
    }
}

TEST(InDoubt, an_entry_that_is_there_but_differs_is_a_failure)
{
    const Doubt doubt("", person("a", "TOP"));
    ldapmodify(change("a", doubt.one.top(), "modify\nreplace: sn\nsn: somebody else\n-"));
    const Finished resumed = doubt.resume();
    EXPECT_EQ(resumed.status, 4);
    EXPECT_NE(resumed.err.find("Already exists (68)"), std::string::npos) << resumed.err;
}

TEST(InDoubt, an_increment_that_cannot_be_judged_is_not_sent)
{
    const Doubt doubt(person("a", "TOP"), change("a", "TOP", increment));
    ldapmodify(change("a", doubt.one.top(), "delete"));
    const Finished resumed = doubt.resume({"-c", "-S", "r"});
    EXPECT_EQ(resumed.status, 4);
    EXPECT_NE(resumed.err.find("it cannot be told whether it was carried out"), std::string::npos)
        << resumed.err;
    EXPECT_NE(read_file(doubt.one.file("r")).find("increment: uidNumber"), std::string::npos);
    EXPECT_EQ(document(resumed)["batches"], 0);
}

TEST(InDoubt, changes_of_one_entry_are_never_under_way_together)
{
    // Each of these would be taken for one that has not been carried out after the next one.
    const Case one(0);
    std::string text =
        "dn: " + one.top() + "\nobjectClass: organizationalUnit\n\n" + person("a", one.top());
    for (int round = 0; round < 5; ++round)
        text +=
            change("a", one.top(), "modify\nreplace: sn\nsn: " + std::to_string(round) + "\n-") +
            change("A ", one.top(), increment) +
            change("a", one.top(), "modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1") +
            change("b", one.top(), "modrdn\nnewrdn: cn=a\ndeleteoldrdn: 1");
    text += change("a", one.top(), "delete") + person("a", one.top()) + "dn: " + one.top() +
            "\nchangetype: modrdn\nnewrdn: ou=moved" + "\ndeleteoldrdn: 1\n\n" +
            change("a", replaced(one.top(), "ou=case", "ou=nocase"), "delete");
    write_file(one.file("a.ldif"), text);
    const Finished finished = one.load({"-c", "--journal", "j", "a.ldif"});
    EXPECT_EQ(finished.status, 4); // the last record's entry is not there
    EXPECT_EQ(one.noted("\"before\""), 5u);
    // The top, with the person; each change of that alone; the renamed top; what is nowhere near.
    EXPECT_GE(one.noted("{\"sent\""), 24u);
    EXPECT_EQ(sandbox_test::search(sandbox().admin(), "ou=moved," + base, "(cn=a)", "sn"),
              std::vector<std::string>{"cn=a,ou=moved," + base + ": a"});
    ldapmodify(change("a", "ou=moved," + base, "delete") + "dn: ou=moved," + base +
               "\nchangetype: delete\n");
}

// ---- The journal --------------------------------------------------------------------------------

TEST(Journal, of_a_complete_load_sends_nothing_more)
{
    const Case one(10);
    EXPECT_EQ(one.load(with_journal).status, 0);
    const std::string journal = one.journal();
    const Finished again = one.load(with_journal_as_json);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(document(again)["batches"], 0);
    EXPECT_EQ(document(again)["dealtWithBefore"], 42);
    EXPECT_EQ(document(again)["complete"], true);
    EXPECT_EQ(one.journal(), journal);
}

TEST(Journal, lets_a_record_that_failed_be_corrected_in_the_input)
{
    const Case one(10);
    const std::string right = read_file(one.file("a.ldif"));
    const std::string wrong =
        replaced(right, "uid: p3\nuidNumber: 1000", "uid: p3\nuidNumber: many");
    write_file(one.file("a.ldif"), wrong);
    const Finished first = one.load({"--batch", "6", "--window", "1", "--journal", "j", "a.ldif"});
    EXPECT_EQ(first.status, 4);
    EXPECT_NE(first.err.find("the same command goes on where this one ended"), std::string::npos);

    // What was loaded must not change.
    write_file(one.file("a.ldif"), replaced(right, "uid: p2\n", "uid: px\n"));
    const Finished refused = one.load(with_journal);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("the input has changed where it was loaded already"),
              std::string::npos)
        << refused.err;

    write_file(one.file("a.ldif"), right);
    const Finished second = one.load(with_journal);
    EXPECT_EQ(second.status, 0) << second.err;
    one.expect_everything_once();
}

TEST(Journal, lets_what_cannot_be_read_be_corrected)
{
    const Case one(10);
    const std::string right = read_file(one.file("a.ldif"));
    write_file(one.file("a.ldif"), replaced(right, "newrdn: cn=r4", "newrnd: cn=r4"));
    EXPECT_EQ(one.load(with_journal).status, 4);
    write_file(one.file("a.ldif"), right);
    const Finished second = one.load(with_journal);
    EXPECT_EQ(second.status, 0) << second.err;
    one.expect_everything_once();
}

TEST(Journal, keeps_the_file_of_rejects_in_step)
{
    const Case one(5);
    const std::string nobody =
        change("nobody", one.top(), "modify\nadd: description\ndescription: x\n-");
    write_file(one.file("a.ldif"), nobody + read_file(one.file("a.ldif")) + nobody);
    const Arguments arguments{"-c", "-S", "r", "--batch", "4", "--journal", "j", "a.ldif"};
    EXPECT_EQ(one.load(arguments).status, 4);
    const std::string rejects = read_file(one.file("r"));
    EXPECT_TRUE(rejects.starts_with("# rejected: ")) << rejects;
    EXPECT_TRUE(rejects.ends_with("\n" + nobody)) << rejects;

    // The process ended after the record had been rejected and before that was noted: it is sent
    // again, and stands in the file once.
    std::string journal = one.journal();
    journal.erase(journal.rfind("{\"done\""));
    write_file(one.file("j"), journal + "{\"done\":2,\"ha");
    EXPECT_EQ(one.load(arguments).status, 4);
    EXPECT_EQ(read_file(one.file("r")), rejects);
    // What has been rejected is not tried again.
    const Finished last = one.load(arguments);
    EXPECT_EQ(last.status, 0) << last.err;
    EXPECT_EQ(read_file(one.file("r")), rejects);

    // A file that somebody is correcting is not touched; another one may take its place.
    write_file(one.file("j"), journal);
    const std::string corrected = replaced(rejects, "nobody", "somebody");
    write_file(one.file("r"), corrected);
    const Finished refused = one.load(arguments);
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err,
              "greirige: -S \"r\": the file was changed since the load was interrupted "
              "(-S with another file goes on)\n");
    EXPECT_EQ(read_file(one.file("r")), corrected);
    EXPECT_EQ(one.load({"-c", "-S", "r2", "--batch", "4", "--journal", "j", "a.ldif"}).status, 4);
    EXPECT_TRUE(read_file(one.file("r2")).ends_with("\n" + nobody));
}

TEST(Journal, belongs_to_one_load)
{
    const Case one(3);
    EXPECT_EQ(one.load(with_journal).status, 0);
    write_file(one.file("b.ldif"), "");
    const auto error_of = [&](const Arguments &arguments) {
        const Finished finished = one.load(arguments);
        EXPECT_EQ(finished.status, 1);
        return finished.err;
    };
    EXPECT_EQ(
        error_of({"--journal", "j", "b.ldif"}),
        "greirige: --journal \"j\": it belongs to a load of [\"a.ldif\"], not [\"b.ldif\"] (for "
        "another load choose another journal)\n");
    EXPECT_EQ(
        error_of({"--journal", "j", "-j", "7", "a.ldif"}),
        "greirige: --journal \"j\": it belongs to a load from line 0, not 7 (for another load "
        "choose another journal)\n");
    for (const char *text : {"nothing of the kind\n", "{\"journal\":\"greirige load 1\"}\n",
                             "half a line", "{\"journal\":\"greirige load 99\"}\n"}) {
        write_file(one.file("x"), text);
        EXPECT_EQ(one.load({"--journal", "x", "a.ldif"}).status, 1) << text;
        EXPECT_EQ(read_file(one.file("x")), text);
    }
}

TEST(Journal, is_used_by_one_load_at_a_time)
{
    const Case one;
    const DelayingRelay relay(sandbox().port(), 10ms);
    Child first(one.command_line(with_journal, relay.url()), one.options());
    while (one.noted("{\"sent\"") == 0)
        std::this_thread::sleep_for(1ms);
    const Finished second = one.load(with_journal, relay.url());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "greirige: --journal \"j\": another load is using it\n");
    EXPECT_EQ(first.wait().status, 0);
}
