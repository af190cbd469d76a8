// The time of a line that is slower than its driver: messages are handed over as the line needs them, and a line that
// only seems to stand is told from one that does.

#include "callOnThread.h"
#include "farEnd.h"
#include "patience.h"
#include "serialPortOnEmulatedLine.h"
#include "stopwatch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace
{

using kit::bytes;
using kit::emulatedLine;
using kit::lineAt;
using kit::lineTraits;
using kit::unless;

constexpr double ROUNDING_SEC = 1e-5;
constexpr double LEAD_SEC = 0.002;

/// A device that remembers how early its messages came.
struct deviceOnLine : kit::serialPortOnEmulatedLine
{
    using kit::serialPortOnEmulatedLine::serialPortOnEmulatedLine;

    double worstBacklog_sec() const
    {
        double worst_sec = 0.0;
        for (emulatedLine::handOver const& each : driver.handOvers())
        {
            worst_sec = std::max(worst_sec, each.backlog_sec);
        }
        return worst_sec;
    }
};

TEST(DeviceLine, TenMessages_TakeWhatTheLineNeeds)
{
    deviceOnLine device(lineAt(9600));
    kit::stopwatch const watch;
    for (int each = 0; each < 10; ++each)
    {
        ASSERT_EQ(device.send(bytes(100, 0x55)).status, 0);
    }
    EXPECT_GE(watch.elapsed_sec(), 9 * 100 * 10.0 / 9600 - LEAD_SEC - ROUNDING_SEC);
}

/// Pacing by the driver's count would hand over up to sixteen characters too early: it leaves out the hardware's.
TEST(DeviceLine, NextMessage_FindsTheHardwareEmptyToo)
{
    deviceOnLine device(lineAt(4800), 4800);
    for (int each = 0; each < 5; ++each)
    {
        ASSERT_EQ(device.send(bytes(40, 0x55)).status, 0);
    }
    EXPECT_EQ(device.driver.handOvers().size(), 5U);
    EXPECT_LE(device.worstBacklog_sec(), LEAD_SEC + ROUNDING_SEC);
}

TEST(DeviceLine, NextMessageWithGap_ComesNoSoonerThanTheGapAfterTheLine)
{
    constexpr double GAP_SEC = 96 / 9600.0;
    deviceOnLine device(lineAt(9600));
    ASSERT_EQ(device.port.setInterMsgGapBits(96), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 5; ++each)
    {
        ASSERT_EQ(device.send(bytes(40, 0x55)).status, 0);
    }
    EXPECT_EQ(device.worstBacklog_sec(), 0.0);
    EXPECT_GE(watch.elapsed_sec(), 4 * (40 * 10.0 / 9600 + GAP_SEC) - ROUNDING_SEC);
}

TEST(DeviceLine, GapOnAPseudoTerminal_IsKeptBetweenMessages)
{
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.setInterMsgGapBits(960), 0); // a tenth of a second
    ASSERT_EQ(device.port.open(), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 4; ++each)
    {
        ASSERT_EQ(device.send(bytes(10, 0x55)).status, 0);
    }
    EXPECT_GE(watch.elapsed_sec(), 0.3 - ROUNDING_SEC);
}

TEST(DeviceLine, PseudoTerminalWithoutGap_IsNotPaced)
{
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.setSpeed(300U), 0);
    ASSERT_EQ(device.port.open(), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 20; ++each)
    {
        ASSERT_EQ(device.send(bytes(100, 0x55)).status, 0);
    }
    EXPECT_LT(watch.elapsed_sec(), 20.0) << "a line would need more than a minute";
}

TEST(DeviceLine, WaitForTheLine_IsOneSleep)
{
    deviceOnLine device(lineAt(2400), 2400);
    ASSERT_EQ(device.send(bytes(100, 0x55)).status, 0);
    unsigned const before = device.driver.waits;
    ASSERT_EQ(device.send(bytes(1, 0x66)).status, 0);
    EXPECT_LE(device.driver.waits - before, 2U) << "while the line sent for 0.4 s";
}

/// The clock of a real line is never quite what was asked for. What the driver still holds is looked at, so that the
/// difference does not add up.
TEST(DeviceLine, LineSlowerThanComputed_DoesNotPileUpMessages)
{
    lineTraits const traits = lineAt(9000);
    deviceOnLine device(traits);
    for (int each = 0; each < 12; ++each)
    {
        ASSERT_EQ(device.send(bytes(100, 0x55)).status, 0);
    }
    EXPECT_LE(device.worstBacklog_sec(), 2 * traits.hardware * traits.byteTime_sec) << "each message lags by 7 ms";
}

/// A driver tells of room only when it is nearly empty: at this speed that takes longer than a blocked line is waited
/// for.
TEST(DeviceLine, SlowLineWithAFullDriver_IsNotTakenForBlocked)
{
    deviceOnLine device(lineAt(9600), 9600);
    kit::farEnd const far(device.line);
    kit::stopwatch const watch;
    kit::transfer const result = device.send(bytes(4400, 0x55));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.count, 4400U);
    EXPECT_GE(watch.elapsed_sec(), 2.0) << "the driver told of room too early for this test";
}

TEST(DeviceLine, LineThatStands_TimesOutWithTheNumberWritten)
{
    lineTraits traits = lineAt(115200);
    traits.startsHeld = true;
    traits.ring = 500;
    deviceOnLine device(traits, 115200);
    kit::stopwatch const watch;
    kit::transfer const result = device.send(bytes(800, 0x55));
    EXPECT_EQ(result.status, ETIMEDOUT);
    EXPECT_EQ(result.count, 516U) << "what ring and hardware hold";
    EXPECT_GE(watch.elapsed_sec(), 2.0);
}

/// At the new speed what the driver holds would need a minute and a half, if it moved.
TEST(DeviceLine, MessageBehindALineThatStands_WaitsNoLongerThanALineMayStand)
{
    lineTraits traits = lineAt(115200);
    traits.startsHeld = true;
    deviceOnLine device(traits, 115200);
    ASSERT_EQ(device.send(bytes(3000, 0x55)).status, 0);
    ASSERT_EQ(device.port.setSpeed(300U), 0);
    kit::callOnThread<kit::transfer> sending([&] { return device.send(bytes(10, 0x66)); });
    EXPECT_TRUE(sending.endsWithin(std::chrono::seconds(20)));
    EXPECT_EQ(sending.get().status, 0) << "the driver has room for it";
}

TEST(DeviceLine, LineThatStandsForAWhile_LosesNothing)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] {
                  lineTraits traits = lineAt(115200);
                  traits.startsHeld = true;
                  traits.ring = 500;
                  deviceOnLine device(traits, 115200);
                  bytes const data = kit::patternOf(800);
                  kit::callOnThread<kit::transfer> sender([&] { return device.send(data); });
                  std::this_thread::sleep_for(std::chrono::milliseconds(500));
                  bool const waited = !sender.hasEnded();
                  device.driver.letFlow();
                  bool const sent = sender.get().status == 0;
                  return unless(waited, "the sender waits") + unless(sent, "all is sent") +
                         unless(device.line.read(sent ? 800 : 0) == data, "all arrives");
              }),
              "");
}

void ignoreSignal(int /*unused*/) {}

/// Sends while signals come; they reach the sender asleep.
std::string sendUnderSignals()
{
    kit::serialPortOnLine device;
    EXPECT_EQ(device.port.open(), 0);
    bytes const data = kit::patternOf(60000);
    std::atomic<pthread_t> sending{};
    kit::callOnThread<kit::transfer> sender([&] {
        sending = pthread_self();
        return device.send(data);
    });
    bytes arrived;
    bytes next{0};
    while (arrived.size() < data.size() && !next.empty())
    {
        sender.awaitAsleep();
        if (!sender.hasEnded())
        {
            pthread_kill(sending, SIGUSR1);
        }
        next = device.line.read(std::min<std::size_t>(3000, data.size() - arrived.size()), std::chrono::seconds(3));
        arrived.insert(arrived.end(), next.begin(), next.end());
    }
    return unless(sender.get().status == 0, "all is sent") + unless(arrived == data, "all arrives");
}

TEST(DeviceLine, SignalsDuringSend_LoseNothing)
{
    struct sigaction interrupting = {};
    interrupting.sa_handler = ignoreSignal; // without SA_RESTART: system calls fail with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &interrupting, nullptr), 0);
    EXPECT_EQ(kit::whatIsWrongEveryTime(sendUnderSignals), "");
}

} // namespace
