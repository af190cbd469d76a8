#include "terminal.h"

#include <algorithm>
#include <array>
#include <asm/termbits.h> // the kernel's own structures: the C library's know no arbitrary speeds
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace gssipInternal::terminal
{
namespace
{

/// Repeats a call that a signal has interrupted.
template <typename Call>
int uninterrupted(Call const& call)
{
    int result = 0;
    do
    {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

/// 0 or errno of an ioctl.
template <typename Argument>
int control(int descriptor, unsigned long request, Argument argument)
{
    return uninterrupted([&] { return ioctl(descriptor, request, argument); }) < 0 ? errno : 0;
}

struct standardRate
{
    unsigned speed;
    tcflag_t code;
};

constexpr std::array<standardRate, 30> STANDARD_RATES{{
    {50, B50},           {75, B75},           {110, B110},         {134, B134},         {150, B150},
    {200, B200},         {300, B300},         {600, B600},         {1200, B1200},       {1800, B1800},
    {2400, B2400},       {4800, B4800},       {9600, B9600},       {19200, B19200},     {38400, B38400},
    {57600, B57600},     {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
    {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
}};

/// What a terminal holds, read and written through the arbitrary-rate interface or, where the kernel lacks that,
/// through the standard one.
class attributes
{
  public:
    int read(int descriptor)
    {
        int const status = control(descriptor, TCGETS2, &values);
        arbitraryRates = status == 0;
        return status == ENOTTY || status == ENOSYS || status == EINVAL ? readStandard(descriptor) : status;
    }

    int write(int descriptor) const
    {
        return arbitraryRates ? control(descriptor, TCSETS2, &values) : writeStandard(descriptor);
    }

    unsigned speed() const { return values.c_ospeed; }

    /// Standard rates keep their code, by which other programs know them.
    int setSpeed(unsigned speed)
    {
        auto const* const rate = std::find_if(STANDARD_RATES.begin(), STANDARD_RATES.end(),
                                              [&](standardRate const& each) { return each.speed == speed; });
        bool const isStandard = rate != STANDARD_RATES.end();
        if (!isStandard && !arbitraryRates)
        {
            return EINVAL;
        }
        values.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CIBAUD); // an input rate of 0 means that of the output
        values.c_cflag |= isStandard ? rate->code : tcflag_t{BOTHER};
        values.c_ispeed = speed;
        values.c_ospeed = speed;
        return 0;
    }

    /// No translation, no echo, no signals, no flow control; breaks ignored, parity errors not looked for.
    void setRaw(lineSettings const& settings)
    {
        values.c_iflag = IGNBRK;
        values.c_oflag = 0;
        values.c_lflag = 0;
        values.c_cflag = (values.c_cflag & (CBAUD | CIBAUD)) | CREAD | CLOCAL | characterFlags(settings);
        std::fill(std::begin(values.c_cc), std::end(values.c_cc), cc_t{0});
        // Without a time poll would report bytes only when VMIN of them are there, also to a reader with less room.
        values.c_cc[VMIN] = settings.vtime == 0 ? std::min<cc_t>(settings.vmin, 1) : settings.vmin;
        values.c_cc[VTIME] = settings.vtime;
    }

  private:
    static tcflag_t characterFlags(lineSettings const& settings)
    {
        constexpr std::array<tcflag_t, 4> SIZES{CS5, CS6, CS7, CS8};
        return SIZES.at(settings.dataBits - 5) | parityFlags(settings.parity) | (settings.stopBits == 2 ? CSTOPB : 0);
    }

    static tcflag_t parityFlags(PARITY_TYPE parity)
    {
        switch (parity)
        {
        case PARITY_ODD:
            return PARENB | PARODD;
        case PARITY_EVEN:
            return PARENB;
        case PARITY_MARK:
            return PARENB | PARODD | CMSPAR;
        case PARITY_SPACE:
            return PARENB | CMSPAR;
        case PARITY_NONE:
            break;
        }
        return 0;
    }

    int readStandard(int descriptor)
    {
        struct ::termios standard = {};
        if (int const status = control(descriptor, TCGETS, &standard); status != 0)
        {
            return status;
        }
        values = {};
        values.c_iflag = standard.c_iflag;
        values.c_oflag = standard.c_oflag;
        values.c_cflag = standard.c_cflag;
        values.c_lflag = standard.c_lflag;
        values.c_line = standard.c_line;
        std::copy(std::begin(standard.c_cc), std::end(standard.c_cc), std::begin(values.c_cc));
        for (standardRate const& rate : STANDARD_RATES)
        {
            if (rate.code == (standard.c_cflag & CBAUD))
            {
                values.c_ospeed = rate.speed;
            }
        }
        return 0;
    }

    int writeStandard(int descriptor) const
    {
        struct ::termios standard = {};
        standard.c_iflag = values.c_iflag;
        standard.c_oflag = values.c_oflag;
        standard.c_cflag = values.c_cflag;
        standard.c_lflag = values.c_lflag;
        standard.c_line = values.c_line;
        std::copy(std::begin(values.c_cc), std::end(values.c_cc), std::begin(standard.c_cc));
        return control(descriptor, TCSETS, &standard);
    }

    termios2 values{};
    bool arbitraryRates = true;
};

bool isNear(unsigned held, unsigned asked)
{
    std::int64_t const difference = std::int64_t{held} - asked;
    return std::abs(difference) * 100 <= std::int64_t{asked} * 3;
}

/// Drivers accept speeds that they cannot make, and keep another: only reading back tells.
int checkSpeedHeld(int descriptor, unsigned asked)
{
    attributes held;
    int const status = held.read(descriptor);
    if (status != 0)
    {
        return status;
    }
    return isNear(held.speed(), asked) ? 0 : EINVAL;
}

} // namespace

int open(std::string const& name, int& descriptor)
{
    int const opened = uninterrupted([&] { return ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); });
    if (opened < 0)
    {
        return errno;
    }
    attributes current; // a device that has gone can be opened, and so can what is no terminal: only this call tells
    int const status = current.read(opened);
    if (status != 0)
    {
        ::close(opened);
        return status;
    }
    descriptor = opened;
    return 0;
}

int take(int descriptor)
{
    if (uninterrupted([&] { return flock(descriptor, LOCK_EX | LOCK_NB); }) < 0)
    {
        return errno == EWOULDBLOCK ? EBUSY : errno;
    }
    control(descriptor, TIOCEXCL, nullptr); // keeps out those who do not ask for the lock; not every driver has it
    return 0;
}

void give(int descriptor)
{
    control(descriptor, TIOCNXCL, nullptr);
    flock(descriptor, LOCK_UN);
}

bool isPseudoTerminal(int descriptor)
{
    constexpr unsigned FIRST_MAJOR = 136;
    constexpr unsigned LAST_MAJOR = 143;
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
    {
        return false;
    }
    unsigned const number = major(status.st_rdev);
    return number >= FIRST_MAJOR && number <= LAST_MAJOR;
}

int apply(int descriptor, lineSettings const& settings)
{
    attributes former;
    if (int const status = former.read(descriptor); status != 0)
    {
        return status;
    }
    attributes wanted = former;
    wanted.setRaw(settings);
    if (int const status = wanted.setSpeed(settings.speed); status != 0)
    {
        return status;
    }
    int status = wanted.write(descriptor);
    if (status == 0)
    {
        status = checkSpeedHeld(descriptor, settings.speed);
    }
    if (status != 0)
    {
        former.write(descriptor); // its result adds nothing to the failure that is reported
    }
    return status;
}

void askForLowLatency(int descriptor)
{
    constexpr auto LOW_LATENCY = static_cast<int>(ASYNC_LOW_LATENCY);
    serial_struct driver = {};
    if (control(descriptor, TIOCGSERIAL, &driver) == 0 && (driver.flags & LOW_LATENCY) == 0)
    {
        driver.flags |= LOW_LATENCY;
        control(descriptor, TIOCSSERIAL, &driver);
    }
}

unsigned queuedOutput(int descriptor)
{
    int bytes = 0;
    return control(descriptor, TIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<unsigned>(bytes) : 0;
}

bool hasHungUp(int descriptor)
{
    pollfd polled{descriptor, 0, 0};
    return uninterrupted([&] { return poll(&polled, 1, 0); }) > 0 && (polled.revents & POLLHUP) != 0;
}

void discardOutput(int descriptor)
{
    control(descriptor, TCFLSH, TCOFLUSH);
}

} // namespace gssipInternal::terminal
