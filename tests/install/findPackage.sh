#!/bin/bash
# A project that finds the installed library by find_package(gssip) builds and runs.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

fresh_folder "$WORK"
consume_by_find_package "$PREFIX"
