#!/bin/bash
# Every installed header compiles by itself, without a warning, and with nothing else than the other installed ones.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

headers=$(dirname "$(find_in "$PREFIX" gssipPort.h)")
read -ra time_flags <<<"$TIME_FLAGS"
count=0
for header in "$headers"/*; do
    printf '#include "%s"\n#include "%s"\n' "$(basename "$header")" "$(basename "$header")" |
        "$CXX" -std=c++17 "${time_flags[@]}" -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Werror \
            -I"$headers" -x c++ - || fail "$(basename "$header") does not compile alone"
    count=$((count + 1))
done
listed=$(sed 's|.*/||' "$BUILD/publicHeaders.txt" | sort)
diff <(basename -a "$headers"/* | sort) - <<<"$listed" || fail "other headers are installed than the build lists"
printf '%d headers compile alone\n' "$count"
