// Work that must not grow faster than what is worked on. Every limit is a count or a ratio of two processor times
// measured in the same run, with a wide margin: linear work has a ratio near 1, quadratic work one of 60 and more.

#include "allocations.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processorTime.h"
#include "startWordSearch.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIT_SANITIZED 1
#endif
#endif

namespace
{

using kit::bytes;
using kit::frame;
using kit::message;
using kit::operator+;

constexpr double WIDE = 8.0;
constexpr double NEVER_SEC = 1e9;

class Growth : public testing::Test
{
  protected:
    void SetUp() override
    {
#ifdef KIT_SANITIZED
        GTEST_SKIP() << "a sanitizer's own work drowns that of the library, and grows in its own way";
#endif
    }
};

/// The shortest of many runs.
double shortestOf_sec(int times, std::function<double()> const& run_sec)
{
    double shortest_sec = NEVER_SEC;
    for (int each = 0; each < times; ++each)
    {
        shortest_sec = std::min(shortest_sec, run_sec());
    }
    return shortest_sec;
}

/// Whole patterns, about that many bytes of them.
bytes repeated(bytes const& pattern, std::size_t size)
{
    bytes all(size - size % pattern.size());
    for (std::size_t place = 0; place < all.size(); ++place)
    {
        all[place] = pattern[place % pattern.size()];
    }
    return all;
}

/// Bytes of all values, in which no message starts.
bytes randomNoise(std::size_t size)
{
    std::mt19937 random(1);
    bytes all(size);
    for (std::size_t place = 0; place < size; ++place)
    {
        all[place] = static_cast<std::uint8_t>(random() & 0xFFU);
        if (place > 0 && gssipInternal::isStartWord(&all[place - 1]))
        {
            all[place] = 0;
        }
    }
    return all;
}

/// How long the receiver needs to find the frame behind the noise.
double framing_sec(bytes const& noise)
{
    kit::portOnLine<> rig;
    EXPECT_EQ(rig.port.serial.open(), 0);
    kit::exposedReceive receiver(rig.port, nullptr);
    bytes const stream = noise + frame(7, 0);
    kit::processorTime const work;
    {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        receiver.frameBuffer = stream;
        receiver.dataAvailable = true;
    }
    receiver.frameCondition.notify_one();
    gssipMessage found;
    EXPECT_EQ(receiver(found), 0);
    EXPECT_EQ(found.getId(), 7);
    std::this_thread::sleep_for(std::chrono::milliseconds(5)); // the work of a thread counts when it has paused
    return work.used_sec();
}

void expectLinearFraming(std::function<bytes(std::size_t)> const& noise)
{
    constexpr std::size_t LITTLE = 16 * 1024;
    constexpr std::size_t MUCH = 1024 * 1024;
    bytes const little = noise(LITTLE);
    bytes const much = noise(MUCH);
    double const littleTime_sec = shortestOf_sec(7, [&] { return framing_sec(little); });
    double const muchTime_sec = shortestOf_sec(3, [&] { return framing_sec(much); });
    EXPECT_LT(muchTime_sec / MUCH, WIDE * littleTime_sec / LITTLE)
        << "16 KiB take " << littleTime_sec << " s, 1 MiB " << muchTime_sec << " s";
}

TEST_F(Growth, RandomNoise_IsDroppedInTimeProportionalToIt)
{
    expectLinearFraming(randomNoise);
}

TEST_F(Growth, HalvesOfStarts_AreDroppedInTimeProportionalToThem)
{
    expectLinearFraming([](std::size_t size) { return repeated({0xFF}, size); });
}

TEST_F(Growth, StartsOfNothing_AreDroppedInTimeProportionalToThem)
{
    expectLinearFraming([](std::size_t size) { return repeated({0xFF, 0x81, 0, 0, 0, 0, 0, 0, 0, 0}, size); });
}

double search_sec(bytes const& noise)
{
    kit::processorTime const work;
    std::size_t const found = gssipInternal::bytesBeforeStartWord(noise.data(), noise.size());
    double const time_sec = work.used_sec();
    EXPECT_EQ(found, noise.size() - 1);
    return time_sec;
}

TEST_F(Growth, SearchForAStart_IsEquallyFastOnAnyNoise)
{
    constexpr std::size_t SIZE = 512 * 1024;
    std::vector<double> times_sec;
    for (bytes const& noise : {randomNoise(SIZE), repeated({0xFF}, SIZE), repeated({0x81}, SIZE),
                               repeated({0xFF, 0xFF, 0x80}, SIZE), repeated({0}, SIZE)})
    {
        times_sec.push_back(shortestOf_sec(15, [&] { return search_sec(noise); }));
    }
    auto const range = std::minmax_element(times_sec.begin(), times_sec.end());
    EXPECT_LT(*range.second, 4.0 * *range.first);
}

/// Every other entry goes, so that one pass or many makes a difference.
double removal_sec(std::size_t entries)
{
    kit::portOnLine<> rig;
    {
        sentry const lock(rig.port.txMutex);
        for (std::size_t each = 0; each < entries; ++each)
        {
            rig.port.txQueue.emplace_back(message(each % 2 == 0 ? 1 : 2, 0, {1, 2, 3}), false);
        }
    }
    kit::processorTime const work;
    rig.port.removeMsgIdFromTxQueue(1U);
    double const time_sec = work.used_sec();
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), entries / 2);
    return time_sec;
}

TEST_F(Growth, RemovalFromTheTransmitQueue_IsOnePass)
{
    constexpr double FEW = 100;
    constexpr double MANY = 10000;
    double const few_sec = shortestOf_sec(25, [] { return removal_sec(100); });
    double const many_sec = shortestOf_sec(5, [] { return removal_sec(10000); });
    EXPECT_LT(many_sec / MANY, WIDE * few_sec / FEW) << few_sec << " s for 100, " << many_sec << " s for 10000";
}

/// A tracker with that many requests pending, in order, none of them due for a long time.
struct busyTracker : kit::portOnLine<>
{
    explicit busyTracker(std::size_t pending)
    {
        port.setAcknowledgeTimeout_sec(1e6);
        std::time_t const now = std::time(nullptr);
        sentry const lock(tracker().eventQMutex);
        for (std::size_t each = 0; each < pending; ++each)
        {
            gssipSendAckReqEvent event;
            event.message = message(1, gssipMessage::ACK_REQ_FLAG, {1, 2, 3});
            event.absTimeout.tv_sec = now + 1000 + static_cast<std::time_t>(each);
            event.eventId = tracker().nextEventId++;
            tracker().eventQ.push_back(std::move(event));
        }
    }

    double registration_sec()
    {
        gssipMessage tracked = message(2, gssipMessage::ACK_REQ_FLAG, {1, 2, 3});
        kit::processorTime const work;
        EXPECT_EQ(port.sendAckReq.processSendAckRequest(tracked), 0);
        return work.used_sec();
    }

    /// The least that a queue which is kept in order must cost.
    double look_sec()
    {
        sentry const lock(tracker().eventQMutex);
        kit::processorTime const work;
        EXPECT_TRUE(std::is_sorted(tracker().eventQ.begin(), tracker().eventQ.end(), eventLess));
        return work.used_sec();
    }

    std::size_t mostAllocationsOfARegistration()
    {
        std::size_t most = 0;
        for (int times = 0; times < 50; ++times)
        {
            gssipMessage tracked = message(2, gssipMessage::ACK_REQ_FLAG, {1, 2, 3});
            std::size_t const before = kit::allocationsMade();
            EXPECT_EQ(port.sendAckReq.processSendAckRequest(tracked), 0);
            most = std::max(most, kit::allocationsMade() - before);
        }
        return most;
    }
};

/// Sorting what is in order takes a good dozen times as long as looking at it once.
TEST_F(Growth, RegistrationInOrder_LooksAtThePendingRequestsAndMovesNone)
{
    busyTracker rig(10000);
    double const registration_sec = shortestOf_sec(25, [&] { return rig.registration_sec(); });
    double const look_sec = shortestOf_sec(25, [&] { return rig.look_sec(); });
    EXPECT_LT(registration_sec, 5.0 * look_sec);
}

TEST_F(Growth, Registration_CopiesOneMessageHoweverManyArePending)
{
    constexpr std::size_t COPY = 2;  // header and data
    constexpr std::size_t QUEUE = 2; // the queue's own
    EXPECT_LE(busyTracker(100).mostAllocationsOfARegistration(), COPY + QUEUE);
    EXPECT_LE(busyTracker(10000).mostAllocationsOfARegistration(), COPY + QUEUE);
}

TEST_F(Growth, ReceivedMessage_IsMovedToItsTaker)
{
    ThreadSafeQueue<gssipMessage> queue;
    gssipMessage received = message(1, 0, std::vector<std::uint16_t>(1000, 5));
    std::uint16_t const* const words = received.getData().data();
    queue.push(std::move(received));
    gssipMessage taken;
    std::size_t const before = kit::allocationsMade();
    ASSERT_TRUE(queue.pop_wait(taken));
    EXPECT_EQ(kit::allocationsMade(), before);
    EXPECT_EQ(taken.getData().data(), words);
}

} // namespace
