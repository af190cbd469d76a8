#ifndef WHOLEPORT_H
#define WHOLEPORT_H

#include "livingThreads.h"
#include "portOnLine.h"
#include "threadCalls.h"

#include <cstddef>
#include <string>

/// \file
/// What a port does for an application, from the start to the stop, checked without a test framework, so that it can
/// run in a process that has lost its rights. Each check gives what is wrong, or nothing.

/// How the two threads of a port that ask for real-time scheduling are scheduled: policy and priority.
struct scheduling
{
    std::string transmit;
    std::string events;
};

scheduling defaultScheduling();
scheduling realTimeScheduling();

/// A port whose threads are counted.
struct countedPort
{
    kit::livingThreads threads;
    kit::threadCallsReplaced replaced{threads};
    kit::portOnLine<> rig;
};

/// How many descriptors this process has open; needs no file system.
std::size_t openDescriptors();

/// Starts the port; its threads must be four, and scheduled like this.
std::string faultOfStart(countedPort& counted, scheduling const& expected);

/// Stops the port; none of its threads may be left.
std::string faultOfStop(countedPort& counted);

/// Start, exchange of messages and stop, twice with the same port.
std::string faultOfWholePort(scheduling const& expected);

#endif
