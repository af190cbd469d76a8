#include "wholePort.h"

#include "processRights.h"
#include "wholeExchange.h"

#include <fcntl.h>
#include <sched.h>

namespace
{

std::string textOf(int policy, int priority)
{
    return std::to_string(policy) + "/" + std::to_string(priority);
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
            fault = fault.empty() ? kit::faultOfExchange(counted.rig) : fault;
            fault = fault.empty() ? faultOfStop(counted) : fault;
            if (!fault.empty())
            {
                return fault;
            }
        }
    }
    return openDescriptors() == descriptorsBefore ? "" : "descriptors are left";
}
