#include "kernelTermios.h"

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

} // namespace

kernelTermios kernelTermiosOf(int descriptor)
{
    termios2 values{};
    if (syscall(SYS_ioctl, descriptor, TCGETS2, &values) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "TCGETS2");
    }
    return translated(values);
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
