#ifndef SCHEDULES_LOSSYEXCHANGE_H
#define SCHEDULES_LOSSYEXCHANGE_H

#include "lossyJudge.h"
#include "scheduler.h"

namespace schedules
{

/// Two ports exchange what chance tells them to, over a line that loses, flips, duplicates, inserts and delays what
/// chance tells it to; then everything that they did is judged. Fails the schedule at the first difference.
void exchangeOverLossyLine(scheduler& schedule, lossyTally& tally);

} // namespace schedules

#endif
