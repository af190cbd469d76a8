// A whole port in processes with every right, with some and with none.

#include "emulation.h"
#include "ordinaryUser.h"
#include "priorityLimit.h"
#include "processRights.h"
#include "wholeExchange.h"
#include "wholePort.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::string errorUnless(bool done)
{
    return done ? "" : std::strerror(errno);
}

std::string nothing()
{
    return {};
}

std::string forbidRealTime()
{
    rlimit const none{0, 0};
    return errorUnless(setrlimit(RLIMIT_RTPRIO, &none) == 0);
}

std::string limitTo50()
{
    return limitRealTimePriority(50);
}

std::string limitTo51()
{
    return limitRealTimePriority(51);
}

/// An empty folder stands before /proc, for this process and its children alone.
std::string hideProc()
{
    bool const hidden = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                        mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
    struct stat status
    {};
    return hidden && stat("/proc/self", &status) == 0 ? "/proc is still there" : errorUnless(hidden);
}

std::string needRealTime()
{
    return kit::realTimeIsPermitted() ? "" : "this user may not use real-time scheduling";
}

std::string needRoot()
{
    return geteuid() == 0 ? "" : "takes root";
}

/// Whether the preparation itself works here.
std::string need(kit::check const& preparation)
{
    return kit::inOwnProcess(preparation);
}

std::string needLimitTo50()
{
    std::string const fault = needRoot();
    return fault.empty() ? need(limitTo50) : fault;
}

std::string needFilters()
{
    return kit::hasSystemCallFilters() ? "" : kit::NO_SYSTEM_CALL_FILTERS;
}

std::string needHiddenProc()
{
    std::string const fault = needRoot();
    return fault.empty() ? need(hideProc) : fault;
}

struct rights
{
    char const* name;
    kit::check whatStandsInTheWay; ///< of making this situation on this machine
    kit::check prepare;            ///< with the rights of the test
    bool asOrdinaryUser;
    scheduling expected;
};

void PrintTo(rights const& each, std::ostream* out)
{
    *out << each.name;
}

scheduling onlyEventsInRealTime()
{
    return {defaultScheduling().transmit, realTimeScheduling().events};
}

rights const situations[] = {
    {"EveryRight", needRealTime, nothing, false, realTimeScheduling()},
    {"OrdinaryUser", nothing, forbidRealTime, true, defaultScheduling()},
    {"OrdinaryUserUpToPriority50", needLimitTo50, limitTo50, true, onlyEventsInRealTime()},
    {"OrdinaryUserUpToPriority51", needLimitTo50, limitTo51, true, realTimeScheduling()},
    {"SchedulingRefused", needFilters, kit::refuseScheduling, false, defaultScheduling()},
    {"OrdinaryUserWithSchedulingRefused", needFilters, kit::refuseScheduling, true, defaultScheduling()},
    {"StarterAboveThemOnOneProcessor", needRealTime, kit::becomeRealTimeOnOneProcessor, false, realTimeScheduling()},
};

class Rights : public testing::TestWithParam<rights>
{};

INSTANTIATE_TEST_SUITE_P(Process, Rights, testing::ValuesIn(situations),
                         [](testing::TestParamInfo<rights> const& each) { return std::string(each.param.name); });

/// A process that hangs, perhaps with the processor to itself, is ended by the system.
void endAfterTime()
{
    constexpr unsigned LIMIT_SEC = 20;
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(LIMIT_SEC);
}

TEST_P(Rights, WholePort_WorksWithTheSchedulingThatItMayHave)
{
    rights const& each = GetParam();
    if (std::string const obstacle = each.whatStandsInTheWay(); !obstacle.empty())
    {
        GTEST_SKIP() << obstacle;
    }
    kit::check const wholePort = [&] {
        endAfterTime();
        return faultOfWholePort(each.expected);
    };
    std::string const fault =
        each.asOrdinaryUser ? kit::asOrdinaryUser(wholePort, each.prepare) : kit::inOwnProcess([&] {
            std::string const unprepared = each.prepare();
            return unprepared.empty() ? wholePort() : unprepared;
        });
    EXPECT_EQ(fault, "");
}

std::string showProc()
{
    return errorUnless(umount("/proc") == 0);
}

/// The system lets a thread be named by another through /proc alone, and the transmit thread has to be named.
std::string faultWithoutProc()
{
    endAfterTime();
    countedPort counted;
    for (int times = 0; times < 2; ++times)
    {
        if (counted.rig.port.start())
        {
            return "the port starts";
        }
    }
    if (!counted.rig.port.stop())
    {
        return "a port that has not started does not stop";
    }
    std::string fault = showProc();
    fault = fault.empty()
                ? faultOfStart(counted, kit::realTimeIsPermitted() ? realTimeScheduling() : defaultScheduling())
                : fault;
    fault = fault.empty() ? kit::faultOfExchange(counted.rig) : fault;
    return fault.empty() ? faultOfStop(counted) : fault;
}

TEST(WithoutProc, Start_FailsAndSucceedsWhenProcIsBack)
{
    if (std::string const obstacle = needHiddenProc(); !obstacle.empty())
    {
        GTEST_SKIP() << obstacle;
    }
    EXPECT_EQ(kit::inOwnProcess([] {
                  std::string const unprepared = hideProc();
                  return unprepared.empty() ? faultWithoutProc() : unprepared;
              }),
              "");
}

TEST(WithoutProc, PortThatDidNotStart_LeavesNothingBehind)
{
    if (std::string const obstacle = needHiddenProc(); !obstacle.empty())
    {
        GTEST_SKIP() << obstacle;
    }
    EXPECT_EQ(kit::inOwnProcess([]() -> std::string {
                  endAfterTime();
                  if (std::string unprepared = hideProc(); !unprepared.empty())
                  {
                      return unprepared;
                  }
                  std::size_t const descriptorsBefore = openDescriptors();
                  kit::livingThreads threads;
                  kit::threadCallsReplaced const replaced(threads);
                  {
                      kit::portOnLine<> rig;
                      rig.port.start();
                  }
                  return threads.waitForCount(0) && openDescriptors() == descriptorsBefore ? "" : "something is left";
              }),
              "");
}

} // namespace
