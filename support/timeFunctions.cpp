#include "timeFunctions.h"

#include "timespecMath.h"

#include <cerrno>
#include <cmath>
#include <cstdint>

namespace
{

using gssipInternal::addSaturating;
using gssipInternal::earliestTimespec;
using gssipInternal::latestTimespec;

// Far enough beyond any time_t to saturate, near enough for int64_t.
constexpr double BEYOND_SEC = 9.2e18;

timespec secondsAfter(timespec const& time, double seconds)
{
    if (seconds >= BEYOND_SEC)
    {
        return latestTimespec();
    }
    if (seconds <= -BEYOND_SEC)
    {
        return earliestTimespec();
    }
    double const whole = std::floor(seconds);
    auto const ns = static_cast<std::int64_t>((seconds - whole) * 1e9);
    return addSaturating(time, static_cast<std::int64_t>(whole), ns);
}

} // namespace

int doubleToTimespec(double const& seconds, timespec& deadline)
{
    if (std::isnan(seconds))
    {
        return EINVAL;
    }
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
    {
        return errno;
    }
    deadline = secondsAfter(now, seconds);
    return 0;
}
