#include "kernelTermios.h"

#include <array>
#include <asm/termbits.h>
#include <cerrno>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace
{

unsigned dataBitsOf(tcflag_t flags)
{
    switch (flags & CSIZE)
    {
    case CS5:
        return 5;
    case CS6:
        return 6;
    case CS7:
        return 7;
    default:
        return 8;
    }
}

unsigned speedOf(tcflag_t flags)
{
    constexpr std::array<unsigned, 16> SLOW{0,   50,   75,   110,  134,  150,  200,   300,
                                            600, 1200, 1800, 2400, 4800, 9600, 19200, 38400};
    constexpr std::array<unsigned, 15> FAST{57600,   115200,  230400,  460800,  500000,  576000,  921600, 1000000,
                                            1152000, 1500000, 2000000, 2500000, 3000000, 3500000, 4000000};
    tcflag_t const code = flags & CBAUD;
    return code < SLOW.size() ? SLOW.at(code) : FAST.at(code - B57600);
}

kernelTermios translated(termios2 const& values)
{
    kernelTermios result;
    result.inputSpeed = values.c_ispeed;
    result.outputSpeed = values.c_ospeed;
    result.hasParity = (values.c_cflag & PARENB) != 0;
    result.parityIsOdd = (values.c_cflag & PARODD) != 0;
    result.parityIsFixed = (values.c_cflag & CMSPAR) != 0;
    result.twoStopBits = (values.c_cflag & CSTOPB) != 0;
    result.dataBits = dataBitsOf(values.c_cflag);
    return result;
}

/// The older structure, which has the speed as a code alone.
termios2 standardTermiosOf(int descriptor)
{
    termios2 values{};
    if (syscall(SYS_ioctl, descriptor, TCGETS, &values) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "TCGETS");
    }
    values.c_ospeed = speedOf(values.c_cflag);
    values.c_ispeed = values.c_ospeed;
    return values;
}

} // namespace

kernelTermios kernelTermiosOf(int descriptor)
{
    termios2 values{};
    bool const knowsEverySpeed = syscall(SYS_ioctl, descriptor, TCGETS2, &values) == 0;
    return translated(knowsEverySpeed ? values : standardTermiosOf(descriptor));
}

bool readsKernelTermios(unsigned long request)
{
    return request == TCGETS2;
}

bool writesKernelTermios(unsigned long request)
{
    return request == TCSETS2 || request == TCSETSW2 || request == TCSETSF2;
}

kernelTermios askedBy(void* argument)
{
    return translated(*static_cast<termios2*>(argument));
}

void changeSpeedAskedBy(void* argument, unsigned speed)
{
    auto& values = *static_cast<termios2*>(argument);
    values.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CIBAUD);
    values.c_cflag |= BOTHER;
    values.c_ispeed = speed;
    values.c_ospeed = speed;
}
