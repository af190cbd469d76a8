#include "emulation.h"

#include <asm/termbits.h> // excludes termios.h, and so the kit's pseudo-terminal
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kit
{
namespace
{

/// Asks a terminal past any replacement of the system calls.
template <typename Answer>
bool terminalAnswers(unsigned long request)
{
    Answer answer{};
    int const terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    bool const answers = syscall(SYS_ioctl, terminal, request, &answer) == 0;
    syscall(SYS_close, terminal);
    return answers;
}

} // namespace

bool isEmulated()
{
    std::string name; // of the first thread: the emulator's own
    std::getline(std::ifstream("/proc/self/comm"), name);
    return name.rfind("qemu-", 0) == 0;
}

bool hasArbitraryRates()
{
    return terminalAnswers<termios2>(TCGETS2);
}

bool hasEveryStandardRate()
{
    int const terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    struct ::termios values = {};
    syscall(SYS_ioctl, terminal, TCGETS, &values);
    values.c_cflag = (values.c_cflag & ~static_cast<tcflag_t>(CBAUD)) | B4000000;
    syscall(SYS_ioctl, terminal, TCSETS, &values);
    bool const isKept = syscall(SYS_ioctl, terminal, TCGETS, &values) == 0 && (values.c_cflag & CBAUD) == B4000000;
    syscall(SYS_close, terminal);
    return isKept;
}

bool tellsExclusiveMode()
{
    return terminalAnswers<int>(TIOCGEXCL);
}

bool hasSystemCallFilters()
{
    return prctl(PR_GET_SECCOMP) >= 0;
}

bool givesThreadMemoryBack()
{
    return !isEmulated();
}

} // namespace kit
