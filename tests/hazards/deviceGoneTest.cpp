// A device that is gone: it costs next to nothing, its failures are told at a bounded rate, and it may come back.

#include "callOnThread.h"
#include "frames.h"
#include "patience.h"
#include "portOnLine.h"
#include "processorTime.h"
#include "serialPortOnLine.h"
#include "stopwatch.h"
#include "systemCalls.h"
#include "temporaryFolder.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::frame;
using kit::operator+;
using kit::transfer;
using kit::unless;

struct goneDevice : kit::serialPortOnLine
{
    goneDevice()
    {
        EXPECT_EQ(port.open(), 0);
        line.hangUp();
    }

    /// Fails until the pause before the next failure has its full length.
    void exhaustPatience()
    {
        for (int times = 0; times < 8; ++times)
        {
            EXPECT_EQ(receive().status, EIO);
        }
    }
};

TEST(DeviceGone, EmptyReadOfAHungUpDevice_IsAFailure)
{
    kit::serialPortOnLine device;
    int const second = ::open(device.line.name().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(second, 0);
    ASSERT_EQ(device.port.open(), 0);
    device.line.hangUp();
    char byte = 0;
    EXPECT_EQ(::read(second, &byte, 1), 0) << "the system itself calls it the end of a file";
    ::close(second);

    transfer const result = device.receive();
    EXPECT_EQ(result.status, EIO);
    EXPECT_EQ(result.count, 0U);
    EXPECT_EQ(device.send(bytes{1}).status, EIO);
    EXPECT_TRUE(device.port.isOpen());
}

TEST(DeviceGone, BlockedReceive_EndsWithAFailure)
{
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    callOnThread<transfer> receiver([&] { return device.receive(); });
    receiver.awaitAsleep();
    device.line.hangUp();
    EXPECT_EQ(receiver.get().status, EIO);
}

TEST(DeviceGone, Failures_ComeAtOnceAndThenEverMoreRarely)
{
    goneDevice device;
    kit::stopwatch const watch;
    std::vector<double> times_sec;
    while (watch.elapsed_sec() < 2.5)
    {
        ASSERT_EQ(device.receive().status, EIO);
        times_sec.push_back(watch.elapsed_sec());
    }
    EXPECT_LE(times_sec.size(), 11U);
    ASSERT_GE(times_sec.size(), 2U);
    double longest_sec = 0.0;
    for (std::size_t each = 1; each < times_sec.size(); ++each)
    {
        longest_sec = std::max(longest_sec, times_sec[each] - times_sec[each - 1]);
    }
    EXPECT_GE(longest_sec, 0.9) << "the pause has grown to its full length";
}

TEST(DeviceGone, FirstFailure_IsNotHeldBack)
{
    double quickest_sec = 1.0;
    for (int times = 0; times < 5; ++times)
    {
        goneDevice device;
        kit::stopwatch const watch;
        EXPECT_EQ(device.receive().status, EIO);
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.009) << "the shortest pause takes ten milliseconds";
}

/// A device whose reads of one byte fail every other time.
class flakyDevice : public kit::systemCalls
{
  public:
    ssize_t read(int descriptor, void* data, std::size_t capacity) override
    {
        if (capacity == MARK && ++reads % 2 == 0)
        {
            errno = EIO;
            return -1;
        }
        return systemCalls::read(descriptor, data, capacity);
    }

    static constexpr unsigned MARK = 3;

  private:
    unsigned reads = 0;
};

TEST(DeviceGone, SuccessInBetween_DoesNotRefillTheBudget)
{
    flakyDevice system;
    kit::systemReplaced const replaced(system);
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    kit::stopwatch const watch;
    std::vector<double> failures_sec;
    while (failures_sec.size() < 21)
    {
        device.line.write({7});
        transfer const result = device.receive(flakyDevice::MARK);
        if (result.status != 0)
        {
            EXPECT_EQ(result.status, EIO);
            failures_sec.push_back(watch.elapsed_sec());
        }
    }
    // Counted from the beginning: a test that is put aside would see two of them too close together.
    EXPECT_GE(failures_sec[10], 1.0) << "more than ten in a second";
    EXPECT_GE(failures_sec[20], 2.0) << "more than twenty in two";
}

/// The result tells whether the pause was ended: otherwise the failure is reported at its end.
template <typename End>
std::string pauseEndedBy(End const& end)
{
    goneDevice device;
    device.exhaustPatience();
    callOnThread<transfer> receiver([&] { return device.receive(); });
    receiver.awaitAsleep();
    end(device.port);
    return unless(receiver.get().status == 0, "the pause is ended");
}

TEST(DeviceGone, PauseOfAReceive_IsEndedByClose)
{
    EXPECT_EQ(
        kit::whatIsWrongEveryTime([] { return pauseEndedBy([](serialPort& port) { EXPECT_EQ(port.close(), 0); }); }),
        "");
}

TEST(DeviceGone, PauseOfAReceive_IsEndedByInterruptReceive)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] { return pauseEndedBy([](serialPort& port) { port.interruptReceive(); }); }),
              "");
}

TEST(DeviceGone, PauseOfAReceive_IsEndedByOpen)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime([] {
                  kit::serialPortOnLine device;
                  for (int times = 0; times < 8; ++times)
                  {
                      EXPECT_EQ(device.receive().status, EBADF);
                  }
                  callOnThread<transfer> receiver([&] { return device.receive(); });
                  receiver.awaitAsleep();
                  EXPECT_EQ(device.port.open(), 0);
                  device.line.write({7});
                  transfer const result = receiver.get();
                  return unless(result.status == 0, "the pause is ended") + unless(result.data == bytes{7}, "data");
              }),
              "");
}

TEST(DeviceGone, PortWithoutItsDevice_CostsNextToNothing)
{
    kit::portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.line.hangUp();
    std::string const line = "gssipReceive(" + rig.id() + ") Error Reading Serial Port: ";
    ASSERT_TRUE(rig.log.waitFor(line));

    kit::processorTime const work;
    kit::stopwatch const watch;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_LT(work.used_sec(), 0.01 * watch.elapsed_sec()) << "a hundredth of a processor";
    EXPECT_LE(rig.log.count(line), 10 * (1 + static_cast<std::size_t>(watch.elapsed_sec())));
    EXPECT_TRUE(rig.port.stop());
}

TEST(DeviceGone, PortStoppedInThePause_Returns)
{
    kit::portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.line.hangUp();
    std::string const line = "gssipReceive(" + rig.id() + ") Error Reading Serial Port: ";
    ASSERT_TRUE(rig.log.waitFor(line, 3));
    EXPECT_TRUE(rig.port.stop());
    std::size_t const before = rig.log.lines().size();
    EXPECT_EQ(rig.log.count(line), before) << "and nothing but failed reads has been logged";
}

/// A device that can be unplugged and plugged in again under the same name.
struct removableDevice
{
    removableDevice() { plugIn(); }

    void plugIn()
    {
        line = std::make_unique<kit::pseudoTerminal>();
        std::filesystem::create_symlink(line->name(), name);
    }
    void unplug()
    {
        std::filesystem::remove(name);
        line->hangUp();
    }

    kit::temporaryFolder folder;
    std::filesystem::path name = folder.path / "tty";
    std::unique_ptr<kit::pseudoTerminal> line;
};

TEST(DeviceGone, UnpluggedInTheMiddleOfAFrame_WorksAgainWhenItIsBack)
{
    removableDevice device;
    kit::settableTime clock;
    kit::recordingLog log;
    kit::exposedPort port(device.name.string(), clock, &log, false);
    ASSERT_TRUE(port.start());
    bytes const whole = frame(5, 0, {1, 2, 3});
    device.line->write(frame(4, 0) + bytes(whole.begin(), whole.begin() + 12));
    gssipMessage received;
    ASSERT_EQ(port.getMessage(received, true), 0);
    EXPECT_EQ(received.getId(), 4);

    device.unplug();
    EXPECT_TRUE(port.stop());
    EXPECT_FALSE(port.start()) << "the device is not there";
    device.plugIn();
    ASSERT_TRUE(port.start());
    device.line->write(frame(6, 0, {4}));
    ASSERT_EQ(port.getMessage(received, true), 0);
    EXPECT_EQ(received.getId(), 6) << "the half frame is gone with its line";
    port.sendMessage(received, false);
    EXPECT_EQ(device.line->read(14), frame(6, 0, {4}));
}

} // namespace
