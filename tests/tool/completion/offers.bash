#!/bin/bash
# What bash offers at the end of a command line, one word on a line.
#   offers.bash SCRIPT 'greirige partition s'
set -e
script=$1 line=$2
# shellcheck source=/dev/null
source /usr/share/bash-completion/bash_completion
# shellcheck source=/dev/null
source "$script"
compopt() { :; } # nothing is being completed here that it could change

# The words as readline parts them: = and : stand alone.
mapfile -t COMP_WORDS < <(grep -oE "[=:]|'[^']*'|[^=: ]+" <<<"$line")
[[ $line != *[\ =:] ]] || COMP_WORDS+=('')
[[ $line != *[=:] ]] || unset 'COMP_WORDS[-1]'
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
COMP_LINE=$line
COMP_POINT=${#line}
COMP_TYPE=9
COMP_KEY=9
complete -p greirige | grep -q -- '-F _greirige greirige'
set +e
_greirige greirige "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\n' "${COMPREPLY[@]}"
