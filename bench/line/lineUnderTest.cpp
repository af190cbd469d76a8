#include "lineUnderTest.h"

#include "rawWrite.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace
{

constexpr std::string_view MASTER_PREFIX = "bench-master-";

int checked(int result, char const* what)
{
    if (result < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// A pseudo-terminal. The descriptor of the slave also keeps the master from seeing a hang-up.
struct terminal
{
    int master = -1;
    int slave = -1;
    std::string slaveName;
};

void makeRaw(int descriptor)
{
    termios settings{};
    checked(tcgetattr(descriptor, &settings), "tcgetattr");
    cfmakeraw(&settings);
    checked(tcsetattr(descriptor, TCSANOW, &settings), "tcsetattr");
}

terminal makeTerminal()
{
    terminal made;
    made.master = checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
    checked(grantpt(made.master), "grantpt");
    checked(unlockpt(made.master), "unlockpt");
    std::array<char, 64> name{};
    checked(-ptsname_r(made.master, name.data(), name.size()), "ptsname_r");
    made.slaveName = name.data();
    made.slave = checked(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open");
    makeRaw(made.slave);
    return made;
}

bool isMaster(struct stat const& status)
{
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(5, 2);
}

void passOn(int from, int to)
{
    std::thread([from, to] {
        std::array<std::uint8_t, 4096> bytes{};
        while (true)
        {
            bench::writeAll(to, bytes.data(), bench::readSome(from, bytes.data(), bytes.size()));
        }
    }).detach();
}

} // namespace

// A master side has no name in the file system by which a second user could open it. These definitions stand in front
// of the C library's, for every caller in the process: a name made below opens the master that exists; a master looks
// like the pseudo-terminal that it is a side of (its own device number is that of all masters), and has a lock of its
// own (all masters are one file, and would share one).

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): those of the C library are reserved names
extern "C" int open(char const* name, int flags, ...)
{
    if (std::string_view(name).substr(0, MASTER_PREFIX.size()) == MASTER_PREFIX)
    {
        int const opened = fcntl(std::atoi(name + MASTER_PREFIX.size()), F_DUPFD_CLOEXEC, 0);
        return opened >= 0 && fcntl(opened, F_SETFL, flags & O_NONBLOCK) < 0 ? -1 : opened;
    }
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0)
    {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return openat(AT_FDCWD, name, flags, mode);
}

extern "C" int fstat(int descriptor, struct stat* status) noexcept
{
    int const result = fstatat(descriptor, "", status, AT_EMPTY_PATH);
    if (result == 0 && isMaster(*status))
    {
        status->st_rdev = makedev(136, 0);
    }
    return result;
}

extern "C" int flock(int descriptor, int operation) noexcept
{
    struct stat status = {};
    bool const isOwnFile = fstatat(descriptor, "", &status, AT_EMPTY_PATH) == 0 && !isMaster(status);
    return isOwnFile ? static_cast<int>(syscall(SYS_flock, descriptor, operation)) : 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace bench
{

lineUnderTest::lineUnderTest(joint kind)
{
    terminal const first = makeTerminal();
    if (kind == joint::hook)
    {
        names = {std::string(MASTER_PREFIX) + std::to_string(first.master), first.slaveName};
        descriptors = {first.master, first.slave};
    }
    else
    {
        terminal const second = makeTerminal();
        passOn(first.master, second.master);
        passOn(second.master, first.master);
        names = {first.slaveName, second.slaveName};
        descriptors = {first.slave, second.slave};
    }
}

} // namespace bench
