# An installed copy serves programs: built with pkg-config, with find_package in C and in C++,
# shared, static and through the C++ layer, and the examples, from a directory that was moved after
# the installation.
#   sh package.sh cmake BUILD-DIRECTORY VERSION
set -eu
cmake=$1 build=$2 version=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build" --prefix "$scratch/first" >"$scratch/log" || {
    cat "$scratch/log"
    exit 1
}
mv "$scratch/first" "$scratch/prefix"
prefix=$scratch/prefix
pc=$(find "$prefix" -name greirige.pc)
libraries=$(dirname "$(dirname "$pc")")
for file in "$prefix/include/ldapx.h" "$prefix/include/ldap_events.h" \
    "$prefix/include/greirige.hpp" \
    "$libraries/libgreirige.so" "$libraries/libgreirige.so.1" "$libraries/libgreirige.a" \
    "$libraries/pkgconfig/greirige.pc" "$libraries/cmake/greirige/greirigeConfig.cmake"; do
    [ -e "$file" ] || {
        echo "not installed: $file"
        exit 1
    }
done

if [ -e "$prefix/bin/greirige" ]; then
    for file in bash-completion/completions/greirige zsh/site-functions/_greirige \
        fish/vendor_completions.d/greirige.fish; do
        grep -q 'split-orphan' "$prefix/share/$file" || {
            echo "not installed, or empty: $file"
            exit 1
        }
    done
fi

# built WHAT PROGRAM: runs it and compares the version that it prints.
built() {
    said=$(LD_LIBRARY_PATH=$libraries "$2")
    [ "$said" = "greirige $version" ] || {
        echo "$1: says '$said'"
        exit 1
    }
}

export PKG_CONFIG_PATH="$libraries/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
[ "$(pkg-config --modversion greirige)" = "$version" ]
# shellcheck disable=SC2046,SC2086
"$CC" $CFLAGS -std=c11 -Wall -Wextra -Werror "$HERE/consumer/consumer.c" \
    $(pkg-config --cflags --libs greirige) -o "$scratch/consumer"
built pkg-config "$scratch/consumer"
"$READELF" -d "$scratch/consumer" | grep -q 'NEEDED.*libgreirige\.so\.1'

if ! { "$cmake" -S "$HERE/consumer" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DVERSION="$version" && "$cmake" --build "$scratch/build"; } >"$scratch/log" 2>&1; then
    cat "$scratch/log"
    exit 1
fi
for program in consumer_c consumer_cxx consumer_static consumer_layer; do
    built "$program" "$scratch/build/$program"
done

# The examples are a project of their own, for a copy of the library that is installed.
if ! { "$cmake" -S "$HERE/../../docs/examples" -B "$scratch/examples" \
    -DCMAKE_PREFIX_PATH="$prefix" &&
    "$cmake" --build "$scratch/examples" --target list_replicas list_replicas_c; } \
    >"$scratch/log" 2>&1; then
    cat "$scratch/log"
    exit 1
fi
if "$READELF" -d "$scratch/build/consumer_static" | grep 'NEEDED.*libgreirige'; then
    echo "consumer_static needs the shared library"
    exit 1
fi
