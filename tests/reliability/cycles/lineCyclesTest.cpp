// Start and stop with a line that stands, and with a device that is missing or pulled out.

#include "emulatedLine.h"
#include "frames.h"
#include "lifeCycles.h"
#include "messages.h"
#include "pluggableTerminal.h"
#include "testSize.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <poll.h>
#include <utility>

namespace
{

using cycles::cycleJudge;
using kit::bytes;
using kit::message;

bool hasBytes(int descriptor)
{
    pollfd waiting{descriptor, POLLIN, 0};
    return ::poll(&waiting, 1, 10000) == 1;
}

/// A port whose device can be pulled out.
class LineCycles : public cycles::lifeCycles
{
  protected:
    /// Sends a message and takes it from the line.
    void expectThatThePortSends()
    {
        port.sendMessage(message(0x7777), false);
        EXPECT_EQ(device.line().read(kit::frame(0x7777, 0).size()), kit::frame(0x7777, 0));
    }

    kit::pluggableTerminal device;
    gssipPort port{device.name(), clock, nullptr, false};
};

INSTANTIATE_TEST_SUITE_P(Places, LineCycles, cycles::everyPlacement(), cycles::nameOfPlace);

/// The driver takes a message, of which nothing leaves. The next one waits for the line when the stop comes, and goes
/// back into the queue.
TEST_P(LineCycles, BlockedLine_KeepsQueuedWhatTheDriverHasNotTaken)
{
    constexpr std::uint16_t QUEUED = 10;
    std::vector<std::uint16_t> const longerThanAStop(600, 7); // 1.3 s
    kit::lineTraits traits;
    traits.startsHeld = true;
    kit::emulatedLine driver(traits);
    kit::systemReplaced const replaced(driver);
    device.plugIn();
    std::uint16_t given = 0;
    std::uint16_t taken = 0;
    run(bySize<std::size_t>(20, 100, 500), [&](cycleJudge& judge) {
        judge.start(port);
        for (; given < taken + QUEUED; ++given)
        {
            port.sendMessage(message(given, 0, longerThanAStop), false);
        }
        ASSERT_TRUE(hasBytes(device.line().masterDescriptor()));
        waitUpTo(1000);
        judge.stop(port);
        auto const keptFrom = static_cast<std::uint16_t>(given - port.getNumberQueuedMessages());
        for (; taken < keptFrom; ++taken)
        {
            bytes const frame = kit::frame(taken, 0, longerThanAStop);
            EXPECT_EQ(device.line().read(frame.size()), frame);
        }
        EXPECT_EQ(device.line().read(1, std::chrono::milliseconds(20)), bytes{});
        EXPECT_LT(taken, given);
    });
    EXPECT_TRUE(port.stop()) << "also after a failure: the driver goes before the port does";
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
