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

# What the loader finds for a library; that of another processor is asked by the emulator.
libraries_of()
{
    local loader
    if [[ -z $EMULATOR ]]; then
        ldd "$1"
        return
    fi
    loader=$(readelf --program-headers "$WORK/find-package/consumer" | sed -nE 's|.*interpreter: .*/([^]]*)\]|\1|p')
    run "$("$CXX" -print-file-name="$loader")" --list "$1"
}

# The one library finds the other beside itself.
libraries=$(library_dir "$WORK/second")
libraries_of "$libraries/libgssipport.so" | grep -F "libgssipsupport.so.${VERSION%%.*} => $libraries/" ||
    fail "libgssipport does not find libgssipsupport beside itself"
