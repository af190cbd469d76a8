#include "devices.h"

#include "scenario.h"

#include <asm/termbits.h> // the kernel's own structures: the C library's know no arbitrary speeds
#include <cerrno>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace uart
{
namespace
{

/// A descriptor of its own, which root gets of a device that is taken.
class spyhole
{
  public:
    explicit spyhole(std::string const& name) : descriptor(::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK))
    {
        if (descriptor < 0)
        {
            throw std::system_error(errno, std::generic_category(), name);
        }
    }
    ~spyhole() { ::close(descriptor); }
    spyhole(spyhole const&) = delete;
    spyhole& operator=(spyhole const&) = delete;

    template <typename Argument>
    int control(unsigned long request, Argument argument) const
    {
        return ioctl(descriptor, request, argument);
    }

  private:
    int descriptor;
};

} // namespace

bytes patternOf(std::size_t size)
{
    bytes pattern(size);
    for (std::size_t place = 0; place < size; ++place)
    {
        pattern[place] = static_cast<unsigned char>(place * 7 + place / 256);
    }
    return pattern;
}

transfer receiveOnce(serialPort& port, unsigned capacity)
{
    transfer result;
    result.data.resize(capacity);
    result.status = port.receive(result.data.data(), capacity, result.count);
    result.data.resize(result.count);
    return result;
}

bytes receiveAll(serialPort& port, std::size_t count)
{
    bytes all;
    while (all.size() < count)
    {
        transfer const part = receiveOnce(port);
        if (!expectEqual(part.status, 0, "the result of receiving"))
        {
            break;
        }
        all.insert(all.end(), part.data.begin(), part.data.end());
    }
    return all;
}

transfer sendAll(serialPort& port, bytes const& data)
{
    transfer result;
    result.status = port.send(data.data(), static_cast<unsigned>(data.size()), result.count);
    return result;
}

device::device(std::string const& name, unsigned speed) : device(name)
{
    expectEqual(port.setSpeed(speed), 0, "the result of setting the speed");
    expectEqual(port.open(), 0, "the result of opening " + name);
}

heldSettings settingsOf(std::string const& deviceName)
{
    spyhole const seen(deviceName);
    termios2 values{};
    serial_struct driver{};
    seen.control(TCGETS2, &values);
    bool const tellsClock = seen.control(TIOCGSERIAL, &driver) == 0;
    return {values.c_ospeed, values.c_cflag & (CSIZE | PARENB | PARODD | CMSPAR | CSTOPB),
            tellsClock ? static_cast<unsigned>(driver.baud_base) : 0U,
            (driver.flags & static_cast<int>(ASYNC_LOW_LATENCY)) != 0};
}

unsigned framingOf(unsigned dataBits, PARITY_TYPE parity, unsigned stopBits)
{
    constexpr unsigned sizes[] = {CS5, CS6, CS7, CS8};
    unsigned flags = sizes[dataBits - 5] | (stopBits == 2 ? unsigned{CSTOPB} : 0U);
    flags |= parity == PARITY_NONE ? 0U : unsigned{PARENB};
    flags |= parity == PARITY_ODD || parity == PARITY_MARK ? unsigned{PARODD} : 0U;
    flags |= parity == PARITY_MARK || parity == PARITY_SPACE ? unsigned{CMSPAR} : 0U;
    return flags;
}

lineErrors errorsOf(std::string const& deviceName)
{
    serial_icounter_struct counts{};
    spyhole(deviceName).control(TIOCGICOUNT, &counts);
    return {counts.brk, counts.parity, counts.frame, counts.overrun + counts.buf_overrun};
}

void hangUp(std::string const& deviceName)
{
    constexpr unsigned long HANG_UP = 0x5437; // TIOCVHANGUP, which not every C library names
    expectEqual(spyhole(deviceName).control(HANG_UP, 0), 0, "the result of hanging up");
}

} // namespace uart
