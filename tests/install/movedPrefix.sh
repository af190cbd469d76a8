#!/bin/bash
# An installed prefix that was moved as a whole serves as before, by find_package and by pkg-config.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

fresh_folder "$WORK"
cmake --install "$BUILD" --prefix "$WORK/first"
mv "$WORK/first" "$WORK/second"
if grep -rIl "$WORK/first" "$WORK/second"; then
    fail "these files know where they were installed at first"
fi
consume_by_find_package "$WORK/second"
consume_by_pkg_config "$WORK/second"

# The one library finds the other beside itself.
libraries=$(library_dir "$WORK/second")
ldd "$libraries/libgssipport.so" | grep -F "libgssipsupport.so.${VERSION%%.*} => $libraries/" ||
    fail "libgssipport does not find libgssipsupport beside itself"
