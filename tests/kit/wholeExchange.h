#ifndef KIT_WHOLEEXCHANGE_H
#define KIT_WHOLEEXCHANGE_H

#include "awaitOnLine.h"
#include "frames.h"
#include "gssipMessage.h"
#include "messages.h"

#include <cstdint>
#include <string>

/// \file
/// What a started port does for an application, checked without a test framework, so that it can run anywhere. Each
/// check gives what is wrong, or nothing. A rig has a `line`, a `port`, and `waitForPending`; nothing may be pending.
/// Messages left over from before are passed over.

namespace kit
{

/// Takes messages until that one comes; false when another kind of result does.
template <typename Port>
bool takesMessage(Port& port, std::uint16_t id)
{
    gssipMessage received;
    int status = 0;
    do
    {
        status = port.getMessage(received, true);
    } while (status == 0 && received.getId() != id);
    return status == 0;
}

/// A tracked message each way, acknowledged.
template <typename Rig>
std::string faultOfAcknowledgedExchange(Rig& rig)
{
    constexpr std::uint16_t request = gssipMessage::ACK_REQ_FLAG;
    constexpr std::uint16_t ack = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
    rig.port.setAcknowledgeTimeout_sec(20.0);
    rig.port.signalPortReady();
    rig.port.sendMessage(message(1001, request, {1, 2, 3}), true);
    if (!awaitOnLine(rig.line, frame(1001, request, {1, 2, 3})) || !rig.waitForPending(1))
    {
        return "a tracked message is not sent or not registered";
    }
    rig.line.write(frame(1001, ack) + frame(1002, request, {4, 5}));
    if (!takesMessage(rig.port, 1002))
    {
        return "a request is not received";
    }
    if (!awaitOnLine(rig.line, frame(1002, ack)))
    {
        return "a request is not acknowledged";
    }
    return rig.waitForPending(0) ? "" : "an acknowledgement does not settle its message";
}

/// A tracked message that is not acknowledged is written twice, and given up.
template <typename Rig>
std::string faultOfResend(Rig& rig)
{
    constexpr std::uint16_t request = gssipMessage::ACK_REQ_FLAG;
    rig.port.setAcknowledgeTimeout_sec(0.01);
    rig.port.signalPortReady();
    rig.port.sendMessage(message(1003, request), true);
    if (!awaitOnLine(rig.line, frame(1003, request), 2))
    {
        return "a message without an acknowledgement is not resent";
    }
    return rig.waitForPending(0) ? "" : "a message that has been resent is not given up";
}

template <typename Rig>
std::string faultOfExchange(Rig& rig)
{
    std::string const fault = faultOfAcknowledgedExchange(rig);
    return fault.empty() ? faultOfResend(rig) : fault;
}

} // namespace kit

#endif
