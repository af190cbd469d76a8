# shellcheck shell=bash
# What the tests of the installed library share; read by them, not run. CTest sets
#   SOURCE   the source tree           BUILD    its build folder
#   WORK     a folder of the test's    PREFIX   where the library is installed
#   CXX      the compiler              VERSION  the version that all must agree on
# and for another processor
#   EMULATOR    what runs its programs
#   TIME_FLAGS  what makes time 64 bits wide there
set -euo pipefail
: "${SOURCE:?}" "${BUILD:?}" "${WORK:?}" "${PREFIX:?}" "${CXX:?}" "${VERSION:?}"
EMULATOR=${EMULATOR-}
TIME_FLAGS=${TIME_FLAGS-}

fail()
{
    printf '%s\n' "$*" >&2
    exit 1
}

fresh_folder()
{
    rm -rf "$1"
    mkdir -p "$1"
}

# The one file or folder of that name under a prefix, wherever the system wants its libraries to be.
find_in()
{
    find "$1" -name "$2" -print -quit | grep . || fail "no $2 under $1"
}

library_dir()
{
    dirname "$(find_in "$1" libgssipport.so)"
}

# Runs a program of the libraries' processor.
run()
{
    # shellcheck disable=SC2086 # a command with arguments, or nothing
    $EMULATOR "$@"
}

# Runs a consumer and looks at what it says.
expect_consumer()
{
    local output expected
    output=$(run "$1") || fail "$1 failed, saying: $output"
    printf '%s\n' "$output"
    expected="$VERSION"$'\n'"/nonexistent/device 9600 8N1"
    [[ $output == "$expected"* ]] || fail "expected the version and the configuration of a new port"
}

consume_by_find_package()
{
    cmake -S "$SOURCE/tests/install/consumer" -B "$WORK/find-package" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$1" -DGSSIP_VERSION="${VERSION%%.*}"
    cmake --build "$WORK/find-package"
    grep -q "^gssip_DIR:PATH=$1/" "$WORK/find-package/CMakeCache.txt" || fail "found in some other place than $1"
    expect_consumer "$WORK/find-package/consumer"
    run "$WORK/find-package/supportOnly"
}

consume_by_pkg_config()
{
    local libraries flags
    libraries=$(library_dir "$1")
    export PKG_CONFIG_PATH=$libraries/pkgconfig
    [[ $(pkg-config --modversion gssipport) == "$VERSION" ]] || fail "pkg-config tells another version"
    [[ $(pkg-config --modversion gssipsupport) == "$VERSION" ]] || fail "pkg-config tells another version"
    flags=$(pkg-config --cflags --libs gssipport)
    [[ $flags == *"$TIME_FLAGS"* ]] || fail "pkg-config does not pass on $TIME_FLAGS: $flags"
    [[ $flags != *"$PREFIX"* || $1 == "$PREFIX" ]] || fail "flags of another place: $flags"
    mkdir -p "$WORK/pkg-config"
    # shellcheck disable=SC2086 # a list of arguments
    "$CXX" -std=c++17 "$SOURCE/tests/install/consumer/main.cpp" -o "$WORK/pkg-config/consumer" $flags \
        "-Wl,-rpath,$libraries"
    expect_consumer "$WORK/pkg-config/consumer"
}
