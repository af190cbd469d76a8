// Every sleeper of a port is reached by the stop, at whatever moment it comes.

#include "callOnThread.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "threadCalls.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

namespace
{

using kit::callOnThread;
using kit::exposedPort;
using kit::exposedSendAckReq;
using kit::message;
using kit::pauseBeforeLock;
using kit::pauseBeforeWait;
using kit::portOnLine;
using kit::threadCallsReplaced;

constexpr double WITHOUT_LIMIT = -1.0;
constexpr double AN_HOUR_SEC = 3600.0;

/// Stops a port whose thread is held back at `place`: the stop gets as far as it can before the thread goes on.
template <typename Stop>
auto stopAround(kit::checkpoint& place, Stop const& stop)
{
    place.awaitArrival();
    callOnThread<decltype(stop())> stopping(stop);
    stopping.awaitAsleep();
    place.letGo();
    return stopping.get();
}

// --- The transmit thread

/// Starts the port and waits until its transmit thread sleeps on the empty queue.
void startToSleep(portOnLine<>& rig)
{
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
}

TEST(StopOfTheTransmitThread, ClosedGateAndEmptyQueue_Ends)
{
    for (int round = 0; round < 20; ++round)
    {
        portOnLine<> rig;
        kit::threadWatch const watch;
        rig.port.setHandshakeTimeout_sec(WITHOUT_LIMIT);
        ASSERT_TRUE(rig.port.start());
        pid_t const transmitThread = watch.idOf("GP TX");
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
        rig.port.resetPortReady();
        pthread_cond_signal(&rig.port.txCond); // finds the queue empty and goes back to the gate
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
        ASSERT_TRUE(rig.port.stop());
    }
}

TEST(StopOfTheTransmitThread, AboutToSleepOnTheQueue_Ends)
{
    portOnLine<> rig;
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == &rig.port.txCond; });
    threadCallsReplaced const replaced(pause);
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

/// As a derived class may, and as a start does to the threads of one that failed.
TEST(StopOfTheTransmitThread, AboutToSleepOnTheQueueWithoutStopOfThePort_Ends)
{
    portOnLine<> rig;
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == &rig.port.txCond; });
    threadCallsReplaced const replaced(pause);
    ASSERT_EQ(rig.port.initializeTransmitThread(), 0);
    EXPECT_EQ(stopAround(pause.place, [&] { return rig.port.uninitializeTransmitThread(); }), 0);
}

TEST(StopOfTheTransmitThread, AboutToSleepInTheGate_Ends)
{
    portOnLine<> rig;
    rig.port.setHandshakeTimeout_sec(WITHOUT_LIMIT);
    startToSleep(rig);
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == &rig.port.readyCond; });
    threadCallsReplaced const replaced(pause);
    rig.port.resetPortReady();
    pthread_cond_signal(&rig.port.txCond);
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

/// The thread has found that it may run; now the stop comes, opens the gate, and a received request shuts it again.
TEST(StopOfTheTransmitThread, ShutGateAfterTheStopHasOpenedIt_Ends)
{
    portOnLine<> rig;
    rig.port.setHandshakeTimeout_sec(WITHOUT_LIMIT);
    startToSleep(rig);
    pauseBeforeLock pause(
        [&](pthread_mutex_t& mutex) { return &mutex == &rig.port.readyMutex && kit::isThread("GP TX"); });
    threadCallsReplaced const replaced(pause);
    pthread_cond_signal(&rig.port.txCond);
    pause.place.awaitArrival();
    callOnThread<bool> stopping([&] { return rig.port.stop(); });
    stopping.awaitAsleep();
    rig.port.resetPortReady();
    pause.place.letGo();
    EXPECT_TRUE(stopping.get());
}

/// The gate has been passed; the whole stop comes before the queue is looked at.
TEST(StopOfTheTransmitThread, BetweenGateAndQueue_Ends)
{
    portOnLine<> rig;
    startToSleep(rig);
    pauseBeforeLock pause(
        [&](pthread_mutex_t& mutex) { return &mutex == &rig.port.txMutex && kit::isThread("GP TX"); });
    threadCallsReplaced const replaced(pause);
    pthread_cond_signal(&rig.port.txCond);
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

/// A port that is not running is no port that is being stopped: its gate keeps waiters.
TEST(StopOfTheTransmitThread, NotUnderWay_LeavesTheGateAlone)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT);
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    rig.port.resetPortReady();
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT);
}

// --- The event thread

void awaitDeadlineIn(portOnLine<>& rig, double seconds)
{
    rig.port.setAcknowledgeTimeout_sec(seconds);
    gssipMessage request = message(1, gssipMessage::ACK_REQ_FLAG);
    ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
}

/// The thread sleeps on `eventQCond`, is woken, and has found that it may run; then the whole stop comes.
void stopBetweenTestAndLock(portOnLine<>& rig)
{
    pauseBeforeLock pause([&](pthread_mutex_t& /*any*/) { return kit::isThread("gssipSendAckReq"); });
    threadCallsReplaced const replaced(pause);
    {
        sentry const lock(rig.tracker().eventQMutex);
        pthread_cond_signal(&rig.tracker().eventQCond);
    }
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

TEST(StopOfTheEventThread, AboutToSleepWithNothingPending_Ends)
{
    portOnLine<> rig;
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == &rig.tracker().eventQCond; });
    threadCallsReplaced const replaced(pause);
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

TEST(StopOfTheEventThread, AboutToSleepUntilADeadline_Ends)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("gssipSendAckReq")));
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == &rig.tracker().eventQCond; });
    threadCallsReplaced const replaced(pause);
    awaitDeadlineIn(rig, AN_HOUR_SEC);
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
}

TEST(StopOfTheEventThread, BetweenItsTestAndItsLockWithNothingPending_Ends)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("gssipSendAckReq")));
    stopBetweenTestAndLock(rig);
}

TEST(StopOfTheEventThread, BetweenItsTestAndItsLockWithADeadline_Ends)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    awaitDeadlineIn(rig, AN_HOUR_SEC);
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("gssipSendAckReq")));
    stopBetweenTestAndLock(rig);
}

// --- The receiver's threads and those who wait for a message

TEST(StopOfTheReceiver, ConsumerAboutToSleep_IsReleased)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    auto& arrival = rig.receiver().rxQueue.queueCondition;
    pauseBeforeWait pause([&](pthread_cond_t& condition) { return &condition == arrival.native_handle(); });
    threadCallsReplaced const replaced(pause);
    callOnThread<int> consumer([&] {
        gssipMessage received;
        return rig.port.getMessage(received, true);
    });
    EXPECT_TRUE(stopAround(pause.place, [&] { return rig.port.stop(); }));
    EXPECT_EQ(consumer.get(), -1);
}

/// The last empty read, which the close brings about, has woken it; it is about to sleep again, and nobody reads any
/// more.
TEST(StopOfTheReceiver, ProcessingThreadAboutToSleep_Ends)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    ASSERT_TRUE(rig.port.start());
    for (kit::threadState const& thread : watch.added())
    {
        ASSERT_TRUE(kit::waitUntilAsleep(thread.id));
    }
    struct : kit::threadCalls
    {
        void beforeLock(pthread_mutex_t& /*mutex*/) override
        {
            if (!port->serial.isOpen() && kit::isThread("stopper"))
            {
                afterClose.pass();
            }
        }
        void beforeWait(pthread_cond_t& condition) override
        {
            if (!port->serial.isOpen() && &condition == arrival)
            {
                beforeSleep.pass();
            }
        }
        exposedPort* port = nullptr;
        pthread_cond_t* arrival = nullptr;
        kit::checkpoint afterClose;
        kit::checkpoint beforeSleep;
    } pauses;
    pauses.port = &rig.port;
    pauses.arrival = rig.receiver().frameCondition.native_handle();
    threadCallsReplaced const replaced(pauses);
    callOnThread<bool> stopping([&] {
        pthread_setname_np(pthread_self(), "stopper");
        return rig.port.stop();
    });
    pauses.afterClose.awaitArrival();
    pauses.beforeSleep.awaitArrival();
    pauses.afterClose.letGo();
    stopping.awaitAsleep();
    pauses.beforeSleep.letGo();
    EXPECT_TRUE(stopping.get());
}

TEST(StopOfTheReceiver, SeveralConsumers_AreAllReleased)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    auto const consume = [&] {
        gssipMessage received;
        return rig.port.getMessage(received, true);
    };
    std::vector<std::unique_ptr<callOnThread<int>>> consumers;
    for (int i = 0; i < 4; ++i)
    {
        consumers.push_back(std::make_unique<callOnThread<int>>(consume));
        consumers.back()->awaitAsleep();
    }
    EXPECT_TRUE(rig.port.stop());
    for (auto const& consumer : consumers)
    {
        EXPECT_EQ(consumer->get(), -1);
    }
}

TEST(StopOfTheReceiver, ConsumerAtAnyMoment_IsReleased)
{
    portOnLine<> rig;
    for (int round = 0; round < 300; ++round)
    {
        ASSERT_TRUE(rig.port.start());
        callOnThread<int> consumer([&] {
            gssipMessage received;
            return rig.port.getMessage(received, true);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(round % 50 * 10));
        ASSERT_TRUE(rig.port.stop());
        ASSERT_LE(consumer.get(), 0); // -1, or 0 when it came after the stop
    }
}

} // namespace
