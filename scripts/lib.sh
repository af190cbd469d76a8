# shellcheck shell=bash
# What the scripts of this folder share; read by them, not run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Ends the script with a message. Status 1, or the one given first.
fail()
{
    local status=1
    if [[ $1 =~ ^[0-9]+$ ]]; then
        status=$1
        shift
    fi
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit "$status"
}

# A wrong command line.
usage_error()
{
    fail 2 "$* (see $(basename "$0") --help)"
}

title()
{
    printf '\n=== %s ===\n' "$*"
}

# The packages of the groups given, as packages.txt lists them.
packages_of()
{
    local group
    for group in "$@"; do
        awk -v group="$group" '$1 == group { print $2; found = 1 } END { exit !found }' "$root/scripts/packages.txt" ||
            fail "scripts/packages.txt has no group '$group'"
    done | sort -u
}

# Those of the packages given that are not installed.
missing_packages()
{
    local installed
    installed=$(dpkg-query --show --showformat '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null |
        awk '$2 == "installed" { print $1 }') || true
    comm -23 <(printf '%s\n' "$@" | sort -u) <(sort -u <<<"$installed")
}

# Runs a command as root: directly, or through sudo (which may ask for a password only where somebody can answer).
as_root()
{
    if [[ $EUID -eq 0 ]]; then
        "$@"
    elif [[ -t 0 ]]; then
        sudo "$@"
    else
        sudo --non-interactive "$@"
    fi
}

# Installs those packages of the groups given that are missing, and does nothing else when none is.
need()
{
    local wanted missing
    wanted=$(packages_of "$@") || exit
    if ! command -v dpkg-query >/dev/null; then
        printf 'No Debian system: assuming that these are there: %s\n' "${wanted//$'\n'/ }" >&2
        return
    fi
    # shellcheck disable=SC2086 # one argument for each package
    mapfile -t missing < <(missing_packages $wanted)
    if [[ ${#missing[@]} -eq 0 ]]; then
        return
    fi
    local install=(apt-get install --yes --no-install-recommends "${missing[@]}")
    if [[ $EUID -ne 0 ]] && ! command -v sudo >/dev/null; then
        fail "missing packages: ${missing[*]}; install them as root: ${install[*]}"
    fi
    printf 'Installing missing packages: %s\n' "${missing[*]}"
    if ! as_root apt-get update --quiet ||
        ! as_root env DEBIAN_FRONTEND=noninteractive "${install[@]}" --quiet </dev/null; then
        fail "could not install the missing packages: ${missing[*]}; install them as root: ${install[*]}"
    fi
}

# The C++ files of the tree, one a line, relative to its root.
cpp_files()
{
    (cd "$root" && find src support examples tests scripts \( -name '*.cpp' -o -name '*.h' \) -type f | sort)
}
