// A user who may have only so many threads: the n-th thread of a port cannot be created.

#include "ordinaryUser.h"
#include "wholeExchange.h"
#include "wholePort.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

/// A user who has no other process, so that its threads can be counted: the limit is one on all of a user's threads.
std::string becomeUnknownUser()
{
    auto const user = static_cast<uid_t>(1'000'000 + ::getpid());
    return ::setgid(user) == 0 && ::setuid(user) == 0 ? "" : std::strerror(errno);
}

std::string permitThreads(rlim_t count)
{
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    limit.rlim_cur = count;
    return setrlimit(RLIMIT_NPROC, &limit) == 0 ? "" : std::strerror(errno);
}

constexpr rlim_t THIS_THREAD = 1;
constexpr rlim_t PLENTY = 1000;

/// Threads that end at once are tried before two of the four are created, and may count a little longer.
constexpr unsigned THREADS = 4;
constexpr unsigned TRIED = 2;

std::string faultOfLimitedStart(countedPort& counted, unsigned permitted)
{
    bool const started = counted.rig.port.start();
    if (started ? permitted < THREADS : permitted >= THREADS + TRIED)
    {
        return started ? "the port starts" : "the port does not start";
    }
    if (counted.rig.port.started != started)
    {
        return "the port does not know whether it is started";
    }
    return counted.threads.count() <= permitted ? "" : "there are more threads than permitted";
}

std::string faultOfPortWith(unsigned permitted)
{
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(20);
    std::size_t const descriptorsBefore = openDescriptors();
    std::string fault;
    {
        countedPort counted;
        for (int times = 0; times < 3 && fault.empty(); ++times) // each start may leave threads that the next one ends
        {
            fault = permitThreads(THIS_THREAD + permitted);
            fault = fault.empty() ? faultOfLimitedStart(counted, permitted) : fault;
            counted.rig.port.stop();
        }
        fault = fault.empty() ? permitThreads(PLENTY) : fault;
        fault = fault.empty() ? faultOfStart(counted, defaultScheduling()) : fault;
        fault = fault.empty() ? kit::faultOfExchange(counted.rig) : fault;
        fault = fault.empty() ? faultOfStop(counted) : fault;
        fault = fault.empty() ? permitThreads(THIS_THREAD + permitted) : fault;
        counted.rig.port.start(); // and the destructor ends what has been made of it
    }
    bool const nothingLeft = openDescriptors() == descriptorsBefore;
    return fault.empty() && !nothingLeft ? "descriptors are left" : fault;
}

class ThreadLimit : public testing::TestWithParam<unsigned>
{};

INSTANTIATE_TEST_SUITE_P(Threads, ThreadLimit, testing::Range(0U, THREADS + TRIED + 1),
                         testing::PrintToStringParamName());

TEST_P(ThreadLimit, StartThatRunsIntoIt_FailsAndSucceedsWhenItIsLifted)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "takes root, to become a user who has no other process";
    }
    EXPECT_EQ(kit::inOwnProcess([] {
                  std::string const fault = becomeUnknownUser();
                  return fault.empty() ? faultOfPortWith(GetParam()) : fault;
              }),
              "");
}

} // namespace
