#!/bin/bash
# The libraries export the documented classes and functions and nothing of their internal parts.
# shellcheck source-path=SCRIPTDIR source=common.sh
. "$(dirname "$0")/common.sh"

classes='gssipPortInterface|gssipPort|gssipReceive|gssipSendAckReqEvent|gssipSendAckReq|ThreadSafeQueue<gssipMessage>'
classes+='|gssipMessage|serialPort|asciiLogInterface|timeStampInterface|streamLog|monotonicTimeStamp|pthreadFlag|sentry'
functions='gssipVersion|lockMutex|unlockMutex|setPthreadAttributes|doubleToTimespec|eventLess'
about='(vtable for |typeinfo for |typeinfo name for |VTT for |(non-)?virtual thunk to )?'
# A member of the class itself; a class inside it has one more "::" before the arguments.
member='::(~?[A-Za-z_0-9]+|operator=|operator\(\))(\[abi:[a-z0-9]+\])?([(<].*)?( const)?$'

# The names that a library exports, but for that of their version.
own_names()
{
    nm --dynamic --defined-only --without-symbol-versions "$(find_in "$PREFIX" "$1")" | grep -v ' A GSSIP_1$' |
        cut -d ' ' -f 3 | c++filt
}

for library in libgssipport.so libgssipsupport.so; do
    names=$(own_names "$library") || fail "$library exports nothing"
    if unexpected=$(grep -vE "^$about($classes)$member|^(vtable|typeinfo|typeinfo name) for ($classes)$|^($functions)\(" \
        <<<"$names"); then
        fail "$library exports what it should not:"$'\n'"$unexpected"
    fi
done

expect_exported()
{
    own_names "$1" | grep -xF "$2" || fail "$1 does not export $2"
}

expect_exported libgssipport.so 'gssipPort::start()'
expect_exported libgssipport.so 'vtable for gssipPort'
expect_exported libgssipport.so 'typeinfo for gssipPortInterface'
expect_exported libgssipport.so 'gssipPort::nextPortId'
expect_exported libgssipport.so 'gssipReceive::processSOM_STATE()'
expect_exported libgssipport.so 'gssipSendAckReq::processRetransmit(double const&, int const&)'
expect_exported libgssipsupport.so 'gssipMessage::isValid() const'
expect_exported libgssipsupport.so 'serialPort::open()'
expect_exported libgssipsupport.so 'gssipVersion()'

# What no derived class can call may change without a new version.
for name in gssipPort::stopEverything gssipReceive::findStart gssipSendAckReq::sortQueue gssipMessage::makeHeader; do
    if own_names libgssipport.so | grep -F "$name(" || own_names libgssipsupport.so | grep -F "$name("; then
        fail "$name is private and exported"
    fi
done
