#!/bin/bash
# Where time may have 32 bits, a program that has not asked for 64 is told by the headers what to do.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

if [[ -z $TIME_FLAGS ]]; then
    echo "SKIPPED: time has 64 bits on this processor, whatever a program asks for"
    exit 77
fi
headers=$(dirname "$(find_in "$PREFIX" gssipPort.h)")

# compile HEADER FLAG...: what the compiler says.
compile()
{
    local header=$1
    shift
    printf '#include "%s"\n' "$header" | "$CXX" -std=c++17 -fsyntax-only -I"$headers" "$@" -x c++ - 2>&1
}

read -ra time_flags <<<"$TIME_FLAGS"
for header in gssipPort.h gssipPortInterface.h gssipReceive.h gssipSendAckReq.h gssipSendAckReqEvent.h gssipMessage.h \
    serialPort.h timeFunctions.h threadFunctions.h; do
    if said=$(compile "$header"); then
        fail "$header compiles with 32 bits for time"
    fi
    grep -q 'error: static assertion failed: GSSIP needs 64-bit time: compile with -D_TIME_BITS=64' <<<"$said" ||
        fail "$header does not tell what to do: $said"
    compile "$header" "${time_flags[@]}" || fail "$header does not compile with ${time_flags[*]}"
done
