#!/bin/bash
# Installs into the prefix that the other tests use.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

rm -rf "$PREFIX"
cmake --install "$BUILD" --prefix "$PREFIX"
[[ -d $PREFIX ]] || fail "nothing was installed"
