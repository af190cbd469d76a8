#include "ledger.h"

#include <algorithm>
#include <string>
#include <tuple>

namespace schedules
{

ledger::ledger(scheduler& scheduleOf, kit::exposedPort& watchedPort) : schedule(scheduleOf), port(watchedPort)
{
    schedule.watchMutex(&port.txMutex, [this](thread const& by) { look(by); });
}

ledger::~ledger()
{
    schedule.forgetMutex(&port.txMutex);
}

void ledger::look(thread const& by)
{
    std::vector<std::uint16_t> next;
    for (auto const& entry : port.txQueue)
    {
        next.push_back(std::get<0>(entry).getId());
    }
    if (next == now)
    {
        return;
    }
    if (scheduler::idOf(by) == port.txThread)
    {
        lookAfterTransmitThread(next);
    }
    else
    {
        lookAfterOthers(next);
    }
    now = next;
}

/// It takes the front, or puts back what it has taken last.
void ledger::lookAfterTransmitThread(std::vector<std::uint16_t> const& next)
{
    if (next.size() < now.size() && std::equal(next.begin(), next.end(), now.begin() + 1, now.end()))
    {
        takenIds.push_back(now.front());
        return;
    }
    bool const isPutBack = next.size() == now.size() + 1 && std::equal(now.begin(), now.end(), next.begin() + 1) &&
                           !takenIds.empty() && takenIds.back() == next.front();
    if (!isPutBack)
    {
        schedule.fail("the transmit thread has changed the queue in a way of its own");
    }
    takenIds.pop_back();
}

/// Somebody appends messages, or removes some; the rest keeps its order.
void ledger::lookAfterOthers(std::vector<std::uint16_t> const& next)
{
    if (next.size() > now.size() && std::equal(now.begin(), now.end(), next.begin()))
    {
        for (std::size_t place = now.size(); place < next.size(); ++place)
        {
            enter(place);
        }
        return;
    }
    auto kept = next.begin();
    for (std::uint16_t const id : now)
    {
        if (kept != next.end() && *kept == id)
        {
            ++kept;
        }
        else
        {
            removedIds.insert(id);
        }
    }
    if (kept != next.end())
    {
        schedule.fail("the order of the queue has changed");
    }
}

void ledger::enter(std::size_t place)
{
    auto const& [message, trackAck] = port.txQueue[place];
    if (!isTracked.emplace(message.getId(), trackAck && message.isAckReqFlagSet()).second)
    {
        schedule.fail("message " + std::to_string(message.getId()) + " is in the queue a second time");
    }
}

} // namespace schedules
