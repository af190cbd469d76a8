#include "gateWatch.h"

namespace schedules
{

gateWatch::gateWatch(scheduler& scheduleOf, kit::exposedPort& watchedPort) : schedule(scheduleOf), port(watchedPort)
{
    schedule.watchMutex(&port.readyMutex, [this](thread const& by) { look(by); });
}

gateWatch::~gateWatch()
{
    schedule.forgetMutex(&port.readyMutex);
}

/// Whenever `readyMutex` is released.
void gateWatch::look(thread const& by)
{
    if (scheduler::idOf(by) != port.txThread)
    {
        mayPass = mayPass || (port.portReady && isInside);
        return;
    }
    if (mayPass && by.goesToSleep)
    {
        schedule.fail("the gate was opened for the transmit thread, which waits on");
    }
    isInside = by.goesToSleep;
    mayPass = false;
}

} // namespace schedules
