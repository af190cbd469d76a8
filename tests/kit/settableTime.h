#ifndef KIT_SETTABLETIME_H
#define KIT_SETTABLETIME_H

#include "timeStampInterface.h"

#include <atomic>
#include <cstdint>

namespace kit
{

/// A time-stamp source that shows what the test sets, and counts how often it is asked.
class settableTime : public timeStampInterface
{
  public:
    explicit settableTime(double initial_sec = 0.0) : now_sec(initial_sec) {}

    double getTime_sec() override
    {
        ++asked;
        return now_sec;
    }

    std::atomic<double> now_sec;
    std::atomic<std::uint64_t> asked{0};
};

} // namespace kit

#endif
