#include "scenarios.h"

#include <algorithm>

namespace faults
{

std::vector<scenario> const& scenarios()
{
    static std::vector<scenario> const all{
        {"construct", construct},
        {"start", start},
        {"restart", restart},
        {"startWithoutDevice", startWithoutDevice},
        {"stopWithFullQueue", stopWithFullQueue},
        {"stopWithWaitingReceiver", stopWithWaitingReceiver},
        {"stopOfAnAdapterThatKeepsItsBytes", stopOfAnAdapterThatKeepsItsBytes},
        {"destroyStarted", destroyStarted},
        {"destroyAfterAFailedStart", destroyAfterAFailedStart},
        {"deviceVanishes", deviceVanishes},
        {"sendUntracked", sendUntracked},
        {"queueBehindTheGate", queueBehindTheGate},
        {"trackedAndAcknowledged", trackedAndAcknowledged},
        {"trackedAndRefused", trackedAndRefused},
        {"trackedAndNeverAnswered", trackedAndNeverAnswered},
        {"receive", receive},
        {"controlTransmissions", controlTransmissions},
        {"bigMessages", bigMessages},
        {"pacedLine", pacedLine},
        {"messageOperations", messageOperations},
        {"serialDevice", serialDevice},
        {"serialDeviceOnAnOldKernel", serialDeviceOnAnOldKernel},
    };
    return all;
}

scenario const* scenarioNamed(std::string const& name)
{
    static scenario const longer{"leftAlone", leftAlone};
    if (name == longer.name)
    {
        return &longer;
    }
    auto const& all = scenarios();
    auto const found = std::find_if(all.begin(), all.end(), [&](scenario const& one) { return one.name == name; });
    return found == all.end() ? nullptr : &*found;
}

} // namespace faults
