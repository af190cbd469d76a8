#include "wallClock.h"

#include "nextFunction.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <pthread.h>

namespace
{

std::atomic<std::int64_t> offset_sec{0};
std::atomic<int> readingsLeft{0};
std::atomic<std::int64_t> planned_sec{0};

std::int64_t readOffset_sec()
{
    std::int64_t const shown_sec = offset_sec;
    if (planned_sec != 0 && --readingsLeft <= 0)
    {
        kit::takePlannedStep();
    }
    return shown_sec;
}

timespec now(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time;
}

bool isBefore(timespec const& a, timespec const& b)
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

timespec aLittleLater(timespec time)
{
    time.tv_nsec += 2'000'000;
    time.tv_sec += time.tv_nsec / 1'000'000'000;
    time.tv_nsec %= 1'000'000'000;
    return time;
}

} // namespace

namespace kit
{

void stepWallClock(std::chrono::seconds step)
{
    offset_sec += step.count();
}

void setWallClock(std::chrono::seconds sinceEpoch)
{
    stepWallClock(sinceEpoch - std::chrono::seconds(now(CLOCK_REALTIME).tv_sec));
}

void stepWallClockAfterReading(int reading, std::chrono::seconds step)
{
    planned_sec = 0;
    readingsLeft = reading;
    planned_sec = step.count();
}

void takePlannedStep()
{
    offset_sec += planned_sec.exchange(0);
}

unsteppedAgain::~unsteppedAgain()
{
    planned_sec = 0;
    offset_sec = 0;
}

} // namespace kit

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static auto* const real = kit::nextFunction<int(clockid_t, timespec*)>("clock_gettime");
    int const status = real(clock, time);
    if (status == 0 && clock == CLOCK_REALTIME)
    {
        time->tv_sec += readOffset_sec();
    }
    return status;
}

/// The system's own would not notice the steps: so it waits in short slices, and looks at the clock between them.
int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* deadline)
{
    while (isBefore(now(CLOCK_REALTIME), *deadline))
    {
        timespec const slice = aLittleLater(now(CLOCK_MONOTONIC));
        int const status = pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &slice);
        if (status != ETIMEDOUT)
        {
            return status;
        }
    }
    return ETIMEDOUT;
}

} // extern "C"
