# The tool's manual page has every command that the tool's help lists, at any depth, and every exit
# status that the help tells.
#   sh tool_page.sh greirige
set -eu
tool=$1
page=$MANUAL/greirige.1
failed=0

# commands WORD...: what the help of these words lists, each with them before it; the words
# themselves where it lists nothing.
commands() {
    listed=$("$tool" "$@" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p')
    if [ -z "$listed" ]; then
        echo "$*"
        return
    fi
    for word in $listed; do
        commands "$@" "$word"
    done
}

all=$(commands)
[ "$(echo "$all" | wc -l)" -ge 25 ]
echo "$all" | while read -r command; do
    grep -q "^\.It Cm $command\( \|\$\)" "$page" || echo "$page does not have the command $command"
done | grep . && failed=1
statuses=$("$tool" --help | awk '/^Exit status:/ { on = 1 } on && /\./ { print; exit } on')
for status in 0 1 2 3 4; do
    echo "$statuses" | grep -q "\b$status\b" && awk -v status="$status" '
        /^\.Sh/ { here = /EXIT STATUS/ } here && $0 == ".It " status { found = 1 }
        END { exit !found }' "$page" || {
        echo "help and page do not both have exit status $status"
        failed=1
    }
done
exit $failed
