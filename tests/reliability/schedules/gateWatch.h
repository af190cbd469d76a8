#ifndef SCHEDULES_GATEWATCH_H
#define SCHEDULES_GATEWATCH_H

#include "exposedPort.h"
#include "scheduler.h"

namespace schedules
{

/// Sees to it that the transmit thread passes the gate when it waits there while the gate is opened, however soon the
/// gate is shut again.
class gateWatch
{
  public:
    gateWatch(scheduler& schedule, kit::exposedPort& port);
    ~gateWatch();
    gateWatch(gateWatch const&) = delete;
    gateWatch& operator=(gateWatch const&) = delete;

  private:
    void look(thread const& by);

    scheduler& schedule;
    kit::exposedPort& port;
    bool isInside = false; ///< the transmit thread has gone to sleep in the gate, and has not left it
    bool mayPass = false;
};

} // namespace schedules

#endif
