// What bash, zsh and fish offer while a command line of the tool is typed: the shells themselves
// are asked, with the scripts that the tool prints for them.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include "tool.h"

using namespace support;
using namespace tool_test;

namespace {

const std::string helpers = COMPLETION_HELPERS;

using Words = std::vector<std::string>;

Words sorted(Words words)
{
    std::sort(words.begin(), words.end());
    words.erase(std::unique(words.begin(), words.end()), words.end());
    return words;
}

class Completion : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        const Finished script = greirige({"completion", GetParam()});
        ASSERT_EQ(script.status, 0) << script.err;
        std::ofstream(scripts.path() + "/script") << script.out;
        for (const char *name : {"ada.backup", "people.ldif"})
            std::ofstream(here.path() + '/' + name) << "x";
    }

    // What the shell offers at the end of this line, in a directory with two files.
    Words offers(const std::string &line)
    {
        ProcessOptions options = isolated();
        options.directory = here.path();
        options.environment.insert({{"HOME", scripts.path()},
                                    {"XDG_CONFIG_HOME", scripts.path()},
                                    {"XDG_DATA_HOME", scripts.path()},
                                    {"TERM", "xterm"},
                                    {"LC_ALL", "C.UTF-8"}});
        Words command{GetParam()};
        if (GetParam() == "bash")
            command.emplace_back("--norc");
        else
            command.emplace_back(GetParam() == "zsh" ? "-f" : "--no-config");
        command.insert(command.end(), {helpers + "/offers." + GetParam(),
                                       scripts.path() + "/script", "greirige " + line});
        const Finished finished = run(command, options);
        EXPECT_EQ(finished.err, "") << line;
        std::istringstream lines(finished.out);
        Words words;
        for (std::string word; std::getline(lines, word);)
            if (!word.empty())
                words.push_back(word);
        return sorted(words);
    }

    TemporaryDirectory scripts;
    TemporaryDirectory here;
};

const Words all_commands{"backup",    "completion", "filter",  "load",    "name",
                         "partition", "refresh",    "replica", "restore", "rights",
                         "sync",      "trigger",    "watch",   "whoami"};
const Words replica_types{"master",      "read-only",    "secondary",
                          "sparse-read", "sparse-write", "subref"};

TEST_P(Completion, offers_the_commands)
{
    EXPECT_EQ(offers(""), all_commands);
    EXPECT_EQ(offers("re"), Words({"refresh", "replica", "restore"}));
    EXPECT_EQ(offers("frob"), Words());
}

TEST_P(Completion, offers_the_commands_of_a_group)
{
    EXPECT_EQ(offers("partition "),
              Words({"abort", "count", "merge", "remove-orphan", "split", "split-orphan"}));
    EXPECT_EQ(offers("partition s"), Words({"split", "split-orphan"}));
    EXPECT_EQ(offers("name from-"), Words({"from-dns", "from-native"}));
    EXPECT_EQ(offers("partition split "), Words()); // a DN is not known here
}

TEST_P(Completion, passes_over_options_and_their_values)
{
    EXPECT_EQ(offers("-x -D partition par"), Words({"partition"}));
    EXPECT_EQ(offers("-xD partition trig"), Words({"trigger"}));
    EXPECT_EQ(offers("-xDcn=a trig"), Words({"trigger"}));
    EXPECT_EQ(offers("--bind-dn=cn=a,o=x trig"), Words({"trigger"}));
    EXPECT_EQ(offers("--bind-dn partition --json trig"), Words({"trigger"}));
    EXPECT_EQ(offers("-H ldap://localhost:389 partition -x -D cn=a sp"),
              Words({"split", "split-orphan"}));
}

TEST_P(Completion, offers_the_options_of_the_tool_and_of_the_command)
{
    EXPECT_EQ(offers("--ver"), Words({"--verbose", "--version"}));
    EXPECT_EQ(offers("partition split --f"), Words({"--flags"}));
    EXPECT_EQ(offers("partition count --f"), Words());
    EXPECT_EQ(offers("partition split o=x --dry"), Words({"--dry-run"}));
    EXPECT_EQ(offers("backup --o"),
              Words({"--option", "--other-server", "--output", "--overwrite"}));
    EXPECT_EQ(offers("restore --o"), Words({"--option", "--other-server"}));
}

TEST_P(Completion, offers_the_words_that_an_argument_may_be)
{
    EXPECT_EQ(offers("trigger "), Words({"backlink", "janitor", "limber", "partition-purge",
                                         "schema-sync", "skulker"}));
    EXPECT_EQ(offers("trigger s"), Words({"schema-sync", "skulker"}));
    EXPECT_EQ(offers("replica add o=x cn=s "), replica_types);
    EXPECT_EQ(offers("replica retype -x o=x --flags 1 cn=s "), replica_types);
    EXPECT_EQ(offers("replica add o=x "), Words());
    EXPECT_EQ(offers("completion "), Words({"bash", "fish", "zsh"}));
}

TEST_P(Completion, offers_files_where_a_file_belongs)
{
    const Words files{"ada.backup", "people.ldif"};
    EXPECT_EQ(offers("restore "), files);
    EXPECT_EQ(offers("backup o=x --since a"), Words({"ada.backup"}));
    EXPECT_EQ(offers("load "), files);
    EXPECT_EQ(offers("load one.ldif two.ldif p"), Words({"people.ldif"}));
    EXPECT_EQ(offers("whoami -y "), files);
    EXPECT_EQ(offers("filter set cn=s -f "), files);
    Words of_option = offers("--password-file=p"); // fish gives the whole word
    ASSERT_EQ(of_option.size(), 1U);
    EXPECT_TRUE(of_option[0].ends_with("people.ldif")) << of_option[0];
    for (const std::string &word : offers("whoami ")) // zsh goes on with options
        EXPECT_TRUE(word.starts_with('-')) << word;
    EXPECT_EQ(offers("-D "), Words());
}

TEST_P(Completion, knows_that_an_option_has_another_meaning_behind_a_command)
{
    EXPECT_EQ(offers("-o "), Words()); // an option of ldap.conf
    EXPECT_EQ(offers("backup o=x -o a"), Words({"ada.backup"}));
    EXPECT_EQ(offers("restore -o a"), Words());
}

INSTANTIATE_TEST_SUITE_P(Of, Completion, testing::Values("bash", "zsh", "fish"),
                         [](const auto &shell) { return shell.param; });

TEST(CompletionCommand, names_the_shells_it_knows)
{
    const Finished finished = greirige({"completion", "tcsh"});
    EXPECT_EQ(finished.status, 2);
    EXPECT_EQ(finished.err, "greirige: completion: SHELL: \"tcsh\" is not one of bash, zsh, fish; "
                            "did you mean bash? (greirige completion --help)\n");
}

TEST(CompletionCommand, is_in_the_manual)
{
    std::ifstream file(MANUAL_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(page.find(".It Cm completion Ar SHELL"), std::string::npos);
}

} // namespace
