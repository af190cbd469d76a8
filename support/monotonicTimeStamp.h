#ifndef MONOTONICTIMESTAMP_H
#define MONOTONICTIMESTAMP_H

#include "timeStampInterface.h"

#include <chrono>

/// A ready-made time-stamp source: seconds of the system's monotonic clock, which is never stepped.
///
/// The epoch is the start of the system. Safe for concurrent calls; never blocks.
class monotonicTimeStamp : public timeStampInterface
{
  public:
    double getTime_sec() override
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    }
};

#endif
