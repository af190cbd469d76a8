#ifndef FAULTS_SCENARIOS_H
#define FAULTS_SCENARIOS_H

#include "bench.h"

#include <vector>

namespace faults
{

/// A short piece of the port's life, in the middle of which the faults are armed.
struct scenario
{
    char const* name;
    void (*run)(bench&);
};

/// Those that take milliseconds.
std::vector<scenario> const& scenarios();

/// The scenario of that name, of those above or the longer one "leftAlone", or null.
scenario const* scenarioNamed(std::string const& name);

// What happens...
void construct(bench& at);
void start(bench& at);
void restart(bench& at);
void startWithoutDevice(bench& at);
void stopWithFullQueue(bench& at);
void stopWithWaitingReceiver(bench& at);
void stopOfAnAdapterThatKeepsItsBytes(bench& at);
void destroyStarted(bench& at);
void destroyAfterAFailedStart(bench& at);
void deviceVanishes(bench& at);
void leftAlone(bench& at);
// ...on the line
void sendUntracked(bench& at);
void queueBehindTheGate(bench& at);
void trackedAndAcknowledged(bench& at);
void trackedAndRefused(bench& at);
void trackedAndNeverAnswered(bench& at);
void receive(bench& at);
void controlTransmissions(bench& at);
void bigMessages(bench& at);
void pacedLine(bench& at);
// ...to the parts that an application can use by themselves
void messageOperations(bench& at);
void serialDevice(bench& at);
void serialDeviceOnAnOldKernel(bench& at);

} // namespace faults

#endif
