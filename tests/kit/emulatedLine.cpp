#include "emulatedLine.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace kit
{
namespace
{

constexpr unsigned READY_BELOW = 256; // a driver tells of room only when it is nearly empty
constexpr std::chrono::seconds CLOSING_WAIT{30};
constexpr std::chrono::milliseconds LOOK{2};

double now_sec()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool isPseudoTerminal(struct stat const& status)
{
    return S_ISCHR(status.st_mode) && major(status.st_rdev) >= 136 && major(status.st_rdev) <= 143;
}

double secondsOf(timespec const* limit)
{
    return limit == nullptr ? 1e9 : static_cast<double>(limit->tv_sec) + static_cast<double>(limit->tv_nsec) * 1e-9;
}

} // namespace

emulatedLine::emulatedLine(lineTraits const& ofLine) : traits(ofLine), held(ofLine.startsHeld) {}

std::vector<emulatedLine::handOver> emulatedLine::handOvers() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return kept;
}

double emulatedLine::backlog_sec() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return held ? heldBacklog_sec : std::max(0.0, end_sec - now_sec());
}

void emulatedLine::hold()
{
    double const left_sec = backlog_sec();
    std::lock_guard<std::mutex> const lock(mutex);
    held = true;
    heldBacklog_sec = left_sec;
}

void emulatedLine::letFlow()
{
    std::lock_guard<std::mutex> const lock(mutex);
    if (held)
    {
        held = false;
        end_sec = now_sec() + heldBacklog_sec;
    }
}

std::optional<emulatedLine::closing> emulatedLine::lastClosing() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return closed;
}

int emulatedLine::fstat(int descriptor, struct stat& status)
{
    int const result = systemCalls::fstat(descriptor, status);
    if (result == 0 && isPseudoTerminal(status))
    {
        constexpr unsigned TTY_MAJOR = 4;
        constexpr unsigned FIRST_UART = 64;
        status.st_rdev = makedev(TTY_MAJOR, FIRST_UART);
        device = descriptor;
    }
    return result;
}

int emulatedLine::ioctl(int descriptor, unsigned long request, void* argument)
{
    int const result = systemCalls::ioctl(descriptor, request, argument);
    if (descriptor == device && result == 0 && request == TIOCOUTQ)
    {
        *static_cast<int*>(argument) = static_cast<int>(driverCount());
    }
    if (descriptor == device && result == 0 && request == TCFLSH)
    {
        flush();
    }
    return result;
}

ssize_t emulatedLine::write(int descriptor, void const* bytes, std::size_t count)
{
    if (descriptor != device)
    {
        return systemCalls::write(descriptor, bytes, count);
    }
    std::size_t const room = traits.ring - std::min(traits.ring, driverCount());
    if (room == 0)
    {
        errno = EAGAIN;
        return -1;
    }
    std::uint8_t const first = *static_cast<std::uint8_t const*>(bytes);
    double const at_sec = now_sec(); // the line starts no later than that
    ssize_t const taken = systemCalls::write(descriptor, bytes, std::min(count, room));
    if (taken > 0)
    {
        take(at_sec, static_cast<unsigned>(taken), first);
    }
    return taken;
}

int emulatedLine::ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals)
{
    ++waits;
    pollfd* const end = descriptors + count;
    pollfd* const writer = std::find_if(descriptors, end, [this](pollfd const& each) {
        return each.fd >= 0 && each.fd == device && (each.events & POLLOUT) != 0;
    });
    if (writer == end)
    {
        return systemCalls::ppoll(descriptors, count, limit, signals);
    }
    double const until_sec = now_sec() + secondsOf(limit);
    short const asked = writer->events;
    int ready = 0;
    bool over = false;
    while (ready == 0 && !over)
    {
        over = now_sec() >= until_sec;
        writer->events = hasRoomToTell() ? asked : static_cast<short>(asked & ~POLLOUT);
        timespec const look{0, over ? 0 : 1'000'000};
        ready = systemCalls::ppoll(descriptors, count, &look, signals);
    }
    writer->events = asked;
    return ready;
}

int emulatedLine::close(int descriptor)
{
    if (descriptor != device)
    {
        return systemCalls::close(descriptor);
    }
    double const left_sec = backlog_sec();
    {
        std::lock_guard<std::mutex> const lock(mutex);
        closed = closing{gettid(), left_sec, false};
    }
    waitForLine();
    device = -1;
    int const result = systemCalls::close(descriptor);
    std::lock_guard<std::mutex> const lock(mutex);
    closed->left = true;
    return result;
}

unsigned emulatedLine::driverCount() const
{
    auto const characters = static_cast<unsigned>(std::ceil(backlog_sec() / traits.byteTime_sec - 1e-6));
    return characters - std::min(characters, traits.hardware);
}

bool emulatedLine::hasRoomToTell() const
{
    return driverCount() < std::min(READY_BELOW, traits.ring);
}

void emulatedLine::take(double at_sec, unsigned characters, std::uint8_t first)
{
    double const time_sec = characters * traits.byteTime_sec;
    std::lock_guard<std::mutex> const lock(mutex);
    kept.push_back({held ? heldBacklog_sec : std::max(0.0, end_sec - at_sec), characters, first});
    heldBacklog_sec += held ? time_sec : 0.0;
    end_sec = std::max(end_sec, at_sec) + time_sec;
}

/// The hardware keeps what it has.
void emulatedLine::flush()
{
    if (traits.flushDrops)
    {
        double const most_sec = traits.hardware * traits.byteTime_sec;
        std::lock_guard<std::mutex> const lock(mutex);
        heldBacklog_sec = std::min(heldBacklog_sec, most_sec);
        end_sec = std::min(end_sec, now_sec() + most_sec);
    }
}

bool emulatedLine::isGone() const
{
    int count = 0;
    return ::ioctl(device, TIOCOUTQ, &count) != 0;
}

/// As the system does when a descriptor is closed: for the driver's count, not for the hardware.
void emulatedLine::waitForLine()
{
    auto const until = std::chrono::steady_clock::now() + CLOSING_WAIT;
    while (driverCount() != 0 && !isGone() && std::chrono::steady_clock::now() < until)
    {
        std::this_thread::sleep_for(LOOK);
    }
}

} // namespace kit
