# Each public header compiles alone, with no macro set: the C ones as C11 and as C++17, the C++
# ones as C++20, and all of them together in either order.
#   sh headers.sh gcc g++
set -eu
cc=$1 cxx=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failed=0

# try COMPILER STANDARD SOURCE HEADER...
try() {
    compiler=$1 standard=$2 source=$3
    shift 3
    for header; do
        echo "#include <$header>"
    done >"$source"
    # A declaration of its own: an empty translation unit is not standard C.
    echo 'extern int nothing;' >>"$source"
    if ! "$compiler" "-std=$standard" -pedantic -Wall -Wextra -Werror -fsyntax-only \
        -I "$INCLUDE" "$source"; then
        echo "$*: does not compile with $compiler as $standard"
        failed=1
    fi
}

cxx_headers=$(cd "$INCLUDE" && find . -name '*.hpp' | sed 's,^\./,,' | sort)
cd "$INCLUDE"
set -- *.h
cd "$scratch"
for header; do
    try "$cc" c11 alone.c "$header"
    try "$cxx" c++17 alone.cpp "$header"
done
# Together, in both orders, each twice.
for order in sort 'sort -r'; do
    # shellcheck disable=SC2046
    set -- $(printf '%s\n' "$@" | $order)
    try "$cc" c11 all.c "$@" "$@"
    try "$cxx" c++17 all.cpp "$@" "$@"
done
for header in $cxx_headers; do
    try "$cxx" c++20 alone.cpp "$header"
done
# shellcheck disable=SC2086
try "$cxx" c++20 all.cpp $cxx_headers "$@" $cxx_headers
exit $failed
