// What a shell can offer while somebody types a command line of the tool, and the scripts that
// make bash, zsh and fish offer it. The table is taken from the options that the tool parses.
#pragma once

#include <string>
#include <vector>

namespace tool {

// What stands for a value: any text, the name of a file, or one of some words.
struct CompletionValue {
    enum class Kind { none, text, file, words };
    Kind kind = Kind::none;
    std::string name; // "FILE", for people
    std::vector<std::string> words{};
};

struct CompletionOption {
    std::vector<std::string> names; // "-H", "--uri"
    std::string description;
    CompletionValue value;
    bool repeats = false;
};

struct CompletionCommand {
    std::string path; // "partition split"; empty: the tool itself, whose options all commands take
    std::string description;
    std::vector<CompletionOption> options;
    std::vector<CompletionValue> arguments;
    bool repeats = false; // the last argument

    // "split"; and "partition", in which it stands.
    std::string name() const;
    std::string group() const;
};

// Every command behind the one in which it stands, the tool itself first.
using CompletionTable = std::vector<CompletionCommand>;

const std::vector<std::string> &shells_with_completion();
std::string completion_script(const std::string &shell, const CompletionTable &table);

} // namespace tool
