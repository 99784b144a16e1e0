# The manual pages are well formed and refer to one another, what they show of the records stands so in the header, and the
# code in their examples compiles.
#   sh pages.sh mandoc
set -eu
mandoc=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failed=0

"$mandoc" -T lint -W warning "$MANUAL"/*.[0-9] || failed=1

sed -n 's/^\.[A-Z].*Xr \(greirige[a-z_-]*\) \([1-9]\).*/\1.\2/p' "$MANUAL"/* | sort -u |
    while read -r page; do
        [ -e "$MANUAL/$page" ] || echo "$page: pages refer to it, and there is none"
    done >astray
if [ -s astray ]; then
    cat astray
    failed=1
fi

for page in "$MANUAL"/*.3 "$MANUAL"/*.7; do
    name=$(basename "$page")
    awk -v examples=1 -f "$HERE/manual.awk" "$page" >code
    if [ ! -s code ]; then
        [ "$name" = greirige_event_record.3 ] && continue
        echo "$name: has no example"
        failed=1
        continue
    fi
    {
        for header in stdio.h stdlib.h string.h ldap_events.h; do
            echo "#include <$header>"
        done
        echo "#line 1 \"$name, EXAMPLES\""
        cat code
    } >example.c
    "$CC" -std=c11 -pedantic -Wall -Wextra -Werror -I "$INCLUDE" -fsyntax-only example.c || failed=1
done

# The records, in both from the first to the last one.
records() {
    awk '/^typedef struct EVT_EventSpecifier/ { on = 1 }
        on && !/^\./
        /^} EVT_UnknownEventData;/ { exit }'
}
sed 's/\\e/\\/g' "$MANUAL/greirige_event_record.3" | awk '/^\.Bd/ { on = 1; next } /^\.Ed/ { on = 0 }
    on' | records | grep -v '^$' >'records of the page'
records <"$INCLUDE/ldap_events.h" |
    awk '/^\/\* ----/ { on = 1 } !on; /\*\// { on = 0 }' | grep -v '^$' >'records of the header'
[ -s 'records of the page' ]
diff 'records of the page' 'records of the header' || failed=1
exit $failed
