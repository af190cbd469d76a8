#include "wholePort.h"

#include "awaitOnLine.h"
#include "frames.h"
#include "messages.h"
#include "processRights.h"

#include <fcntl.h>
#include <sched.h>

using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;

namespace
{

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;

std::string textOf(int policy, int priority)
{
    return std::to_string(policy) + "/" + std::to_string(priority);
}

std::string faultOfAcknowledgedExchange(portOnLine<>& rig)
{
    rig.port.setAcknowledgeTimeout_sec(20.0);
    rig.port.sendMessage(message(1, REQUEST, {1, 2, 3}), true);
    if (!kit::awaitOnLine(rig.line, frame(1, REQUEST, {1, 2, 3})) || !rig.waitForPending(1))
    {
        return "a tracked message is not sent or not registered";
    }
    rig.line.write(frame(1, ACK) + frame(2, REQUEST, {4, 5}));
    gssipMessage received;
    if (rig.port.getMessage(received, true) != 0 || received.getId() != 2)
    {
        return "a request is not received";
    }
    if (!kit::awaitOnLine(rig.line, frame(2, ACK)))
    {
        return "a request is not acknowledged";
    }
    return rig.waitForPending(0) ? "" : "an acknowledgement does not settle its message";
}

std::string faultOfResend(portOnLine<>& rig)
{
    rig.port.setAcknowledgeTimeout_sec(0.01);
    rig.port.signalPortReady();
    rig.port.sendMessage(message(3, REQUEST), true);
    if (!kit::awaitOnLine(rig.line, frame(3, REQUEST), 2))
    {
        return "a message without an acknowledgement is not resent";
    }
    return rig.waitForPending(0) ? "" : "a message that has been resent is not given up";
}

} // namespace

scheduling defaultScheduling()
{
    return {textOf(SCHED_OTHER, 0), textOf(SCHED_OTHER, 0)};
}

scheduling realTimeScheduling()
{
    return {textOf(SCHED_RR, 51), textOf(SCHED_RR, 50)};
}

std::size_t openDescriptors()
{
    constexpr int MOST = 1024;
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < MOST; ++descriptor)
    {
        count += ::fcntl(descriptor, F_GETFD) >= 0 ? 1U : 0U;
    }
    return count;
}

std::string faultOfStart(countedPort& counted, scheduling const& expected)
{
    if (!counted.rig.port.start())
    {
        return "the port does not start";
    }
    if (!counted.threads.waitForCount(4))
    {
        return "a started port has " + std::to_string(counted.threads.count()) + " threads";
    }
    std::string const transmit = kit::schedulingOf(counted.threads.idOf(counted.rig.port.txThread));
    std::string const events = kit::schedulingOf(counted.threads.idOf(counted.rig.tracker().eventThreadId));
    bool const asExpected = transmit == expected.transmit && events == expected.events;
    return asExpected ? "" : "the threads have policy and priority " + transmit + " and " + events;
}

std::string faultOfExchange(portOnLine<>& rig)
{
    std::string const fault = faultOfAcknowledgedExchange(rig);
    return fault.empty() ? faultOfResend(rig) : fault;
}

std::string faultOfStop(countedPort& counted)
{
    if (!counted.rig.port.stop())
    {
        return "the port does not stop";
    }
    return counted.threads.waitForCount(0) ? "" : "threads are left after the stop";
}

std::string faultOfWholePort(scheduling const& expected)
{
    std::size_t const descriptorsBefore = openDescriptors();
    {
        countedPort counted;
        for (int round = 0; round < 2; ++round)
        {
            std::string fault = faultOfStart(counted, expected);
            fault = fault.empty() ? faultOfExchange(counted.rig) : fault;
            fault = fault.empty() ? faultOfStop(counted) : fault;
            if (!fault.empty())
            {
                return fault;
            }
        }
    }
    return openDescriptors() == descriptorsBefore ? "" : "descriptors are left";
}
