#!/bin/bash
# A project that holds the source tree builds with add_subdirectory and the same target names, and runs.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

fresh_folder "$WORK"
cmake -S "$SOURCE/tests/install/consumer" -B "$WORK/build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER="$CXX" -DGSSIP_SOURCE="$SOURCE"
cmake --build "$WORK/build"
expect_consumer "$WORK/build/consumer"
