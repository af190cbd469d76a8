#ifndef MONOTONICTIME_H
#define MONOTONICTIME_H

#include <cstdint>
#include <ctime>
#include <limits>

/// \file
/// Times as a count of nanoseconds, and their way into the `timespec` of the system calls.

namespace gssipInternal
{

constexpr std::int64_t NS_PER_MS = 1'000'000;
constexpr std::int64_t NS_PER_SEC = 1'000'000'000;

/// No deadline.
constexpr std::int64_t NEVER_NS = std::numeric_limits<std::int64_t>::max();

inline std::int64_t clockNow_ns(clockid_t clock) noexcept
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * NS_PER_SEC + now.tv_nsec;
}

inline std::int64_t monotonicNow_ns() noexcept
{
    return clockNow_ns(CLOCK_MONOTONIC);
}

/// Normalised also for negative numbers.
inline timespec toTimespec(std::int64_t ns) noexcept
{
    std::int64_t seconds = ns / NS_PER_SEC;
    std::int64_t rest = ns % NS_PER_SEC;
    if (rest < 0)
    {
        rest += NS_PER_SEC;
        --seconds;
    }
    timespec result{};
    result.tv_sec = static_cast<std::time_t>(seconds);
    result.tv_nsec = static_cast<decltype(result.tv_nsec)>(rest);
    return result;
}

} // namespace gssipInternal

#endif
