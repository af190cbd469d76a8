#include "oldKernel.h"

#include <asm/termbits.h> // which no file can have beside the C library's termios.h
#include <cerrno>
#include <sys/ioctl.h>

namespace faults
{

int oldKernel::ioctl(int descriptor, unsigned long request, void* argument)
{
    if (request == TCGETS2 || request == TCSETS2)
    {
        errno = EINVAL;
        return -1;
    }
    return systemCalls::ioctl(descriptor, request, argument);
}

} // namespace faults
