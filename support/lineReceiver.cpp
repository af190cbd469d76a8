#include "lineReceiver.h"

#include "monotonicTime.h"
#include "terminal.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace gssipInternal
{
namespace
{

constexpr std::int64_t VTIME_UNIT_NS = 100 * NS_PER_MS;

} // namespace

int lineReceiver::receive(unsigned char* buffer, unsigned capacity, unsigned& received)
{
    received = 0;
    while (capacity != 0)
    {
        std::uint64_t generation = 0;
        int const status = receiveOnce(buffer, capacity, received, generation);
        if (status == 0)
        {
            return 0;
        }
        switch (holdBack(generation))
        {
        case afterFailure::report:
            return status;
        case afterFailure::retry:
            break;
        case afterFailure::leave:
            return 0;
        }
    }
    return 0;
}

int lineReceiver::receiveOnce(unsigned char* buffer, unsigned capacity, unsigned& received, std::uint64_t& generation)
{
    wakeableDescriptor::use use(device, wakeableDescriptor::role::reader);
    generation = use.generation();
    if (!use)
    {
        return EBADF;
    }
    lineSettings const limits = settings.now();
    int const status = readAsLimited(use, limits, buffer, capacity, received);
    if (status == 0)
    {
        std::lock_guard<std::mutex> const lock(failureMutex);
        failures.succeeded();
    }
    return status;
}

/// The descriptor never blocks, so that a wait can be ended; what VMIN and VTIME mean is kept here.
int lineReceiver::readAsLimited(wakeableDescriptor::use& use, lineSettings const& limits, unsigned char* buffer,
                                unsigned capacity, unsigned& received)
{
    unsigned const wanted = std::min<unsigned>(limits.vmin, capacity);
    int status = 0;
    do
    {
        wakeableDescriptor::ending const end = use.wait(POLLIN, readDeadline_ns(limits, received));
        if (end != wakeableDescriptor::ending::ready)
        {
            status = end == wakeableDescriptor::ending::failed ? EIO : 0;
            break;
        }
        status = readSome(use.descriptor(), limits, buffer, capacity, received);
    } while (status == 0 && received < wanted);
    return received > 0 ? 0 : status; // bytes first: a failure behind them comes again
}

std::int64_t lineReceiver::readDeadline_ns(lineSettings const& limits, unsigned received)
{
    bool const timed = limits.vmin == 0 || (received > 0 && limits.vtime > 0);
    return timed ? monotonicNow_ns() + limits.vtime * VTIME_UNIT_NS : NEVER_NS;
}

/// Whether an empty read means that the device has hung up. With VMIN 0 it may just be empty.
bool lineReceiver::isGone(int descriptor, lineSettings const& limits)
{
    return limits.vmin != 0 || terminal::hasHungUp(descriptor);
}

int lineReceiver::readSome(int descriptor, lineSettings const& limits, unsigned char* buffer, unsigned capacity,
                           unsigned& received)
{
    ssize_t const count = ::read(descriptor, buffer + received, capacity - received);
    if (count < 0)
    {
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    }
    received += static_cast<unsigned>(count);
    return count == 0 && isGone(descriptor, limits) ? EIO : 0;
}

lineReceiver::afterFailure lineReceiver::holdBack(std::uint64_t generation)
{
    std::int64_t const now_ns = monotonicNow_ns();
    std::int64_t const pause_ns = pauseBefore_ns(now_ns);
    wakeableDescriptor::ending const end =
        pause_ns == 0 ? wakeableDescriptor::ending::timeout : device.pause(generation, now_ns + pause_ns);
    switch (end)
    {
    case wakeableDescriptor::ending::reopened:
        return afterFailure::retry;
    case wakeableDescriptor::ending::closed:
    case wakeableDescriptor::ending::interrupted:
        return afterFailure::leave;
    default:
        countReport();
        return afterFailure::report;
    }
}

std::int64_t lineReceiver::pauseBefore_ns(std::int64_t now_ns)
{
    std::lock_guard<std::mutex> const lock(failureMutex);
    return failures.pauseBefore_ns(now_ns);
}

void lineReceiver::countReport()
{
    std::lock_guard<std::mutex> const lock(failureMutex);
    failures.reported(monotonicNow_ns());
}

} // namespace gssipInternal
