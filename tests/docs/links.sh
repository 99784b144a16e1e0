# Every link between the documents leads to a file, and the README leads to every document.
#   sh links.sh SOURCE-DIRECTORY
set -eu
cd "$1"
failed=0
for document in *.md docs/*.md; do
    awk '/^```/ { code = !code } !code' "$document" | grep -o '\](\([^)#:]*\)[^):]*)' | sed 's/^](//; s/[)#].*//' | sort -u |
        while read -r target; do
            [ -z "$target" ] || [ -e "$(dirname "$document")/$target" ] ||
                echo "$document leads to $target, which is not there"
        done
done | grep . && failed=1
for document in *.md docs/*.md docs/man/*.[17]; do
    [ "$document" = README.md ] || grep -qF "]($document)" README.md || {
        echo "README.md does not lead to $document"
        failed=1
    }
done
exit $failed
