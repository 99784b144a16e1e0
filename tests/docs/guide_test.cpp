// docs/guide.md shows the programs as they are: its excerpts stand in the files, and its sessions
// run as they are shown.

#include <gtest/gtest.h>

#include "sandbox.h"

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

std::string contents(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// A block of the guide: what stands after the three backticks, the comment right before it, and
// its lines, each with its end.
struct Block {
    std::string language;
    std::string source; // of "<!-- examples/connect.hpp -->": connect.hpp
    std::vector<std::string> lines;

    std::string text() const
    {
        std::string all;
        for (const std::string &line : lines)
            all += line;
        return all;
    }
};

std::vector<Block> blocks()
{
    const std::string comment = "<!-- examples/";
    std::vector<Block> found;
    std::istringstream guide(contents(DOCS "/guide.md"));
    std::string before;
    bool inside = false;
    for (std::string line; std::getline(guide, line); before = line) {
        if (line.rfind("```", 0) == 0) {
            inside = !inside;
            if (!inside)
                continue;
            found.push_back({line.substr(3), {}, {}});
            if (before.rfind(comment, 0) == 0)
                found.back().source =
                    before.substr(comment.size(), before.size() - comment.size() - 4);
        } else if (inside) {
            found.back().lines.push_back(line + "\n");
        }
    }
    return found;
}

TEST(Guide, shows_whole_lines_of_the_programs)
{
    for (const Block &block : blocks()) {
        const bool is_code =
            block.language == "cpp" || block.language == "c" || block.language == "ldif";
        EXPECT_EQ(is_code, !block.source.empty()) << block.text();
        if (!is_code)
            continue;
        const std::string source = "\n" + contents(DOCS "/examples/" + block.source);
        EXPECT_NE(source.find("\n" + block.text()), source.npos)
            << block.source << " has other lines than\n"
            << block.text();
    }
}

TEST(Guide, shows_something_of_every_file)
{
    std::set<std::string> shown{"CMakeLists.txt"};
    for (const Block &block : blocks())
        shown.insert(block.source);
    for (const auto &file : std::filesystem::directory_iterator(DOCS "/examples"))
        EXPECT_TRUE(shown.count(file.path().filename().string())) << file.path();
}

// Whether a line of output is as shown, where "..." stands for anything.
bool is_as_shown(const std::string &line, const std::string &shown)
{
    std::size_t at = 0;
    std::size_t from = 0;
    for (std::size_t gap = shown.find("..."); gap != shown.npos; gap = shown.find("...", from)) {
        const std::string part = shown.substr(from, gap - from);
        at = from == 0 ? (line.rfind(part, 0) == 0 ? 0 : line.npos) : line.find(part, at);
        if (at == line.npos)
            return false;
        at += part.size();
        from = gap + 3;
    }
    const std::string end = shown.substr(from);
    return from == 0 ? line == shown
                     : line.size() >= at + end.size() &&
                           line.compare(line.size() - end.size(), end.size(), end) == 0;
}

TEST(Guide, shows_sessions_that_run_as_shown)
{
    sandbox_test::Sandbox sandbox({"--entries", "100"});
    const support::TemporaryDirectory directory;
    for (const auto &file : std::filesystem::directory_iterator(DOCS "/examples"))
        std::filesystem::copy(file, directory.path());
    support::ProcessOptions options{
        .environment = {{"PATH", EXAMPLES + std::string(":") + std::getenv("PATH")},
                        {"LDAPURI", sandbox.url()},
                        {"LDAPBINDDN", sandbox_test::admin_dn},
                        {"BIND_PASSWORD", "secret"}},
        .unset = {"LDAPNOINIT", "START_TLS"},
        .directory = directory.path()};

    int commands = 0;
    for (const Block &block : blocks()) {
        if (block.language != "console")
            continue;
        for (auto line = block.lines.begin(); line != block.lines.end();) {
            const std::string prompt = *line++;
            ASSERT_EQ(prompt.rfind("$ ", 0), 0u) << prompt;
            const std::string command = prompt.substr(2, prompt.size() - 3);
            if (const std::string word = "export "; command.rfind(word, 0) == 0) {
                const std::size_t sign = command.find('=');
                options.environment[command.substr(word.size(), sign - word.size())] =
                    command.substr(sign + 1);
                continue;
            }
            ++commands;
            const support::Finished ran = support::run({"sh", "-c", command + " 2>&1"}, options);
            std::istringstream output(ran.out);
            for (; line != block.lines.end() && line->rfind("$ ", 0) != 0; ++line) {
                std::string said;
                EXPECT_TRUE(std::getline(output, said)) << command << "\nshould say " << *line;
                EXPECT_TRUE(is_as_shown(said + "\n", *line))
                    << command << "\nsays      " << said << "\nand shown " << *line;
            }
            std::string more;
            EXPECT_FALSE(std::getline(output, more)) << command << "\nsays also " << more;
        }
    }
    EXPECT_GE(commands, 10);
}

} // namespace
