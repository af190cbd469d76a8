#include "serialPort.h"

#include "emulation.h"
#include "kernelTermios.h"
#include "pseudoTerminal.h"
#include "recordingLog.h"
#include "systemCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/serial.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

constexpr std::array<PARITY_TYPE, 5> PARITIES{PARITY_NONE, PARITY_ODD, PARITY_EVEN, PARITY_MARK, PARITY_SPACE};

class SerialPortSettings : public testing::Test
{
  protected:
    std::string config()
    {
        std::string text;
        EXPECT_EQ(port.getConfigString(text), 0);
        return text;
    }

    /// The text without the device's name in front.
    std::string settings() { return config().substr(terminal.name().size() + 1); }

    double byteTime_sec()
    {
        double seconds = 0.0;
        EXPECT_EQ(port.getByteTransmitTime(seconds), 0);
        return seconds;
    }

    kernelTermios held() const { return kernelTermiosOf(terminal.masterDescriptor()); }

    void expectVminVtime(unsigned vmin, unsigned vtime)
    {
        unsigned char heldVmin = 0xAA;
        unsigned char heldVtime = 0xAA;
        EXPECT_EQ(port.getVminVtime(heldVmin, heldVtime), 0);
        EXPECT_EQ(heldVmin, vmin);
        EXPECT_EQ(heldVtime, vtime);
    }

    kit::pseudoTerminal terminal;
    kit::recordingLog log;
    serialPort port{terminal.name(), log};
};

/// A driver that differs from the pseudo-terminal's in what a test says.
class otherDriver : public kit::systemCalls
{
  public:
    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        if (isAboutSpeeds(request) && arbitraryRatesFailWith != 0)
        {
            errno = arbitraryRatesFailWith;
            return -1;
        }
        if (writesKernelTermios(request))
        {
            asked.push_back(askedBy(argument));
            changeSpeedAskedBy(argument, speedKeptFor(asked.back().outputSpeed));
        }
        return systemCalls::ioctl(descriptor, request, argument);
    }

    int arbitraryRatesFailWith = 0; ///< errno; 0: the driver has them
    std::function<unsigned(unsigned)> speedKeptFor = [](unsigned speed) { return speed; };
    std::vector<kernelTermios> asked;

  private:
    static bool isAboutSpeeds(unsigned long request)
    {
        return readsKernelTermios(request) || writesKernelTermios(request);
    }
};

TEST_F(SerialPortSettings, Defaults_StandInTheText)
{
    EXPECT_EQ(config(), terminal.name() + " 9600 8N1 vmin(1) vtime(10) interMsgGapBits(0)");
    expectVminVtime(1, 10);
    EXPECT_DOUBLE_EQ(byteTime_sec(), 10.0 / 9600.0);
}

TEST_F(SerialPortSettings, Defaults_AreInForceAfterOpen)
{
    ASSERT_EQ(port.open(), 0);

    EXPECT_EQ(config(), terminal.name() + " 9600 8N1 vmin(1) vtime(10) interMsgGapBits(0)");
    expectVminVtime(1, 10);
    termios const inForce = terminal.settings();
    EXPECT_EQ(held().outputSpeed, 9600U);
    EXPECT_EQ(held().inputSpeed, 9600U);
    EXPECT_EQ(inForce.c_cflag & CSIZE, tcflag_t{CS8});
    EXPECT_EQ(inForce.c_cflag & (CSTOPB | PARENB), 0U);
    EXPECT_EQ(inForce.c_cc[VMIN], 1);
    EXPECT_EQ(inForce.c_cc[VTIME], 10);
}

TEST_F(SerialPortSettings, ConfigString_ReplacesTheCallersText)
{
    std::string text = "what stood there before";
    EXPECT_EQ(port.getConfigString(text), 0);
    EXPECT_EQ(text, terminal.name() + " 9600 8N1 vmin(1) vtime(10) interMsgGapBits(0)");
}

TEST_F(SerialPortSettings, ConfigString_ShowsEverySettingAskedFor)
{
    auto const expectAllShown = [this] {
        EXPECT_EQ(port.setSpeed(115200U), 0);
        EXPECT_EQ(port.setDataBits(7U), 0);
        EXPECT_EQ(port.setParity(PARITY_EVEN), 0);
        EXPECT_EQ(port.setStopBits(2U), 0);
        EXPECT_EQ(port.setVminVtime(255, 0), 0);
        EXPECT_EQ(port.setInterMsgGapBits(30), 0);
        EXPECT_EQ(config(), terminal.name() + " 115200 7E2 vmin(255) vtime(0) interMsgGapBits(30)");
    };
    expectAllShown();
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(config(), terminal.name() + " 115200 7E2 vmin(255) vtime(0) interMsgGapBits(30)");
    expectAllShown();
    EXPECT_EQ(port.close(), 0);
    EXPECT_EQ(config(), terminal.name() + " 115200 7E2 vmin(255) vtime(0) interMsgGapBits(30)");
}

TEST_F(SerialPortSettings, ConfigString_HasALetterForEachParity)
{
    std::string letters;
    for (PARITY_TYPE const parity : PARITIES)
    {
        EXPECT_EQ(port.setParity(parity), 0);
        letters += settings().at(std::string("9600 8").size());
    }
    EXPECT_EQ(letters, "NOEMS");
}

TEST_F(SerialPortSettings, Parities_HaveTheseNumbers)
{
    static_assert(sizeof(PARITY_TYPE) == 4);
    EXPECT_EQ(unsigned{PARITY_NONE}, 1U);
    EXPECT_EQ(unsigned{PARITY_ODD}, 2U);
    EXPECT_EQ(unsigned{PARITY_EVEN}, 3U);
    EXPECT_EQ(unsigned{PARITY_MARK}, 4U);
    EXPECT_EQ(unsigned{PARITY_SPACE}, 5U);
}

TEST_F(SerialPortSettings, Name_IsTheDevices)
{
    EXPECT_EQ(port.getPort(), terminal.name());
}

TEST_F(SerialPortSettings, ByteTransmitTime_CountsEveryBitOfEveryFraming)
{
    for (bool const open : {false, true})
    {
        if (open)
        {
            ASSERT_EQ(port.open(), 0);
        }
        for (unsigned const speed : {300U, 9600U, 115200U, 460800U})
        {
            ASSERT_EQ(port.setSpeed(speed), 0);
            for (unsigned dataBits = 5; dataBits <= 8; ++dataBits)
            {
                ASSERT_EQ(port.setDataBits(dataBits), 0);
                for (PARITY_TYPE const parity : PARITIES)
                {
                    ASSERT_EQ(port.setParity(parity), 0);
                    for (unsigned stopBits = 1; stopBits <= 2; ++stopBits)
                    {
                        ASSERT_EQ(port.setStopBits(stopBits), 0);
                        unsigned const bits = 1 + dataBits + (parity == PARITY_NONE ? 0 : 1) + stopBits;
                        EXPECT_DOUBLE_EQ(byteTime_sec(), static_cast<double>(bits) / static_cast<double>(speed))
                            << config();
                    }
                }
            }
        }
    }
}

TEST_F(SerialPortSettings, VminVtime_TakeEveryValue)
{
    for (bool const open : {false, true})
    {
        if (open)
        {
            ASSERT_EQ(port.open(), 0);
        }
        for (unsigned value = 0; value <= 255; ++value)
        {
            EXPECT_EQ(port.setVminVtime(static_cast<unsigned char>(value), static_cast<unsigned char>(255 - value)), 0);
            expectVminVtime(value, 255 - value);
        }
    }
}

TEST_F(SerialPortSettings, SetRaw_SucceedsClosedAndOpen)
{
    EXPECT_EQ(port.setRaw(), 0);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.setRaw(), 0);
}

TEST_F(SerialPortSettings, MadeBeforeOpen_AreInForceWithIt)
{
    EXPECT_EQ(port.setSpeed(19200U), 0);
    EXPECT_EQ(port.setStopBits(2U), 0);
    EXPECT_EQ(port.setVminVtime(7, 3), 0);
    ASSERT_EQ(port.open(), 0);

    termios const inForce = terminal.settings();
    EXPECT_EQ(held().outputSpeed, 19200U);
    EXPECT_EQ(held().inputSpeed, 19200U);
    EXPECT_NE(inForce.c_cflag & CSTOPB, 0U);
    EXPECT_EQ(inForce.c_cc[VMIN], 7);
    EXPECT_EQ(inForce.c_cc[VTIME], 3);
}

TEST_F(SerialPortSettings, MadeOnAnOpenDevice_TakeEffectAtOnce)
{
    ASSERT_EQ(port.open(), 0);

    EXPECT_EQ(port.setSpeed(38400U), 0);
    EXPECT_EQ(held().outputSpeed, 38400U);
    EXPECT_EQ(held().inputSpeed, 38400U);

    EXPECT_EQ(port.setStopBits(2U), 0);
    EXPECT_TRUE(held().twoStopBits);
    EXPECT_EQ(port.setStopBits(1U), 0);
    EXPECT_FALSE(held().twoStopBits);

    EXPECT_EQ(port.setVminVtime(9, 4), 0);
    EXPECT_EQ(terminal.settings().c_cc[VMIN], 9);
    EXPECT_EQ(terminal.settings().c_cc[VTIME], 4);
    EXPECT_EQ(held().outputSpeed, 38400U);
}

TEST_F(SerialPortSettings, MadeBetweenTwoOpens_AreInForceWithTheSecond)
{
    ASSERT_EQ(port.open(), 0);
    ASSERT_EQ(port.close(), 0);
    EXPECT_EQ(port.setSpeed(1200U), 0);
    EXPECT_EQ(held().outputSpeed, 9600U);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(held().outputSpeed, 1200U);
}

TEST_F(SerialPortSettings, FramingAskedOfTheDriver_IsTheOneSet)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    otherDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    for (unsigned dataBits = 5; dataBits <= 8; ++dataBits)
    {
        EXPECT_EQ(port.setDataBits(dataBits), 0);
        EXPECT_EQ(driver.asked.back().dataBits, dataBits);
    }
    for (PARITY_TYPE const parity : PARITIES)
    {
        EXPECT_EQ(port.setParity(parity), 0);
        kernelTermios const asked = driver.asked.back();
        EXPECT_EQ(asked.hasParity, parity != PARITY_NONE) << parity;
        EXPECT_EQ(asked.parityIsOdd, parity == PARITY_ODD || parity == PARITY_MARK) << parity;
        EXPECT_EQ(asked.parityIsFixed, parity == PARITY_MARK || parity == PARITY_SPACE) << parity;
    }
    EXPECT_EQ(port.setStopBits(2U), 0);
    EXPECT_TRUE(driver.asked.back().twoStopBits);
}

TEST_F(SerialPortSettings, FramingMadeBeforeOpen_IsAskedOfTheDriver)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    EXPECT_EQ(port.setDataBits(7U), 0);
    EXPECT_EQ(port.setParity(PARITY_ODD), 0);
    otherDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);

    EXPECT_EQ(driver.asked.back().dataBits, 7U);
    EXPECT_TRUE(driver.asked.back().hasParity);
    EXPECT_TRUE(driver.asked.back().parityIsOdd);
}

TEST_F(SerialPortSettings, FramingThatTheDriverIgnores_IsNoFailureAndStillCounted)
{
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.setDataBits(6U), 0);
    EXPECT_EQ(port.setParity(PARITY_SPACE), 0);

    EXPECT_EQ(held().dataBits, 8U) << "a pseudo-terminal has no other";
    EXPECT_EQ(settings(), "9600 6S1 vmin(1) vtime(10) interMsgGapBits(0)");
    EXPECT_DOUBLE_EQ(byteTime_sec(), 9.0 / 9600.0);
}

TEST_F(SerialPortSettings, ValuesThatNoDeviceCanTake_LeaveTheFormerOnesInForce)
{
    EXPECT_EQ(port.setSpeed(2400U), 0);
    EXPECT_EQ(port.setDataBits(7U), 0);
    EXPECT_EQ(port.setParity(PARITY_ODD), 0);
    EXPECT_EQ(port.setStopBits(2U), 0);
    for (bool const open : {false, true})
    {
        if (open)
        {
            ASSERT_EQ(port.open(), 0);
        }
        EXPECT_EQ(port.setSpeed(0U), EINVAL);
        for (unsigned const bits : {0U, 4U, 9U, UINT_MAX})
        {
            EXPECT_EQ(port.setDataBits(bits), EINVAL);
        }
        for (unsigned const bits : {0U, 3U, UINT_MAX})
        {
            EXPECT_EQ(port.setStopBits(bits), EINVAL);
        }
        for (std::uint32_t const parity : {0U, 6U, UINT_MAX})
        {
            EXPECT_EQ(port.setParity(static_cast<PARITY_TYPE>(parity)), EINVAL);
        }
        EXPECT_EQ(settings(), "2400 7O2 vmin(1) vtime(10) interMsgGapBits(0)");
        EXPECT_DOUBLE_EQ(byteTime_sec(), 11.0 / 2400.0);
    }
    EXPECT_EQ(held().outputSpeed, 2400U);
    EXPECT_TRUE(held().twoStopBits);
}

TEST_F(SerialPortSettings, Open_MakesALineRawThatWasNot)
{
    int const device = ::open(terminal.name().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(device, 0);
    termios cooked{};
    ASSERT_EQ(tcgetattr(device, &cooked), 0);
    cooked.c_iflag = BRKINT | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
    cooked.c_oflag = OPOST | ONLCR;
    cooked.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | IEXTEN | TOSTOP;
    cooked.c_cflag = CS8 | CREAD | HUPCL | CRTSCTS | B300;
    ASSERT_EQ(tcsetattr(device, TCSANOW, &cooked), 0);
    ::close(device);

    ASSERT_EQ(port.open(), 0);
    termios const inForce = terminal.settings();
    EXPECT_EQ(inForce.c_iflag & (BRKINT | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF), 0U);
    EXPECT_NE(inForce.c_iflag & IGNBRK, 0U);
    EXPECT_EQ(inForce.c_oflag & OPOST, 0U);
    EXPECT_EQ(inForce.c_lflag & (ISIG | ICANON | ECHO | ECHONL | IEXTEN), 0U);
    EXPECT_EQ(inForce.c_cflag & (HUPCL | CRTSCTS), 0U);
    EXPECT_EQ(inForce.c_cflag & (CLOCAL | CREAD), tcflag_t{CLOCAL | CREAD});
    EXPECT_EQ(held().outputSpeed, 9600U);
}

TEST_F(SerialPortSettings, SetRaw_RestoresALineThatAnotherProgramChanged)
{
    ASSERT_EQ(port.open(), 0);
    termios changed = terminal.settings();
    changed.c_lflag |= ICANON | ECHO;
    changed.c_iflag |= ICRNL | IXON;
    changed.c_oflag |= OPOST;
    ASSERT_EQ(tcsetattr(terminal.masterDescriptor(), TCSANOW, &changed), 0);
    ASSERT_NE(terminal.settings().c_lflag & ICANON, 0U);

    EXPECT_EQ(port.setRaw(), 0);
    EXPECT_EQ(terminal.settings().c_lflag & (ICANON | ECHO), 0U);
    EXPECT_EQ(terminal.settings().c_iflag & (ICRNL | IXON), 0U);
    EXPECT_EQ(terminal.settings().c_oflag & OPOST, 0U);
}

TEST_F(SerialPortSettings, ArbitrarySpeeds_AreHeldByTheDriver)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    for (unsigned const speed : {1U, 110U, 12345U, 31250U, 100000U, 250000U, 3000000U, 4000001U})
    {
        EXPECT_EQ(port.setSpeed(speed), 0);
        EXPECT_DOUBLE_EQ(byteTime_sec(), 10.0 / speed);
        ASSERT_EQ(port.open(), 0);
        EXPECT_EQ(held().outputSpeed, speed);
        EXPECT_EQ(held().inputSpeed, speed);
        EXPECT_DOUBLE_EQ(byteTime_sec(), 10.0 / speed);
        ASSERT_EQ(port.close(), 0);
    }
    ASSERT_EQ(port.open(), 0);
    for (unsigned const speed : {31250U, 12345U, 9600U, 100000U})
    {
        EXPECT_EQ(port.setSpeed(speed), 0);
        EXPECT_EQ(held().outputSpeed, speed);
        EXPECT_EQ(held().inputSpeed, speed);
    }
}

TEST_F(SerialPortSettings, StandardSpeeds_AreRecognisedByProgramsThatKnowNoOthers)
{
    ASSERT_EQ(port.open(), 0);
    termios inForce = terminal.settings();
    EXPECT_EQ(cfgetospeed(&inForce), speed_t{B9600});

    EXPECT_EQ(port.setSpeed(115200U), 0);
    inForce = terminal.settings();
    EXPECT_EQ(cfgetospeed(&inForce), speed_t{B115200});
    EXPECT_EQ(cfgetispeed(&inForce), speed_t{B115200});
}

TEST_F(SerialPortSettings, DriverThatKeepsAnotherSpeed_IsRefusedAtOpen)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    otherDriver driver;
    driver.speedKeptFor = [](unsigned asked) { return asked > 3000000U ? 9600U : asked; };
    kit::systemReplaced const replaced(driver);

    EXPECT_EQ(port.setSpeed(4000000U), 0);
    EXPECT_EQ(port.open(), EINVAL);
    EXPECT_FALSE(port.isOpen());

    EXPECT_EQ(port.setSpeed(3000000U), 0);
    EXPECT_EQ(port.open(), 0);
}

TEST_F(SerialPortSettings, DriverThatKeepsAnotherSpeed_IsRefusedOnAnOpenDevice)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    otherDriver driver;
    driver.speedKeptFor = [](unsigned asked) { return asked > 3000000U ? 9600U : asked; };
    kit::systemReplaced const replaced(driver);
    EXPECT_EQ(port.setSpeed(19200U), 0);
    ASSERT_EQ(port.open(), 0);

    EXPECT_EQ(port.setSpeed(4000000U), EINVAL);
    EXPECT_TRUE(port.isOpen());
    EXPECT_EQ(held().outputSpeed, 19200U);
    EXPECT_EQ(settings(), "19200 8N1 vmin(1) vtime(10) interMsgGapBits(0)");
    EXPECT_DOUBLE_EQ(byteTime_sec(), 10.0 / 19200.0);
}

TEST_F(SerialPortSettings, SpeedNearTheOneAsked_IsTakenUpToThreePercent)
{
    if (!kit::hasArbitraryRates())
    {
        GTEST_SKIP() << kit::NO_ARBITRARY_RATES;
    }
    otherDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    for (unsigned const near : {9700U, 9999U, 10001U, 10300U})
    {
        driver.speedKeptFor = [near](unsigned asked) { return asked == 10000U ? near : asked; };
        EXPECT_EQ(port.setSpeed(10000U), 0) << near;
        EXPECT_EQ(held().outputSpeed, near);
        EXPECT_EQ(port.setSpeed(9600U), 0);
    }
    for (unsigned const far : {9699U, 10301U, 0U, 4000000000U})
    {
        driver.speedKeptFor = [far](unsigned asked) { return asked == 10000U ? far : asked; };
        EXPECT_EQ(port.setSpeed(10000U), EINVAL) << far;
        EXPECT_EQ(held().outputSpeed, 9600U);
    }
}

class SerialPortSettingsWithoutArbitraryRates : public SerialPortSettings, public testing::WithParamInterface<int>
{
  protected:
    void SetUp() override { driver.arbitraryRatesFailWith = GetParam(); }

    otherDriver driver;
    kit::systemReplaced replaced{driver};
};

TEST_P(SerialPortSettingsWithoutArbitraryRates, StandardRates_AreSetTheStandardWay)
{
    if (!kit::hasEveryStandardRate())
    {
        GTEST_SKIP() << kit::NOT_EVERY_STANDARD_RATE;
    }
    struct rate
    {
        unsigned speed;
        speed_t code;
    };
    for (rate const each : {rate{50, B50}, rate{300, B300}, rate{1200, B1200}, rate{9600, B9600}, rate{38400, B38400},
                            rate{57600, B57600}, rate{115200, B115200}, rate{230400, B230400}, rate{460800, B460800},
                            rate{921600, B921600}, rate{1000000, B1000000}, rate{3000000, B3000000},
                            rate{4000000, B4000000}, rate{110, B110}, rate{1800, B1800}})
    {
        EXPECT_EQ(port.setSpeed(each.speed), 0) << each.speed;
        ASSERT_EQ(port.open(), 0) << each.speed;
        termios const inForce = terminal.settings();
        EXPECT_EQ(cfgetospeed(&inForce), each.code) << each.speed;
        EXPECT_EQ(cfgetispeed(&inForce), each.code) << each.speed;
        EXPECT_EQ(port.setSpeed(2400U), 0);
        EXPECT_EQ(held().outputSpeed, 2400U);
        EXPECT_EQ(port.setSpeed(each.speed), 0);
        EXPECT_EQ(held().outputSpeed, each.speed);
        ASSERT_EQ(port.close(), 0);
    }
}

TEST_P(SerialPortSettingsWithoutArbitraryRates, OtherSettings_AreInForceToo)
{
    EXPECT_EQ(port.setStopBits(2U), 0);
    EXPECT_EQ(port.setVminVtime(7, 3), 0);
    ASSERT_EQ(port.open(), 0);
    termios const inForce = terminal.settings();
    EXPECT_NE(inForce.c_cflag & CSTOPB, 0U);
    EXPECT_EQ(inForce.c_lflag & (ICANON | ECHO | ISIG), 0U);
    EXPECT_EQ(inForce.c_oflag & OPOST, 0U);
    EXPECT_EQ(inForce.c_cc[VMIN], 7);
    EXPECT_EQ(inForce.c_cc[VTIME], 3);
}

TEST_P(SerialPortSettingsWithoutArbitraryRates, OtherSpeeds_AreRefused)
{
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.setSpeed(31250U), EINVAL);
    EXPECT_EQ(settings(), "9600 8N1 vmin(1) vtime(10) interMsgGapBits(0)");
    EXPECT_EQ(held().outputSpeed, 9600U);
    ASSERT_EQ(port.close(), 0);

    EXPECT_EQ(port.setSpeed(31250U), 0) << "only the device tells";
    EXPECT_EQ(port.open(), EINVAL);
    EXPECT_FALSE(port.isOpen());
}

INSTANTIATE_TEST_SUITE_P(MissingWith, SerialPortSettingsWithoutArbitraryRates, testing::Values(ENOTTY, ENOSYS, EINVAL));

/// A driver that can deliver received bytes at once, when it is allowed to.
class lowLatencyDriver : public kit::systemCalls
{
  public:
    explicit lowLatencyDriver(bool allowsIt) : allowed(allowsIt) {}

    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        switch (request)
        {
        case TIOCGSERIAL:
            *static_cast<serial_struct*>(argument) = state;
            return 0;
        case TIOCSSERIAL:
            return set(*static_cast<serial_struct const*>(argument));
        default:
            return systemCalls::ioctl(descriptor, request, argument);
        }
    }

    serial_struct state = initialState();
    unsigned attempts = 0;

  private:
    static serial_struct initialState()
    {
        serial_struct state{};
        state.flags = ASYNC_SKIP_TEST;
        state.baud_base = 115200;
        state.closing_wait = 3000;
        return state;
    }

    int set(serial_struct const& wanted)
    {
        ++attempts;
        if (!allowed)
        {
            errno = EPERM;
            return -1;
        }
        state = wanted;
        return 0;
    }

    bool allowed;
};

TEST_F(SerialPortSettings, LowLatency_IsAskedForAndNothingElseChanged)
{
    lowLatencyDriver driver(true);
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);

    EXPECT_EQ(driver.state.flags, ASYNC_SKIP_TEST | ASYNC_LOW_LATENCY);
    EXPECT_EQ(driver.state.baud_base, 115200);
    EXPECT_EQ(driver.state.closing_wait, 3000);
}

TEST_F(SerialPortSettings, LowLatencyThatIsSetAlready_IsNotSetAgain)
{
    lowLatencyDriver driver(true);
    driver.state.flags |= static_cast<int>(ASYNC_LOW_LATENCY);
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(driver.attempts, 0U);
}

TEST_F(SerialPortSettings, LowLatencyRefused_IsNoFailure)
{
    lowLatencyDriver driver(false);
    kit::systemReplaced const replaced(driver);

    EXPECT_EQ(port.open(), 0);
    EXPECT_GE(driver.attempts, 1U);
}

TEST_F(SerialPortSettings, SeveralThreads_ChangeAndReadThemAtTheSameTime)
{
    ASSERT_EQ(port.open(), 0);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (unsigned each = 0; each < 2; ++each)
    {
        threads.emplace_back([this, &stop, each] {
            while (!stop)
            {
                EXPECT_EQ(port.setSpeed(each == 0 ? 19200U : 38400U), 0);
                EXPECT_EQ(port.setVminVtime(static_cast<unsigned char>(each), 10), 0);
                EXPECT_EQ(port.setInterMsgGapBits(each), 0);
            }
        });
    }
    for (int times = 0; times < 500; ++times)
    {
        std::string const text = settings();
        std::string const speed = text.substr(0, 5);
        ASSERT_TRUE(speed == "9600 " || speed == "19200" || speed == "38400") << text;
        double const time_sec = byteTime_sec();
        ASSERT_TRUE(time_sec == 10.0 / 9600 || time_sec == 10.0 / 19200 || time_sec == 10.0 / 38400) << time_sec;
    }
    stop = true;
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

TEST_F(SerialPortSettings, Everything_IsDoneWithoutALogLine)
{
    EXPECT_EQ(port.setSpeed(0U), EINVAL);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.setDataBits(9U), EINVAL);
    ASSERT_EQ(port.close(), 0);
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
