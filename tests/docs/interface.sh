# What the shared library exports, the link map lists, the public headers declare and the manual
# pages describe is the same set of functions, in headers and pages with the same prototypes; and
# each has a page under its own name when it is installed. Headers and pages describe every parameter.
#   sh interface.sh libgreirige.so greirige.map cmake BUILD-DIRECTORY
set -eu
library=$1 map=$2 cmake=$3 build=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failed=0

# same FILE FILE: reports lines that only one of two sorted lists has.
same() {
    if ! diff "$1" "$2" >difference; then
        echo "the $1 (<) and the $2 (>) differ:"
        grep '^[<>]' difference
        failed=1
    fi
}
names_of() {
    sed 's/(.*//; s/.*[ *]//' "$1" | sort
}

for header in ldapx.h ldap_events.h; do
    echo "#include <$header>" >source.c
    "$CC" -std=c11 -E -I "$INCLUDE" source.c | awk -v header=$header -f "$HERE/declarations.awk"
done | sort >headers
awk -f "$HERE/manual.awk" "$MANUAL"/*.3 | sort >pages
same headers pages

"$NM" -D --defined-only "$library" | awk '$2 == "T" { sub(/@.*/, "", $3); print $3 }' |
    sort >library
sed -n '/global:/,/local:/s/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$map" | sort >'link map'
names_of headers >'names in headers'
names_of pages >'names in pages'
[ -s library ]
same library 'link map'
same library 'names in headers'
same library 'names in pages'

# The NAME section is what the page is found by.
for page in "$MANUAL"/*.3; do
    awk -f "$HERE/manual.awk" "$page" >promised
    [ -s promised ] || continue
    names_of promised >'functions of its synopsis'
    awk -v names=1 -f "$HERE/manual.awk" "$page" | sort >'names of its NAME section'
    same 'functions of its synopsis' 'names of its NAME section'
done

"$cmake" --install "$build" --prefix "$scratch/prefix" --component manual >log || {
    cat log
    exit 1
}
man3=$(find prefix -type d -name man3)
while read -r name; do
    page=$(sed -n 's,^\.so man3/,,p' "$man3/$name.3" 2>/dev/null || true)
    if [ -z "$page" ] || ! grep -q "^\.F[no] $name\( \|\$\)" "$man3/$page"; then
        echo "$name: its installed page does not lead to one that describes it"
        failed=1
    fi
done <library

# Headers and pages say what each parameter is.
for header in ldapx.h ldap_events.h; do
    awk -f "$HERE/parameters.awk" "$INCLUDE/$header"
done >undescribed
for page in "$MANUAL"/*.3; do
    awk -v parameters=1 -f "$HERE/manual.awk" "$page"
done >>undescribed
if [ -s undescribed ]; then
    cat undescribed
    failed=1
fi

# A code, a type, a constant or a function that a page speaks of is one that a header has.
printf '#include <%s>\n' stdlib.h ldap_events.h >source.c
{
    "$CC" -std=c11 -E -I "$INCLUDE" source.c
    "$CC" -std=c11 -E -dM -I "$INCLUDE" source.c
} | tr -cs 'A-Za-z0-9_' '\n' | sort -u >words
{
    grep -hoE '\b(LDAPX|LDAP|LBER|EVT|DB)_[A-Za-z0-9_]+\b' "$MANUAL"/*
    sed -n 's/^.*F[no] \([A-Za-z0-9_]*\).*/\1/p' "$MANUAL"/*.[37]
} | sort -u >spoken
if comm -13 words spoken | grep .; then
    echo "no header has the above, which pages speak of"
    failed=1
fi
exit $failed
