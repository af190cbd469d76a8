// Closing a device that is in use, or whose line stands.

#include "callOnThread.h"
#include "patience.h"
#include "portOnLine.h"
#include "processState.h"
#include "serialPortOnEmulatedLine.h"
#include "stopwatch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <unistd.h>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::emulatedLine;
using kit::lineTraits;
using kit::serialPortOnEmulatedLine;
using kit::transfer;
using kit::unless;
using testing::IsEmpty;
using testing::SizeIs;

constexpr double ROUNDING_SEC = 1e-4;

TEST(DeviceClose, BlockedReceive_ReturnsWithNothing)
{
    kit::serialPortOnLine device;
    for (int times = 0; times < 20; ++times)
    {
        ASSERT_EQ(device.port.open(), 0);
        callOnThread<transfer> receiver([&] { return device.receive(); });
        receiver.awaitAsleep();
        EXPECT_FALSE(receiver.hasEnded());
        EXPECT_EQ(device.port.close(), 0);
        transfer const result = receiver.get();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.count, 0U);
    }
}

TEST(DeviceClose, BlockedSend_GetsASecondAndThenReturnsWithTheNumberWritten)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] {
                  kit::serialPortOnLine device;
                  EXPECT_EQ(device.port.open(), 0);
                  bytes const data = kit::patternOf(100000);
                  callOnThread<transfer> sender([&] { return device.send(data); });
                  sender.awaitAsleep();
                  kit::stopwatch const watch;
                  EXPECT_EQ(device.port.close(), 0);
                  double const time_sec = watch.elapsed_sec();
                  transfer const result = sender.get();
                  return unless(time_sec >= 1.0, "a second's grace") + unless(result.status == EBADF, "EBADF") +
                         unless(result.count > 0 && result.count < data.size(), "a part was written");
              }),
              "");
}

/// Puts a thread aside between its wait for the device and its read, and between its wait and its write, for longer
/// than a careless close takes.
class slowUsers : public kit::systemCalls
{
  public:
    static constexpr std::chrono::milliseconds ASIDE{300};

    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        int const result = systemCalls::ppoll(descriptors, count, limit, signals);
        if (result > 0 && descriptors[0].fd >= 0 && descriptors[0].revents != 0)
        {
            inside.set_value();
            std::this_thread::sleep_for(ASIDE);
        }
        return result;
    }

    std::promise<void> inside;
};

/// Another file, likely to get the number of a descriptor that has just been closed.
class otherFile
{
  public:
    explicit otherFile(bytes const& content)
    {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        EXPECT_EQ(::write(ends[1], content.data(), content.size()), static_cast<ssize_t>(content.size()));
    }
    ~otherFile()
    {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    otherFile(otherFile const&) = delete;
    otherFile& operator=(otherFile const&) = delete;

    bytes content() const
    {
        bytes all(4096);
        ssize_t const count = ::read(ends[0], all.data(), all.size());
        all.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return all;
    }

  private:
    int ends[2] = {-1, -1};
};

TEST(DeviceClose, ReaderThatIsLate_NeverReadsAnotherFile)
{
    bytes const others{1, 2, 3};
    slowUsers users;
    kit::systemReplaced const replaced(users);
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    callOnThread<transfer> receiver([&] { return device.receive(); });
    device.line.write({7});
    users.inside.get_future().wait();
    EXPECT_EQ(device.port.close(), 0);
    otherFile const other(others);
    EXPECT_EQ(receiver.get().data, bytes{7});
    EXPECT_EQ(other.content(), others);
}

/// A system whose writes to one descriptor come late.
class lateWriter : public kit::systemCalls
{
  public:
    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        if (count == MARK && !seen.exchange(true))
        {
            inside.set_value();
            std::this_thread::sleep_for(slowUsers::ASIDE);
        }
        return systemCalls::write(descriptor, data, count);
    }

    static constexpr std::size_t MARK = 77;
    std::promise<void> inside;

  private:
    std::atomic<bool> seen{false};
};

TEST(DeviceClose, WriterThatIsLate_NeverWritesToAnotherFile)
{
    lateWriter system;
    kit::systemReplaced const replaced(system);
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    callOnThread<transfer> sender([&] { return device.send(bytes(lateWriter::MARK, 0x55)); });
    system.inside.get_future().wait();
    EXPECT_EQ(device.port.close(), 0);
    otherFile const first({});
    otherFile const second({});
    EXPECT_EQ(sender.get().status, 0);
    EXPECT_EQ(first.content(), bytes{});
    EXPECT_EQ(second.content(), bytes{});
    EXPECT_EQ(device.line.read(lateWriter::MARK).size(), lateWriter::MARK);
}

TEST(DeviceClose, AcceptedBytes_GetTheTimeThatTheLineNeeds)
{
    serialPortOnEmulatedLine device({});
    ASSERT_EQ(device.send(bytes(500, 0x55)).status, 0); // half a second
    EXPECT_EQ(device.port.close(), 0);
    ASSERT_TRUE(device.driver.lastClosing());
    EXPECT_EQ(device.driver.lastClosing()->backlog_sec, 0.0);
}

/// What is wrong when a device is closed while a sender waits for the line behind a message.
std::string closeBehindAMessage(lineTraits const& traits, unsigned speed, std::size_t length)
{
    serialPortOnEmulatedLine device(traits, speed);
    EXPECT_EQ(device.send(bytes(length, 0x55)).status, 0);
    callOnThread<transfer> sender([&] { return device.send(bytes(10, 0x66)); });
    sender.awaitAsleep();
    bool const waited = !sender.hasEnded();
    EXPECT_EQ(device.port.close(), 0);
    bool const sent = sender.get().status == 0;
    bytes const arrived = device.line.read(length + (sent ? 10 : 0));
    return unless(waited, "the sender waits") + unless(sent, "the sender is let finish") +
           unless(arrived.back() == 0x66, "its bytes arrive") +
           unless(device.driver.lastClosing()->backlog_sec <= traits.hardware * traits.byteTime_sec,
                  "the line is done");
}

TEST(DeviceClose, SenderThatWaitsForTheLine_IsLetFinish)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] { return closeBehindAMessage({}, 9600, 500); }), "");
}

/// The driver's count stands at zero for a second and a half, while the characters behind it pass over the line.
TEST(DeviceClose, SenderBehindADeepHardware_IsLetFinish)
{
    lineTraits traits = kit::lineAt(600);
    traits.hardware = 128;
    EXPECT_EQ(kit::whatIsWrongEveryTime([&] { return closeBehindAMessage(traits, 600, 90); }), "");
}

TEST(DeviceClose, LongTransmission_IsCutOffAfterTwoSeconds)
{
    serialPortOnEmulatedLine device(kit::lineAt(1200), 1200);
    ASSERT_EQ(device.send(bytes(4000, 0x55)).status, 0); // half a minute
    kit::stopwatch const watch;
    EXPECT_EQ(device.port.close(), 0);
    EXPECT_GE(watch.elapsed_sec(), 2.0 - ROUNDING_SEC);
    ASSERT_TRUE(device.driver.lastClosing());
    EXPECT_EQ(device.driver.lastClosing()->thread, gettid()) << "an emptied driver needs no helper";
    EXPECT_TRUE(device.driver.lastClosing()->left);
    EXPECT_LE(device.driver.lastClosing()->backlog_sec, 16 * 10.0 / 1200) << "no more than the hardware holds";
    EXPECT_LT(watch.elapsed_sec(), 20.0);
}

/// How long the close of a line that stands takes.
double closeOfAStandingLine_sec()
{
    lineTraits traits;
    traits.startsHeld = true;
    serialPortOnEmulatedLine device(traits);
    EXPECT_EQ(device.send(bytes(1000, 0x55)).status, 0);
    kit::stopwatch const watch;
    EXPECT_EQ(device.port.close(), 0);
    return watch.elapsed_sec();
}

TEST(DeviceClose, LineThatStands_IsGivenUpAfterASecond)
{
    double quickest_sec = closeOfAStandingLine_sec();
    EXPECT_GE(quickest_sec, 1.0 - ROUNDING_SEC);
    for (int times = 0; times < 4 && quickest_sec >= 1.9; ++times) // a busy machine may put the test aside for long
    {
        quickest_sec = std::min(quickest_sec, closeOfAStandingLine_sec());
    }
    EXPECT_LT(quickest_sec, 1.9);
}

TEST(DeviceClose, SenderOnALineThatStands_ReturnsWithTheNumberWritten)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] {
                  lineTraits traits;
                  traits.startsHeld = true;
                  traits.ring = 100;
                  serialPortOnEmulatedLine device(traits);
                  callOnThread<transfer> sender([&] { return device.send(bytes(300, 0x55)); });
                  EXPECT_TRUE(kit::waitUntil([&] { return device.driver.handOvers().size() == 2; }));
                  EXPECT_EQ(device.port.close(), 0);
                  transfer const result = sender.get();
                  return unless(result.status == EBADF, "EBADF") +
                         unless(result.count == 116, "what ring and hardware hold was written");
              }),
              "");
}

/// An adapter keeps its bytes through a flush, and the system holds up the close of its descriptor.
lineTraits adapterThatStands()
{
    lineTraits traits;
    traits.flushDrops = false;
    traits.startsHeld = true;
    return traits;
}

bool isStillClosing(emulatedLine const& driver)
{
    auto const closing = driver.lastClosing();
    return closing && !closing->left;
}

TEST(DeviceClose, AdapterThatStands_IsClosedByAHelper)
{
    std::uint64_t const everySignal = kit::everySignalBlocked();
    serialPortOnEmulatedLine device(adapterThatStands());
    kit::threadWatch const watch;
    ASSERT_EQ(device.send(bytes(300, 0x55)).status, 0);
    EXPECT_EQ(device.port.close(), 0);
    ASSERT_TRUE(kit::waitUntil([&] { return device.driver.lastClosing().has_value(); }));
    EXPECT_TRUE(isStillClosing(device.driver)) << "close did not wait for the system's";
    EXPECT_FALSE(device.port.isOpen());
    EXPECT_EQ(device.port.open(), EBUSY);
    std::vector<kit::threadState> const helpers = watch.added();
    ASSERT_THAT(helpers, SizeIs(1));
    EXPECT_EQ(helpers[0].id, device.driver.lastClosing()->thread);
    EXPECT_EQ(helpers[0].blockedSignals & everySignal, everySignal);

    device.driver.letFlow();
    EXPECT_TRUE(kit::waitUntil([&] { return !isStillClosing(device.driver); }));
    EXPECT_TRUE(kit::waitUntil([&] { return device.port.open() == 0; }));
    EXPECT_TRUE(kit::waitUntil([&] { return watch.added().empty(); }));
    EXPECT_EQ(device.send(bytes{1}).status, 0);
}

TEST(DeviceClose, AdapterThatStands_OutlivesTheObject)
{
    kit::pseudoTerminal line;
    kit::recordingLog log;
    emulatedLine driver(adapterThatStands());
    kit::systemReplaced const replaced(driver);
    auto port = std::make_unique<serialPort>(line.name(), log);
    ASSERT_EQ(port->open(), 0);
    unsigned sent = 0;
    bytes const data(300, 0x55);
    ASSERT_EQ(port->send(data.data(), 300, sent), 0);
    kit::threadWatch const watch;
    port.reset();
    ASSERT_TRUE(kit::waitUntil([&] { return driver.lastClosing().has_value(); }));
    EXPECT_TRUE(isStillClosing(driver));
    driver.letFlow();
    EXPECT_TRUE(kit::waitUntil([&] { return !isStillClosing(driver) && watch.added().empty(); }));
}

/// There is no line any more whose time could be waited for.
TEST(DeviceClose, DeviceThatIsGone_IsClosedAtOnce)
{
    double quickest_sec = 9.0;
    for (int times = 0; times < 3 && quickest_sec >= 0.9; ++times)
    {
        serialPortOnEmulatedLine device({});
        ASSERT_EQ(device.send(bytes(4000, 0x55)).status, 0);
        device.line.hangUp();
        kit::stopwatch const watch;
        EXPECT_EQ(device.port.close(), 0);
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.9) << "the line would have needed four seconds, and would have been granted two";
}

double medianStopTime_sec()
{
    std::vector<double> times_sec;
    kit::portOnLine<> rig;
    for (int times = 0; times < 15; ++times)
    {
        EXPECT_TRUE(rig.port.start());
        kit::stopwatch const watch;
        EXPECT_TRUE(rig.port.stop());
        times_sec.push_back(watch.elapsed_sec());
    }
    std::nth_element(times_sec.begin(), times_sec.begin() + 7, times_sec.end());
    return times_sec[7];
}

TEST(DeviceClose, StopOfAQuietPort_TakesNoTime)
{
    double best_sec = medianStopTime_sec();
    for (int times = 0; times < 5 && best_sec >= 0.05; ++times) // a busy machine may need another try
    {
        best_sec = std::min(best_sec, medianStopTime_sec());
    }
    EXPECT_LT(best_sec, 0.05);
}

} // namespace
