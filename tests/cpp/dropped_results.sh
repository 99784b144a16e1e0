# A program that drops results does not compile where warnings are errors: each of them is named.
#   sh dropped_results.sh PROGRAM compiler argument...
set -eu
program=$1
shift
dropped=$(grep -c '#ifdef DROPPED' "$program")
if said=$("$@" -DDROPPED -fsyntax-only "$program" 2>&1); then
    echo "it compiles"
    exit 1
fi
named=$(printf '%s\n' "$said" | grep -c 'error: .*the operation may have failed' || true)
others=$(printf '%s\n' "$said" | grep 'error: ' | grep -vc 'the operation may have failed' || true)
if [ "$dropped" -eq 0 ] || [ "$named" -ne "$dropped" ] || [ "$others" -ne 0 ]; then
    printf '%s\n' "$said" "of $dropped dropped results $named are named"
    exit 1
fi
