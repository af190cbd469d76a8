// Start and stop with a line that stands, and with a device that is missing or pulled out.
// GSSIP_TEST_SEED in the environment replays the random waits of a failure.

#include "cycleJudge.h"
#include "emulatedLine.h"
#include "frames.h"
#include "messages.h"
#include "monotonicTimeStamp.h"
#include "placement.h"
#include "pluggableTerminal.h"
#include "testSize.h"
#include "waitUntil.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <poll.h>
#include <random>
#include <string>
#include <thread>
#include <utility>

namespace
{

using cycles::cycleJudge;
using cycles::placement;
using kit::bytes;
using kit::message;

unsigned seedOfTest()
{
    char const* const asked = std::getenv("GSSIP_TEST_SEED");
    return asked == nullptr ? 1 : static_cast<unsigned>(std::strtoul(asked, nullptr, 10));
}

class LineCycles : public testing::TestWithParam<placement>
{
  protected:
    void run(std::size_t count, std::function<void(cycleJudge&)> const& oneCycle)
    {
        SCOPED_TRACE("GSSIP_TEST_SEED=" + std::to_string(seed));
        ASSERT_NO_THROW({
            cycleJudge judge(kit::isSanitized ? count / 5 : count);
            for (std::size_t each = 0; each < judge.cyclesToCome() && !HasFailure(); ++each)
            {
                oneCycle(judge);
                judge.close();
            }
            ASSERT_FALSE(HasFailure());
            judge.conclude(testing::UnitTest::GetInstance()->current_test_info()->name());
        });
    }

    void waitUpTo(unsigned most_us)
    {
        auto const time_us = std::uniform_int_distribution<unsigned>(0, most_us)(random);
        std::this_thread::sleep_for(std::chrono::microseconds(time_us));
    }

    /// Sends a message and takes it from the line.
    void expectThatThePortSends()
    {
        port.sendMessage(message(0x7777), false);
        EXPECT_EQ(device.line().read(kit::frame(0x7777, 0).size()), kit::frame(0x7777, 0));
    }

    unsigned const seed = seedOfTest();
    std::mt19937 random{seed};
    cycles::placed where{GetParam()};
    kit::pluggableTerminal device;
    monotonicTimeStamp clock;
    gssipPort port{device.name(), clock, nullptr, false};
};

INSTANTIATE_TEST_SUITE_P(Places, LineCycles, cycles::everyPlacement(), cycles::nameOfPlace);

/// The driver takes messages, but none of them leaves.
TEST_P(LineCycles, BlockedLine_KeepsQueuedWhatTheDriverHasNotTaken)
{
    constexpr unsigned QUEUED = 10;
    kit::lineTraits traits;
    traits.startsHeld = true;
    kit::emulatedLine driver(traits);
    kit::systemReplaced const replaced(driver);
    device.plugIn();
    bytes const frame = kit::frame(1, 0, {1, 2, 3});
    std::size_t given = 0;
    std::size_t taken = 0;
    run(bySize<std::size_t>(20, 100, 500), [&](cycleJudge& judge) {
        judge.start(port);
        for (; given - taken < QUEUED; ++given)
        {
            port.sendMessage(message(1, 0, {1, 2, 3}), false);
        }
        EXPECT_EQ(device.line().read(frame.size()), frame);
        waitUpTo(1000);
        judge.stop(port);
        std::size_t const queued = port.getNumberQueuedMessages();
        std::size_t const behindTheFirst = given - queued - taken - 1;
        EXPECT_GT(queued, 0U);
        EXPECT_EQ(device.line().read(behindTheFirst * frame.size()).size(), behindTheFirst * frame.size());
        EXPECT_EQ(device.line().read(1, std::chrono::milliseconds(20)), bytes{});
        taken = given - queued;
    });
}

/// A message is half taken: it is lost, and no other.
TEST_P(LineCycles, BlockedInTheMiddleOfAMessage_CostsThatMessage)
{
    device.plugIn();
    gssipMessage const big = message(1, 0, std::vector<std::uint16_t>(40000, 1));
    bool isFirst = true;
    run(bySize<std::size_t>(20, 100, 500), [&](cycleJudge& judge) {
        judge.start(port);
        for (int count = std::exchange(isFirst, false) ? 2 : 1; count > 0; --count) // one is left each time
        {
            port.sendMessage(big, false);
        }
        EXPECT_FALSE(device.line().read(1).empty());
        waitUpTo(1000);
        judge.stop(port);
        EXPECT_EQ(port.getNumberQueuedMessages(), 1U);
        device.line().readUntilQuiet(std::chrono::milliseconds(20));
    });
}

TEST_P(LineCycles, MissingDeviceThatComes_StartsThen)
{
    run(bySize<std::size_t>(50, 200, 1000), [&](cycleJudge& judge) {
        ASSERT_FALSE(port.start());
        judge.expectThreads(cycleJudge::THREADS_OF_A_PORT); // they wait
        waitUpTo(1000);
        ASSERT_TRUE(port.stop()) << "a port that is not started is stopped";
        device.plugIn();
        judge.start(port);
        expectThatThePortSends();
        judge.stop(port);
        device.unplug();
    });
}

bool hasBytes(int descriptor)
{
    pollfd waiting{descriptor, POLLIN, 0};
    return ::poll(&waiting, 1, 10000) == 1;
}

/// Half a frame has come, and half of another has gone.
TEST_P(LineCycles, UnpluggedInMidFrame_StopsAndStartsAgain)
{
    bytes const incoming = kit::frame(5, 0, std::vector<std::uint16_t>(1000, 7));
    gssipMessage const outgoing = message(6, gssipMessage::ACK_REQ_FLAG, std::vector<std::uint16_t>(40000, 8));
    run(bySize<std::size_t>(50, 200, 1000), [&](cycleJudge& judge) {
        device.plugIn();
        judge.start(port);
        expectThatThePortSends();
        device.line().write({incoming.begin(), incoming.begin() + 1000});
        port.sendMessage(outgoing, true);
        ASSERT_TRUE(hasBytes(device.line().masterDescriptor()));
        waitUpTo(500);
        device.unplug();
        waitUpTo(2000);
        judge.stop(port);
    });
}

} // namespace
