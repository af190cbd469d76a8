#!/bin/bash
# Two builds of the same source in folders of different names and depths give the same bytes.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

# build_copy FOLDER TYPE: installs into FOLDER/prefix.
build_copy()
{
    mkdir -p "$1/source"
    cp -r "$SOURCE"/{CMakeLists.txt,cmake,src,support} "$1/source"
    cmake -S "$1/source" -B "$1/build" -G Ninja -DCMAKE_BUILD_TYPE="$2" -DCMAKE_CXX_COMPILER="$CXX" \
        -DGSSIP_BUILD_TESTS=OFF -DGSSIP_BUILD_EXAMPLES=OFF >/dev/null
    cmake --build "$1/build"
    cmake --install "$1/build" --prefix "$1/prefix" >/dev/null
}

export SOURCE_DATE_EPOCH=1700000000
type=RelWithDebInfo # the one that tells most about itself
fresh_folder "$WORK"
build_copy "$WORK/one" "$type"
build_copy "$WORK/another/one/further/down" "$type"
diff -r --no-dereference "$WORK/one/prefix" "$WORK/another/one/further/down/prefix" || fail "the builds differ"
[[ -e $(find_in "$WORK/one/prefix" libgssipport.so) ]]
! grep -rl "$WORK" "$WORK/one/prefix" || fail "these files know where they were built"
