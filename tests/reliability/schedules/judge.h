#ifndef SCHEDULES_JUDGE_H
#define SCHEDULES_JUDGE_H

#include "station.h"

namespace schedules
{

/// What a schedule has made impossible, or possible.
struct circumstances
{
    /// Nothing was lost on the way: every message that was taken from the queue has left, in the order of taking.
    bool lineIsWhole = true;
    /// Nobody was slow or stopped: every message has been written once, and what was read has been delivered.
    bool answersComeInTime = true;
};

/// Compares what the station has sent with its account: given = written + still queued + removed; who was tracked was
/// written once or twice, who was not, once; nothing is on the line that nobody has given, in an order that nobody
/// gave.
void judgeSent(scheduler& schedule, station const& sender, circumstances const& under);

/// received = delivered + queued: what was delivered is what was read, in that order; without a stop in between, all
/// of it.
void judgeReceived(scheduler& schedule, station& receiver, circumstances const& under);

} // namespace schedules

#endif
