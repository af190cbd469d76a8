#ifndef KIT_PORTONLINE_H
#define KIT_PORTONLINE_H

#include "exposedPort.h"
#include "pseudoTerminal.h"
#include "recordingLog.h"
#include "sentry.h"
#include "settableTime.h"
#include "waitUntil.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kit
{

/// A port on a line of its own, with all that it needs, not started.
///
/// Its number has two digits at least, so that a text that leaves it out, or shows a wrong one, is noticed.
template <typename Port = exposedPort, typename Clock = settableTime>
struct portOnLine
{
    std::uint32_t numbersSkipped = skipSmallNumbers();
    pseudoTerminal line;
    Clock clock;
    recordingLog log;
    Port port{line.name(), clock, &log, false};

    std::string id() const { return std::to_string(port.portId); }

    exposedReceive& receiver() { return static_cast<exposedReceive&>(*port.receiver); }
    exposedSendAckReq& tracker() { return exposedSendAckReq::of(port.sendAckReq); }

    bool gateIsOpen()
    {
        sentry const lock(port.readyMutex);
        return port.portReady;
    }

    /// Copies of the tracker's pending events, the front first.
    std::vector<gssipSendAckReqEvent> events()
    {
        sentry const lock(tracker().eventQMutex);
        return {tracker().eventQ.begin(), tracker().eventQ.end()};
    }

    bool waitForPending(std::size_t count)
    {
        return waitUntil([&] { return events().size() == count; });
    }

    bool waitForReceived(unsigned count)
    {
        return waitUntil([&] { return port.getNumberRxQueuedMessages() == count; });
    }

  private:
    static std::uint32_t skipSmallNumbers()
    {
        if (exposedPort::nextPortId < 40)
        {
            exposedPort::nextPortId = 40;
        }
        return exposedPort::nextPortId;
    }
};

} // namespace kit

#endif
