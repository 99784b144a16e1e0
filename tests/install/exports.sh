# The shared library exports the names kept in exports.txt and no others, all under its one version
# node; the link map lists the same; each is declared in a public header. Its SONAME stands, and it
# needs the LDAP libraries and the C library alone.
#   sh exports.sh libgreirige.so greirige.map
set -eu
library=$1 map=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failed=0

# same FILE FILE WHAT: reports names that only one of two sorted lists has.
same() {
    if ! diff "$1" "$2" >difference; then
        echo "$3: (< $1, > $2)"
        grep '^[<>]' difference
        failed=1
    fi
}

sed -n 's/^\([A-Za-z_][A-Za-z0-9_]*\)$/\1/p' "$HERE/exports.txt" | sort >kept
uniq -d kept | sed 's/$/: twice in exports.txt/' | tee twice
[ ! -s twice ] || failed=1

"$NM" -D --defined-only "$library" | awk '$2 != "A" { print $3 }' >symbols
sed 's/@@.*//' symbols | sort >exported
same kept exported "exports.txt and the shared library differ"
if grep -v '@@GREIRIGE_1$' symbols; then
    echo "not under the version node GREIRIGE_1: the lines above"
    failed=1
fi

sed -n '/global:/,/local:/s/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$map" | sort >mapped
same kept mapped "exports.txt and the link map differ"

# Taking the address of a name that no header declares does not compile.
{
    for header in "$INCLUDE"/*.h; do
        echo "#include <$(basename "$header")>"
    done
    echo 'typedef void (*function)(void);'
    echo 'const function functions[] = {'
    sed 's/.*/    (function)&,/' kept
    echo '};'
} >declared.c
if ! "$CC" -std=c11 -fsyntax-only -I "$INCLUDE" declared.c 2>errors; then
    grep 'undeclared' errors || cat errors
    failed=1
fi

"$READELF" -d "$library" >dynamic
if ! grep -q 'SONAME.*\[libgreirige\.so\.1\]' dynamic; then
    echo "the SONAME is not libgreirige.so.1:"
    grep SONAME dynamic || echo "there is none"
    failed=1
fi
if sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' dynamic |
    grep -Ev '^(libldap|liblber|libldap-[0-9.]+|liblber-[0-9.]+|libc|ld-linux[a-z0-9-]*)\.so\.[0-9]+$'; then
    echo "the shared library needs the above, which is neither LDAP nor the C library"
    failed=1
fi
exit $failed
