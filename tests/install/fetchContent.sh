#!/bin/bash
# A project that fetches the source with FetchContent, here from a local checkout, builds with the same target names.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

fresh_folder "$WORK"
git -C "$SOURCE" rev-parse --verify --quiet HEAD >/dev/null || {
    echo "SKIPPED: no git work tree with a commit, nothing to fetch"
    exit 77
}
git clone --quiet "$SOURCE" "$WORK/checkout"
cmake -S "$SOURCE/tests/install/consumer" -B "$WORK/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER="$CXX" -DGSSIP_REPOSITORY="file://$WORK/checkout"
cmake --build "$WORK/build"
expect_consumer "$WORK/build/consumer"
