#ifndef TIMEFUNCTIONS_H
#define TIMEFUNCTIONS_H

#include "gssipExport.h"

#include <ctime>

/// Sets `deadline` to the absolute time that lies `seconds` from now on CLOCK_REALTIME, the clock of a condition
/// variable made with default attributes.
///
/// Zero gives the present time, a negative number a time that has passed. The result is always normalised (nanoseconds
/// 0 to 999999999); what `timespec` cannot hold, infinities included, becomes the latest or the earliest time that it
/// holds. Returns 0, or EINVAL for NaN, which leaves the deadline unchanged. Never blocks; may be called from any
/// thread.
GSSIP_EXPORT int doubleToTimespec(double const& seconds, timespec& deadline);

#endif
