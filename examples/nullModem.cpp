#include "nullModem.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/types.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace examples
{
namespace
{

/// So much may wait for a side that does not read before the other side's writer is made to wait.
constexpr std::size_t MOST_WAITING = 65536;

int checked(int result, char const* what)
{
    if (result < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

int openRelaySide()
{
    return checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "posix_openpt");
}

std::string unlockedName(int relaySide)
{
    checked(grantpt(relaySide), "grantpt");
    checked(unlockpt(relaySide), "unlockpt");
    std::array<char, 64> path{};
    if (int const error = ptsname_r(relaySide, path.data(), path.size()); error != 0)
    {
        throw std::system_error(error, std::generic_category(), "ptsname_r");
    }
    return path.data();
}

void makeRaw(int device)
{
    termios settings{};
    checked(tcgetattr(device, &settings), "tcgetattr");
    cfmakeraw(&settings);
    checked(tcsetattr(device, TCSANOW, &settings), "tcsetattr");
}

} // namespace

nullModem::descriptor::~descriptor()
{
    ::close(number);
}

nullModem::terminal::terminal()
    : relaySide(openRelaySide()), name(unlockedName(relaySide.get())),
      device(checked(::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open of a pseudo-terminal"))
{
    makeRaw(device.get());
}

nullModem::nullModem()
    : wakeUp(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      lanes{lane{endA.relaySide.get(), endB.relaySide.get(), {}, {}},
            lane{endB.relaySide.get(), endA.relaySide.get(), {}, {}}},
      relayThread([this] { relay(); })
{}

nullModem::~nullModem()
{
    stop();
}

void nullModem::setHook(direction way, hook onTheWay)
{
    std::lock_guard<std::mutex> const lock(hookMutex);
    lanes.at(way).onTheWay = std::move(onTheWay);
}

void nullModem::inject(direction way, bytes const& more)
{
    {
        std::lock_guard<std::mutex> const lock(lineMutex);
        bytes& waiting = lanes.at(way).waiting;
        waiting.insert(waiting.end(), more.begin(), more.end());
    }
    wakeRelay();
}

void nullModem::stop()
{
    std::lock_guard<std::mutex> const lock(stopMutex);
    stopping = true;
    wakeRelay();
    if (relayThread.joinable())
    {
        relayThread.join();
    }
}

void nullModem::wakeRelay()
{
    eventfd_write(wakeUp.get(), 1); // fails only when the relay has very many wake-ups before it, which serve as well
}

void nullModem::relay()
{
    while (waitForWork())
    {
        for (lane& way : lanes)
        {
            readFrom(way);
            writeTo(way);
        }
    }
}

/// Sleeps until a device may be read or written or a call of this object has work; false when it is time to end.
bool nullModem::waitForWork()
{
    int const a = endA.relaySide.get();
    int const b = endB.relaySide.get();
    std::array<pollfd, 3> watched{pollfd{wakeUp.get(), POLLIN, 0}, pollfd{a, eventsOf(a), 0},
                                  pollfd{b, eventsOf(b), 0}};
    if (poll(watched.data(), watched.size(), -1) < 0)
    {
        return errno == EINTR && !stopping;
    }
    eventfd_t wakeUps = 0;
    eventfd_read(wakeUp.get(), &wakeUps);
    bool const hungUp = ((watched[1].revents | watched[2].revents) & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    return !hungUp && !stopping;
}

short nullModem::eventsOf(int number)
{
    std::lock_guard<std::mutex> const lock(lineMutex);
    int events = 0;
    for (lane const& way : lanes)
    {
        events |= way.from == number && way.waiting.size() < MOST_WAITING ? POLLIN : 0;
        events |= way.to == number && !way.waiting.empty() ? POLLOUT : 0;
    }
    return static_cast<short>(events);
}

void nullModem::readFrom(lane& way)
{
    if ((eventsOf(way.from) & POLLIN) == 0)
    {
        return;
    }
    bytes chunk(4096);
    ssize_t const count = ::read(way.from, chunk.data(), chunk.size());
    if (count <= 0) // nothing there, after all
    {
        return;
    }
    chunk.resize(static_cast<std::size_t>(count));
    bytes const onwards = throughHook(way, std::move(chunk));
    std::lock_guard<std::mutex> const lock(lineMutex);
    way.waiting.insert(way.waiting.end(), onwards.begin(), onwards.end());
}

void nullModem::writeTo(lane& way)
{
    std::lock_guard<std::mutex> const lock(lineMutex);
    if (way.waiting.empty())
    {
        return;
    }
    ssize_t const count = ::write(way.to, way.waiting.data(), way.waiting.size()); // does not block
    if (count > 0)
    {
        way.waiting.erase(way.waiting.begin(), way.waiting.begin() + count);
    }
}

bytes nullModem::throughHook(lane& way, bytes chunk)
{
    std::lock_guard<std::mutex> const lock(hookMutex);
    return way.onTheWay ? way.onTheWay(std::move(chunk)) : chunk;
}

} // namespace examples
