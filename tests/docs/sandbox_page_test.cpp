// The sandbox's manual page has the options that the program has, and tells their defaults.

#include <gtest/gtest.h>

#include "support/process.h"

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace {

// By name, what the page says of each option, up to the next.
std::map<std::string, std::string> options_of_the_page()
{
    std::map<std::string, std::string> options;
    std::ifstream page(DOCS "/man/greirige-sandbox.1");
    std::string name;
    for (std::string line; std::getline(page, line);) {
        std::smatch found;
        if (std::regex_search(line, found, std::regex("^\\.It Fl (h , )?-([a-z-]+)")))
            name = found[2];
        else if (line.rfind(".El", 0) == 0)
            name.clear();
        if (!name.empty())
            options[name] += line + "\n";
    }
    return options;
}

// By name, the value that the program's help shows as the default; empty where it shows none.
std::map<std::string, std::string> options_of_the_program()
{
    std::map<std::string, std::string> options;
    std::istringstream help(support::run({SANDBOX_PROGRAM, "--help"}).out);
    for (std::string line; std::getline(help, line);) {
        std::smatch found;
        if (std::regex_search(
                line, found,
                std::regex("^  (-h,)?--([a-z-]+)( (?:[^ =]+ )*[^ =]+=\\[?([^ \\]]+))?")))
            options[found[2]] = found[4];
    }
    return options;
}

TEST(SandboxPage, has_every_option_of_the_program_and_no_other)
{
    const auto program = options_of_the_program();
    const auto page = options_of_the_page();
    EXPECT_GE(program.size(), 20u);
    for (const auto &[name, value] : program)
        EXPECT_TRUE(page.count(name)) << name;
    for (const auto &[name, text] : page)
        EXPECT_TRUE(program.count(name)) << name;
}

TEST(SandboxPage, tells_the_defaults_of_the_program)
{
    const auto page = options_of_the_page();
    int defaults = 0;
    for (const auto &[name, value] : options_of_the_program()) {
        if (value.empty() || page.count(name) == 0)
            continue;
        ++defaults;
        EXPECT_NE(page.at(name).find(value), std::string::npos) << name << " " << value;
    }
    EXPECT_GE(defaults, 8);
}

} // namespace
