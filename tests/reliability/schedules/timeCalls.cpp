// Clocks and sleeps, as a schedule has them. Outside of one each call is passed on.

#include "realCall.h"
#include "scheduler.h"

#include <ctime>

using schedules::realCall;
using schedules::scheduler;
using schedules::waiting;

namespace
{

constexpr std::int64_t NS_PER_SEC = 1'000'000'000;

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static auto* const real = realCall<decltype(clock_gettime)>("clock_gettime");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(clock, time);
    }
    if (schedule->clockIsStep())
    {
        schedule->step("reads a clock");
    }
    std::int64_t const now_ns = clock == CLOCK_REALTIME ? schedule->wallNow_ns() : schedule->now_ns();
    time->tv_sec = now_ns / NS_PER_SEC;
    time->tv_nsec = static_cast<long>(now_ns % NS_PER_SEC);
    return 0;
}

int nanosleep(timespec const* duration, timespec* left)
{
    static auto* const real = realCall<decltype(nanosleep)>("nanosleep");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(duration, left);
    }
    schedule->record("sleeps");
    schedule->block(waiting::time, nullptr, schedule->now_ns() + duration->tv_sec * NS_PER_SEC + duration->tv_nsec);
    return 0;
}

#if __TIMESIZE == 32

/// As the C library has it where nobody asks for 64 bits: the clocks of the C++ library were compiled so.
struct narrowTime
{
    std::int32_t sec;
    std::int32_t nsec;
};

int narrowClock(clockid_t clock, narrowTime* time) noexcept __asm__("clock_gettime");

int narrowClock(clockid_t clock, narrowTime* time) noexcept
{
    timespec wide{};
    int const status = clock_gettime(clock, &wide);
    *time = {static_cast<std::int32_t>(wide.tv_sec), static_cast<std::int32_t>(wide.tv_nsec)};
    return status;
}

#endif

} // extern "C"
