#include "lineSender.h"

#include "monotonicTime.h"
#include "terminal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace gssipInternal
{
namespace
{

/// A line that takes no byte for so long is blocked.
constexpr std::int64_t BLOCKED_AFTER_NS = 2 * NS_PER_SEC;
constexpr std::int64_t NOT_BLOCKED = NEVER_NS;

// What a close grants to the bytes that are on their way.
constexpr std::int64_t CLOSE_LIMIT_NS = 2 * NS_PER_SEC;
constexpr std::int64_t CLOSE_STALL_LIMIT_NS = NS_PER_SEC;
constexpr std::int64_t CLOSE_SHORTEST_LOOK_NS = 5 * NS_PER_MS;
constexpr std::int64_t CLOSE_LONGEST_LOOK_NS = 50 * NS_PER_MS;

/// Ends with the first of two limits: a total, and a time without progress.
class graceTime
{
  public:
    bool isOver(std::int64_t now_ns) const
    {
        return now_ns >= start_ns + CLOSE_LIMIT_NS || now_ns >= progress_ns + CLOSE_STALL_LIMIT_NS;
    }
    void sawProgress(std::int64_t now_ns) { progress_ns = now_ns; }

  private:
    std::int64_t start_ns = monotonicNow_ns();
    std::int64_t progress_ns = start_ns;
};

} // namespace

void lineSender::prepare(bool deviceHasLine)
{
    hasLine = deviceHasLine;
    line.reset();
}

int lineSender::send(unsigned char const* bytes, unsigned count, unsigned& sent,
                     std::function<void()> const& beforeFirstByte)
{
    sent = 0;
    turn const mine(turns);
    wakeableDescriptor::use use(device, wakeableDescriptor::role::writer);
    if (!use)
    {
        return EBADF;
    }
    int const status = keepDistance(use);
    return status == 0 ? writeAll(use, bytes, count, sent, beforeFirstByte) : status;
}

/// Waits until the line has (nearly) finished the message before, and for the gap behind it. Looks once whether the
/// driver has kept up with what was computed.
int lineSender::keepDistance(wakeableDescriptor::use& use)
{
    std::int64_t const gap_ns = settings.gap_ns();
    if (!hasLine)
    {
        return gap_ns == 0 ? 0 : sleepUntil(use, line.earliestNext_ns(gap_ns));
    }
    int status = sleepUntil(use, line.earliestNext_ns(gap_ns));
    if (status == 0)
    {
        line.holds(monotonicNow_ns(), terminal::queuedOutput(use.descriptor()), settings.byteTime_ns());
        // No longer than a line may stand: what cannot be written then, the driver will tell.
        status = sleepUntil(use, std::min(line.earliestNext_ns(gap_ns), monotonicNow_ns() + BLOCKED_AFTER_NS));
    }
    return status;
}

int lineSender::sleepUntil(wakeableDescriptor::use& use, std::int64_t time_ns)
{
    bool const isCut = monotonicNow_ns() < time_ns && use.wait(0, time_ns) == wakeableDescriptor::ending::closed;
    return isCut ? EBADF : 0;
}

int lineSender::writeAll(wakeableDescriptor::use& use, unsigned char const* bytes, unsigned count, unsigned& sent,
                         std::function<void()> const& beforeFirstByte)
{
    std::int64_t blockedSince_ns = NOT_BLOCKED;
    while (sent < count)
    {
        if (use.isCutOff())
        {
            return EBADF;
        }
        if (sent == 0 && beforeFirstByte)
        {
            beforeFirstByte();
        }
        ssize_t const written = ::write(use.descriptor(), bytes + sent, count - sent);
        if (written > 0)
        {
            auto const taken = static_cast<unsigned>(written);
            sent += taken;
            noteTaken(taken);
            blockedSince_ns = NOT_BLOCKED;
        }
        else if (int const status = afterNothingWritten(written, use, blockedSince_ns); status != 0)
        {
            return status;
        }
    }
    return 0;
}

void lineSender::noteTaken(unsigned count)
{
    // Changed by who has the line alone, so that it need not be added to in one step.
    bytesTaken.store(bytesTaken.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
    if (hasLine || settings.gap_ns() != 0) // else nobody asks when the line ends
    {
        line.took(monotonicNow_ns(), count, hasLine ? settings.byteTime_ns() : 0);
    }
}

int lineSender::afterNothingWritten(ssize_t written, wakeableDescriptor::use& use, std::int64_t& blockedSince_ns)
{
    if (written == 0)
    {
        return EIO;
    }
    if (errno == EINTR)
    {
        return 0;
    }
    return errno == EAGAIN ? waitForRoom(use, blockedSince_ns) : errno;
}

/// Waits until the driver takes bytes again. It may say so only when it is nearly empty, seconds from now on a slow
/// line: as long as it passes bytes on, the line is not blocked.
int lineSender::waitForRoom(wakeableDescriptor::use& use, std::int64_t& blockedSince_ns)
{
    if (blockedSince_ns == NOT_BLOCKED)
    {
        blockedSince_ns = monotonicNow_ns();
    }
    std::int64_t const deadline_ns = blockedSince_ns + BLOCKED_AFTER_NS;
    unsigned const queued = terminal::queuedOutput(use.descriptor());
    wakeableDescriptor::ending const end = use.wait(POLLOUT, deadline_ns);
    if (end == wakeableDescriptor::ending::closed)
    {
        return EBADF;
    }
    if (end == wakeableDescriptor::ending::failed)
    {
        return EIO;
    }
    if (monotonicNow_ns() < deadline_ns)
    {
        return 0;
    }
    if (terminal::queuedOutput(use.descriptor()) >= queued)
    {
        return ETIMEDOUT;
    }
    blockedSince_ns = monotonicNow_ns();
    return 0;
}

void lineSender::finish(int descriptor)
{
    graceTime grace;
    std::uint64_t taken = bytesTaken;
    unsigned queued = terminal::queuedOutput(descriptor);
    while ((device.hasWriters() || !isIdle(queued)) && !terminal::hasHungUp(descriptor))
    {
        watch(queued);
        std::uint64_t const nowTaken = bytesTaken;
        unsigned const nowQueued = terminal::queuedOutput(descriptor);
        // With nothing left in the driver's count the rest passes through the hardware, in computed time.
        bool const inHardware = nowQueued == 0 && monotonicNow_ns() < busyUntil_ns();
        if (nowTaken != taken || nowQueued != queued || inHardware)
        {
            grace.sawProgress(monotonicNow_ns());
        }
        if (grace.isOver(monotonicNow_ns()))
        {
            return;
        }
        taken = nowTaken;
        queued = nowQueued;
    }
}

/// The end of the last character and of the gap behind it.
std::int64_t lineSender::busyUntil_ns() const
{
    return std::max(line.endOfLine_ns(), line.earliestNext_ns(settings.gap_ns()));
}

/// Sleeps as long as what is queued needs, but no longer than until the last sender has left or it is time to look.
void lineSender::watch(unsigned queued)
{
    std::int64_t const now_ns = monotonicNow_ns();
    std::int64_t const end_ns = std::max(now_ns + queued * settings.byteTime_ns(), line.endOfLine_ns());
    std::int64_t const until_ns = std::clamp(end_ns, now_ns + CLOSE_SHORTEST_LOOK_NS, now_ns + CLOSE_LONGEST_LOOK_NS);
    if (device.hasWriters())
    {
        device.waitForWriters(now_ns + CLOSE_LONGEST_LOOK_NS);
    }
    else
    {
        std::this_thread::sleep_for(std::chrono::nanoseconds(until_ns - now_ns));
    }
}

bool lineSender::isIdle(unsigned queued) const
{
    return queued == 0 && monotonicNow_ns() >= line.endOfLine_ns();
}

} // namespace gssipInternal
