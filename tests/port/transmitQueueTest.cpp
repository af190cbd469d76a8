#include "callOnThread.h"
#include "messages.h"
#include "portOnLine.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::message;
using kit::portOnLine;
using testing::ElementsAre;
using testing::IsEmpty;

/// A port whose device is open and whose transmit thread does not exist: what is queued stays.
template <typename Port = exposedPort>
struct openPort : portOnLine<Port>
{
    openPort() { EXPECT_EQ(this->port.serial.open(), 0); }
};

std::vector<unsigned> queuedIds(exposedPort& port)
{
    sentry const lock(port.txMutex);
    std::vector<unsigned> ids;
    for (auto const& entry : port.txQueue)
    {
        ids.push_back(std::get<0>(entry).getId());
    }
    return ids;
}

std::vector<bool> queuedTracking(exposedPort& port)
{
    sentry const lock(port.txMutex);
    std::vector<bool> tracking;
    for (auto const& entry : port.txQueue)
    {
        tracking.push_back(std::get<1>(entry));
    }
    return tracking;
}

std::vector<gssipMessage> messages(std::vector<std::uint16_t> const& ids)
{
    std::vector<gssipMessage> result;
    for (std::uint16_t const id : ids)
    {
        result.push_back(message(id));
    }
    return result;
}

void enqueue(gssipPort& port, std::vector<std::uint16_t> const& ids)
{
    for (std::uint16_t const id : ids)
    {
        EXPECT_EQ(port.sendMessage(message(id), false), 0U);
    }
}

void fill(gssipPort& port, unsigned count)
{
    for (unsigned queued = 0; queued < count; ++queued)
    {
        port.sendMessage(message(static_cast<std::uint16_t>(queued)), false);
    }
}

// --- sendMessage

TEST(SendMessage, ClosedPort_DropsSilently)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.sendMessage(message(1), true), 0U);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(SendMessage, ClosedPort_LeavesWhatWasQueued)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2});
    ASSERT_EQ(rig.port.serial.close(), 0);
    EXPECT_EQ(rig.port.sendMessage(message(3), false), 0U);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1, 2));
}

TEST(SendMessage, OpenPort_AppendsWithTheTrackingAskedFor)
{
    openPort<> rig;
    EXPECT_EQ(rig.port.sendMessage(message(5), true), 0U);
    EXPECT_EQ(rig.port.sendMessage(message(4), false), 0U);
    EXPECT_EQ(rig.port.sendMessage(message(6), true), 0U);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(5, 4, 6));
    EXPECT_THAT(queuedTracking(rig.port), ElementsAre(true, false, true));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 3U);
}

TEST(SendMessage, Entry_IsACopyOfItsOwn)
{
    openPort<> rig;
    gssipMessage mine = message(7, 0x4000, {1, 2, 3});
    mine.setSendTimeStamp(1.5);
    mine.setReceiveTimeStamp(2.5);
    rig.port.sendMessage(mine, true);
    mine.clear();
    mine.setId(99);

    sentry const lock(rig.port.txMutex);
    gssipMessage const& queued = std::get<0>(rig.port.txQueue.front());
    EXPECT_EQ(queued.getId(), 7U);
    EXPECT_EQ(queued.getProtocolFlags(), 0x4000U);
    EXPECT_THAT(queued.getData(), ElementsAre(1, 2, 3));
    EXPECT_EQ(queued.getSendTimeStamp(), 1.5);
    EXPECT_EQ(queued.getReceiveTimeStamp(), 2.5);
}

TEST(SendMessage, Enqueuing_AsksForNoTime)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2, 3});
    EXPECT_EQ(rig.clock.asked, 0U);
}

// --- The wake-up of the transmit thread, heard by the test in its place

/// Waits on `txCond` in another thread while `call` runs; 0 when it was signalled.
int waitForSignal(exposedPort& port, std::chrono::milliseconds limit, std::function<void()> const& call)
{
    kit::callOnThread<int> waiter([&port, limit] {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += limit.count() / 1000;
        deadline.tv_nsec += static_cast<long>(limit.count() % 1000) * 1000000;
        deadline.tv_sec += deadline.tv_nsec / 1000000000;
        deadline.tv_nsec %= 1000000000;
        sentry const lock(port.txMutex);
        return pthread_cond_timedwait(&port.txCond, &port.txMutex, &deadline);
    });
    waiter.awaitAsleep();
    call();
    return waiter.get();
}

constexpr std::chrono::seconds longEnough(20);
constexpr std::chrono::milliseconds shortWhile(60);

TEST(TransmitSignal, SendMessage_Signals)
{
    openPort<> rig;
    EXPECT_EQ(waitForSignal(rig.port, longEnough, [&] { rig.port.sendMessage(message(1), false); }), 0);
}

TEST(TransmitSignal, SendMessageOnAClosedPort_DoesNotSignal)
{
    portOnLine<> rig;
    EXPECT_EQ(waitForSignal(rig.port, shortWhile, [&] { rig.port.sendMessage(message(1), false); }), ETIMEDOUT);
}

TEST(TransmitSignal, EmptyBatch_Signals)
{
    openPort<> rig;
    std::vector<gssipMessage> const none;
    EXPECT_EQ(waitForSignal(rig.port, longEnough, [&] { rig.port.sendDtMessages(none.begin(), 0); }), 0);
}

TEST(TransmitSignal, BatchOnAClosedPort_DoesNotSignal)
{
    portOnLine<> rig;
    std::vector<gssipMessage> const batch = messages({1, 2});
    EXPECT_EQ(waitForSignal(rig.port, shortWhile, [&] { rig.port.sendDtMessages(batch.begin(), 2); }), ETIMEDOUT);
}

// --- sendMessages

/// Hears what goes through the virtual `sendMessage`; may close the device after some messages.
class listeningPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;

    unsigned sendMessage(gssipMessage const& sent, bool trackAck) override
    {
        calls.emplace_back(sent.getId(), trackAck);
        exposedPort::sendMessage(sent, trackAck);
        if (calls.size() == closeAfter)
        {
            serial.close();
        }
        return 7;
    }

    std::vector<std::tuple<unsigned, bool>> calls;
    std::size_t closeAfter = 0;
};

TEST(SendMessages, EachMessage_GoesThroughTheVirtualSendMessageInOrder)
{
    openPort<listeningPort> rig;
    EXPECT_EQ(rig.port.sendMessages(messages({3, 1, 2}), true), 0U);
    EXPECT_THAT(rig.port.calls,
                ElementsAre(std::make_tuple(3, true), std::make_tuple(1, true), std::make_tuple(2, true)));
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(3, 1, 2));
}

TEST(SendMessages, Tracking_IsPassedOn)
{
    openPort<listeningPort> rig;
    EXPECT_EQ(rig.port.sendMessages(messages({9}), false), 0U);
    EXPECT_THAT(rig.port.calls, ElementsAre(std::make_tuple(9, false)));
    EXPECT_THAT(queuedTracking(rig.port), ElementsAre(false));
}

TEST(SendMessages, EmptyList_SendsNothing)
{
    openPort<listeningPort> rig;
    EXPECT_EQ(rig.port.sendMessages({}, true), 0U);
    EXPECT_THAT(rig.port.calls, IsEmpty());
}

TEST(SendMessages, PortThatClosesHalfWay_DropsTheRest)
{
    openPort<listeningPort> rig;
    rig.port.closeAfter = 2;
    EXPECT_EQ(rig.port.sendMessages(messages({1, 2, 3, 4}), false), 0U);
    EXPECT_EQ(rig.port.calls.size(), 4U);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1, 2));
}

// --- sendDtMessages

TEST(SendDtMessages, Batch_IsAppendedInOrderAndTracked)
{
    openPort<> rig;
    enqueue(rig.port, {9});
    std::vector<gssipMessage> const list = messages({1, 2, 3, 4, 5});
    EXPECT_EQ(rig.port.sendDtMessages(list.begin() + 1, 3), 0U);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(9, 2, 3, 4));
    EXPECT_THAT(queuedTracking(rig.port), ElementsAre(false, true, true, true));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 4U);
}

TEST(SendDtMessages, CountZero_QueuesNothing)
{
    openPort<> rig;
    std::vector<gssipMessage> const list = messages({1});
    EXPECT_EQ(rig.port.sendDtMessages(list.begin(), 0), 0U);
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
}

TEST(SendDtMessages, ClosedPort_DropsTheBatch)
{
    portOnLine<> rig;
    std::vector<gssipMessage> const list = messages({1, 2});
    EXPECT_EQ(rig.port.sendDtMessages(list.begin(), 2), 0U);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
}

TEST(SendDtMessages, Entries_AreCopies)
{
    openPort<> rig;
    std::vector<gssipMessage> list = messages({1, 2});
    rig.port.sendDtMessages(list.begin(), 2);
    list.front().setId(77);
    list.clear();
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1, 2));
}

// --- Counting

TEST(QueuedCount, FollowsEveryChange)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2, 1, 3});
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 4U);
    rig.port.removeMsgIdFromTxQueue(1);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    rig.port.clearTransmitQueue();
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
}

TEST(QueuedCount, ChangeMadeByADerivedClass_IsSeen)
{
    openPort<> rig;
    {
        sentry const lock(rig.port.txMutex);
        rig.port.txQueue.emplace_back(message(1), false);
        rig.port.txQueue.emplace_back(message(2), false);
    }
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    {
        sentry const lock(rig.port.txMutex);
        rig.port.txQueue.pop_front();
    }
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
}

TEST(QueuedCount, NeverWaitsForTheLock)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2});
    unsigned count = 0;
    {
        sentry const lock(rig.port.txMutex);
        count = kit::callOnThread<unsigned>([&] { return rig.port.getNumberQueuedMessages(); }).get();
        EXPECT_EQ(rig.port.getNumberQueuedMessages(), count);
    }
    EXPECT_EQ(count, 2U);
}

// --- Removing

TEST(RemoveMsgId, EveryEntryOfThatId_Goes)
{
    openPort<> rig;
    enqueue(rig.port, {7, 1, 7, 2, 7});
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1, 2));
}

TEST(RemoveMsgId, NeighbouringEntries_Go)
{
    openPort<> rig;
    enqueue(rig.port, {7, 7, 7, 1, 7, 7});
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1));
}

TEST(RemoveMsgId, OnlyEntriesOfThatId_LeaveAnEmptyQueue)
{
    openPort<> rig;
    enqueue(rig.port, {7, 7});
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
}

TEST(RemoveMsgId, KeptEntries_KeepContentAndTracking)
{
    openPort<> rig;
    rig.port.sendMessage(message(1, 0x4000, {5, 6}), true);
    rig.port.sendMessage(message(7), false);
    rig.port.sendMessage(message(2, 0, {8}), false);
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_THAT(queuedTracking(rig.port), ElementsAre(true, false));
    sentry const lock(rig.port.txMutex);
    EXPECT_THAT(std::get<0>(rig.port.txQueue.front()).getData(), ElementsAre(5, 6));
    EXPECT_THAT(std::get<0>(rig.port.txQueue.back()).getData(), ElementsAre(8));
}

TEST(RemoveMsgId, IdsAbove65535_MatchNothing)
{
    openPort<> rig;
    enqueue(rig.port, {7, 0, 65535});
    for (unsigned const id : {65536U + 7U, 65536U, 0x7FFF0007U, 0xFFFFFFFFU})
    {
        rig.port.removeMsgIdFromTxQueue(id);
    }
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(7, 0, 65535));
}

TEST(RemoveMsgId, LowestAndHighestId_AreMatched)
{
    openPort<> rig;
    enqueue(rig.port, {0, 1, 65535});
    rig.port.removeMsgIdFromTxQueue(0);
    rig.port.removeMsgIdFromTxQueue(65535);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1));
}

TEST(RemoveMsgId, ClosedPort_IsServedToo)
{
    openPort<> rig;
    enqueue(rig.port, {7, 1});
    ASSERT_EQ(rig.port.serial.close(), 0);
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1));
}

TEST(ClearTransmitQueue, EveryEntry_Goes)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2, 3});
    rig.port.clearTransmitQueue();
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
    rig.port.clearTransmitQueue();
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
}

// --- serviceTransmitQueue

/// Hears the virtual operations that the housekeeping uses, and may tell another number.
class servicedPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;

    unsigned getNumberQueuedMessages() override
    {
        calls.emplace_back("count");
        return toldNumber != 0 ? toldNumber : exposedPort::getNumberQueuedMessages();
    }

    void clearTransmitQueue() override
    {
        calls.emplace_back("clear");
        if (clears)
        {
            exposedPort::clearTransmitQueue();
        }
    }

    std::vector<std::string> calls;
    unsigned toldNumber = 0;
    bool clears = true;
};

TEST(ServiceTransmitQueue, HundredEntries_AreKept)
{
    openPort<> rig;
    fill(rig.port, 100);
    EXPECT_FALSE(rig.port.serviceTransmitQueue());
    EXPECT_EQ(queuedIds(rig.port).size(), 100U);
}

TEST(ServiceTransmitQueue, OneMore_DiscardsAll)
{
    openPort<> rig;
    fill(rig.port, 101);
    EXPECT_TRUE(rig.port.serviceTransmitQueue());
    EXPECT_EQ(queuedIds(rig.port).size(), 0U);
}

TEST(ServiceTransmitQueue, EmptyQueue_IsLeftAlone)
{
    openPort<servicedPort> rig;
    EXPECT_FALSE(rig.port.serviceTransmitQueue());
    EXPECT_THAT(rig.port.calls, ElementsAre("count"));
}

TEST(ServiceTransmitQueue, VirtualCount_Decides)
{
    openPort<servicedPort> rig;
    enqueue(rig.port, {1, 2});
    rig.port.toldNumber = 100;
    EXPECT_FALSE(rig.port.serviceTransmitQueue());
    EXPECT_THAT(queuedIds(rig.port), ElementsAre(1, 2));
    rig.port.toldNumber = 101;
    EXPECT_TRUE(rig.port.serviceTransmitQueue());
    EXPECT_THAT(queuedIds(rig.port), IsEmpty());
    EXPECT_THAT(rig.port.calls, ElementsAre("count", "count", "clear"));
}

TEST(ServiceTransmitQueue, Clearing_GoesThroughTheVirtualOperation)
{
    openPort<servicedPort> rig;
    fill(rig.port, 150);
    rig.port.clears = false;
    EXPECT_TRUE(rig.port.serviceTransmitQueue());
    EXPECT_EQ(queuedIds(rig.port).size(), 150U);
}

// --- The lock of the queue

struct lockedOperation
{
    char const* name;
    std::function<void(gssipPort&)> call;
};

void PrintTo(lockedOperation const& operation, std::ostream* out)
{
    *out << operation.name;
}

class QueueLock : public testing::TestWithParam<lockedOperation>
{};

TEST_P(QueueLock, HeldElsewhere_HoldsTheOperationBack)
{
    openPort<> rig;
    enqueue(rig.port, {1, 2});
    pthread_mutex_lock(&rig.port.txMutex);
    kit::callOnThread<bool> operation([&] {
        GetParam().call(rig.port);
        return true;
    });
    operation.awaitAsleep();
    EXPECT_FALSE(operation.hasEnded());
    EXPECT_EQ(rig.port.txQueue.size(), 2U);
    pthread_mutex_unlock(&rig.port.txMutex);
    EXPECT_TRUE(operation.get());
    EXPECT_NE(queuedIds(rig.port).size(), 2U);
}

std::vector<gssipMessage> const oneMessage = messages({3});

INSTANTIATE_TEST_SUITE_P(
    Operations, QueueLock,
    testing::Values(lockedOperation{"sendMessage", [](gssipPort& port) { port.sendMessage(oneMessage[0], false); }},
                    lockedOperation{"sendMessages", [](gssipPort& port) { port.sendMessages(oneMessage, false); }},
                    lockedOperation{"sendDtMessages",
                                    [](gssipPort& port) { port.sendDtMessages(oneMessage.begin(), 1); }},
                    lockedOperation{"removeMsgIdFromTxQueue", [](gssipPort& port) { port.removeMsgIdFromTxQueue(1); }},
                    lockedOperation{"clearTransmitQueue", [](gssipPort& port) { port.clearTransmitQueue(); }}),
    [](testing::TestParamInfo<lockedOperation> const& tested) { return std::string(tested.param.name); });

} // namespace
