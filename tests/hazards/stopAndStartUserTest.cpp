// Ports of ordinary users, of restricted processes and of real-time threads, and the signals of them all.

#include "callOnThread.h"
#include "emulation.h"
#include "frames.h"
#include "messages.h"
#include "ordinaryUser.h"
#include "portOnLine.h"
#include "processRights.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace
{

using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::realTimeIsPermitted;
using kit::refuseScheduling;
using kit::schedulingOf;

std::string const DEFAULT_SCHEDULING = std::to_string(SCHED_OTHER) + "/0";

/// The port starts and passes a message each way; every thread of its own has the scheduling expected of it.
std::string faultOfPort(std::string const& transmit, std::string const& events)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    if (!rig.port.start())
    {
        return "the port does not start";
    }
    std::string const found = schedulingOf(watch.idOf("GP TX")) + " " + schedulingOf(watch.idOf("gssipSendAckReq"));
    if (found != transmit + " " + events)
    {
        return "the threads have policy and priority " + found;
    }
    rig.port.sendMessage(message(1), false);
    if (rig.line.read(10) != frame(1, 0))
    {
        return "nothing is sent";
    }
    rig.line.write(frame(2, 0));
    gssipMessage received;
    if (rig.port.getMessage(received, true) != 0 || received.getId() != 2)
    {
        return "nothing is received";
    }
    return rig.port.stop() ? "" : "the port does not stop";
}

std::string faultOfPortWithDefaultScheduling()
{
    return faultOfPort(DEFAULT_SCHEDULING, DEFAULT_SCHEDULING);
}

std::string forbidRealTime()
{
    rlimit const none{0, 0};
    return setrlimit(RLIMIT_RTPRIO, &none) == 0 ? "" : std::strerror(errno);
}

TEST(OrdinaryUser, Port_WorksWithDefaultScheduling)
{
    EXPECT_EQ(kit::asOrdinaryUser(faultOfPortWithDefaultScheduling, forbidRealTime), "");
}

/// A container may run everything as root and refuse all the same.
TEST(RestrictedProcess, PortWhoseSchedulingIsRefused_WorksWithDefaultScheduling)
{
    if (!kit::hasSystemCallFilters())
    {
        GTEST_SKIP() << kit::NO_SYSTEM_CALL_FILTERS;
    }
    EXPECT_EQ(kit::inOwnProcess([] {
                  std::string const fault = refuseScheduling();
                  return fault.empty() ? faultOfPortWithDefaultScheduling() : fault;
              }),
              "");
}

TEST(PrivilegedUser, Port_HasRealTimeThreads)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    std::string const roundRobin = std::to_string(SCHED_RR);
    EXPECT_EQ(kit::inOwnProcess([&] { return faultOfPort(roundRobin + "/51", roundRobin + "/50"); }), "");
}

// --- Signals

TEST(Signals, EveryThreadOfThePort_BlocksThemAll)
{
    std::uint64_t const all = kit::everySignalBlocked();
    portOnLine<> rig;
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    std::vector<kit::threadState> const threads = watch.added();
    ASSERT_EQ(threads.size(), 4U);
    for (kit::threadState const& thread : threads)
    {
        EXPECT_EQ(thread.blockedSignals & all, all) << thread.name << std::hex << ' ' << thread.blockedSignals;
    }
}

TEST(Signals, StartersMask_IsAsItWas)
{
    sigset_t chosen;
    sigemptyset(&chosen);
    sigaddset(&chosen, SIGUSR2);
    sigset_t former;
    pthread_sigmask(SIG_SETMASK, &chosen, &former);
    {
        portOnLine<> rig;
        EXPECT_TRUE(rig.port.start());
        sigset_t now;
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        for (int signal = 1; signal <= SIGRTMAX; ++signal)
        {
            EXPECT_EQ(sigismember(&now, signal), sigismember(&chosen, signal)) << signal;
        }
    }
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

// --- A starter that outranks the threads it starts, on the only processor that they may use

TEST(RealTimeStarter, OnTheThreadsProcessor_LetsThemBegin)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    EXPECT_EQ(kit::inOwnProcess([]() -> std::string {
                  ::signal(SIGALRM, SIG_DFL);
                  ::alarm(10); // a starter that never lets go of the processor is ended by the system
                  std::string fault = kit::becomeRealTimeOnOneProcessor();
                  for (int round = 0; round < 20 && fault.empty(); ++round)
                  {
                      portOnLine<> rig;
                      fault = rig.port.start() && rig.port.stop() ? "" : "the port does not start and stop";
                  }
                  return fault;
              }),
              "");
}

} // namespace
