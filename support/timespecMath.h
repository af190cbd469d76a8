#ifndef TIMESPECMATH_H
#define TIMESPECMATH_H

#include "monotonicTime.h"

#include <cstdint>
#include <ctime>
#include <limits>

namespace gssipInternal
{

inline timespec latestTimespec() noexcept
{
    timespec latest{};
    latest.tv_sec = std::numeric_limits<std::time_t>::max();
    latest.tv_nsec = NS_PER_SEC - 1;
    return latest;
}

inline timespec earliestTimespec() noexcept
{
    timespec earliest{};
    earliest.tv_sec = std::numeric_limits<std::time_t>::min();
    return earliest;
}

/// `time` plus whole seconds and 0 to 1'000'000'000 nanoseconds; what `timespec` cannot hold becomes its nearest.
inline timespec addSaturating(timespec time, std::int64_t seconds, std::int64_t ns) noexcept
{
    ns += time.tv_nsec;
    std::int64_t const carry = ns / NS_PER_SEC;
    std::int64_t total = 0;
    std::time_t held = 0;
    if (__builtin_add_overflow(static_cast<std::int64_t>(time.tv_sec), seconds, &total) ||
        __builtin_add_overflow(total, carry, &held))
    {
        return seconds < 0 ? earliestTimespec() : latestTimespec();
    }
    time.tv_sec = held;
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(ns % NS_PER_SEC);
    return time;
}

/// `time` moved by any number of nanoseconds.
inline timespec shifted(timespec const& time, std::int64_t by_ns) noexcept
{
    timespec const split = toTimespec(by_ns);
    return addSaturating(time, split.tv_sec, split.tv_nsec);
}

} // namespace gssipInternal

#endif
