#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "stopwatch.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;
using testing::IsEmpty;

constexpr double withoutLimit = -1.0;
constexpr double hours_sec = 10000.0;

/// A call of `waitForPortReady` that has begun to wait.
struct waiter
{
    waiter(exposedPort& port, double timeout_sec)
        : call([&port, timeout_sec] { return port.waitForPortReady(timeout_sec); })
    {
        call.awaitAsleep();
    }

    kit::callOnThread<int> call;
};

// --- The gate by itself

TEST(Gate, AfterConstruction_IsClosed)
{
    portOnLine<> rig;
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_EQ(rig.port.waitForPortReady(0.0), ETIMEDOUT);
}

TEST(Gate, SignalAndReset_OpenAndClose)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.signalPortReady(), 0);
    EXPECT_TRUE(rig.gateIsOpen());
    rig.port.resetPortReady();
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_EQ(rig.port.waitForPortReady(0.0), ETIMEDOUT);
}

TEST(Gate, Open_LetsThroughAtOnceWhateverTheTimeout)
{
    portOnLine<> rig;
    rig.port.signalPortReady();
    for (double const timeout_sec : {0.0, hours_sec, withoutLimit, std::nan("")})
    {
        EXPECT_EQ(rig.port.waitForPortReady(timeout_sec), 0);
    }
    EXPECT_TRUE(rig.gateIsOpen());
}

TEST(Gate, Closed_TimesOutNoSoonerThanAsked)
{
    portOnLine<> rig;
    for (double const timeout_sec : {0.001, 0.03, 0.1})
    {
        kit::stopwatch const watch;
        EXPECT_EQ(rig.port.waitForPortReady(timeout_sec), ETIMEDOUT);
        EXPECT_GE(watch.elapsed_sec(), timeout_sec);
        EXPECT_FALSE(rig.gateIsOpen());
    }
}

TEST(Gate, NotANumber_IsRefusedAtOnce)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.waitForPortReady(std::nan("")), EINVAL);
}

TEST(Gate, SignalDuringAWait_ReleasesIt)
{
    for (double const timeout_sec : {hours_sec, 1e300, std::numeric_limits<double>::infinity(), withoutLimit,
                                     -std::numeric_limits<double>::infinity()})
    {
        portOnLine<> rig;
        waiter waiting(rig.port, timeout_sec);
        EXPECT_FALSE(waiting.call.hasEnded());
        rig.port.signalPortReady();
        EXPECT_EQ(waiting.call.get(), 0);
        EXPECT_TRUE(rig.gateIsOpen());
    }
}

TEST(Gate, NegativeTimeout_WaitsUntilSignalled)
{
    portOnLine<> rig;
    waiter waiting(rig.port, withoutLimit);
    EXPECT_FALSE(waiting.call.endsWithin(std::chrono::milliseconds(100)));
    rig.port.signalPortReady();
    EXPECT_EQ(waiting.call.get(), 0);
}

TEST(Gate, OneSignal_ReleasesEveryLaterWaiter)
{
    portOnLine<> rig;
    rig.port.signalPortReady();
    EXPECT_EQ(rig.port.waitForPortReady(withoutLimit), 0);
    EXPECT_EQ(rig.port.waitForPortReady(withoutLimit), 0);
}

TEST(Gate, WakeUpThatFindsItClosed_StartsTheTimeoutAnew)
{
    portOnLine<> rig;
    waiter waiting(rig.port, 0.5);
    kit::stopwatch const watch;
    {
        sentry const lock(rig.port.readyMutex);
        pthread_cond_signal(&rig.port.readyCond);
    }
    EXPECT_EQ(waiting.call.get(), ETIMEDOUT);
    EXPECT_GE(watch.elapsed_sec(), 0.5);
}

TEST(Gate, WakeUpThatFindsItClosed_DoesNotEndAWaitWithoutLimit)
{
    portOnLine<> rig;
    waiter waiting(rig.port, withoutLimit);
    for (int wakeUps = 0; wakeUps < 5; ++wakeUps)
    {
        sentry const lock(rig.port.readyMutex);
        pthread_cond_signal(&rig.port.readyCond);
    }
    EXPECT_FALSE(waiting.call.endsWithin(std::chrono::milliseconds(50)));
    rig.port.signalPortReady();
    EXPECT_EQ(waiting.call.get(), 0);
}

TEST(Gate, OpenedByADerivedClass_LetsTheWaiterThrough)
{
    portOnLine<> rig;
    waiter waiting(rig.port, withoutLimit);
    {
        sentry const lock(rig.port.readyMutex);
        rig.port.portReady = true;
        pthread_cond_signal(&rig.port.readyCond);
    }
    EXPECT_EQ(waiting.call.get(), 0);
}

TEST(Gate, SignalAndReset_WaitForTheLock)
{
    portOnLine<> rig;
    pthread_mutex_lock(&rig.port.readyMutex);
    kit::callOnThread<int> signalling([&] { return rig.port.signalPortReady(); });
    signalling.awaitAsleep();
    EXPECT_FALSE(signalling.hasEnded());
    EXPECT_FALSE(rig.port.portReady);
    pthread_mutex_unlock(&rig.port.readyMutex);
    EXPECT_EQ(signalling.get(), 0);

    pthread_mutex_lock(&rig.port.readyMutex);
    kit::callOnThread<int> resetting([&] {
        rig.port.resetPortReady();
        return 0;
    });
    resetting.awaitAsleep();
    EXPECT_TRUE(rig.port.portReady);
    pthread_mutex_unlock(&rig.port.readyMutex);
    EXPECT_EQ(resetting.get(), 0);
    EXPECT_FALSE(rig.gateIsOpen());
}

// --- The pass that a signal gives to whom it finds waiting

TEST(GatePass, ResetRightAfterTheSignal_StillLetsTheWaiterThrough)
{
    portOnLine<> rig;
    for (int round = 0; round < 40; ++round)
    {
        waiter waiting(rig.port, withoutLimit);
        rig.port.signalPortReady();
        rig.port.resetPortReady();
        ASSERT_EQ(waiting.call.get(), 0) << round;
        ASSERT_FALSE(rig.gateIsOpen());
    }
}

TEST(GatePass, Reset_IsInForceAtOnce)
{
    portOnLine<> rig;
    waiter waiting(rig.port, withoutLimit);
    rig.port.signalPortReady();
    rig.port.resetPortReady();
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_EQ(rig.port.waitForPortReady(0.0), ETIMEDOUT);
    EXPECT_EQ(waiting.call.get(), 0);
}

TEST(GatePass, SignalThatFindsNobody_GivesNone)
{
    portOnLine<> rig;
    rig.port.signalPortReady();
    rig.port.resetPortReady();
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT);
}

TEST(GatePass, Used_IsGone)
{
    portOnLine<> rig;
    {
        waiter waiting(rig.port, withoutLimit);
        rig.port.signalPortReady();
        rig.port.resetPortReady();
        EXPECT_EQ(waiting.call.get(), 0);
    }
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT);
}

TEST(GatePass, SecondSignalBeforeTheWaiterHasLooked_LeavesNoSpareOne)
{
    portOnLine<> rig;
    {
        waiter waiting(rig.port, withoutLimit);
        rig.port.signalPortReady();
        rig.port.signalPortReady();
        rig.port.signalPortReady();
        rig.port.resetPortReady();
        EXPECT_EQ(waiting.call.get(), 0);
    }
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT);
}

// --- The transmit thread at the gate

/// A started port whose transmit thread has passed the open gate and sleeps until there is a message.
struct sleepingTransmitter : portOnLine<>
{
    explicit sleepingTransmitter(double handshakeTimeout_sec)
    {
        port.setHandshakeTimeout_sec(handshakeTimeout_sec);
        EXPECT_TRUE(port.start());
        transmitThread = watch.idOf("GP TX");
        EXPECT_TRUE(kit::waitUntilAsleep(transmitThread));
    }

    /// Queues a message, which goes out since the gate has been passed for it, and waits for it.
    void sendTheOneThatIsLetThrough()
    {
        port.sendMessage(message(100), false);
        EXPECT_EQ(line.read(10), frame(100, 0));
    }

    kit::threadWatch watch;
    pid_t transmitThread = 0;
};

TEST(TransmitGate, ThreadAsleepOnTheQueue_DoesNotAskAgain)
{
    sleepingTransmitter rig(withoutLimit);
    rig.port.resetPortReady();
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
}

TEST(TransmitGate, Closed_HoldsTheSecondMessageForTheHandshakeTimeout)
{
    sleepingTransmitter rig(0.3);
    rig.port.resetPortReady();
    kit::stopwatch const watch;
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_GE(watch.elapsed_sec(), 0.3);
    EXPECT_FALSE(rig.gateIsOpen());
}

TEST(TransmitGate, Closed_HoldsForTheDefaultHandshakeTimeout)
{
    sleepingTransmitter rig(0.6);
    rig.port.resetPortReady();
    kit::stopwatch const watch;
    std::vector<gssipMessage> const both{message(1), message(2)};
    rig.port.sendDtMessages(both.begin(), 2);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_EQ(rig.line.read(10, std::chrono::milliseconds(1)), kit::bytes());
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
    EXPECT_GE(watch.elapsed_sec(), 0.6);
}

TEST(TransmitGate, Closed_HoldsEveryMessageAnew)
{
    sleepingTransmitter rig(0.1);
    rig.port.resetPortReady();
    kit::stopwatch const watch;
    std::vector<gssipMessage> const four{message(1), message(2), message(3), message(4)};
    rig.port.sendDtMessages(four.begin(), 4);
    EXPECT_EQ(rig.line.read(40), frame(1, 0) + frame(2, 0) + frame(3, 0) + frame(4, 0));
    EXPECT_GE(watch.elapsed_sec(), 0.3);
}

TEST(TransmitGate, Signal_ReleasesTheMessageAtOnce)
{
    sleepingTransmitter rig(hours_sec);
    rig.port.resetPortReady();
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(50)), IsEmpty());
    rig.port.signalPortReady();
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
}

TEST(TransmitGate, Open_LetsEveryMessageThrough)
{
    sleepingTransmitter rig(withoutLimit);
    std::vector<gssipMessage> const three{message(1), message(2), message(3)};
    rig.port.sendDtMessages(three.begin(), 3);
    EXPECT_EQ(rig.line.read(30), frame(1, 0) + frame(2, 0) + frame(3, 0));
    EXPECT_TRUE(rig.gateIsOpen());
}

TEST(TransmitGate, NegativeHandshakeTimeout_HoldsWithoutLimit)
{
    sleepingTransmitter rig(withoutLimit);
    rig.port.resetPortReady();
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(700)), IsEmpty()); // longer than the default
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
    rig.port.signalPortReady();
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
}

/// Many enough that even a short hold of each would not let them all out in time.
void expectTwentyGoOutWithoutHold(sleepingTransmitter& rig)
{
    rig.port.resetPortReady();
    kit::bytes expected;
    std::vector<gssipMessage> twenty;
    for (std::uint16_t id = 0; id < 20; ++id)
    {
        twenty.push_back(message(id));
        expected = expected + frame(id, 0);
    }
    rig.port.sendDtMessages(twenty.begin(), 20);
    EXPECT_EQ(rig.line.read(expected.size()), expected);
}

TEST(TransmitGate, ZeroHandshakeTimeout_HoldsNothing)
{
    sleepingTransmitter rig(0.0);
    expectTwentyGoOutWithoutHold(rig);
}

TEST(TransmitGate, HandshakeTimeoutThatIsNoNumber_HoldsNothing)
{
    sleepingTransmitter rig(std::nan(""));
    expectTwentyGoOutWithoutHold(rig);
}

TEST(TransmitGate, ChangedHandshakeTimeout_CountsFromTheNextMessage)
{
    sleepingTransmitter rig(hours_sec);
    rig.port.setHandshakeTimeout_sec(0.1);
    rig.port.resetPortReady();
    std::vector<gssipMessage> const two{message(1), message(2)};
    kit::stopwatch const watch;
    rig.port.sendDtMessages(two.begin(), 2);
    EXPECT_EQ(rig.line.read(20), frame(1, 0) + frame(2, 0));
    EXPECT_GE(watch.elapsed_sec(), 0.1);
}

/// Shows a handshake time-out with which nothing would ever be sent.
class patientPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~patientPort() override { stop(); }

    double getHandshakeTimeout_sec() override { return withoutLimit; }
};

TEST(TransmitGate, OverriddenHandshakeTimeout_IsNotAskedByTheThread)
{
    portOnLine<patientPort> rig;
    rig.port.setHandshakeTimeout_sec(0.0);
    ASSERT_TRUE(rig.port.start());
    rig.port.resetPortReady();
    std::vector<gssipMessage> const two{message(1), message(2)};
    rig.port.sendDtMessages(two.begin(), 2);
    EXPECT_EQ(rig.line.read(20), frame(1, 0) + frame(2, 0));
}

TEST(TransmitGate, MessageClearedWhileItIsHeld_IsNotSent)
{
    sleepingTransmitter rig(hours_sec);
    rig.port.resetPortReady();
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    rig.port.clearTransmitQueue();
    rig.port.signalPortReady();
    rig.port.sendMessage(message(2), false);
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
}

TEST(TransmitGate, WakeUpOnAnEmptyQueue_PassesTheGateAgain)
{
    sleepingTransmitter rig(withoutLimit);
    rig.port.resetPortReady();
    std::string const before = kit::statusField(rig.transmitThread, "voluntary_ctxt_switches");
    std::vector<gssipMessage> const none;
    rig.port.sendDtMessages(none.begin(), 0); // wakes the thread for nothing
    EXPECT_TRUE(
        kit::waitUntil([&] { return kit::statusField(rig.transmitThread, "voluntary_ctxt_switches") != before; }));
    EXPECT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    rig.port.sendMessage(message(1), false);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    rig.port.signalPortReady();
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
}

TEST(TransmitGate, ReceivedRequest_ClosesItUntilTheTimeout)
{
    sleepingTransmitter rig(0.3);
    rig.line.write(frame(0x55, 0x4000));
    gssipMessage received;
    EXPECT_EQ(rig.port.getMessage(received, true), 0);
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_EQ(rig.line.read(10), frame(0x55, 0x8800));

    kit::stopwatch const watch;
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_GE(watch.elapsed_sec(), 0.3);
}

TEST(TransmitGate, StopWhileAMessageIsHeld_KeepsIt)
{
    sleepingTransmitter rig(withoutLimit);
    rig.port.resetPortReady();
    rig.sendTheOneThatIsLetThrough();
    rig.port.sendMessage(message(1), false);
    EXPECT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    EXPECT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
    EXPECT_TRUE(rig.gateIsOpen());
}

TEST(TransmitGate, StopWhileNothingIsHeld_EndsTheThread)
{
    sleepingTransmitter rig(withoutLimit);
    rig.port.resetPortReady();
    rig.sendTheOneThatIsLetThrough();
    EXPECT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    EXPECT_TRUE(rig.port.stop());
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(TransmitGate, Start_OpensIt)
{
    sleepingTransmitter rig(withoutLimit);
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_TRUE(rig.port.stop());
    rig.port.resetPortReady();
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.gateIsOpen());
}

} // namespace
