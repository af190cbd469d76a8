#!/bin/bash
# Every file that the documents name is there: targets of links, and paths in `code`.
set -euo pipefail
cd "$1"

# "DOCUMENT:PATH" for each link that does not leave the tree. Links start at their document; anchors are cut off.
links()
{
    local document target
    while IFS=: read -r document target; do
        printf '%s:%s/%s\n' "$document" "$(dirname "$document")" "$target"
    done < <(grep -oHE '\]\([^)#]+' "$@" | grep -v '://' | sed 's/:](/:/')
}

# The same for each path into one of the tree's folders.
paths()
{
    # shellcheck disable=SC2016 # no expansion is meant
    grep -oHE '`(src|support|examples|tests|docs|scripts|cmake)/[A-Za-z0-9_./-]*`' "$@" | tr -d '`'
}

documents=(README.md CONTRIBUTING.md CHANGELOG.md docs/*.md examples/*.md)
count=0
missing=0
while IFS=: read -r document path; do
    count=$((count + 1))
    # `support/terminal` stands for the header and the source.
    if [[ ! -e $path && ! -e $path.h ]]; then
        printf '%s names %s, which is not there\n' "$document" "$path"
        missing=$((missing + 1))
    fi
done < <(links "${documents[@]}" && paths "${documents[@]}")

printf '%d names looked at\n' "$count"
[[ $count -gt 0 && $missing -eq 0 ]]
