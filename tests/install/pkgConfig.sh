#!/bin/bash
# A program that finds the installed library by pkg-config builds and runs.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

fresh_folder "$WORK"
consume_by_pkg_config "$PREFIX"
