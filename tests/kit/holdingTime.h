#ifndef KIT_HOLDINGTIME_H
#define KIT_HOLDINGTIME_H

#include "checkpoint.h"
#include "settableTime.h"

namespace kit
{

/// A time-stamp source that holds back the transmit thread when it first asks: between the write of a message and
/// what follows it.
class holdingTime : public settableTime
{
  public:
    double getTime_sec() override
    {
        if (isThread("GP TX"))
        {
            place.pass();
        }
        return settableTime::getTime_sec();
    }

    checkpoint place;
};

} // namespace kit

#endif
