#ifndef STEADYWAIT_H
#define STEADYWAIT_H

#include "monotonicTime.h"
#include "timespecMath.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

/// \file
/// Deadlines are times of the wall clock, but waits must not change their length when that clock is stepped. So each
/// wait runs on the monotonic clock for the time that remains, and deadlines that are kept move along with a step.

namespace gssipInternal
{

/// How far the wall clock is ahead of the monotonic clock. Never too much, so that no wait ends early.
inline std::int64_t wallOffset_ns() noexcept
{
    constexpr std::int64_t CLOSE_ENOUGH_NS = 200'000;
    constexpr int MOST_TRIES = 16; // a thread that is put aside between its readings tries again
    std::int64_t offset_ns = 0;
    std::int64_t between_ns = CLOSE_ENOUGH_NS + 1;
    for (int i = 0; i < MOST_TRIES && between_ns > CLOSE_ENOUGH_NS; ++i)
    {
        std::int64_t const before_ns = monotonicNow_ns();
        std::int64_t const wall_ns = clockNow_ns(CLOCK_REALTIME);
        std::int64_t const after_ns = monotonicNow_ns();
        between_ns = after_ns - before_ns;
        offset_ns = wall_ns - after_ns;
    }
    return offset_ns;
}

/// The same in two readings, which may be any time apart: too little by that.
inline std::int64_t roughWallOffset_ns() noexcept
{
    std::int64_t const wall_ns = clockNow_ns(CLOCK_REALTIME);
    return wall_ns - monotonicNow_ns();
}

/// What lies between two offsets when the wall clock was stepped, 0 when they differ only by the error of reading.
inline std::int64_t stepBetween_ns(std::int64_t before_ns, std::int64_t after_ns) noexcept
{
    std::int64_t const difference_ns = after_ns - before_ns;
    return std::llabs(difference_ns) < NS_PER_MS ? 0 : difference_ns;
}

/// Waits on a condition until a time of the wall clock, which was `offset_ns` ahead when the deadline was made.
/// Results are those of pthread_cond_timedwait.
inline int waitUntilWall(pthread_cond_t& condition, pthread_mutex_t& mutex, timespec const& deadline,
                         std::int64_t offset_ns) noexcept
{
    timespec steady = shifted(deadline, -offset_ns);
    if (steady.tv_sec < 0)
    {
        steady = timespec{};
    }
    return pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &steady);
}

/// Notices steps of the wall clock. One thread at a time may look for a step; whether there was one may be asked for at
/// any time.
class wallClockFollower
{
  public:
    /// The offset that kept deadlines refer to.
    std::int64_t offset_ns() const noexcept { return known_ns; }

    /// The offset as it was last read, for a wait that begins now.
    std::int64_t latest_ns() const noexcept { return read_ns; }

    /// Changes with each step that is found, and now and then without one. What was computed from the wall clock before
    /// a look for a step is as good as the kept deadlines if this is the same before and after.
    std::uint32_t doubts() const noexcept { return doubtsSoFar; }

    /// By how much kept deadlines have to move, 0 as a rule.
    std::int64_t takeStep_ns() noexcept
    {
        read_ns = roughWallOffset_ns();
        if (stepBetween_ns(known_ns, read_ns) == 0)
        {
            return 0;
        }
        ++doubtsSoFar; // stepped, or the thread was put aside between the two readings
        read_ns = wallOffset_ns();
        std::int64_t const step_ns = stepBetween_ns(known_ns, read_ns);
        known_ns += step_ns;
        return step_ns;
    }

  private:
    std::int64_t known_ns = wallOffset_ns();
    std::int64_t read_ns = known_ns;
    std::atomic<std::uint32_t> doubtsSoFar{0};
};

} // namespace gssipInternal

#endif
