#include "callOnThread.h"
#include "pretendedUart.h"
#include "serialPortOnLine.h"
#include "stopwatch.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace
{

using kit::bytes;

/// A device that has a line, as far as it can be seen. Lower bounds leave room for the rounding of the times computed.
class SerialPortLine : public testing::Test, protected kit::serialPortOnLine
{
  protected:
    void SetUp() override { ASSERT_EQ(port.open(), 0); }

    void sendAll(bytes const& data)
    {
        kit::transfer const result = send(data);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.count, data.size());
    }

    kit::pretendedUart driver;
    kit::systemReplaced replaced{driver};
};

/// Shows every terminal under a device number of that kind.
class pretendedMajor : public kit::systemCalls
{
  public:
    explicit pretendedMajor(unsigned number) : shown(number) {}

    int fstat(int descriptor, struct stat& status) override
    {
        int const result = systemCalls::fstat(descriptor, status);
        status.st_rdev = makedev(shown, 0);
        return result;
    }

  private:
    unsigned const shown;
};

/// How long two messages of a tenth of a second each take.
double twoMessages_sec(unsigned major)
{
    pretendedMajor driver(major);
    kit::systemReplaced const replaced(driver);
    kit::serialPortOnLine device;
    EXPECT_EQ(device.port.open(), 0);
    kit::stopwatch const watch;
    EXPECT_EQ(device.send(bytes(96, 0x55)).status, 0);
    EXPECT_EQ(device.send(bytes(96, 0x55)).status, 0);
    return watch.elapsed_sec();
}

TEST(SerialPortLineTold, ByTheDeviceNumber_Majors136To143HaveNone)
{
    for (unsigned const major : {4U, 135U, 144U, 188U})
    {
        EXPECT_GE(twoMessages_sec(major), 0.098 - 1e-4) << major;
    }
    for (unsigned const major : {136U, 140U, 143U})
    {
        double const quickest_sec = std::min({twoMessages_sec(major), twoMessages_sec(major), twoMessages_sec(major)});
        EXPECT_LT(quickest_sec, 0.09) << major;
    }
}

TEST_F(SerialPortLine, MessageBehindMessages_IsHandedOverWhenTheLineIsNearlyDone)
{
    kit::stopwatch const watch;
    for (int each = 0; each < 6; ++each)
    {
        sendAll(bytes(96, 0x55)); // a tenth of a second each
    }
    EXPECT_GE(watch.elapsed_sec(), 0.498 - 1e-4);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
}

TEST_F(SerialPortLine, OneMessage_ReturnsWithoutWaitingForItsEnd)
{
    double quickest_sec = 1.0;
    for (int times = 0; times < 5; ++times)
    {
        ASSERT_EQ(port.close(), 0);
        ASSERT_EQ(port.open(), 0);
        kit::stopwatch const watch;
        sendAll(bytes(96, 0x55));
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.05) << "the line needs a tenth of a second";
}

TEST_F(SerialPortLine, CloseBehindAMessage_WaitsForItsEnd)
{
    kit::stopwatch const watch;
    sendAll(bytes(288, 0x55));
    EXPECT_EQ(port.close(), 0);
    EXPECT_GE(watch.elapsed_sec(), 0.3 - 1e-4);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
    EXPECT_EQ(line.read(288), bytes(288, 0x55));
}

TEST_F(SerialPortLine, CloseBehindALongMessage_WaitsAtMostTwoSeconds)
{
    ASSERT_EQ(port.setSpeed(50U), 0);
    sendAll(bytes(500, 0x55));
    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    EXPECT_LT(watch.elapsed_sec(), 10.0) << "the line needs a hundred seconds";
}

TEST_F(SerialPortLine, CloseOfADeviceThatIsGone_WaitsForNoLine)
{
    double quickest_sec = 10.0;
    for (int times = 0; times < 3; ++times)
    {
        kit::serialPortOnLine own;
        ASSERT_EQ(own.port.open(), 0);
        EXPECT_EQ(own.send(bytes(1440, 0x55)).status, 0); // a second and a half
        own.line.hangUp();
        kit::stopwatch const watch;
        EXPECT_EQ(own.port.close(), 0);
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.75);
}

TEST_F(SerialPortLine, SenderThatWaitsForTheLine_IsCutOffByCloseInTheEnd)
{
    ASSERT_EQ(port.setSpeed(50U), 0);
    sendAll(bytes(500, 0x55));
    kit::callOnThread<kit::transfer> waiting([this] { return send(bytes(1, 0x66)); });
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());

    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    kit::transfer const cut = waiting.get();
    EXPECT_EQ(cut.status, EBADF);
    EXPECT_EQ(cut.count, 0U);
    EXPECT_LT(watch.elapsed_sec(), 10.0) << "the line needs a hundred seconds";
}

TEST_F(SerialPortLine, SenderThatWaitsForTheLine_IsGrantedItsTimeByClose)
{
    sendAll(bytes(1440, 0x55)); // a second and a half
    kit::callOnThread<kit::transfer> waiting([this] { return send(bytes(10, 0x66)); });
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());

    EXPECT_EQ(port.close(), 0);
    EXPECT_EQ(waiting.get().status, 0);
    EXPECT_EQ(line.read(1450).back(), 0x66);
}

TEST_F(SerialPortLine, InterMessageGap_BeginsAtTheEndOfTheLastCharacter)
{
    ASSERT_EQ(port.setInterMsgGapBits(960), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 3; ++each)
    {
        sendAll(bytes(96, 0x55));
    }
    EXPECT_GE(watch.elapsed_sec(), 0.4 - 1e-4) << "two messages and two gaps";
    EXPECT_LT(watch.elapsed_sec(), 5.0);
}

TEST_F(SerialPortLine, FramingInForce_DecidesTheLinesTime)
{
    ASSERT_EQ(port.setParity(PARITY_EVEN), 0);
    ASSERT_EQ(port.setStopBits(2U), 0);
    ASSERT_EQ(port.setSpeed(1200U), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 3; ++each)
    {
        sendAll(bytes(10, 0x55)); // 120 bits: a tenth of a second
    }
    EXPECT_GE(watch.elapsed_sec(), 0.198 - 1e-4);
}

TEST_F(SerialPortLine, SenderThatWaitsForTheLine_LetsOthersUseThePort)
{
    ASSERT_EQ(port.setSpeed(300U), 0);
    sendAll(bytes(30, 0x55));
    kit::callOnThread<int> waiting([this] { return send(bytes(1, 0x66)).status; });
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());

    std::string text;
    double seconds = 0.0;
    EXPECT_EQ(port.getConfigString(text), 0);
    EXPECT_EQ(port.getByteTransmitTime(seconds), 0);
    EXPECT_EQ(port.setVminVtime(1, 5), 0);
    line.write({5});
    EXPECT_EQ(receive().data, bytes{5});
    EXPECT_FALSE(waiting.hasEnded()) << "the second message has to wait for a second";
    EXPECT_EQ(waiting.get(), 0);
}

} // namespace
