#!/bin/bash
# The libraries have the names of their major version and need the standard library and the C library alone.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

dynamic_entry()
{
    readelf --dynamic --wide "$1" | sed -nE "s/.*\($2\).*\[(.*)\]\$/\1/p"
}

# The C library and the compiler's own; before glibc 2.34 threads and clocks stood in files of their own.
system='libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux[-_a-z0-9]*\.so\.[0-9]|libpthread\.so\.0|librt\.so\.1'

expect_library()
{
    local name=$1 also=$2 file needed unexpected
    file=$(find_in "$PREFIX" "$name.so")
    [[ $(dynamic_entry "$file" SONAME) == "$name.so.${VERSION%%.*}" ]] ||
        fail "$name has the SONAME $(dynamic_entry "$file" SONAME)"
    [[ $(basename "$(realpath "$file")") == "$name.so.$VERSION" ]] || fail "$file leads to $(realpath "$file")"
    needed=$(dynamic_entry "$file" NEEDED)
    grep -qx 'libc\.so\.6' <<<"$needed" || fail "cannot read what $name needs"
    if unexpected=$(grep -vxE "$system|$also" <<<"$needed"); then
        fail "$name needs $unexpected"
    fi
    [[ -z $also ]] || grep -qx "$also" <<<"$needed" || fail "$name does not need $also"
    printf '%s needs: %s\n' "$name" "${needed//$'\n'/ }"
}

expect_library libgssipsupport ''
expect_library libgssipport "libgssipsupport.so.${VERSION%%.*}"

runpath=$(dynamic_entry "$(find_in "$PREFIX" libgssipport.so)" RUNPATH)
# shellcheck disable=SC2016 # the loader's word, not the shell's
[[ $runpath == '$ORIGIN' ]] || fail "libgssipport searches in '$runpath'"
[[ -z $(dynamic_entry "$(find_in "$PREFIX" libgssipsupport.so)" RUNPATH) ]] || fail "libgssipsupport has a search path"
