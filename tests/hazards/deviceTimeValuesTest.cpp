// Times that no clock and no device can keep: they saturate or are refused, the same on every processor.

#include "messages.h"
#include "nextFunction.h"
#include "portOnLine.h"
#include "timeFunctions.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <pthread.h>
#include <random>
#include <thread>

namespace
{

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr long LAST_NANOSECOND = 999'999'999;

std::atomic<unsigned> waitsSeen{0};
std::atomic<unsigned> badWaitsSeen{0};

void look(timespec const* deadline)
{
    ++waitsSeen;
    if (deadline->tv_nsec < 0 || deadline->tv_nsec > LAST_NANOSECOND || deadline->tv_sec < 0)
    {
        ++badWaitsSeen;
    }
}

} // namespace

extern "C" {

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)>("pthread_cond_clockwait");
    look(deadline);
    return real(condition, mutex, clock, deadline);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, timespec const*)>("pthread_cond_timedwait");
    look(deadline);
    return real(condition, mutex, deadline);
}

} // extern "C"

namespace
{

using kit::message;

timespec deadlineOf(double seconds)
{
    timespec deadline{-7, -7};
    EXPECT_EQ(doubleToTimespec(seconds, deadline), 0) << seconds;
    return deadline;
}

TEST(DeviceTimeValues, NotANumber_IsRefusedAndChangesNothing)
{
    timespec deadline{5, 6};
    EXPECT_EQ(doubleToTimespec(NOT_A_NUMBER, deadline), EINVAL);
    EXPECT_EQ(doubleToTimespec(-NOT_A_NUMBER, deadline), EINVAL);
    EXPECT_EQ(deadline.tv_sec, 5);
    EXPECT_EQ(deadline.tv_nsec, 6);
}

TEST(DeviceTimeValues, TimesBeyondTheRange_BecomeTheLatestAndTheEarliest)
{
    for (double const seconds : {INFINITE, 1e300, 1e19, 9.3e18})
    {
        timespec const latest = deadlineOf(seconds);
        EXPECT_EQ(latest.tv_sec, std::numeric_limits<std::time_t>::max()) << seconds;
        EXPECT_EQ(latest.tv_nsec, LAST_NANOSECOND) << seconds;
        timespec const earliest = deadlineOf(-seconds);
        EXPECT_EQ(earliest.tv_sec, std::numeric_limits<std::time_t>::min()) << -seconds;
        EXPECT_EQ(earliest.tv_nsec, 0) << -seconds;
    }
}

TEST(DeviceTimeValues, EveryDeadline_IsNormalised)
{
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> exponent(-25.0, 25.0);
    for (int times = 0; times < 20000; ++times)
    {
        double const size = std::pow(10.0, exponent(random));
        for (double const seconds : {size, -size})
        {
            timespec const deadline = deadlineOf(seconds);
            ASSERT_GE(deadline.tv_nsec, 0) << seconds;
            ASSERT_LE(deadline.tv_nsec, LAST_NANOSECOND) << seconds;
        }
    }
}

TEST(DeviceTimeValues, GateWithATimeoutThatIsNoNumber_DoesNotWait)
{
    kit::portOnLine<> rig;
    EXPECT_EQ(rig.port.waitForPortReady(NOT_A_NUMBER), EINVAL);
}

TEST(DeviceTimeValues, GateWithATimeoutBeyondTheRange_WaitsUntilItOpens)
{
    for (double const timeout_sec : {INFINITE, 1e300, 9.2e18, 1e10})
    {
        kit::portOnLine<> rig;
        unsigned const before = waitsSeen;
        std::thread waiting([&] { EXPECT_EQ(rig.port.waitForPortReady(timeout_sec), 0) << timeout_sec; });
        EXPECT_TRUE(kit::waitUntil([&] { return waitsSeen != before; }));
        rig.port.signalPortReady();
        waiting.join();
    }
    EXPECT_EQ(badWaitsSeen, 0U);
}

TEST(DeviceTimeValues, TrackerWithATimeoutThatIsNoNumber_RegistersNothing)
{
    kit::portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(NOT_A_NUMBER);
    gssipMessage tracked = message(1, gssipMessage::ACK_REQ_FLAG);
    EXPECT_EQ(rig.port.sendAckReq.processSendAckRequest(tracked), EINVAL);
    EXPECT_TRUE(rig.events().empty());
}

TEST(DeviceTimeValues, TrackerWithATimeoutBeyondTheRange_WaitsWithNormalisedDeadlines)
{
    for (double const timeout_sec : {INFINITE, 1e300, 9.2e18, 1e10})
    {
        kit::portOnLine<> rig;
        rig.port.setAcknowledgeTimeout_sec(timeout_sec);
        ASSERT_TRUE(rig.port.start());
        gssipMessage tracked = message(1, gssipMessage::ACK_REQ_FLAG);
        unsigned const before = waitsSeen;
        EXPECT_EQ(rig.port.sendAckReq.processSendAckRequest(tracked), 0);
        EXPECT_TRUE(kit::waitUntil([&] { return waitsSeen != before; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(rig.events().size(), 1U) << "it is pending for ever";
        EXPECT_LT(waitsSeen - before, 5U) << "it waits, and does not spin";
    }
    EXPECT_EQ(badWaitsSeen, 0U);
}

/// What has been overdue since the beginning of time is resent at once, and dropped at once.
TEST(DeviceTimeValues, TrackerWithATimeoutBeforeTheRange_ServesAtOnce)
{
    for (double const timeout_sec : {-INFINITE, -1e300, -9.2e18, -1e10})
    {
        kit::portOnLine<> rig;
        rig.port.setAcknowledgeTimeout_sec(timeout_sec);
        ASSERT_TRUE(rig.port.start());
        gssipMessage tracked = message(1, gssipMessage::ACK_REQ_FLAG);
        EXPECT_EQ(rig.port.sendAckReq.processSendAckRequest(tracked), 0);
        EXPECT_EQ(rig.line.read(10).size(), 10U);
        EXPECT_TRUE(rig.waitForPending(0));
    }
    EXPECT_EQ(badWaitsSeen, 0U);
}

struct gapCase
{
    double gap_sec;
    unsigned vtime;
};

TEST(DeviceTimeValues, ReceiveGap_IsComparedBeforeItIsConverted)
{
    kit::portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    for (gapCase const& each : {gapCase{-1.0, 1},
                                {1e9, 255},
                                {INFINITE, 255},
                                {NOT_A_NUMBER, 1},
                                {-INFINITE, 1},
                                {0.0, 1},
                                {25.5, 255},
                                {0.3, 3}})
    {
        EXPECT_EQ(rig.port.setReceiveInterCharacterGap_sec(each.gap_sec), 0) << each.gap_sec;
        unsigned char vmin = 0;
        unsigned char vtime = 0;
        EXPECT_EQ(rig.port.serial.getVminVtime(vmin, vtime), 0);
        EXPECT_EQ(vmin, 1) << each.gap_sec;
        EXPECT_EQ(vtime, each.vtime) << each.gap_sec;
        EXPECT_EQ(rig.line.settings().c_cc[VTIME], each.vtime) << each.gap_sec;
    }
}

} // namespace
