#include "completion.h"

#include <algorithm>

namespace tool {

namespace {

using Kind = CompletionValue::Kind;

std::string joined(const std::vector<std::string> &words, const std::string &between)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

// With a backslash before each of these characters.
std::string escaped(const std::string &text, const std::string &characters)
{
    std::string result;
    for (const char c : text) {
        if (characters.find(c) != std::string::npos)
            result += '\\';
        result += c;
    }
    return result;
}

// One word of bash and zsh, and one of fish.
std::string quoted(const std::string &text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + '\'';
}
std::string fish_quoted(const std::string &text)
{
    return '\'' + escaped(text, "\\'") + '\'';
}

std::vector<const CompletionCommand *> commands_in(const CompletionTable &table,
                                                   const CompletionCommand &group)
{
    std::vector<const CompletionCommand *> commands;
    for (const CompletionCommand &command : table)
        if (!command.path.empty() && command.group() == group.path)
            commands.push_back(&command);
    return commands;
}

// The commands that give this name of one of the tool's options a meaning of their own.
std::vector<std::string> commands_with_their_own(const CompletionTable &table,
                                                 const std::string &name)
{
    std::vector<std::string> paths;
    for (const CompletionCommand &command : table)
        for (const CompletionOption &option : command.options)
            if (!command.path.empty() && std::count(option.names.begin(), option.names.end(), name))
                paths.push_back(command.path);
    return paths;
}

// ---- bash ---------------------------------------------------------------------------------------

// What follows is the same for every table: it finds out which command is meant and what the word
// at the cursor is, among words that may be options, their values, commands and arguments.
constexpr const char *bash_engine = R"(_greirige()
{
    local cur prev words cword
    _init_completion -n =: || return
    local path= commands= options= value= pending= repeats= position=0 word i j
    local -a arguments=()
    local -A values=()
    _greirige_at ''
    for ((i = 1; i < cword; i++)); do
        word=${words[i]}
        if [[ $pending ]]; then
            pending=
        elif [[ $word == --* ]]; then
            [[ $word == *=* ]] || pending=${values[$word]}
        elif [[ $word == -?* ]]; then
            # A cluster of letters: the first that takes a value takes the rest, or the next word.
            for ((j = 1; j < ${#word}; j++)); do
                value=${values[-${word:j:1}]}
                [[ $value ]] || continue
                ((j + 1 < ${#word})) || pending=$value
                break
            done
        elif [[ " $commands " == *" $word "* ]]; then
            path=${path:+$path }$word commands= arguments=()
            _greirige_at "$path"
        else
            ((++position))
        fi
    done
    if [[ ! $pending && $cur == --*=* ]]; then
        pending=${values[${cur%%=*}]} cur=${cur#*=}
    elif [[ ! $pending && $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    elif [[ ! $pending && $commands ]]; then
        pending="words $commands"
    elif [[ ! $pending ]]; then
        ((repeats && position >= ${#arguments[@]})) && position=$((${#arguments[@]} - 1))
        pending=${arguments[position]}
    fi
    case $pending in
    file) _filedir ;;
    words\ *) mapfile -t COMPREPLY < <(compgen -W "${pending#words }" -- "$cur") ;;
    esac
}
complete -F _greirige greirige
)";

std::string bash_value(const CompletionValue &value)
{
    switch (value.kind) {
    case Kind::none:
        return "''";
    case Kind::text:
        return "text";
    case Kind::file:
        return "file";
    case Kind::words:
        return quoted("words " + joined(value.words, " "));
    }
    return {};
}

std::string bash_script(const CompletionTable &table)
{
    std::string script = "# Completes greirige(1) in bash, with bash-completion.\n\n"
                         "_greirige_at()\n{\n    case $1 in\n";
    for (const CompletionCommand &command : table) {
        std::vector<std::string> commands;
        for (const CompletionCommand *each : commands_in(table, command))
            commands.push_back(each->name());
        std::vector<std::string> names;
        std::string values;
        for (const CompletionOption &option : command.options)
            for (const std::string &name : option.names) {
                names.push_back(name);
                if (option.value.kind != Kind::none)
                    values += "        values[" + name + "]=" + bash_value(option.value) + '\n';
            }
        std::string arguments;
        for (const CompletionValue &argument : command.arguments)
            arguments += (arguments.empty() ? "" : " ") + bash_value(argument);
        script += "    " + quoted(command.path) + ")\n";
        if (!commands.empty())
            script += "        commands=" + quoted(joined(commands, " ")) + '\n';
        if (!names.empty())
            script += "        options+=" + quoted(' ' + joined(names, " ")) + '\n';
        if (!arguments.empty())
            script += "        arguments=(" + arguments + ")\n";
        if (command.repeats)
            script += "        repeats=1\n";
        script += values + "        ;;\n";
    }
    return script + "    esac\n}\n" + bash_engine;
}

// ---- zsh ----------------------------------------------------------------------------------------

constexpr const char *zsh_engine = R"(    if (( $#commands )); then
        _arguments -C -s -A '-*' $all $options '1: :->command' '*:: :->rest' && return
        case $state in
        (command) _describe command commands ;;
        (rest) _greirige_at "${1:+$1 }$words[1]" ;;
        esac
    else
        _arguments -s $all $options $arguments
    fi
}

_greirige_at ''
)";

std::string zsh_value(const CompletionValue &value)
{
    const std::string message = ':' + escaped(value.name, ":\\") + ':';
    switch (value.kind) {
    case Kind::none:
        return {};
    case Kind::text:
        return message + ' ';
    case Kind::file:
        return message + "_files";
    case Kind::words:
        return message + '(' + joined(value.words, " ") + ')';
    }
    return {};
}

// One specification for each name, each of which excludes the others.
std::string zsh_option(const CompletionOption &option)
{
    std::string specifications;
    for (const std::string &name : option.names) {
        const bool takes = option.value.kind != Kind::none;
        std::string one = option.repeats ? "*" : '(' + joined(option.names, " ") + ')';
        one += name;
        one += !takes ? "" : name.starts_with("--") ? "=" : "+";
        one += '[' + escaped(option.description, "[]\\") + ']';
        one += zsh_value(option.value);
        specifications += ' ' + quoted(one);
    }
    return specifications;
}

std::string zsh_script(const CompletionTable &table)
{
    std::string script = "#compdef greirige\n# Completes greirige(1) in zsh.\n\n_greirige_at()\n{\n"
                         "    local state line\n    local -a all options commands arguments\n"
                         "    all=(";
    for (const CompletionOption &option : table.front().options)
        script += "\n       " + zsh_option(option);
    script += ")\n    case $1 in\n";
    for (const CompletionCommand &command : table) {
        script += "    (" + quoted(command.path) + ")\n";
        std::string commands;
        for (const CompletionCommand *each : commands_in(table, command))
            commands += "\n            " + quoted(each->name() + ':' + each->description);
        if (!commands.empty())
            script += "        commands=(" + commands + ")\n";
        std::string options;
        if (!command.path.empty())
            for (const CompletionOption &option : command.options) {
                options += "\n           " + zsh_option(option);
                // The tool's own option of that name is out of reach here.
                for (const std::string &name : option.names)
                    script += "        all=(\"${(@)all:#*[)*]" + name + "[[+=]*}\")\n";
            }
        if (!options.empty())
            script += "        options=(" + options + ")\n";
        std::string arguments;
        for (std::size_t at = 0; at < command.arguments.size(); ++at) {
            const bool many = command.repeats && at + 1 == command.arguments.size();
            arguments += ' ' + quoted((many ? "*" : std::to_string(at + 1)) +
                                      zsh_value(command.arguments[at]));
        }
        if (!arguments.empty())
            script += "        arguments=(" + arguments.substr(1) + ")\n";
        script += "        ;;\n";
    }
    return script + "    esac\n" + zsh_engine;
}

// ---- fish ---------------------------------------------------------------------------------------

constexpr const char *fish_engine = R"(
# The words before the cursor that are neither options nor their values.
function __greirige_words
    set -l pending
    for word in (commandline -opc)[2..]
        if test -n "$pending"
            set pending
        else if string match -q -- '--*' $word
            contains -- $word $__greirige_valued; and set pending yes
        else if string match -q -- '-?*' $word
            # A cluster: the first letter that takes a value takes the rest, or the next word.
            set -l letters (string split '' -- (string sub -s 2 -- $word))
            while set -q letters[1]
                if contains -- -$letters[1] $__greirige_valued
                    set -q letters[2]; or set pending yes
                    break
                end
                set -e letters[1]
            end
        else
            echo -- $word
        end
    end
end

# These words begin with those of a command, and as many more follow, at least; -1: any number.
function __greirige_at -a path least most
    set -l words (__greirige_words)
    set -l of_path (string split -n ' ' -- $path)
    set -l length (count $of_path)
    set -l more (math (count $words) - $length)
    test $more -ge $least; and test $most -lt 0 -o $more -le $most; or return 1
    test $length -eq 0; or test "$words[1..$length]" = $path
end

complete -c greirige -f
)";

std::string fish_condition(const std::string &path, std::size_t least, int most)
{
    return " -n " + fish_quoted("__greirige_at '" + path + "' " + std::to_string(least) + ' ' +
                                std::to_string(most));
}

std::string fish_value(const CompletionValue &value)
{
    switch (value.kind) {
    case Kind::none:
        return {};
    case Kind::text:
        return " -x";
    case Kind::file:
        return " -r -F";
    case Kind::words:
        return " -x -a " + fish_quoted(joined(value.words, " "));
    }
    return {};
}

std::string fish_options(const CompletionTable &table, const CompletionCommand &command)
{
    std::string lines;
    for (const CompletionOption &option : command.options)
        for (const std::string &name : option.names) {
            std::string elsewhere;
            if (command.path.empty())
                for (const std::string &path : commands_with_their_own(table, name))
                    elsewhere +=
                        (elsewhere.empty() ? "not __greirige_at '" : "; and not __greirige_at '") +
                        path + "' 0 -1";
            const std::string condition = !command.path.empty()
                                              ? fish_condition(command.path, 0, -1)
                                          : elsewhere.empty() ? ""
                                                              : " -n " + fish_quoted(elsewhere);
            const bool is_long = name.starts_with("--");
            lines += "complete -c greirige" + condition + (is_long ? " -l " : " -s ") +
                     name.substr(is_long ? 2 : 1) + fish_value(option.value) + " -d " +
                     fish_quoted(option.description) + '\n';
        }
    return lines;
}

std::string fish_script(const CompletionTable &table)
{
    std::string script = "# Completes greirige(1) in fish.\n\nset -g __greirige_valued";
    for (const CompletionCommand &command : table)
        for (const CompletionOption &option : command.options)
            if (option.value.kind != Kind::none)
                script += ' ' + joined(option.names, " ");
    script += '\n';
    script += fish_engine;
    for (const CompletionCommand &command : table) {
        for (const CompletionCommand *each : commands_in(table, command))
            script += "complete -c greirige" + fish_condition(command.path, 0, 0) + " -a " +
                      each->name() + " -d " + fish_quoted(each->description) + '\n';
        script += fish_options(table, command);
        for (std::size_t at = 0; at < command.arguments.size(); ++at) {
            const CompletionValue &argument = command.arguments[at];
            const bool many = command.repeats && at + 1 == command.arguments.size();
            const std::string condition =
                fish_condition(command.path, at, many ? -1 : static_cast<int>(at));
            if (argument.kind == Kind::file)
                script += "complete -c greirige" + condition + " -F\n";
            if (argument.kind == Kind::words)
                script += "complete -c greirige" + condition + " -a " +
                          fish_quoted(joined(argument.words, " ")) + '\n';
        }
    }
    return script;
}

} // namespace

std::string CompletionCommand::name() const
{
    return path.substr(path.rfind(' ') + 1);
}

std::string CompletionCommand::group() const
{
    const std::size_t blank = path.rfind(' ');
    return blank == std::string::npos ? "" : path.substr(0, blank);
}

const std::vector<std::string> &shells_with_completion()
{
    static const std::vector<std::string> shells{"bash", "zsh", "fish"};
    return shells;
}

std::string completion_script(const std::string &shell, const CompletionTable &table)
{
    return shell == "bash"  ? bash_script(table)
           : shell == "zsh" ? zsh_script(table)
                            : fish_script(table);
}

} // namespace tool
