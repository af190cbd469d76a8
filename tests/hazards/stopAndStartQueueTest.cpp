// What is queued stays queued while the port stops and while its device is closed; what is registered stays registered
// while it starts.

#include "callOnThread.h"
#include "frames.h"
#include "holdingTime.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "temporaryFolder.h"
#include "threadCalls.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::exposedPort;
using kit::frame;
using kit::holdingTime;
using kit::message;
using kit::portOnLine;
using testing::IsEmpty;

using holdingRig = portOnLine<exposedPort, holdingTime>;

bytes framesOf(std::uint16_t first, std::uint16_t last)
{
    bytes all;
    for (std::uint16_t id = first; id <= last; ++id)
    {
        bytes const next = frame(id, 0);
        all.insert(all.end(), next.begin(), next.end());
    }
    return all;
}

void sendIds(exposedPort& port, std::uint16_t first, std::uint16_t last)
{
    for (std::uint16_t id = first; id <= last; ++id)
    {
        port.sendMessage(message(id), false);
    }
}

TEST(FullQueueAtStop, NothingIsTakenBeyondTheMessageInHand)
{
    holdingRig rig;
    ASSERT_TRUE(rig.port.start());
    sendIds(rig.port, 1, 200);
    rig.clock.place.awaitArrival(); // with the first message
    callOnThread<bool> stopping([&] { return rig.port.stop(); });
    stopping.awaitAsleep();
    rig.clock.place.letGo();
    EXPECT_TRUE(stopping.get());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 199U);
    EXPECT_EQ(rig.line.readUntilQuiet(), frame(1, 0));

    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.line.read(199 * 10), framesOf(2, 200));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
}

/// Before the device is closed, too: the stop has begun, and the next cycle of the thread takes nothing any more.
TEST(FullQueueAtStop, NothingIsTakenWhileTheDeviceIsStillOpen)
{
    holdingRig rig;
    ASSERT_TRUE(rig.port.start());
    sendIds(rig.port, 1, 50);
    rig.clock.place.awaitArrival();
    std::atomic<bool> txMutexTaken{false};
    kit::pauseBeforeLock pause([&](pthread_mutex_t& mutex) { // the first lock after that of the queue
        bool const next = kit::isThread("stopper") && txMutexTaken;
        txMutexTaken = txMutexTaken || (kit::isThread("stopper") && &mutex == &rig.port.txMutex);
        return next;
    });
    kit::threadCallsReplaced const replaced(pause);
    callOnThread<bool> stopping([&] {
        pthread_setname_np(pthread_self(), "stopper");
        return rig.port.stop();
    });
    pause.place.awaitArrival();
    ASSERT_TRUE(rig.port.serial.isOpen());
    rig.clock.place.letGo();
    EXPECT_EQ(rig.line.readUntilQuiet(), frame(1, 0));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 49U);
    pause.place.letGo();
    EXPECT_TRUE(stopping.get());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 49U);
}

/// Nor does a thread that has waited in the gate when the stop began.
TEST(FullQueueAtStop, GateThatOpensWhileTheDeviceIsStillOpen_LetsNothingOut)
{
    kit::portOnLine<> rig;
    kit::threadWatch const watch;
    rig.port.setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port.start());
    pid_t const transmitThread = watch.idOf("GP TX");
    ASSERT_TRUE(kit::waitUntilAsleep(transmitThread)); // behind the open gate
    rig.port.resetPortReady();
    sendIds(rig.port, 1, 50);
    ASSERT_EQ(rig.line.read(10), frame(1, 0));
    ASSERT_TRUE(kit::waitUntilAsleep(transmitThread)); // before the shut one
    std::atomic<bool> txMutexTaken{false};
    kit::pauseBeforeLock pause([&](pthread_mutex_t& mutex) { // the first lock after that of the queue
        bool const next = kit::isThread("stopper") && txMutexTaken;
        txMutexTaken = txMutexTaken || (kit::isThread("stopper") && &mutex == &rig.port.txMutex);
        return next;
    });
    kit::threadCallsReplaced const replaced(pause);
    callOnThread<bool> stopping([&] {
        pthread_setname_np(pthread_self(), "stopper");
        return rig.port.stop();
    });
    pause.place.awaitArrival();
    ASSERT_TRUE(rig.port.serial.isOpen());
    rig.port.signalPortReady();
    EXPECT_THAT(rig.line.readUntilQuiet(), testing::IsEmpty());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 49U);
    pause.place.letGo();
    EXPECT_TRUE(stopping.get());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 49U);
}

/// The transmit thread has taken it and waits for its turn to write while the port is stopped. The next start sends it
/// first, tracked or not as it was.
TEST(FullQueueAtStop, MessageThatHasNotReachedTheDevice_GoesBackToTheFront)
{
    for (bool const tracked : {false, true})
    {
        SCOPED_TRACE(tracked);
        portOnLine<> rig;
        rig.port.setAcknowledgeTimeout_sec(3600.0);
        ASSERT_TRUE(rig.port.start());
        pthread_mutex_lock(&rig.port.sendMutex);
        for (std::uint16_t id = 1; id <= 3; ++id)
        {
            rig.port.sendMessage(message(id, gssipMessage::ACK_REQ_FLAG), tracked);
        }
        ASSERT_TRUE(kit::waitUntil([&] { return rig.port.getNumberQueuedMessages() == 2; }));
        callOnThread<bool> stopping([&] { return rig.port.stop(); });
        ASSERT_TRUE(kit::waitUntil([&] { return !rig.port.serial.isOpen(); }));
        stopping.awaitAsleep();
        pthread_mutex_unlock(&rig.port.sendMutex);
        EXPECT_TRUE(stopping.get());
        EXPECT_EQ(rig.port.getNumberQueuedMessages(), 3U);
        EXPECT_THAT(rig.events(), IsEmpty());
        EXPECT_EQ(rig.line.readUntilQuiet(std::chrono::milliseconds(20)), bytes{});

        ASSERT_TRUE(rig.port.start());
        for (std::uint16_t id = 1; id <= 3; ++id)
        {
            EXPECT_EQ(rig.line.read(10), frame(id, gssipMessage::ACK_REQ_FLAG));
        }
        EXPECT_TRUE(rig.waitForPending(tracked ? 3 : 0));
    }
}

void queueIds(exposedPort& port, std::uint16_t first, std::uint16_t last)
{
    sentry const lock(port.txMutex);
    for (std::uint16_t id = first; id <= last; ++id)
    {
        port.txQueue.emplace_back(message(id), false);
    }
}

/// The ids of the frames that come, up to the one that ends them.
std::vector<std::uint16_t> idsUpTo(kit::pseudoTerminal& line, std::uint16_t end)
{
    std::vector<std::uint16_t> ids;
    while (ids.empty() || ids.back() != end)
    {
        bytes const next = line.read(10);
        if (next.size() != 10)
        {
            break;
        }
        ids.push_back(static_cast<std::uint16_t>(next[2] | next[3] << 8U));
    }
    return ids;
}

/// Each stop falls somewhere into the traffic, also between the taking of a message and its writing. None is lost, none
/// goes out twice or out of order.
TEST(FullQueueAtStop, ManyRestarts_WriteEveryMessageOnce)
{
    constexpr std::uint16_t last = 20000;
    portOnLine<> rig;
    queueIds(rig.port, 1, last);
    callOnThread<std::vector<std::uint16_t>> peer([&] { return idsUpTo(rig.line, last + 1); });
    std::size_t restarts = 0;
    while (rig.port.getNumberQueuedMessages() > 0)
    {
        ASSERT_TRUE(rig.port.start());
        std::this_thread::sleep_for(std::chrono::microseconds(restarts % 10 * 20));
        ASSERT_TRUE(rig.port.stop());
        ++restarts;
    }
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(last + 1), false);
    std::vector<std::uint16_t> const ids = peer.get(std::chrono::seconds(20));
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end(), std::greater_equal<>()), ids.end());
    EXPECT_EQ(ids.size(), std::size_t{last} + 1);
    EXPECT_EQ(ids.back(), last + 1);
    EXPECT_GT(restarts, 1U);
}

/// A start without a device has a transmit thread, but nowhere to write.
TEST(FullQueueAtFailedStart, NothingIsTaken)
{
    kit::temporaryFolder folder;
    std::string const name = (folder.path / "tty").string();
    kit::pseudoTerminal line;
    kit::settableTime clock;
    kit::recordingLog log;
    exposedPort port(name, clock, &log, false);
    queueIds(port, 1, 20);
    kit::threadWatch const watch;
    ASSERT_FALSE(port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
    pthread_cond_signal(&port.txCond);
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
    EXPECT_EQ(port.getNumberQueuedMessages(), 20U);

    std::filesystem::create_symlink(line.name(), name);
    ASSERT_TRUE(port.start());
    EXPECT_EQ(line.read(20 * 10), framesOf(1, 20));
}

/// The thread's flag tells that requests may be registered: from then on none is forgotten.
TEST(RegistrationAtStart, FlagOfTheEventThread_IsSetUnderTheLockThatEmptiesTheQueue)
{
    portOnLine<> rig;
    gssipMessage old = message(1, gssipMessage::ACK_REQ_FLAG);
    rig.port.setAcknowledgeTimeout_sec(3600.0);
    ASSERT_EQ(rig.tracker().processSendAckRequest(old), 0);

    kit::threadWatch const watch;
    pthread_mutex_lock(&rig.tracker().eventQMutex);
    callOnThread<int> starting([&] { return rig.tracker().initializeEventThread(); });
    bool const waits = kit::waitUntil([&] {
        pid_t const eventThread = watch.idOf("gssipSendAckReq");
        return eventThread != 0 && kit::isAsleep(eventThread);
    });
    EXPECT_TRUE(waits);
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isClear());
    EXPECT_FALSE(starting.hasEnded());
    pthread_mutex_unlock(&rig.tracker().eventQMutex);

    EXPECT_EQ(starting.get(), 0);
    EXPECT_THAT(rig.events(), IsEmpty());
    rig.tracker().unnitializeEventThread();
}

/// The same as those see it who register: not before the flag, and whatever comes after it stays.
TEST(RegistrationAtStart, RightAfterTheFlag_IsKept)
{
    portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(3600.0);
    for (int round = 0; round < 200; ++round)
    {
        callOnThread<int> registering([&] {
            gssipMessage request = message(1, gssipMessage::ACK_REQ_FLAG);
            while (rig.tracker().eventThreadRunning.isClear())
            {
                std::this_thread::yield();
            }
            return rig.tracker().processSendAckRequest(request);
        });
        ASSERT_EQ(rig.tracker().initializeEventThread(), 0);
        ASSERT_EQ(registering.get(), 0);
        ASSERT_EQ(rig.events().size(), 1U);
        ASSERT_EQ(rig.tracker().unnitializeEventThread(), 0);
    }
}

} // namespace
