# shellcheck shell=sh
# What the tests share; read by them, in the folder of the source.
#
# DEB_HOST_GNU_TYPE names the packages' architecture where it is not the machine's, and GSSIP_EMULATOR the program that
# then runs theirs.

work=${AUTOPKGTEST_TMP:-$(mktemp -d)}
# shellcheck disable=SC2034 # for those who read this file
compiler=${DEB_HOST_GNU_TYPE:+$DEB_HOST_GNU_TYPE-}g++
emulator=${GSSIP_EMULATOR-}

# The README's first block of a language.
readme_block()
{
    awk -v begin="\`\`\`$1" '$0 == begin { inside = 1; next } inside && $0 == "```" { exit } inside' README.md
}

# The README's project, in the folder given.
write_project()
{
    mkdir -p "$1"
    readme_block cpp >"$1/talk.cpp"
    readme_block cmake >"$1/CMakeLists.txt"
    [ -s "$1/talk.cpp" ] && [ -s "$1/CMakeLists.txt" ]
}

# A program that loads the installed libraries, and none of a build.
needs_the_packages()
{
    readelf --dynamic --wide "$1" >"$work/needed"
    grep 'NEEDED.*libgssipport.so.1' "$work/needed"
    if grep -E 'RPATH|RUNPATH' "$work/needed"; then
        echo "$1 has a search path of its own"
        return 1
    fi
}

# Has a talk with a program on a pseudo-terminal.
have_a_talk()
{
    # shellcheck disable=SC2086 # the emulator may have arguments, and may be missing
    python3 debian/tests/partner.py $emulator "$1"
}
