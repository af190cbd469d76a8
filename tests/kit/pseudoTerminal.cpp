#include "pseudoTerminal.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>

namespace kit
{
namespace
{

int checked(int result, char const* what)
{
    if (result < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

} // namespace

pseudoTerminal::pseudoTerminal() : master(checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"))
{
    checked(grantpt(master), "grantpt");
    checked(unlockpt(master), "unlockpt");
    std::array<char, 64> path{};
    checked(-ptsname_r(master, path.data(), path.size()), "ptsname_r");
    deviceName = path.data();
}

pseudoTerminal::~pseudoTerminal()
{
    hangUp();
}

void pseudoTerminal::write(bytes const& data)
{
    std::size_t written = 0;
    while (written < data.size())
    {
        ssize_t const count = ::write(master, data.data() + written, data.size() - written);
        written += static_cast<std::size_t>(checked(static_cast<int>(count), "write to the pseudo-terminal"));
    }
}

bytes pseudoTerminal::read(std::size_t count, std::chrono::milliseconds limit)
{
    auto const deadline = std::chrono::steady_clock::now() + limit;
    bytes result;
    while (result.size() < count)
    {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{master, POLLIN, 0};
        if (left.count() < 0 || poll(&waiting, 1, static_cast<int>(left.count()) + 1) <= 0)
        {
            break;
        }
        bytes chunk(count - result.size());
        ssize_t const got = ::read(master, chunk.data(), chunk.size());
        if (got < 0 && errno == EIO) // nobody has the device open
        {
            usleep(1000);
            continue;
        }
        chunk.resize(static_cast<std::size_t>(checked(static_cast<int>(got), "read from the pseudo-terminal")));
        result.insert(result.end(), chunk.begin(), chunk.end());
    }
    return result;
}

bytes pseudoTerminal::readUntilQuiet(std::chrono::milliseconds quiet)
{
    bytes result;
    for (bytes next = read(1, quiet); !next.empty(); next = read(1, quiet))
    {
        result.push_back(next.front());
    }
    return result;
}

termios pseudoTerminal::settings() const
{
    termios current{};
    checked(tcgetattr(master, &current), "tcgetattr");
    return current;
}

void pseudoTerminal::hangUp()
{
    if (master >= 0)
    {
        close(master);
        master = -1;
    }
}

} // namespace kit
