#include "wire.h"

#include <algorithm>
#include <ctime>
#include <unistd.h>

namespace cable
{
namespace
{

/// Characters are taken so long before the line is free for them, since this program cannot wake up for each one.
constexpr std::int64_t LEAD_NS = 4'000'000;
constexpr std::int64_t RETRY_NS = 1'000'000;

} // namespace

std::int64_t now_ns()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void wire::mend()
{
    held = false;
    lossShare = 0.0;
    flipShare = 0.0;
}

void wire::step(std::int64_t time_ns)
{
    deliver(time_ns);
    take(time_ns);
}

bool wire::hasRoom() const
{
    auto const room = static_cast<std::size_t>(std::max<std::int64_t>(2, LEAD_NS / characterTime_ns));
    return !held && onTheWay.size() < room;
}

void wire::deliver(std::int64_t time_ns)
{
    while (due_ns() <= time_ns)
    {
        character& next = onTheWay.front();
        if (!next.isLost && ::write(to, &next.value, 1) != 1)
        {
            next.arrival_ns = time_ns + RETRY_NS; // the machine has not read yet
            return;
        }
        ++carried;
        onTheWay.pop_front();
    }
}

void wire::take(std::int64_t time_ns)
{
    unsigned char value = 0;
    while (hasRoom() && ::read(from, &value, 1) == 1)
    {
        lineFree_ns = std::max(lineFree_ns, time_ns) + characterTime_ns;
        onTheWay.push_back(spoiltAsSet(value));
    }
}

bool wire::happens(double share)
{
    return share > 0.0 && std::uniform_real_distribution<double>()(dice) < share;
}

wire::character wire::spoiltAsSet(unsigned char value)
{
    bool const isLost = happens(lossShare);
    bool const isFlipped = happens(flipShare);
    if (isFlipped)
    {
        value = static_cast<unsigned char>(value ^ (1U << std::uniform_int_distribution<unsigned>(0, 7)(dice)));
    }
    spoilt += isLost || isFlipped ? 1 : 0;
    return {value, isLost, lineFree_ns};
}

} // namespace cable
