#ifndef SCHEDULES_LEDGER_H
#define SCHEDULES_LEDGER_H

#include "exposedPort.h"
#include "scheduler.h"

#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace schedules
{

/// Keeps account of a port's transmit queue from the outside: it compares the queue with what it was whenever
/// `txMutex` is released. Every message needs an id of its own.
class ledger
{
  public:
    ledger(scheduler& schedule, kit::exposedPort& port);
    ~ledger();
    ledger(ledger const&) = delete;
    ledger& operator=(ledger const&) = delete;

    /// What the transmit thread has taken for good, in that order.
    std::vector<std::uint16_t> const& taken() const { return takenIds; }
    std::vector<std::uint16_t> const& queued() const { return now; }
    std::set<std::uint16_t> const& removed() const { return removedIds; }
    /// Every message that was ever in the queue, and whether it is resent when no acknowledgement comes.
    std::map<std::uint16_t, bool> const& entered() const { return isTracked; }

  private:
    void look(thread const& by);
    void lookAfterTransmitThread(std::vector<std::uint16_t> const& next);
    void lookAfterOthers(std::vector<std::uint16_t> const& next);
    void enter(std::size_t place);

    scheduler& schedule;
    kit::exposedPort& port;
    std::vector<std::uint16_t> now;
    std::vector<std::uint16_t> takenIds;
    std::set<std::uint16_t> removedIds;
    std::map<std::uint16_t, bool> isTracked;
};

} // namespace schedules

#endif
