#ifndef SCHEDULES_LOSSYTRAFFIC_H
#define SCHEDULES_LOSSYTRAFFIC_H

#include "dice.h"
#include "gssipMessage.h"
#include "lossyMedium.h"
#include "referencePort.h"

#include <cstdint>
#include <vector>

namespace schedules
{

/// One thing that an application does.
struct act
{
    enum kind { send, sendBatch, reject, filler, raw };

    std::int64_t after_ns = 0; ///< since the beginning of the traffic
    kind what = send;
    std::vector<gssipMessage> messages; ///< of `send` one
    bool tracked = false;
    unsigned rejectedId = 0;
    bool extra = false;
    bytes content; ///< of `raw`
};

/// All that is decided by chance about one end before a schedule begins.
struct endOfLine
{
    reference::habits how;
    std::vector<act> acts; ///< in the order of time
    lineFaults faults;     ///< of what it writes
};

/// What is decided about both ends.
struct lossyScenario
{
    /// FF 81 stands nowhere but at the start of a message, and nobody writes anything else than whole messages and the
    /// filler: then it can be said how soon a receiver must have found its way back.
    bool isPlain = false;
    endOfLine ends[2];
};

lossyScenario drawScenario(dice& chance);

/// The same as the reference model has it: what is written for it, one entry for each message.
std::vector<reference::order> ordersOf(act const& which, std::int64_t start_ns, std::string const& portNumber);

} // namespace schedules

#endif
