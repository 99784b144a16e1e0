# The binary interface of the shared library is that of the kept reference: the functions and the
# records that their parameters name, as the debug information tells them. (Event records pass as
# untyped pointers: unit/event_records_test compares their layouts.)
#   sh abi.sh libgreirige.so reference.xml          compares
#   sh abi.sh libgreirige.so reference.xml --renew  writes the reference anew, for a release
set -eu
library=$1 reference=$2

# Nothing of where it was built stands in the reference.
describe() {
    "$ABIDW" --no-corpus-path --no-comp-dir-path --no-show-locs "$library"
}

if [ "${3:-}" = --renew ]; then
    describe >"$reference"
    exit
fi

# The reference itself is whole: it describes as many functions as the library exports.
exported=$("$NM" -D --defined-only "$library" | awk '$2 == "T"' | wc -l)
described=$(grep -c "<elf-symbol .*type='func-type'" "$reference")
if [ "$exported" -ne "$described" ]; then
    echo "the library exports $exported functions, the reference describes $described"
    exit 1
fi

# A field that only changed its name counts too: the library would fill it with another's value.
if ! "$ABIDIFF" --harmless --no-show-locs "$reference" "$library"; then
    echo "The binary interface has changed. Programs that were built with the old one may break;"
    echo "if that is meant, change the version and renew the reference (--renew)."
    exit 1
fi
echo "$exported functions and what they take: as in the reference"
