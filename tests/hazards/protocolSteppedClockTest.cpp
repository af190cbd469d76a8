// The wall clock is stepped while the port waits: no wait changes its length, and nothing is sent early or late.

#include "callOnThread.h"
#include "frames.h"
#include "holdingTime.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "stopwatch.h"
#include "wallClock.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::frame;
using kit::holdingTime;
using kit::message;
using kit::portOnLine;
using testing::IsEmpty;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr double SOON_SEC = 10.0; // a bound for what must not take an hour

std::chrono::seconds const anHour(3600);
std::chrono::seconds const fiftyYears(50LL * 365 * 24 * 3600);

class SteppedClock : public testing::TestWithParam<std::chrono::seconds>
{
  protected:
    kit::unsteppedAgain const atTheEnd{};
};

INSTANTIATE_TEST_SUITE_P(Steps, SteppedClock, testing::Values(-anHour, anHour, fiftyYears),
                         [](testing::TestParamInfo<std::chrono::seconds> const& step) {
                             std::string const length =
                                 std::chrono::abs(step.param) == anHour ? "AnHour" : "FiftyYears";
                             return length + (step.param.count() < 0 ? "Back" : "Ahead");
                         });

// --- The gate

TEST_P(SteppedClock, WaitInTheGate_KeepsItsLength)
{
    portOnLine<> rig;
    kit::stopwatch const watch;
    callOnThread<int> waiting([&] { return rig.port.waitForPortReady(0.2); });
    waiting.awaitAsleep();
    kit::stepWallClock(GetParam());
    EXPECT_EQ(waiting.get(std::chrono::seconds(20)), ETIMEDOUT);
    EXPECT_GE(watch.elapsed_sec(), 0.2);
    EXPECT_LT(watch.elapsed_sec(), SOON_SEC);
}

TEST_P(SteppedClock, EachReadingOfTheClockInTheGate_MayBeTheLastBeforeTheStep)
{
    portOnLine<> rig;
    for (int reading = 1; reading <= 8; ++reading)
    {
        SCOPED_TRACE(reading);
        kit::unsteppedAgain const afterwards;
        kit::stepWallClockAfterReading(reading, GetParam());
        kit::stopwatch const watch;
        callOnThread<int> waiting([&] { return rig.port.waitForPortReady(0.02); });
        ASSERT_EQ(waiting.get(std::chrono::seconds(20)), ETIMEDOUT);
        ASSERT_GE(watch.elapsed_sec(), 0.02);
        ASSERT_LT(watch.elapsed_sec(), SOON_SEC);
    }
}

TEST_P(SteppedClock, MessageHeldByTheGate_GoesOutAfterTheHandshakeTimeout)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    rig.port.setHandshakeTimeout_sec(0.2);
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
    rig.port.resetPortReady();
    kit::stopwatch const held;
    rig.port.sendMessage(message(1), false); // has passed the gate
    ASSERT_EQ(rig.line.read(10), frame(1, 0));
    rig.port.sendMessage(message(2), false);
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
    kit::stepWallClock(GetParam());
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
    EXPECT_GE(held.elapsed_sec(), 0.2);
    EXPECT_LT(held.elapsed_sec(), SOON_SEC);
}

// --- Pending acknowledgements

constexpr double ACK_TIMEOUT_SEC = 0.2;
/// The time-out and the time of ten characters on the line, with 9600 bit/s.
constexpr double DEADLINE_SEC = ACK_TIMEOUT_SEC + 100.0 / 9600;

/// A port that has just written a request, on a running time-stamp source.
template <typename Port = kit::exposedPort>
struct pendingRequestOf : portOnLine<Port>
{
    using portOnLine<Port>::line;
    using portOnLine<Port>::port;
    using portOnLine<Port>::waitForPending;

    explicit pendingRequestOf(double timeout_sec = ACK_TIMEOUT_SEC)
    {
        port.setAcknowledgeTimeout_sec(timeout_sec);
        EXPECT_TRUE(port.start());
        port.sendMessage(message(1, REQUEST), true);
        EXPECT_EQ(line.read(10), frame(1, REQUEST));
        EXPECT_TRUE(waitForPending(1));
        // A wait that would follow the wall clock shows as many short sleeps here: asking for one long one would miss
        // it.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    kit::stopwatch const sinceWrite; // starts before the write
    kit::threadWatch watch;
};

using pendingRequest = pendingRequestOf<>;

/// Wakes the event thread, which looks at its queue anew.
void wakeEventThread(portOnLine<>& rig)
{
    sentry const lock(rig.tracker().eventQMutex);
    pthread_cond_signal(&rig.tracker().eventQCond);
}

template <typename Rig>
void expectOneResendInTime(Rig& rig)
{
    EXPECT_EQ(rig.line.read(10, std::chrono::seconds(20)), frame(1, REQUEST));
    EXPECT_GE(rig.sinceWrite.elapsed_sec(), DEADLINE_SEC);
    EXPECT_LT(rig.sinceWrite.elapsed_sec(), SOON_SEC);
    EXPECT_TRUE(rig.waitForPending(0)); // after the second time-out
    EXPECT_GE(rig.sinceWrite.elapsed_sec(), 2 * DEADLINE_SEC);
    EXPECT_LT(rig.sinceWrite.elapsed_sec(), 2 * SOON_SEC);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST_P(SteppedClock, PendingRequest_IsResentInTime)
{
    pendingRequest rig;
    kit::stepWallClock(GetParam());
    expectOneResendInTime(rig);
}

TEST_P(SteppedClock, PendingRequestLookedAtAgain_IsResentInTime)
{
    pendingRequest rig;
    kit::stepWallClock(GetParam());
    wakeEventThread(rig);
    expectOneResendInTime(rig);
}

TEST_P(SteppedClock, SteppedThereAndBack_IsResentInTime)
{
    pendingRequest rig;
    kit::stepWallClock(GetParam());
    wakeEventThread(rig);
    kit::stepWallClock(-GetParam());
    expectOneResendInTime(rig);
}

double secondsFromNow(timespec const& deadline)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now); // as stepped
    return static_cast<double>(deadline.tv_sec - now.tv_sec) +
           static_cast<double>(deadline.tv_nsec - now.tv_nsec) * 1e-9;
}

/// Of the one pending event, once its deadline has been brought up to date: at the latest when it matters in which
/// order it and another one come.
template <typename Rig>
void expectDeadlineIn(Rig& rig, double seconds)
{
    gssipMessage later = message(2, REQUEST);
    ASSERT_EQ(rig.tracker().processSendAckRequest(later), 0);
    double const left_sec = secondsFromNow(rig.events().front().absTimeout);
    EXPECT_LE(left_sec, seconds + 100.0 / 9600 + 0.002);
    EXPECT_GT(left_sec, seconds - 2 * SOON_SEC);
}

TEST_P(SteppedClock, Deadline_MovesAlongWithTheClock)
{
    pendingRequest rig(1000.0);
    kit::stepWallClock(GetParam());
    expectDeadlineIn(rig, 1000.0);
}

/// Requests from before and after a step keep the order of what remains to them.
TEST_P(SteppedClock, RequestsFromBeforeAndAfter_AreResentInTheOrderOfTheirDeadlines)
{
    pendingRequest rig(1.0);
    kit::stepWallClock(GetParam());
    rig.port.setAcknowledgeTimeout_sec(0.1);
    rig.port.signalPortReady();
    rig.port.sendMessage(message(2, REQUEST), true);
    EXPECT_EQ(rig.line.read(10), frame(2, REQUEST));
    EXPECT_EQ(rig.line.read(10, std::chrono::seconds(20)), frame(2, REQUEST));
    rig.port.setAcknowledgeTimeout_sec(20.0);
    EXPECT_EQ(rig.line.read(10, std::chrono::seconds(20)), frame(1, REQUEST));
    EXPECT_GE(rig.sinceWrite.elapsed_sec(), 1.0);
    EXPECT_LT(rig.sinceWrite.elapsed_sec(), SOON_SEC);
}

TEST_P(SteppedClock, EachReadingOfTheClockInARegistration_MayBeTheLastBeforeTheStep)
{
    portOnLine<> rig; // not started: the event thread reads the clock as well
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    for (int reading = 1; reading <= 8; ++reading)
    {
        SCOPED_TRACE(reading);
        kit::unsteppedAgain const afterwards;
        kit::stepWallClockAfterReading(reading, GetParam());
        gssipMessage request = message(1, REQUEST);
        ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
        kit::takePlannedStep();
        expectDeadlineIn(rig, 1000.0);
        rig.tracker().clearQueue();
    }
}

/// The event thread looks at a request that is far from due, and the clock is stepped while it looks.
TEST_P(SteppedClock, EachReadingOfTheClockInTheEventThread_MayBeTheLastBeforeTheStep)
{
    pendingRequest rig(1000.0);
    pid_t const eventThread = rig.watch.idOf("gssipSendAckReq");
    for (int reading = 1; reading <= 6; ++reading)
    {
        SCOPED_TRACE(reading);
        kit::unsteppedAgain const afterwards;
        kit::stepWallClockAfterReading(reading, GetParam());
        wakeEventThread(rig);
        ASSERT_TRUE(kit::waitUntilAsleep(eventThread));
        kit::takePlannedStep();
        ASSERT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(20)), IsEmpty()); // not resent before its time
    }
}

/// The same for one that is due soon: it must not wait for an hour.
TEST_P(SteppedClock, EachReadingOfTheClockInTheEventThread_StillResendsInTime)
{
    for (int reading = 1; reading <= 4; ++reading)
    {
        SCOPED_TRACE(reading);
        kit::unsteppedAgain const afterwards;
        pendingRequest rig(0.15);
        kit::stepWallClockAfterReading(reading, GetParam());
        wakeEventThread(rig);
        ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
        ASSERT_GE(rig.sinceWrite.elapsed_sec(), 0.15);
        kit::takePlannedStep();
    }
}

/// Steps the clock in the midst of each resend.
class steppingPort : public kit::exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~steppingPort() override { stop(); }

    int resendMessage(gssipMessage& message) override
    {
        kit::stepWallClock(step);
        return exposedPort::resendMessage(message);
    }

    std::chrono::seconds step{0};
};

TEST_P(SteppedClock, DuringAResend_SecondDeadlineStaysTheSame)
{
    pendingRequestOf<steppingPort> rig;
    rig.port.step = GetParam();
    expectOneResendInTime(rig);
}

TEST_P(SteppedClock, DuringAResendForANak_DeadlineStaysTheSame)
{
    portOnLine<steppingPort> rig; // not started: nobody else brings the deadlines up to date
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    gssipMessage request = message(1, REQUEST);
    ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
    rig.port.step = GetParam();
    bool handled = false;
    ASSERT_EQ(rig.tracker().processReceiveAckNak(message(1, gssipMessage::NAK_FLAG), handled), 0);
    expectDeadlineIn(rig, 1000.0);
}

/// A NAK before the registration makes the event due at once, whatever the clock does meanwhile.
TEST_P(SteppedClock, EachReadingOfTheClockForARequestRefusedEarly_MayBeTheLastBeforeTheStep)
{
    for (int reading = 1; reading <= 8; ++reading)
    {
        SCOPED_TRACE(reading);
        kit::unsteppedAgain const afterwards;
        portOnLine<kit::exposedPort, holdingTime> rig;
        rig.port.setAcknowledgeTimeout_sec(1000.0);
        ASSERT_TRUE(rig.port.start());
        rig.port.sendMessage(message(1, REQUEST), true);
        rig.clock.place.awaitArrival();
        ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
        bool handled = false;
        ASSERT_EQ(rig.tracker().processReceiveAckNak(message(1, gssipMessage::NAK_FLAG), handled), 0);
        kit::stepWallClockAfterReading(reading, GetParam());
        rig.clock.place.letGo();
        ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
        kit::takePlannedStep();
    }
}

} // namespace
