# shellcheck shell=bash
# What the steps of this folder share; read by them, run in a copy of the root that scripts/package makes.

fail()
{
    printf '%s\n' "$*"
    exit 1
}

# The packages of an architecture that users install.
packages_of()
{
    find "$1" -name '*.deb' ! -name '*-dbgsym_*' | sort
}

# install_packages FILE...: the root knows of no others, so that a dependency too many is found.
install_packages()
{
    apt-get install --quiet --quiet --yes --no-install-recommends "$@" >/tmp/install.log 2>&1 || {
        cat /tmp/install.log
        fail "cannot install $*"
    }
}

# What the tests of debian/tests have to know where an architecture is not the machine's.
set_up_for()
{
    if [[ $1 != "$(dpkg --print-architecture)" ]]; then
        DEB_HOST_GNU_TYPE=$(dpkg-architecture --host-arch "$1" --query DEB_HOST_GNU_TYPE 2>/dev/null)
        GSSIP_EMULATOR=qemu-arm
        export DEB_HOST_GNU_TYPE GSSIP_EMULATOR
    fi
}
