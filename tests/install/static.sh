# The archive becomes part of a C program with the C compiler alone: no C++ runtime.
#   sh static.sh libgreirige.a
set -eu
archive=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$NM" --defined-only "$archive" | awk 'NF == 3 { print $3 }' | sort -u >"$scratch/defined"
"$NM" -u "$archive" | awk 'NF == 2 { print $2 }' | sort -u >"$scratch/wanted"
if comm -13 "$scratch/defined" "$scratch/wanted" | grep -E '^(_Z|__cxa|__gxx|_Unwind)'; then
    echo "the archive asks for the above, which is the C++ runtime's"
    exit 1
fi
# shellcheck disable=SC2086
"$CC" $CFLAGS -std=c11 -Wall -Werror -I "$INCLUDE" "$HERE/consumer/consumer.c" "$archive" \
    -lldap -llber -o "$scratch/consumer"
"$scratch/consumer"
if "$READELF" -d "$scratch/consumer" | grep -E 'NEEDED.*(libgreirige|libstdc\+\+|libgcc_s)'; then
    echo "the program needs the above at run time"
    exit 1
fi
