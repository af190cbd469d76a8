#include "ThreadSafeQueue.h"
#include "gssipMessage.h"
#include "waitUntil.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

std::vector<int> takeAll(ThreadSafeQueue<int>& queue)
{
    std::vector<int> taken;
    queue.stop();
    for (int element = 0; queue.pop_wait(element);)
    {
        taken.push_back(element);
    }
    return taken;
}

/// A consumer on a thread of its own.
class consumer
{
  public:
    explicit consumer(ThreadSafeQueue<int>& queue)
        : outcome(std::async(std::launch::async, [&queue, this] { return queue.pop_wait(element); }))
    {}

    bool isReleased() { return outcome.wait_for(10s) == std::future_status::ready; }
    bool isStillWaiting() { return outcome.wait_for(20ms) == std::future_status::timeout; }
    bool tookOne() { return outcome.get(); }
    int taken() const { return element; }

  private:
    int element = -1;
    std::future<bool> outcome;
};

TEST(ThreadSafeQueue, Construct_IsEmptyAndNotStopped)
{
    ThreadSafeQueue<int> queue;
    EXPECT_TRUE(queue.queue.empty());
    EXPECT_EQ(queue.size(), 0U);
    EXPECT_FALSE(queue.stopped);
}

TEST(ThreadSafeQueue, Members_StandInTheirOrder)
{
    ThreadSafeQueue<int> const queue;
    std::vector<void const volatile*> const members{&queue.queue, &queue.queueMutex, &queue.queueCondition,
                                                    &queue.stopped};
    for (std::size_t next = 1; next < members.size(); ++next)
    {
        EXPECT_LT(members[next - 1], members[next]) << next;
    }
}

TEST(ThreadSafeQueue, PopWait_ReturnsElementsInTheOrderPushed)
{
    ThreadSafeQueue<int> queue;
    for (int element = 0; element < 100; ++element)
    {
        queue.push(element);
    }
    for (int expected = 0; expected < 100; ++expected)
    {
        int taken = -1;
        EXPECT_TRUE(queue.pop_wait(taken));
        EXPECT_EQ(taken, expected);
    }
}

TEST(ThreadSafeQueue, PopWait_RemovesWhatItReturns)
{
    ThreadSafeQueue<int> queue;
    for (int element : {7, 8})
    {
        queue.push(element);
    }
    int taken = 0;
    ASSERT_TRUE(queue.pop_wait(taken));
    EXPECT_EQ(queue.queue, std::deque<int>{8});
}

TEST(ThreadSafeQueue, Push_MessageStaysAsItWasWhenTheSourceIsCleared)
{
    ThreadSafeQueue<gssipMessage> queue;
    {
        gssipMessage source(7, gssipMessage::ACK_REQ_FLAG, 2);
        source.getData() = {0x1234, 0x5678};
        source.setReceiveTimeStamp(3.5);
        queue.push(source);
        EXPECT_EQ(source.getData().size(), 2U) << "the source was moved from";
        source.clear();
    }
    gssipMessage taken;
    ASSERT_TRUE(queue.pop_wait(taken));
    EXPECT_EQ(taken.getId(), 7);
    EXPECT_EQ(taken.getProtocolFlags(), gssipMessage::ACK_REQ_FLAG);
    EXPECT_EQ(taken.getData(), (std::vector<std::uint16_t>{0x1234, 0x5678}));
    EXPECT_EQ(taken.getReceiveTimeStamp(), 3.5);
}

TEST(ThreadSafeQueue, Push_SameMessageTwiceMakesTwoIndependentElements)
{
    ThreadSafeQueue<gssipMessage> queue;
    gssipMessage source(1, 0, 1);
    queue.push(source);
    source.setId(2);
    source.getData()[0] = 9;
    queue.push(source);

    gssipMessage first;
    gssipMessage second;
    ASSERT_TRUE(queue.pop_wait(first));
    ASSERT_TRUE(queue.pop_wait(second));
    EXPECT_EQ(first.getId(), 1);
    EXPECT_EQ(first.getData()[0], 0);
    EXPECT_EQ(second.getId(), 2);
    EXPECT_EQ(second.getData()[0], 9);
}

TEST(ThreadSafeQueue, PopWait_BlocksUntilAnElementIsPushed)
{
    ThreadSafeQueue<int> queue;
    consumer waiting(queue);
    EXPECT_TRUE(waiting.isStillWaiting());
    int element = 42;
    queue.push(element);
    ASSERT_TRUE(waiting.isReleased());
    EXPECT_TRUE(waiting.tookOne());
    EXPECT_EQ(waiting.taken(), 42);
}

TEST(ThreadSafeQueue, PopWait_WakeUpWithoutAnElementGoesOnWaiting)
{
    ThreadSafeQueue<int> queue;
    consumer waiting(queue);
    queue.queueCondition.notify_all();
    EXPECT_TRUE(waiting.isStillWaiting());
    queue.stop();
    ASSERT_TRUE(waiting.isReleased());
}

TEST(ThreadSafeQueue, PopWait_EmptyStoppedQueueReturnsFalseAndLeavesTheElement)
{
    ThreadSafeQueue<gssipMessage> queue;
    queue.stop();
    gssipMessage untouched(7, gssipMessage::ACK_REQ_FLAG, 1);
    untouched.getData()[0] = 0x1234;
    EXPECT_FALSE(queue.pop_wait(untouched));
    EXPECT_EQ(untouched.getId(), 7);
    EXPECT_EQ(untouched.getData(), std::vector<std::uint16_t>{0x1234});
}

TEST(ThreadSafeQueue, PopWait_StoppedQueueStillReturnsItsElements)
{
    ThreadSafeQueue<int> queue;
    for (int element : {1, 2, 3})
    {
        queue.push(element);
    }
    queue.stop();
    for (int const expected : {1, 2, 3})
    {
        int taken = 0;
        ASSERT_TRUE(queue.pop_wait(taken));
        EXPECT_EQ(taken, expected);
    }
    int untouched = 99;
    EXPECT_FALSE(queue.pop_wait(untouched));
    EXPECT_EQ(untouched, 99);
}

TEST(ThreadSafeQueue, Push_StoppedQueueStillTakesElements)
{
    ThreadSafeQueue<int> queue;
    queue.stop();
    int element = 5;
    queue.push(element);
    int taken = 0;
    EXPECT_TRUE(queue.pop_wait(taken));
    EXPECT_EQ(taken, 5);
    EXPECT_FALSE(queue.pop_wait(taken));
}

TEST(ThreadSafeQueue, Stop_ReleasesABlockedConsumerWithFalse)
{
    ThreadSafeQueue<int> queue;
    consumer waiting(queue);
    EXPECT_TRUE(waiting.isStillWaiting());
    queue.stop();
    ASSERT_TRUE(waiting.isReleased());
    EXPECT_FALSE(waiting.tookOne());
    EXPECT_EQ(waiting.taken(), -1);
}

TEST(ThreadSafeQueue, StoppedFlagAndOneNotification_ReleaseABlockedConsumer)
{
    ThreadSafeQueue<int> queue;
    consumer waiting(queue);
    EXPECT_TRUE(waiting.isStillWaiting());
    {
        std::lock_guard<std::mutex> const lock(queue.queueMutex);
        queue.stopped = true;
    }
    queue.queueCondition.notify_one();
    ASSERT_TRUE(waiting.isReleased());
    EXPECT_FALSE(waiting.tookOne());
}

TEST(ThreadSafeQueue, Stop_ReleasesEveryConsumer)
{
    ThreadSafeQueue<int> queue;
    std::vector<std::unique_ptr<consumer>> consumers;
    for (int number = 0; number < 5; ++number)
    {
        consumers.push_back(std::make_unique<consumer>(queue));
    }
    EXPECT_TRUE(consumers.back()->isStillWaiting());
    queue.stop();
    for (auto& one : consumers)
    {
        ASSERT_TRUE(one->isReleased());
        EXPECT_FALSE(one->tookOne());
    }
}

TEST(ThreadSafeQueue, Stop_AtAnyMomentReleasesTheConsumer)
{
    for (int round = 0; round < 200; ++round)
    {
        ThreadSafeQueue<int> queue;
        consumer arriving(queue);
        queue.stop();
        ASSERT_TRUE(arriving.isReleased()) << "round " << round;
        EXPECT_FALSE(arriving.tookOne());
    }
}

TEST(ThreadSafeQueue, Push_ReleasesOneConsumerPerElement)
{
    ThreadSafeQueue<int> queue;
    std::vector<std::unique_ptr<consumer>> consumers;
    for (int number = 0; number < 3; ++number)
    {
        consumers.push_back(std::make_unique<consumer>(queue));
    }
    for (int element : {10, 11, 12})
    {
        queue.push(element);
    }
    std::vector<int> taken;
    for (auto& one : consumers)
    {
        ASSERT_TRUE(one->isReleased());
        EXPECT_TRUE(one->tookOne());
        taken.push_back(one->taken());
    }
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(taken, (std::vector<int>{10, 11, 12}));
}

TEST(ThreadSafeQueue, Size_CountsWhatIsPushedAndTaken)
{
    ThreadSafeQueue<int> queue;
    int element = 1;
    queue.push(element);
    EXPECT_EQ(queue.size(), 1U);
    queue.push(element);
    EXPECT_EQ(queue.size(), 2U);
    queue.pop_wait(element);
    EXPECT_EQ(queue.size(), 1U);
    queue.pop_wait(element);
    EXPECT_EQ(queue.size(), 0U);
}

TEST(ThreadSafeQueue, Size_IsExactAfterTheDequeWasChangedUnderItsMutex)
{
    ThreadSafeQueue<int> queue;
    {
        std::lock_guard<std::mutex> const lock(queue.queueMutex);
        queue.queue = {1, 2, 3};
    }
    EXPECT_EQ(queue.size(), 3U);
    {
        std::lock_guard<std::mutex> const lock(queue.queueMutex);
        queue.queue.pop_back();
    }
    EXPECT_EQ(queue.size(), 2U);
    EXPECT_EQ(takeAll(queue), (std::vector<int>{1, 2}));
}

TEST(ThreadSafeQueue, Size_DoesNotWaitForTheMutex)
{
    ThreadSafeQueue<int> queue;
    for (int element : {1, 2})
    {
        queue.push(element);
    }
    std::unique_lock<std::mutex> lock(queue.queueMutex);
    auto asked = std::async(std::launch::async, [&queue] { return queue.size(); });
    bool const answered = asked.wait_for(10s) == std::future_status::ready;
    lock.unlock();
    EXPECT_TRUE(answered);
    EXPECT_EQ(asked.get(), 2U);
}

TEST(ThreadSafeQueue, Pushed_CountsWhatHasEverCome)
{
    ThreadSafeQueue<int> queue;
    EXPECT_EQ(queue.pushed(), 0U);
    for (int element : {1, 2, 3})
    {
        queue.push(element);
    }
    EXPECT_EQ(queue.pushed(), 3U);
    int taken = 0;
    ASSERT_TRUE(queue.pop_wait(taken));
    EXPECT_EQ(queue.pushed(), 3U);
}

TEST(ThreadSafeQueue, PopWait_TellsTheNumberOfTheElement)
{
    ThreadSafeQueue<int> queue;
    int taken = 0;
    std::uint64_t number = 0;
    for (int element : {10, 11})
    {
        queue.push(element);
    }
    ASSERT_TRUE(queue.pop_wait(taken, number));
    EXPECT_EQ(number, 1U);
    queue.push(taken);
    ASSERT_TRUE(queue.pop_wait(taken, number));
    EXPECT_EQ(taken, 11);
    EXPECT_EQ(number, 2U);
    ASSERT_TRUE(queue.pop_wait(taken, number));
    EXPECT_EQ(number, 3U);
}

TEST(ThreadSafeQueue, ManyThreads_EachElementIsTakenOnceAndInTheOrderOfItsProducer)
{
    constexpr int producers = 3;
    constexpr int elements = 2000;
    ThreadSafeQueue<std::array<int, 2>> queue;

    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer)
    {
        threads.emplace_back([&queue, producer] {
            for (int number = 0; number < elements; ++number)
            {
                std::array<int, 2> element{producer, number};
                queue.push(element);
            }
        });
    }
    std::array<int, producers> next{};
    for (int count = 0; count < producers * elements; ++count)
    {
        std::array<int, 2> taken{};
        ASSERT_TRUE(queue.pop_wait(taken));
        ASSERT_EQ(taken[1], next.at(static_cast<std::size_t>(taken[0]))++);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(queue.size(), 0U);
}

} // namespace
