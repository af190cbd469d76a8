// One line, one program: the device is taken, given back, and asked for nothing that a driver may lack.

#include "emulation.h"
#include "ordinaryUser.h"
#include "serialPortOnLine.h"
#include "systemCalls.h"
#include "temporaryFolder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/serial.h>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace
{

using kit::bytes;

bool isClosed(int number)
{
    return fcntl(number, F_GETFD) < 0;
}

/// The descriptors that this process has open, without the one that serves the listing itself.
std::set<int> openDescriptors()
{
    std::set<int> numbers;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        numbers.insert(std::stoi(entry.path().filename().string()));
    }
    for (auto each = numbers.begin(); each != numbers.end();)
    {
        each = isClosed(*each) ? numbers.erase(each) : std::next(each);
    }
    return numbers;
}

std::set<int> openedSince(std::set<int> const& before)
{
    std::set<int> const now = openDescriptors();
    std::set<int> added;
    std::set_difference(now.begin(), now.end(), before.begin(), before.end(), std::inserter(added, added.end()));
    return added;
}

/// A descriptor of another program, so to say, which the library does not know.
class otherDescriptor
{
  public:
    explicit otherDescriptor(std::string const& name)
        : number(::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)), error(errno)
    {}
    ~otherDescriptor()
    {
        if (number >= 0)
        {
            ::close(number);
        }
    }
    otherDescriptor(otherDescriptor const&) = delete;
    otherDescriptor& operator=(otherDescriptor const&) = delete;

    bool showsExclusive() const
    {
        int exclusive = -1;
        EXPECT_EQ(ioctl(number, TIOCGEXCL, &exclusive), 0);
        return exclusive != 0;
    }

    int const number;
    int const error;
};

TEST(DeviceShared, SecondOpen_IsRefusedUntilTheFirstCloses)
{
    kit::serialPortOnLine device;
    serialPort second(device.line.name(), device.log);
    ASSERT_EQ(device.port.open(), 0);
    std::set<int> const before = openDescriptors();
    EXPECT_EQ(second.open(), EBUSY);
    EXPECT_FALSE(second.isOpen());
    EXPECT_TRUE(openedSince(before).empty());
    EXPECT_EQ(device.send(bytes{1}).status, 0) << "the refused one has not disturbed the first";
    EXPECT_EQ(device.port.close(), 0);
    EXPECT_EQ(second.open(), 0);
}

TEST(DeviceShared, DeviceLockedByAnotherProgram_IsRefused)
{
    kit::serialPortOnLine device;
    otherDescriptor const other(device.line.name());
    ASSERT_EQ(flock(other.number, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(device.port.open(), EBUSY);
    ASSERT_EQ(flock(other.number, LOCK_UN), 0);
    EXPECT_EQ(device.port.open(), 0);
    EXPECT_EQ(flock(other.number, LOCK_EX | LOCK_NB), -1) << "now the other program is kept out";
}

TEST(DeviceShared, ExclusiveMode_LastsFromOpenToClose)
{
    if (!kit::tellsExclusiveMode())
    {
        GTEST_SKIP() << kit::EXCLUSIVE_MODE_UNTOLD;
    }
    kit::serialPortOnLine device;
    otherDescriptor const other(device.line.name());
    EXPECT_FALSE(other.showsExclusive());
    ASSERT_EQ(device.port.open(), 0);
    EXPECT_TRUE(other.showsExclusive());
    ASSERT_EQ(device.port.close(), 0);
    EXPECT_FALSE(other.showsExclusive());
}

std::string fault(char const* what, int status)
{
    return std::string(what) + ": " + std::generic_category().message(status) + ". ";
}

/// Nobody but the superuser may open a device that has been left in exclusive mode.
TEST(DeviceShared, OrdinaryUser_CanReopenWhatOthersKeepOpen)
{
    EXPECT_EQ(kit::asOrdinaryUser([] {
                  kit::serialPortOnLine device;
                  otherDescriptor const other(device.line.name());
                  std::string faults;
                  for (int times = 0; times < 3; ++times)
                  {
                      int const opened = device.port.open();
                      faults += opened == 0 ? "" : fault("open", opened);
                      int const closed = device.port.close();
                      faults += closed == 0 ? "" : fault("close", closed);
                  }
                  return faults;
              }),
              "");
}

TEST(DeviceShared, OrdinaryProgramThatAsksForNoLock_IsKeptOut)
{
    EXPECT_EQ(kit::asOrdinaryUser([] {
                  kit::serialPortOnLine device;
                  int const opened = device.port.open();
                  if (opened != 0)
                  {
                      return fault("open", opened);
                  }
                  otherDescriptor const other(device.line.name());
                  return other.number < 0 && other.error == EBUSY ? std::string{} : fault("not refused", other.error);
              }),
              "");
}

TEST(DeviceShared, EveryDescriptor_IsClosedOnExec)
{
    kit::serialPortOnLine device;
    std::set<int> const before = openDescriptors();
    ASSERT_EQ(device.port.open(), 0);
    std::set<int> const added = openedSince(before);
    EXPECT_EQ(added.size(), 3U) << "the device and what wakes its reader and its writer";
    for (int const number : added)
    {
        EXPECT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC) << number;
    }
    ASSERT_EQ(device.port.close(), 0);
    EXPECT_TRUE(openedSince(before).empty());
}

TEST(DeviceShared, Device_NeverBecomesTheControllingTerminal)
{
    EXPECT_EQ(kit::inOwnProcess([] {
                  if (setsid() < 0) // the next terminal opened would become this session's
                  {
                      return fault("setsid", errno);
                  }
                  kit::serialPortOnLine device;
                  int const opened = device.port.open();
                  if (opened != 0)
                  {
                      return fault("open", opened);
                  }
                  int const controlling = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
                  return controlling < 0 && errno == ENXIO ? std::string{} : std::string("it became it");
              }),
              "");
}

TEST(DeviceShared, Line_IsWithoutTranslationFlowControlCarrierAndHangUp)
{
    kit::serialPortOnLine device;
    otherDescriptor const other(device.line.name());
    termios before{};
    ASSERT_EQ(tcgetattr(other.number, &before), 0);
    before.c_iflag |= IXON | IXOFF | IXANY | ICRNL | INLCR | IGNCR | ISTRIP | BRKINT | PARMRK | INPCK | IGNPAR;
    before.c_oflag |= OPOST | ONLCR;
    before.c_lflag |= ICANON | ECHO | ISIG | IEXTEN | TOSTOP;
    before.c_cflag = (before.c_cflag | HUPCL | CRTSCTS) & ~static_cast<tcflag_t>(CLOCAL | CREAD);
    ASSERT_EQ(tcsetattr(other.number, TCSANOW, &before), 0);

    ASSERT_EQ(device.port.open(), 0);
    termios const now = device.line.settings();
    EXPECT_EQ(now.c_iflag, tcflag_t{IGNBRK}) << "breaks ignored, bytes with parity errors delivered as they came";
    EXPECT_EQ(now.c_oflag, 0U);
    EXPECT_EQ(now.c_lflag, 0U);
    EXPECT_EQ(now.c_cflag & (HUPCL | CRTSCTS | CLOCAL | CREAD), tcflag_t{CLOCAL | CREAD});
}

/// Opens for a single purpose: to see what is asked of the driver.
class watchedDriver : public kit::systemCalls
{
  public:
    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        if (request == TIOCGSERIAL || request == TIOCSSERIAL)
        {
            return serial(request, static_cast<serial_struct*>(argument));
        }
        if (requestToRefuse == request)
        {
            errno = errorToGive;
            return -1;
        }
        return systemCalls::ioctl(descriptor, request, argument);
    }

    int eventfd(unsigned count, int flags) override
    {
        if (eventsLeft-- == 0)
        {
            errno = EMFILE;
            return -1;
        }
        return systemCalls::eventfd(count, flags);
    }

    unsigned long requestToRefuse = 0;
    int errorToGive = 0;
    int eventsLeft = 100;
    bool hasLatency = false;
    int latencyFlags = 0;

  private:
    int serial(unsigned long request, serial_struct* settings)
    {
        if (!hasLatency)
        {
            errno = ENOTTY;
            return -1;
        }
        if (request == TIOCGSERIAL)
        {
            *settings = {};
            settings->flags = latencyFlags;
        }
        else
        {
            latencyFlags = settings->flags;
        }
        return 0;
    }
};

TEST(DeviceShared, LowLatency_IsAskedForWhereTheDriverOffersIt)
{
    watchedDriver driver;
    driver.hasLatency = true;
    driver.latencyFlags = ASYNC_SKIP_TEST;
    kit::systemReplaced const replaced(driver);
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    EXPECT_EQ(driver.latencyFlags, ASYNC_SKIP_TEST | ASYNC_LOW_LATENCY);
}

TEST(DeviceShared, ControlThatTheDriverLacks_IsNoFailure)
{
    watchedDriver driver;
    driver.requestToRefuse = TIOCEXCL;
    driver.errorToGive = ENOTTY;
    kit::systemReplaced const replaced(driver);
    kit::serialPortOnLine device;
    EXPECT_EQ(device.port.open(), 0);
    EXPECT_EQ(device.port.close(), 0);
}

TEST(DeviceShared, WhatIsNoTerminal_IsRefused)
{
    kit::temporaryFolder const folder;
    std::string const file = (folder.path / "file").string();
    std::ofstream(file) << "no terminal";
    kit::recordingLog log;
    for (std::string const& name : {file, std::string("/dev/null")})
    {
        std::set<int> const before = openDescriptors();
        serialPort port(name, log);
        EXPECT_EQ(port.open(), ENOTTY) << name;
        EXPECT_FALSE(port.isOpen()) << name;
        EXPECT_TRUE(openedSince(before).empty()) << name;
    }
}

/// As a serial card whose driver has been unbound: it can be opened, and that is all.
TEST(DeviceShared, TerminalThatAnswersNoCall_IsRefused)
{
    constexpr unsigned long TCGETS2_REQUEST = 0x802C542AUL;
    watchedDriver driver;
    driver.requestToRefuse = TCGETS2_REQUEST;
    driver.errorToGive = EIO;
    kit::systemReplaced const replaced(driver);
    kit::serialPortOnLine device;
    std::set<int> const before = openDescriptors();
    EXPECT_EQ(device.port.open(), EIO);
    EXPECT_TRUE(openedSince(before).empty());
}

TEST(DeviceShared, SetUpThatFailsAtTheEnd_LeavesNothingBehind)
{
    if (!kit::tellsExclusiveMode())
    {
        GTEST_SKIP() << kit::EXCLUSIVE_MODE_UNTOLD;
    }
    for (int successes = 0; successes < 2; ++successes)
    {
        watchedDriver driver;
        driver.eventsLeft = successes;
        kit::systemReplaced const replaced(driver);
        kit::serialPortOnLine device;
        otherDescriptor const other(device.line.name());
        std::set<int> const before = openDescriptors();
        EXPECT_EQ(device.port.open(), EMFILE);
        EXPECT_FALSE(device.port.isOpen());
        EXPECT_TRUE(openedSince(before).empty());
        EXPECT_FALSE(other.showsExclusive());
        EXPECT_EQ(flock(other.number, LOCK_EX | LOCK_NB), 0);
        ASSERT_EQ(flock(other.number, LOCK_UN), 0);
        driver.eventsLeft = 100;
        EXPECT_EQ(device.port.open(), 0);
    }
}

} // namespace
