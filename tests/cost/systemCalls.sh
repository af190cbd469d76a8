#!/bin/bash
# How many system calls a message costs, one message at a time, against a ceiling: systemCalls.sh PROGRAM MODE CEILING.
# What starting and stopping costs is taken out by counting two runs of different length; a call or two of it differ
# from run to run.
set -euo pipefail

program=$1
mode=$2
ceiling=$3
few=100
many=500
measurements=8
records=$(mktemp -d)
trap 'rm -rf "$records"' EXIT

# calls_of COUNT: those of a whole run; the sleeps between messages are the program's own.
calls_of()
{
    "$program" "$mode" "$1" strace -f -c -o "$records/$1" >/dev/null
    awk '$NF != "clock_nanosleep" && $4 ~ /^[0-9]+$/ { sum += $4 } $NF == "total" { sum -= $4 } END { print sum }' "$records/$1"
}

if ! strace -o /dev/null true 2>/dev/null; then
    echo "SKIPPED: this system does not let a process be traced"
    exit 77
fi
# Whatever else the machine does adds calls, of threads that meet where they otherwise would not, and takes none away: so
# the least of some measurements counts, and one at or below the ceiling is enough.
measure()
{
    local before after
    before=$(calls_of "$few")
    after=$(calls_of "$many")
    awk -v mode="$mode" -v calls=$((after - before)) -v messages=$((many - few)) -v ceiling="$ceiling" 'BEGIN {
        each = calls / messages
        printf "%s: %.2f system calls a message, %s at most\n", mode, each, ceiling
        exit each > ceiling * 1.02 }'
}

for ((times = 0; times < measurements; ++times)); do
    ! measure || exit 0
done
join <(awk '$4 ~ /^[0-9]+$/ { print $NF, $4 }' "$records/$few" | sort) \
    <(awk '$4 ~ /^[0-9]+$/ { print $NF, $4 }' "$records/$many" | sort) | awk '{ print "  " $1, $3 - $2 }'
exit 1
