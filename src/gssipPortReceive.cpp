// The receive side of gssipPort: taking messages, acknowledging them, and what they do to the gate.

#include "gssipPortState.h"
#include "gssipReceive.h"

#include <string>

namespace
{

constexpr std::int32_t LEVEL_MESSAGE_FAULT = 2;
constexpr int INVALID_MESSAGE = 1;
constexpr std::uint64_t BEFORE_ANY = 0;

} // namespace

int gssipPort::getMessage(gssipMessage& message, bool waitOnInvalid)
{
    std::shared_ptr<gssipReceive> const source = currentReceiver();
    bool handled = source != nullptr;
    int status = 0;
    message.clear();
    while (status == 0)
    {
        if (!handled)
        {
            return deliver(message);
        }
        std::uint64_t arrival = 0;
        status = source->take(message, arrival);
        if (status != 0)
        {
            return status;
        }
        if (source.get() != own->newest)
        {
            arrival = BEFORE_ANY; // left over from before a stop: the numbers have begun anew
        }
        if (acknowledgeAndTrack(message, arrival, status, handled))
        {
            handled = openGateFor(message, handled);
            continue;
        }
        reportInvalid();
        if (!waitOnInvalid)
        {
            signalPortReady();
            return INVALID_MESSAGE;
        }
    }
    return status;
}

/// The message is the application's; one that requests acknowledgement holds back the transmit thread until it is
/// answered.
int gssipPort::deliver(gssipMessage const& message)
{
    if (message.isAckReqFlagSet())
    {
        resetPortReady();
    }
    return 0;
}

/// Answers a received message and shows it to the tracker; false when it is invalid, which is found out after the
/// answer.
bool gssipPort::acknowledgeAndTrack(gssipMessage const& message, std::uint64_t arrival, int& status, bool& handled)
{
    if (getReceiveAutoAcknowledgeEnable())
    {
        status = static_cast<int>(sendAcknowledgement(message));
    }
    if (!message.isValid())
    {
        return false;
    }
    if (status == 0)
    {
        status = sendAckReq.processReceiveAckNak(message, handled, arrival);
    }
    return true;
}

/// What the port keeps for itself opens the gate: replies that the tracker took, and handshakes. True when it is kept.
bool gssipPort::openGateFor(gssipMessage const& message, bool handled)
{
    bool const kept = handled || message.isHandshakeFlagSet();
    if (kept)
    {
        signalPortReady();
    }
    return kept;
}

void gssipPort::reportInvalid()
{
    log->log(timeStamp.getTime_sec(), LEVEL_MESSAGE_FAULT, "Port(" + std::to_string(portId) + ") Invalid Message");
}
