#include "pthreadFlag.h"
#include "sentry.h"
#include "threadFunctions.h"
#include "timeFunctions.h"

#include "callOnThread.h"
#include "nextFunction.h"
#include "ordinaryUser.h"
#include "processState.h"
#include "stopwatch.h"
#include "threadCalls.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <limits>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UNDER_THREAD_SANITIZER 1
#endif
#endif

namespace
{

TEST(PthreadFlag, Constructed_HasTheInitialValue)
{
    pthreadFlag const on(true);
    EXPECT_TRUE(on.isSet());
    EXPECT_FALSE(on.isClear());

    pthreadFlag const off(false);
    EXPECT_FALSE(off.isSet());
    EXPECT_TRUE(off.isClear());
}

TEST(PthreadFlag, SetAndClear_TakeEffectOnceAndAgain)
{
    pthreadFlag flag(false);
    for (int times = 0; times < 2; ++times)
    {
        flag.set();
        EXPECT_TRUE(flag.isSet());
        EXPECT_FALSE(flag.isClear());
    }
    for (int times = 0; times < 2; ++times)
    {
        flag.clear();
        EXPECT_FALSE(flag.isSet());
        EXPECT_TRUE(flag.isClear());
    }
}

TEST(PthreadFlag, SpinningThread_SeesTheFlagAndWhatWasWrittenBefore)
{
    for (int round = 0; round < 100; ++round)
    {
        pthreadFlag flag(false);
        int written = 0;
        std::thread other([&] {
            written = round + 1;
            flag.set();
        });
        while (flag.isClear())
        {
            std::this_thread::yield();
        }
        EXPECT_EQ(written, round + 1);
        other.join();
    }
}

/// A mutex of the default kind, or of another.
class mutexUnderTest
{
  public:
    explicit mutexUnderTest(int kind = PTHREAD_MUTEX_DEFAULT)
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, kind);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~mutexUnderTest() { pthread_mutex_destroy(&mutex); }
    mutexUnderTest(mutexUnderTest const&) = delete;
    mutexUnderTest& operator=(mutexUnderTest const&) = delete;

    bool isFree()
    {
        if (pthread_mutex_trylock(&mutex) != 0)
        {
            return false;
        }
        pthread_mutex_unlock(&mutex);
        return true;
    }

    pthread_mutex_t mutex{};
};

TEST(Sentry, Lifetime_IsTheTimeThatTheMutexIsHeld)
{
    mutexUnderTest subject;
    {
        sentry const lock(subject.mutex);
        EXPECT_FALSE(subject.isFree());
    }
    EXPECT_TRUE(subject.isFree());
}

TEST(Sentry, Exception_ReleasesTheMutex)
{
    mutexUnderTest subject;
    try
    {
        sentry const lock(subject.mutex);
        throw std::runtime_error("on the way");
    }
    catch (std::runtime_error const&)
    {
        EXPECT_TRUE(subject.isFree());
    }
}

TEST(Sentry, MutexThatIsHeld_IsWaitedFor)
{
    mutexUnderTest subject;
    ASSERT_EQ(lockMutex(subject.mutex), 0);
    kit::callOnThread<bool> waiting([&] {
        sentry const lock(subject.mutex);
        return true;
    });
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());

    ASSERT_EQ(unlockMutex(subject.mutex), 0);
    EXPECT_TRUE(waiting.get());
}

TEST(Sentry, Object_IsNeitherCopiedNorMoved)
{
    static_assert(!std::is_copy_constructible_v<sentry> && !std::is_copy_assignable_v<sentry>);
    static_assert(!std::is_move_constructible_v<sentry> && !std::is_move_assignable_v<sentry>);
    SUCCEED();
}

TEST(MutexFunctions, LockAndUnlock_HoldAndRelease)
{
    mutexUnderTest subject;
    EXPECT_EQ(lockMutex(subject.mutex), 0);
    EXPECT_FALSE(subject.isFree());
    EXPECT_EQ(unlockMutex(subject.mutex), 0);
    EXPECT_TRUE(subject.isFree());
}

TEST(MutexFunctions, SeveralThreads_ExcludeEachOther)
{
    mutexUnderTest subject;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int each = 0; each < 4; ++each)
    {
        threads.emplace_back([&] {
            for (int times = 0; times < 5000; ++times)
            {
                lockMutex(subject.mutex);
                ++counter;
                unlockMutex(subject.mutex);
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(counter, 20000);
}

#ifndef UNDER_THREAD_SANITIZER // which reports what this test does on purpose

TEST(MutexFunctions, Misuse_GivesTheSystemsErrorNumber)
{
    mutexUnderTest subject(PTHREAD_MUTEX_ERRORCHECK);
    EXPECT_EQ(unlockMutex(subject.mutex), EPERM);
    ASSERT_EQ(lockMutex(subject.mutex), 0);
    EXPECT_EQ(lockMutex(subject.mutex), EDEADLK);
    EXPECT_EQ(unlockMutex(subject.mutex), 0);
}

#endif

thread_local bool clockFails = false;

} // namespace

/// Stands in front of the C library's: no clock of an ordinary machine fails.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static auto* const real = kit::nextFunction<int(clockid_t, timespec*)>("clock_gettime");
    if (clockFails)
    {
        errno = EOVERFLOW;
        return -1;
    }
    return real(clock, time);
}

namespace
{

timespec now()
{
    timespec result{};
    clock_gettime(CLOCK_REALTIME, &result);
    return result;
}

/// Exact, and far from the ends of what it can hold.
std::int64_t nanoseconds(timespec const& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

void expectDeadlineAfter(double seconds)
{
    SCOPED_TRACE(seconds);
    constexpr std::int64_t rounding_ns = 1000;
    auto const duration_ns = static_cast<std::int64_t>(std::llround(seconds * 1e9));
    timespec deadline{};

    std::int64_t const before_ns = nanoseconds(now());
    EXPECT_EQ(doubleToTimespec(seconds, deadline), 0);
    std::int64_t const after_ns = nanoseconds(now());

    EXPECT_GE(nanoseconds(deadline), before_ns + duration_ns - rounding_ns);
    EXPECT_LE(nanoseconds(deadline), after_ns + duration_ns + rounding_ns);
    EXPECT_GE(deadline.tv_nsec, 0);
    EXPECT_LE(deadline.tv_nsec, 999'999'999);
}

TEST(DoubleToTimespec, Zero_GivesThePresentTime)
{
    expectDeadlineAfter(0.0);
    expectDeadlineAfter(-0.0);
}

TEST(DoubleToTimespec, Positive_LiesThatFarAhead)
{
    for (double const seconds : {1e-9, 0.2, 0.6, 0.999999999, 1.0, 1.75, 3600.5, 1e8})
    {
        expectDeadlineAfter(seconds);
    }
}

TEST(DoubleToTimespec, Negative_LiesInThePastAndIsNormalised)
{
    for (double const seconds : {-1e-9, -1e-20, -0.3, -0.999999999, -1.0, -1.75, -3600.5, -1e8})
    {
        expectDeadlineAfter(seconds);
    }
}

TEST(DoubleToTimespec, RandomDurations_AreNormalised)
{
    auto const seed = std::random_device{}();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> anyDuration(-10.0, 10.0);
    for (int round = 0; round < 1000; ++round)
    {
        expectDeadlineAfter(anyDuration(random));
    }
}

TEST(DoubleToTimespec, BeforeTheEpoch_IsNormalised)
{
    timespec deadline{};
    EXPECT_EQ(doubleToTimespec(-4e9 - 0.25, deadline), 0);
    EXPECT_LT(deadline.tv_sec, 0);
    EXPECT_GE(deadline.tv_nsec, 0);
    EXPECT_LE(deadline.tv_nsec, 999'999'999);
}

void expectLatest(double seconds)
{
    SCOPED_TRACE(seconds);
    timespec deadline{};
    EXPECT_EQ(doubleToTimespec(seconds, deadline), 0);
    EXPECT_EQ(deadline.tv_sec, std::numeric_limits<std::time_t>::max());
    EXPECT_EQ(deadline.tv_nsec, 999'999'999);
}

void expectEarliest(double seconds)
{
    SCOPED_TRACE(seconds);
    timespec deadline{};
    EXPECT_EQ(doubleToTimespec(seconds, deadline), 0);
    EXPECT_EQ(deadline.tv_sec, std::numeric_limits<std::time_t>::min());
    EXPECT_EQ(deadline.tv_nsec, 0);
}

TEST(DoubleToTimespec, BeyondWhatItHolds_IsTheLatestTime)
{
    auto const limit = static_cast<double>(std::numeric_limits<std::time_t>::max());
    expectLatest(std::numeric_limits<double>::infinity());
    expectLatest(std::numeric_limits<double>::max());
    expectLatest(1e30);
    expectLatest(2 * limit);
    expectLatest(limit);
    expectLatest(std::nextafter(limit, 0.0));
}

TEST(DoubleToTimespec, BelowWhatItHolds_IsTheEarliestTime)
{
    auto const limit = static_cast<double>(std::numeric_limits<std::time_t>::min());
    expectEarliest(-std::numeric_limits<double>::infinity());
    expectEarliest(std::numeric_limits<double>::lowest());
    expectEarliest(-1e30);
    expectEarliest(4 * limit);
}

TEST(DoubleToTimespec, LargestRoundDurations_AreStillExact)
{
    if (sizeof(std::time_t) < 8)
    {
        GTEST_SKIP() << "they are beyond what timespec holds here";
    }
    constexpr std::int64_t farAhead = 9'000'000'000'000'000'000;
    timespec deadline{};
    std::time_t const before = now().tv_sec;

    EXPECT_EQ(doubleToTimespec(9e18, deadline), 0);
    EXPECT_GE(deadline.tv_sec, static_cast<std::time_t>(before + farAhead));
    EXPECT_LE(deadline.tv_sec, static_cast<std::time_t>(now().tv_sec + farAhead));

    EXPECT_EQ(doubleToTimespec(-9e18, deadline), 0);
    EXPECT_GE(deadline.tv_sec, static_cast<std::time_t>(before - farAhead));
    EXPECT_LE(deadline.tv_sec, static_cast<std::time_t>(now().tv_sec - farAhead));
}

TEST(DoubleToTimespec, NotANumber_LeavesTheDeadlineUnchanged)
{
    for (double const seconds : {std::numeric_limits<double>::quiet_NaN(), -std::nan("")})
    {
        timespec deadline{};
        deadline.tv_sec = 12;
        deadline.tv_nsec = 34;
        EXPECT_EQ(doubleToTimespec(seconds, deadline), EINVAL);
        EXPECT_EQ(deadline.tv_sec, 12);
        EXPECT_EQ(deadline.tv_nsec, 34);
    }
}

TEST(DoubleToTimespec, ClockThatCannotBeRead_IsReportedAndLeavesTheDeadline)
{
    timespec deadline{};
    deadline.tv_sec = 12;
    deadline.tv_nsec = 34;
    clockFails = true;
    int const status = doubleToTimespec(1.0, deadline);
    clockFails = false;
    EXPECT_EQ(status, EOVERFLOW);
    EXPECT_EQ(deadline.tv_sec, 12);
    EXPECT_EQ(deadline.tv_nsec, 34);
}

/// Waits, on a condition that nobody signals, as a user of the deadline does.
int waitFor(double seconds)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec deadline{};
    EXPECT_EQ(doubleToTimespec(seconds, deadline), 0);
    sentry const lock(mutex);
    int status = 0;
    while (status == 0)
    {
        status = pthread_cond_timedwait(&condition, &mutex, &deadline);
    }
    return status;
}

TEST(DoubleToTimespec, TimedWaits_EndAtTheDeadline)
{
    kit::stopwatch const watch;
    EXPECT_EQ(waitFor(0.0), ETIMEDOUT);
    EXPECT_EQ(waitFor(-5.0), ETIMEDOUT);
    EXPECT_LT(watch.elapsed_sec(), 5.0);

    kit::stopwatch const second;
    EXPECT_EQ(waitFor(0.2), ETIMEDOUT);
    EXPECT_GE(second.elapsed_sec(), 0.2 - 1e-3); // the two clocks differ by what the system is corrected meanwhile
    EXPECT_LT(second.elapsed_sec(), 5.0);
}

/// Attributes, released at the end.
class threadAttributes
{
  public:
    threadAttributes() { pthread_attr_init(&attr); }
    ~threadAttributes() { pthread_attr_destroy(&attr); }
    threadAttributes(threadAttributes const&) = delete;
    threadAttributes& operator=(threadAttributes const&) = delete;

    int detachState() const
    {
        int value = -1;
        pthread_attr_getdetachstate(&attr, &value);
        return value;
    }
    int policy() const
    {
        int value = -1;
        pthread_attr_getschedpolicy(&attr, &value);
        return value;
    }
    int priority() const
    {
        sched_param value{};
        pthread_attr_getschedparam(&attr, &value);
        return value.sched_priority;
    }
    int inheritance() const
    {
        int value = -1;
        pthread_attr_getinheritsched(&attr, &value);
        return value;
    }
    int scope() const
    {
        int value = -1;
        pthread_attr_getscope(&attr, &value);
        return value;
    }
    std::size_t stackBytes() const
    {
        std::size_t value = 0;
        pthread_attr_getstacksize(&attr, &value);
        return value;
    }

    pthread_attr_t attr{};
};

struct scheduling
{
    int policy = -1;
    int priority = -1;
};

void* tellScheduling(void* result)
{
    auto& told = *static_cast<scheduling*>(result);
    sched_param parameters{};
    pthread_getschedparam(pthread_self(), &told.policy, &parameters);
    told.priority = parameters.sched_priority;
    return nullptr;
}

/// What is wrong with a thread made with these attributes, or nothing.
std::string faultOfThreadWith(threadAttributes const& attributes, int policy, int priority)
{
    scheduling found;
    pthread_t thread{};
    int const status = pthread_create(&thread, &attributes.attr, tellScheduling, &found);
    if (status != 0)
    {
        return std::string("no thread: ") + std::strerror(status);
    }
    pthread_join(thread, nullptr);
    std::ostringstream fault;
    if (found.policy != policy || found.priority != priority)
    {
        fault << "the thread runs with policy " << found.policy << " and priority " << found.priority;
    }
    return fault.str();
}

/// The same for attributes asked for as the transmit thread does.
std::string faultOfTransmitThread(int policy, int priority)
{
    threadAttributes attributes;
    int const status = setPthreadAttributes(0, 2, 51, 1, 0, attributes.attr);
    if (status != 0)
    {
        return std::string("no attributes: ") + std::strerror(status);
    }
    if (attributes.detachState() != PTHREAD_CREATE_JOINABLE)
    {
        return "not joinable";
    }
    return faultOfThreadWith(attributes, policy, priority);
}

/// Found out without the function under test.
bool realTimeIsPermitted()
{
    return kit::inOwnProcess([]() -> std::string {
               sched_param parameters{};
               parameters.sched_priority = 51;
               return sched_setscheduler(0, SCHED_RR, &parameters) == 0 ? "" : "refused";
           })
        .empty();
}

std::string limitRealTimePriority(rlim_t highest)
{
    rlimit const limit{highest, highest};
    return setrlimit(RLIMIT_RTPRIO, &limit) == 0 ? std::string{} : std::string("setrlimit: ") + std::strerror(errno);
}

TEST(SetPthreadAttributes, TransmitThreadsValues_AreJoinableRoundRobin51)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 1, 0, attributes.attr), 0);
    EXPECT_EQ(attributes.detachState(), PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(attributes.policy(), SCHED_RR);
    EXPECT_EQ(attributes.priority(), 51);
    EXPECT_EQ(attributes.inheritance(), PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(attributes.scope(), PTHREAD_SCOPE_SYSTEM);
    EXPECT_EQ(faultOfThreadWith(attributes, SCHED_RR, 51), "");
}

TEST(SetPthreadAttributes, EventThreadsValues_AreOneStepBelow)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(0, 2, 50, 1, 0, attributes.attr), 0);
    EXPECT_EQ(attributes.detachState(), PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(faultOfThreadWith(attributes, SCHED_RR, 50), "");
}

TEST(SetPthreadAttributes, OtherPolicies_AreTaken)
{
    threadAttributes ordinary;
    EXPECT_EQ(setPthreadAttributes(0, SCHED_OTHER, 0, PTHREAD_EXPLICIT_SCHED, 0, ordinary.attr), 0);
    EXPECT_EQ(faultOfThreadWith(ordinary, SCHED_OTHER, 0), "");

    if (realTimeIsPermitted())
    {
        threadAttributes firstInFirstOut;
        EXPECT_EQ(setPthreadAttributes(0, SCHED_FIFO, 7, PTHREAD_EXPLICIT_SCHED, 0, firstInFirstOut.attr), 0);
        EXPECT_EQ(faultOfThreadWith(firstInFirstOut, SCHED_FIFO, 7), "");
    }
}

TEST(SetPthreadAttributes, InheritedScheduling_IsTheCreators)
{
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, PTHREAD_INHERIT_SCHED, 0, attributes.attr), 0);
    EXPECT_EQ(attributes.inheritance(), PTHREAD_INHERIT_SCHED);
    EXPECT_EQ(faultOfThreadWith(attributes, SCHED_OTHER, 0), "");
}

TEST(SetPthreadAttributes, Detached_IsTakenToo)
{
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(PTHREAD_CREATE_DETACHED, 2, 51, 1, 0, attributes.attr), 0);
    EXPECT_EQ(attributes.detachState(), PTHREAD_CREATE_DETACHED);
}

#ifndef UNDER_THREAD_SANITIZER // which gives every thread a larger stack

TEST(SetPthreadAttributes, Stack_IsSmallEnoughForLockedMemory)
{
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 1, 0, attributes.attr), 0);
    EXPECT_EQ(attributes.stackBytes(), 256U * 1024U);
}

#endif

TEST(SetPthreadAttributes, ManyCalls_LeaveNoThreadBehind)
{
    kit::threadWatch const threads;
    for (int times = 0; times < 50; ++times)
    {
        threadAttributes attributes;
        EXPECT_EQ(setPthreadAttributes(times % 2, 2, 51, 1, 0, attributes.attr), 0);
    }
    EXPECT_TRUE(threads.waitForAdded(0));
}

TEST(SetPthreadAttributes, UnknownValues_AreRefused)
{
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(7, 2, 51, 1, 0, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 99, 51, 1, 0, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 2, 1000, 1, 0, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 2, -1, 1, 0, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 5, 0, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 1, 9, attributes.attr), EINVAL);
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 1, PTHREAD_SCOPE_PROCESS, attributes.attr), ENOTSUP);
}

TEST(SetPthreadAttributes, OrdinaryUser_GetsThreadsWithDefaultScheduling)
{
    EXPECT_EQ(kit::asOrdinaryUser([] { return faultOfTransmitThread(SCHED_OTHER, 0); },
                                  [] { return limitRealTimePriority(0); }),
              "");
}

TEST(SetPthreadAttributes, OrdinaryUsersLimit_DecidesBetweenRealTimeAndDefaultScheduling)
{
    if (!kit::inOwnProcess([] { return limitRealTimePriority(51); }).empty())
    {
        GTEST_SKIP() << "this user may not raise the limit";
    }
    EXPECT_EQ(kit::asOrdinaryUser([] { return faultOfTransmitThread(SCHED_OTHER, 0); },
                                  [] { return limitRealTimePriority(50); }),
              "");
    EXPECT_EQ(kit::asOrdinaryUser([] { return faultOfTransmitThread(SCHED_RR, 51); },
                                  [] { return limitRealTimePriority(51); }),
              "");
}

/// A system that refuses threads of a higher real-time priority, or has no room for any.
class limitedSystem : public kit::threadCalls
{
  public:
    explicit limitedSystem(int highestPriority, bool hasRoom = true) : highest(highestPriority), room(hasRoom) {}

    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        if (!room)
        {
            return EAGAIN;
        }
        return attributes != nullptr && explicitPriorityOf(*attributes) > highest
                   ? EPERM
                   : threadCalls::create(thread, attributes, entry, argument);
    }

  private:
    static int explicitPriorityOf(pthread_attr_t const& attributes)
    {
        int inheritance = PTHREAD_INHERIT_SCHED;
        sched_param parameters{};
        pthread_attr_getinheritsched(&attributes, &inheritance);
        pthread_attr_getschedparam(&attributes, &parameters);
        return inheritance == PTHREAD_EXPLICIT_SCHED ? parameters.sched_priority : 0;
    }

    int const highest;
    bool const room;
};

TEST(SetPthreadAttributes, SystemThatRefusesThePriority_GivesThreadsWithDefaultScheduling)
{
    limitedSystem system(50);
    kit::threadCallsReplaced const replaced(system);
    EXPECT_EQ(faultOfTransmitThread(SCHED_OTHER, 0), "");
}

TEST(SetPthreadAttributes, SystemThatGrantsJustThePriority_GivesRealTimeThreads)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    limitedSystem system(51);
    kit::threadCallsReplaced const replaced(system);
    EXPECT_EQ(faultOfTransmitThread(SCHED_RR, 51), "");
}

TEST(SetPthreadAttributes, RefusedRealTimeCaller_DoesNotPassItsSchedulingOn)
{
    if (!realTimeIsPermitted())
    {
        GTEST_SKIP() << "this user may not use real-time scheduling";
    }
    kit::callOnThread<std::string> realTimeCaller([]() -> std::string {
        sched_param parameters{};
        parameters.sched_priority = 10;
        if (pthread_setschedparam(pthread_self(), SCHED_RR, &parameters) != 0)
        {
            return "no real-time caller";
        }
        limitedSystem system(50);
        kit::threadCallsReplaced const replaced(system);
        return faultOfTransmitThread(SCHED_OTHER, 0);
    });
    EXPECT_EQ(realTimeCaller.get(), "");
}

/// What is no real-time scheduling is as good as the default.
TEST(SetPthreadAttributes, RefusedBatchOrIdleCaller_PassesItsSchedulingOn)
{
    for (int const policy : {SCHED_BATCH, SCHED_IDLE})
    {
        kit::callOnThread<std::string> caller([policy]() -> std::string {
            sched_param const parameters{};
            if (pthread_setschedparam(pthread_self(), policy, &parameters) != 0)
            {
                return "no such caller";
            }
            limitedSystem system(50);
            kit::threadCallsReplaced const replaced(system);
            return faultOfTransmitThread(policy, 0);
        });
        EXPECT_EQ(caller.get(), "") << policy;
    }
}

TEST(SetPthreadAttributes, SystemWithoutRoomForAThread_IsReported)
{
    limitedSystem system(99, false);
    kit::threadCallsReplaced const replaced(system);
    threadAttributes attributes;
    EXPECT_EQ(setPthreadAttributes(0, 2, 51, 1, 0, attributes.attr), EAGAIN);
}

TEST(SetPthreadAttributes, UnknownValuesOfAnOrdinaryUser_AreRefusedToo)
{
    EXPECT_EQ(kit::asOrdinaryUser([]() -> std::string {
                  threadAttributes attributes;
                  bool const refused = setPthreadAttributes(0, 2, 1000, 1, 0, attributes.attr) == EINVAL &&
                                       setPthreadAttributes(7, 2, 51, 1, 0, attributes.attr) == EINVAL &&
                                       setPthreadAttributes(0, 2, 51, 1, 9, attributes.attr) == EINVAL;
                  return refused ? "" : "taken";
              }),
              "");
}

} // namespace
