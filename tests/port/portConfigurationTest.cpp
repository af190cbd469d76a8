#include "portOnLine.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <future>
#include <limits>
#include <set>
#include <string>
#include <termios.h>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::portOnLine;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

// Read before any port exists.
std::uint32_t const firstPortId = exposedPort::nextPortId;

constexpr double infinity = std::numeric_limits<double>::infinity();
double const notANumber = std::nan("");

std::string configText(gssipPort& port)
{
    std::string text;
    EXPECT_EQ(port.getPortConfigStr(text), 0);
    return text;
}

std::string deviceText(exposedPort& port)
{
    std::string text;
    EXPECT_EQ(port.serial.getConfigString(text), 0);
    return text;
}

struct vminVtime
{
    unsigned char vmin = 0;
    unsigned char vtime = 0;
};

vminVtime inForce(exposedPort& port)
{
    vminVtime result;
    EXPECT_EQ(port.serial.getVminVtime(result.vmin, result.vtime), 0);
    return result;
}

int configure(gssipPort& port, unsigned gapChars, PARITY_TYPE parity)
{
    return port.configurePort(9600, 8, parity, 1, gapChars, 0.2, 0.6, 4);
}

// --- Construction

TEST(PortConstruction, Members_HaveTheirInitialValues)
{
    portOnLine<> rig;
    exposedPort& port = rig.port;

    EXPECT_FALSE(port.started);
    EXPECT_EQ(port.ackTimeout_sec, 0.2);
    EXPECT_EQ(port.handshakeTimeout_sec, 0.6);
    EXPECT_EQ(port.rxInterCharGap_sec, 0.00520833);
    EXPECT_TRUE(port.rxAutoAck);
    EXPECT_EQ(port.receiver, nullptr);
    EXPECT_FALSE(port.portReady);
    EXPECT_TRUE(port.txQueue.empty());
    EXPECT_TRUE(port.txRunning.isClear());
    EXPECT_EQ(&port.timeStamp, &rig.clock);
    EXPECT_EQ(port.log, &rig.log);
}

TEST(PortConstruction, Queries_ShowTheInitialValues)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.getAcknowledgeTimeout_sec(), 0.2);
    EXPECT_EQ(rig.port.getHandshakeTimeout_sec(), 0.6);
    EXPECT_TRUE(rig.port.getReceiveAutoAcknowledgeEnable());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
    EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
    EXPECT_EQ(rig.port.getPort(), rig.line.name());
}

TEST(PortConstruction, Option_IsStored)
{
    portOnLine<> rig;
    exposedPort const with("no such device", rig.clock, &rig.log, true);
    exposedPort const without("no such device", rig.clock, &rig.log, false);
    EXPECT_TRUE(with.portOption);
    EXPECT_FALSE(without.portOption);
}

TEST(PortConstruction, NullLog_BecomesASink)
{
    portOnLine<> rig;
    exposedPort const port(rig.line.name(), rig.clock, nullptr, false);
    ASSERT_NE(port.log, nullptr);
    port.log->log(2, "dropped");
    port.log->log(1.0, 2, "dropped");
}

TEST(PortConstruction, OpensNothingAndStartsNoThread)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    EXPECT_FALSE(rig.port.serial.isOpen());
    EXPECT_FALSE(kit::holdsOpen(rig.line.name()));
    EXPECT_TRUE(watch.added().empty());
    EXPECT_TRUE(rig.log.lines().empty());
    EXPECT_EQ(rig.clock.asked, 0U);
}

TEST(PortConstruction, MissingDevice_IsNoMatterYet)
{
    portOnLine<> rig;
    exposedPort port("/nonexistent/tty", rig.clock, &rig.log, false);
    EXPECT_EQ(port.getPort(), "/nonexistent/tty");
}

TEST(PortConstruction, Mutexes_AreFreeAndNotRecursive)
{
    portOnLine<> rig;
    for (pthread_mutex_t* mutex : {&rig.port.sendMutex, &rig.port.readyMutex, &rig.port.txMutex})
    {
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);
        EXPECT_EQ(pthread_mutex_unlock(mutex), 0);
    }
}

// A deadline of the wall clock, taken for one of the monotonic clock, would lie decades ahead.
void expectWaitOnTheDefaultClock(pthread_cond_t& condition, pthread_mutex_t& mutex)
{
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    sentry const lock(mutex);
    EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &deadline), ETIMEDOUT);
}

TEST(PortConstruction, Conditions_UseTheDefaultClock)
{
    portOnLine<> rig;
    expectWaitOnTheDefaultClock(rig.port.txCond, rig.port.txMutex);
    expectWaitOnTheDefaultClock(rig.port.readyCond, rig.port.readyMutex);
}

// --- Port ids

TEST(PortId, FirstPort_HasNumberZero)
{
    EXPECT_EQ(firstPortId, 0U);
}

TEST(PortId, CountsUpWithEachConstruction)
{
    portOnLine<> rig;
    std::uint32_t const next = exposedPort::nextPortId;
    EXPECT_EQ(rig.port.portId, next - 1);
    exposedPort const second("second", rig.clock, &rig.log, false);
    exposedPort const third("third", rig.clock, &rig.log, false);
    EXPECT_EQ(second.portId, next);
    EXPECT_EQ(third.portId, next + 1);
    EXPECT_EQ(exposedPort::nextPortId, next + 2);
}

TEST(PortId, DestroyedPort_GivesNoNumberBack)
{
    portOnLine<> rig;
    std::uint32_t const next = exposedPort::nextPortId;
    {
        exposedPort const passing("passing", rig.clock, &rig.log, false);
    }
    exposedPort const later("later", rig.clock, &rig.log, false);
    EXPECT_EQ(later.portId, next + 1);
}

TEST(PortId, PortsOfSeveralThreads_HaveDifferentNumbers)
{
    portOnLine<> rig;
    auto const construct = [&rig] {
        std::vector<std::uint32_t> ids;
        for (int made = 0; made < 100; ++made)
        {
            ids.push_back(exposedPort("any", rig.clock, &rig.log, false).portId);
        }
        return ids;
    };
    auto one = std::async(std::launch::async, construct);
    auto two = std::async(std::launch::async, construct);
    std::vector<std::uint32_t> const first = one.get();
    std::vector<std::uint32_t> const second = two.get();
    std::set<std::uint32_t> all(first.begin(), first.end());
    all.insert(second.begin(), second.end());
    EXPECT_EQ(all.size(), 200U);
}

// --- configurePort

TEST(ConfigurePort, BeforeStart_SettingsComeIntoForceWithTheDevice)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.configurePort(19200, 7, PARITY_EVEN, 2, 4, 0.25, 0.5, 9), 0);
    EXPECT_FALSE(rig.port.serial.isOpen());
    EXPECT_EQ(deviceText(rig.port), rig.line.name() + " 19200 7E2 vmin(1) vtime(1) interMsgGapBits(44)");

    ASSERT_TRUE(rig.port.start());
    termios const settings = rig.line.settings();
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B19200));
    EXPECT_EQ(settings.c_cflag & CSTOPB, static_cast<tcflag_t>(CSTOPB));
    EXPECT_EQ(settings.c_lflag & (ICANON | ECHO | ISIG), 0U);
}

TEST(ConfigurePort, WhileStarted_TakesEffectAtOnceAndLeavesThePortRunning)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    kit::threadWatch const watch;

    EXPECT_EQ(rig.port.configurePort(57600, 8, PARITY_NONE, 2, 0, 0.2, 0.6, 1), 0);

    termios const settings = rig.line.settings();
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B57600));
    EXPECT_EQ(settings.c_cflag & CSTOPB, static_cast<tcflag_t>(CSTOPB));
    EXPECT_TRUE(rig.port.started);
    EXPECT_TRUE(rig.port.serial.isOpen());
    EXPECT_TRUE(watch.added().empty());
}

TEST(ConfigurePort, TimeoutsAndGap_AreStored)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.configurePort(9600, 8, PARITY_NONE, 1, 0, 0.75, -1.0, 5), 0);
    EXPECT_EQ(rig.port.getAcknowledgeTimeout_sec(), 0.75);
    EXPECT_EQ(rig.port.getHandshakeTimeout_sec(), -1.0);
}

TEST(ConfigurePort, ReceiveGap_IsTheCountTimesTheByteTime)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.configurePort(300, 7, PARITY_ODD, 2, 0, 0.2, 0.6, 4000000000U), 0);
    double byteTime = 0.0;
    ASSERT_EQ(rig.port.serial.getByteTransmitTime(byteTime), 0);
    EXPECT_DOUBLE_EQ(byteTime, 11.0 / 300.0);
    EXPECT_EQ(rig.port.rxInterCharGap_sec, 4000000000.0 * byteTime);
    EXPECT_EQ(inForce(rig.port).vtime, 255);
}

TEST(ConfigurePort, ReceiveGap_IsRoundedUpToTenthsForTheDevice)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.configurePort(300, 8, PARITY_NONE, 1, 0, 0.2, 0.6, 7), 0); // 0.2333 s
    EXPECT_EQ(inForce(rig.port).vmin, 1);
    EXPECT_EQ(inForce(rig.port).vtime, 3);
}

TEST(ConfigurePort, Gap_CountsStartDataAndStopBitsWithoutParity)
{
    portOnLine<> rig;
    EXPECT_EQ(configure(rig.port, 3, PARITY_NONE), 0);
    EXPECT_THAT(deviceText(rig.port), EndsWith(" interMsgGapBits(30)"));
}

TEST(ConfigurePort, Gap_CountsOneMoreBitForEveryParity)
{
    for (PARITY_TYPE const parity : {PARITY_ODD, PARITY_EVEN, PARITY_MARK, PARITY_SPACE})
    {
        portOnLine<> rig;
        EXPECT_EQ(configure(rig.port, 3, parity), 0);
        EXPECT_THAT(deviceText(rig.port), EndsWith(" interMsgGapBits(33)"));
    }
}

TEST(ConfigurePort, Gap_CountsAParityWithoutNameToo)
{
    for (unsigned const parity : {0U, 6U, 0xFFFFFFFFU})
    {
        portOnLine<> rig;
        EXPECT_EQ(configure(rig.port, 3, static_cast<PARITY_TYPE>(parity)), EINVAL);
        EXPECT_THAT(deviceText(rig.port), EndsWith(" interMsgGapBits(33)"));
    }
}

TEST(ConfigurePort, Gap_CountsTheBitsAskedFor)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.configurePort(9600, 5, PARITY_EVEN, 2, 2, 0.2, 0.6, 4), 0);
    EXPECT_THAT(deviceText(rig.port), EndsWith(" interMsgGapBits(18)"));
}

TEST(ConfigurePort, Gap_WrapsAtThirtyTwoBits)
{
    portOnLine<> rig;
    EXPECT_EQ(configure(rig.port, 429496730U, PARITY_NONE), 0); // 4294967300 bits
    EXPECT_THAT(deviceText(rig.port), EndsWith(" interMsgGapBits(4)"));
}

TEST(ConfigurePort, RefusedValue_IsReportedAndTheOtherStepsAreTaken)
{
    struct settings
    {
        unsigned speed;
        unsigned dataBits;
        PARITY_TYPE parity;
        unsigned stopBits;
        std::string framing;
    };
    std::vector<settings> const refused{
        {0, 7, PARITY_ODD, 2, "9600 7O2"},      {19200, 9, PARITY_ODD, 2, "19200 8O2"},
        {19200, 4, PARITY_ODD, 2, "19200 8O2"}, {19200, 7, static_cast<PARITY_TYPE>(6), 2, "19200 7N2"},
        {19200, 7, PARITY_ODD, 3, "19200 7O1"}, {19200, 7, PARITY_ODD, 0, "19200 7O1"},
    };
    for (settings const& one : refused)
    {
        portOnLine<> rig;
        int const result =
            rig.port.configurePort(one.speed, one.dataBits, one.parity, one.stopBits, 0, 0.125, 0.25, 250);
        EXPECT_EQ(result, EINVAL);
        EXPECT_THAT(deviceText(rig.port), StartsWith(rig.line.name() + " " + one.framing + " vmin(1) vtime("));
        EXPECT_EQ(rig.port.getAcknowledgeTimeout_sec(), 0.125);
        EXPECT_EQ(rig.port.getHandshakeTimeout_sec(), 0.25);
        EXPECT_NE(rig.port.rxInterCharGap_sec, 0.00520833);
    }
}

/// Tells in which order its setters are called and what they find.
class tellingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;

    void setAcknowledgeTimeout_sec(double const& timeout_sec) override
    {
        calls.push_back("acknowledge " + std::to_string(timeout_sec));
        deviceThen = deviceText(*this);
        exposedPort::setAcknowledgeTimeout_sec(timeout_sec);
    }

    void setHandshakeTimeout_sec(double const& timeout_sec) override
    {
        calls.push_back("handshake " + std::to_string(timeout_sec));
        exposedPort::setHandshakeTimeout_sec(timeout_sec);
    }

    int setReceiveInterCharacterGap_sec(double const& gap) override
    {
        calls.push_back("gap " + std::to_string(gap));
        return gapResult;
    }

    std::vector<std::string> calls;
    std::string deviceThen;
    int gapResult = 0;
};

TEST(ConfigurePort, TimeoutsAndGap_GoThroughTheVirtualSettersInOrder)
{
    portOnLine<tellingPort> rig;
    EXPECT_EQ(rig.port.configurePort(1000, 8, PARITY_NONE, 1, 0, 0.125, 0.25, 50), 0);
    EXPECT_THAT(rig.port.calls, ElementsAre("acknowledge 0.125000", "handshake 0.250000", "gap 0.500000"));
}

TEST(ConfigurePort, Setters_FindTheDeviceSetWithTheProvisionalVtime)
{
    portOnLine<tellingPort> rig;
    ASSERT_EQ(rig.port.serial.setVminVtime(3, 77), 0);
    EXPECT_EQ(rig.port.configurePort(4800, 6, PARITY_ODD, 2, 3, 0.125, 0.25, 50), 0);
    EXPECT_EQ(rig.port.deviceThen, rig.line.name() + " 4800 6O2 vmin(1) vtime(10) interMsgGapBits(30)");
}

TEST(ConfigurePort, Result_IsTheBitwiseOrWithThatOfTheVirtualSetter)
{
    portOnLine<tellingPort> rig;
    rig.port.gapResult = 0x40;
    EXPECT_EQ(configure(rig.port, 0, PARITY_NONE), 0x40);
    EXPECT_EQ(configure(rig.port, 0, static_cast<PARITY_TYPE>(9)), 0x40 | EINVAL);
}

TEST(ConfigurePort, WritesNoLogLine)
{
    portOnLine<> rig;
    EXPECT_NE(rig.port.configurePort(0, 0, static_cast<PARITY_TYPE>(0), 0, 0, 0.2, 0.6, 4), 0);
    EXPECT_TRUE(rig.log.lines().empty());
}

// --- The receive gap

struct gapCase
{
    double gap_sec;
    int vtime;
};

void PrintTo(gapCase const& tested, std::ostream* out)
{
    *out << tested.gap_sec;
}

class ReceiveGap : public testing::TestWithParam<gapCase>
{};

TEST_P(ReceiveGap, IsRoundedUpToTenthsFromOneTo255)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.setVminVtime(7, 77), 0);

    EXPECT_EQ(rig.port.setReceiveInterCharacterGap_sec(GetParam().gap_sec), 0);

    EXPECT_EQ(inForce(rig.port).vmin, 1);
    EXPECT_EQ(inForce(rig.port).vtime, GetParam().vtime);
    double gap = 0.0;
    double effective = 0.0;
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, &effective), 0);
    EXPECT_TRUE(gap == GetParam().gap_sec || (std::isnan(gap) && std::isnan(GetParam().gap_sec))) << gap;
    EXPECT_EQ(effective, GetParam().vtime * 0.1);
}

INSTANTIATE_TEST_SUITE_P(Gaps, ReceiveGap,
                         testing::Values(gapCase{-infinity, 1}, gapCase{-1e9, 1}, gapCase{-1.0, 1}, gapCase{-0.05, 1},
                                         gapCase{0.0, 1}, gapCase{1e-9, 1}, gapCase{0.00520833, 1}, gapCase{0.05, 1},
                                         gapCase{0.1, 1}, gapCase{0.11, 2}, gapCase{0.15, 2}, gapCase{0.2, 2},
                                         gapCase{0.3, 3}, gapCase{1.0, 10}, gapCase{25.4, 254}, gapCase{25.41, 255},
                                         gapCase{25.5, 255}, gapCase{25.6, 255}, gapCase{30.0, 255},
                                         gapCase{429496729.7, 255}, gapCase{1e9, 255}, gapCase{1e300, 255},
                                         gapCase{infinity, 255}, gapCase{notANumber, 1}));

TEST(ReceiveGapQuery, NewPort_ShowsTheDefaultGapAndTheDevicesOwnVtime)
{
    portOnLine<> rig;
    double gap = 0.0;
    double effective = 0.0;
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, &effective), 0);
    EXPECT_EQ(gap, 0.00520833);
    EXPECT_EQ(effective, 1.0); // the device's initial VTIME is 10
}

TEST(ReceiveGapQuery, NullEffective_TellsTheGapAlone)
{
    portOnLine<> rig;
    double gap = 0.0;
    EXPECT_EQ(rig.port.setReceiveInterCharacterGap_sec(1.25), 0);
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, nullptr), 0);
    EXPECT_EQ(gap, 1.25);
}

TEST(ReceiveGapQuery, OpenDevice_HasTheVtime)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.port.setReceiveInterCharacterGap_sec(0.45), 0);
    EXPECT_EQ(rig.line.settings().c_cc[VMIN], 1);
    EXPECT_EQ(rig.line.settings().c_cc[VTIME], 5);
}

// --- The configuration text

TEST(PortConfigStr, Defaults_FollowTheDevicesText)
{
    portOnLine<> rig;
    EXPECT_EQ(configText(rig.port), rig.line.name() + " 9600 8N1 vmin(1) vtime(10) interMsgGapBits(0)" +
                                        "\nackTo(0.200000) hsTo(0.600000) interCharGap(0.005208)");
}

TEST(PortConfigStr, SettingsMade_Show)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.configurePort(115200, 7, PARITY_SPACE, 2, 3, 1.5, -2.25, 1152), 0);
    EXPECT_EQ(configText(rig.port), rig.line.name() + " 115200 7S2 vmin(1) vtime(2) interMsgGapBits(33)" +
                                        "\nackTo(1.500000) hsTo(-2.250000) interCharGap(0.110000)");
}

TEST(PortConfigStr, StringGiven_IsReplacedAsTheDeviceDoes)
{
    portOnLine<> rig;
    std::string text = "former";
    EXPECT_EQ(rig.port.getPortConfigStr(text), 0);
    EXPECT_EQ(text, configText(rig.port));
    EXPECT_THAT(text, StartsWith(rig.line.name()));
}

std::string portsOwnText(double ackTimeout, double handshakeTimeout, double gap)
{
    return "\nackTo(" + std::to_string(ackTimeout) + ") hsTo(" + std::to_string(handshakeTimeout) + ") interCharGap(" +
           std::to_string(gap) + ")";
}

TEST(PortConfigStr, EndlessNumbers_AreWrittenAsTheCLibraryDoes)
{
    portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(infinity);
    rig.port.setHandshakeTimeout_sec(-infinity);
    rig.port.setReceiveInterCharacterGap_sec(notANumber);
    EXPECT_EQ(configText(rig.port), deviceText(rig.port) + "\nackTo(inf) hsTo(-inf) interCharGap(nan)");
}

TEST(PortConfigStr, LongText_IsCutAt255Characters)
{
    portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(1e120);
    rig.port.setHandshakeTimeout_sec(-1e100);
    rig.port.setReceiveInterCharacterGap_sec(1e90);
    std::string const whole = portsOwnText(1e120, -1e100, 1e90);
    ASSERT_GT(whole.size(), 255U);
    EXPECT_EQ(configText(rig.port), deviceText(rig.port) + whole.substr(0, 255));
}

TEST(PortConfigStr, TextOf255Characters_IsWhole)
{
    portOnLine<> rig;
    double const ackTimeout = 1e69;
    double const handshakeTimeout = 1e70;
    double gap = 1e50;
    while (portsOwnText(ackTimeout, handshakeTimeout, gap).size() < 255)
    {
        gap *= 10.0;
    }
    rig.port.setAcknowledgeTimeout_sec(ackTimeout);
    rig.port.setHandshakeTimeout_sec(handshakeTimeout);
    rig.port.setReceiveInterCharacterGap_sec(gap);
    ASSERT_EQ(portsOwnText(ackTimeout, handshakeTimeout, gap).size(), 255U);
    EXPECT_EQ(configText(rig.port), deviceText(rig.port) + portsOwnText(ackTimeout, handshakeTimeout, gap));
}

/// Shows values of its own, and a gap that cannot be had when it is told so.
class deviatingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;

    double getAcknowledgeTimeout_sec() override { return 9.5; }
    double getHandshakeTimeout_sec() override { return 8.25; }
    int getReceiveInterCharacterGap_sec(double& gap, double* effective) override
    {
        askedForEffective = effective != nullptr;
        gap = 7.125;
        return gapResult;
    }

    int gapResult = 0;
    bool askedForEffective = true;
};

TEST(PortConfigStr, Values_AreReadThroughTheVirtualOperations)
{
    portOnLine<deviatingPort> rig;
    EXPECT_EQ(configText(rig.port), deviceText(rig.port) + "\nackTo(9.500000) hsTo(8.250000) interCharGap(7.125000)");
    EXPECT_FALSE(rig.port.askedForEffective);
}

TEST(PortConfigStr, GapThatCannotBeHad_IsReportedAndNothingAppended)
{
    portOnLine<deviatingPort> rig;
    rig.port.gapResult = 5;
    std::string text;
    EXPECT_EQ(rig.port.getPortConfigStr(text), 5);
    EXPECT_EQ(text, deviceText(rig.port));
}

// --- Accessors

TEST(PortAccessors, Timeouts_TakeEveryValue)
{
    portOnLine<> rig;
    for (double const value : {0.0, -0.5, 3.25, 1e300, infinity, -infinity})
    {
        rig.port.setAcknowledgeTimeout_sec(value);
        rig.port.setHandshakeTimeout_sec(value / 2);
        EXPECT_EQ(rig.port.getAcknowledgeTimeout_sec(), value);
        EXPECT_EQ(rig.port.getHandshakeTimeout_sec(), value / 2);
        EXPECT_EQ(rig.port.ackTimeout_sec, value);
        EXPECT_EQ(rig.port.handshakeTimeout_sec, value / 2);
    }
    rig.port.setAcknowledgeTimeout_sec(notANumber);
    rig.port.setHandshakeTimeout_sec(notANumber);
    EXPECT_TRUE(std::isnan(rig.port.getAcknowledgeTimeout_sec()));
    EXPECT_TRUE(std::isnan(rig.port.getHandshakeTimeout_sec()));
}

TEST(PortAccessors, AutoAcknowledge_IsSetAndRead)
{
    portOnLine<> rig;
    rig.port.setReceiveAutoAcknowledgeEnable(false);
    EXPECT_FALSE(rig.port.getReceiveAutoAcknowledgeEnable());
    EXPECT_FALSE(rig.port.rxAutoAck);
    rig.port.setReceiveAutoAcknowledgeEnable(true);
    EXPECT_TRUE(rig.port.getReceiveAutoAcknowledgeEnable());
}

TEST(PortAccessors, DeviceName_IsTheOneGiven)
{
    portOnLine<> rig;
    for (char const* name : {"", "relative name", "/dev/ttyS1"})
    {
        exposedPort port(name, rig.clock, &rig.log, false);
        EXPECT_EQ(port.getPort(), name);
    }
}

TEST(PortAccessors, ThroughTheInterface_ReachThePort)
{
    portOnLine<> rig;
    gssipPortInterface& port = rig.port;
    port.setAcknowledgeTimeout_sec(1.5);
    port.setHandshakeTimeout_sec(2.5);
    port.setReceiveAutoAcknowledgeEnable(false);
    EXPECT_EQ(rig.port.ackTimeout_sec, 1.5);
    EXPECT_EQ(rig.port.handshakeTimeout_sec, 2.5);
    EXPECT_FALSE(rig.port.rxAutoAck);
    EXPECT_EQ(port.getPort(), rig.line.name());
}

} // namespace
