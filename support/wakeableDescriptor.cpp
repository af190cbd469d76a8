#include "wakeableDescriptor.h"

#include "monotonicTime.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace gssipInternal
{
namespace
{

void wake(int event)
{
    std::uint64_t const one = 1;
    // Fails only when the counter is full, and then the event is set already.
    [[maybe_unused]] ssize_t const written = ::write(event, &one, sizeof one);
}

void drain(int event)
{
    std::uint64_t count = 0;
    // Fails only when the event is not set, and then there is nothing to drain.
    [[maybe_unused]] ssize_t const taken = ::read(event, &count, sizeof count);
}

void closeIfOpen(int& descriptor)
{
    if (descriptor >= 0)
    {
        ::close(descriptor);
        descriptor = -1;
    }
}

/// poll on the descriptor (for `events`) and on the event: the number that are ready, 0 at the deadline, negative when
/// poll fails.
int pollUntil(std::array<pollfd, 2>& polled, std::int64_t deadline_ns)
{
    int count = 0;
    do
    {
        timespec left{};
        if (deadline_ns != NEVER_NS)
        {
            left = toTimespec(std::max<std::int64_t>(deadline_ns - monotonicNow_ns(), 0));
        }
        count = ppoll(polled.data(), polled.size(), deadline_ns == NEVER_NS ? nullptr : &left, nullptr);
    } while (count < 0 && errno == EINTR);
    return count;
}

std::chrono::steady_clock::time_point steadyTime(std::int64_t ns)
{
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
}

} // namespace

wakeableDescriptor::use::use(wakeableDescriptor& wakeable, role purposeOfUse)
    : owner(wakeable), purpose(purposeOfUse), generationSeen(wakeable.generation) // first: what comes later is noticed
{
    if (owner.enter(purpose))
    {
        descriptorNumber = owner.descriptor;
        wakeNumber = purpose == role::reader ? owner.readerWake : owner.writerWake;
    }
}

wakeableDescriptor::use::~use()
{
    if (descriptorNumber >= 0)
    {
        owner.leave(purpose);
    }
}

wakeableDescriptor::ending wakeableDescriptor::use::wait(short events, std::int64_t deadline_ns)
{
    std::optional<ending> end;
    while (!end)
    {
        end = waitOnce(events, deadline_ns);
    }
    return *end;
}

/// Nothing when the event was set for a reason that has passed.
std::optional<wakeableDescriptor::ending> wakeableDescriptor::use::waitOnce(short events, std::int64_t deadline_ns)
{
    std::array<pollfd, 2> polled{{{events != 0 ? descriptorNumber : -1, events, 0}, {wakeNumber, POLLIN, 0}}};
    int const count = pollUntil(polled, deadline_ns);
    if (count == 0)
    {
        return ending::timeout;
    }
    if (count < 0)
    {
        return ending::failed;
    }
    if (polled[1].revents != 0)
    {
        return owner.whyWoken(purpose);
    }
    return ending::ready;
}

bool wakeableDescriptor::enter(role purpose)
{
    std::uint32_t now = users;
    while ((now & CLOSED) == 0)
    {
        if (users.compare_exchange_weak(now, now + one(purpose)))
        {
            return true;
        }
    }
    return false;
}

/// This object may be gone as soon as the last user is counted out. So nothing is touched after that, but for the mutex
/// when somebody closes, who waits for the users and cannot go on before it is free.
void wakeableDescriptor::leave(role purpose)
{
    std::uint32_t now = users;
    while ((now & CLOSED) == 0)
    {
        if (users.compare_exchange_weak(now, now - one(purpose)))
        {
            return;
        }
    }
    std::lock_guard<std::mutex> const lock(mutex);
    users -= one(purpose);
    changed.notify_all();
}

wakeableDescriptor::~wakeableDescriptor()
{
    closeIfOpen(readerWake);
    closeIfOpen(writerWake);
}

int wakeableDescriptor::adopt(int opened)
{
    int const forReaders = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int const forWriters = forReaders < 0 ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (forWriters < 0)
    {
        int const status = errno;
        if (forReaders >= 0)
        {
            ::close(forReaders);
        }
        return status;
    }
    std::lock_guard<std::mutex> const lock(mutex);
    descriptor = opened;
    readerWake = forReaders;
    writerWake = forWriters;
    cut = false;
    interrupted = false;
    ++generation;
    users = users & ~CLOSED; // nobody enters or leaves meanwhile
    changed.notify_all();
    return 0;
}

void wakeableDescriptor::interruptReader()
{
    std::lock_guard<std::mutex> const lock(mutex);
    interrupted = true;
    if (readerWake >= 0)
    {
        wake(readerWake);
    }
    changed.notify_all();
}

wakeableDescriptor::ending wakeableDescriptor::pause(std::uint64_t since, std::int64_t deadline_ns)
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_until(lock, steadyTime(deadline_ns), [&] { return interrupted || generation != since; });
    if (interrupted)
    {
        takeInterruption();
        return ending::interrupted;
    }
    if (generation == since)
    {
        return ending::timeout;
    }
    return isOpen() ? ending::reopened : ending::closed;
}

int wakeableDescriptor::beginClose()
{
    std::lock_guard<std::mutex> const lock(mutex);
    if ((users.fetch_or(CLOSED) & CLOSED) != 0)
    {
        return -1;
    }
    ++generation;
    wake(readerWake);
    changed.notify_all();
    return descriptor;
}

void wakeableDescriptor::cutOff()
{
    std::lock_guard<std::mutex> const lock(mutex);
    cut = true;
    wake(writerWake);
}

bool wakeableDescriptor::waitForWriters(std::int64_t deadline_ns)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_until(lock, steadyTime(deadline_ns), [this] { return !hasWriters(); });
}

void wakeableDescriptor::waitForUsers()
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return users == CLOSED; });
}

int wakeableDescriptor::release()
{
    std::lock_guard<std::mutex> const lock(mutex);
    closeIfOpen(readerWake);
    closeIfOpen(writerWake);
    int const released = descriptor;
    descriptor = -1;
    return released;
}

/// Why the event of these users is set; nothing when the reason has passed.
std::optional<wakeableDescriptor::ending> wakeableDescriptor::whyWoken(role purpose)
{
    std::lock_guard<std::mutex> const lock(mutex);
    if (purpose == role::reader ? !isOpen() : cut.load())
    {
        return ending::closed; // the event stays set, for every user that is still inside
    }
    if (purpose == role::reader && interrupted)
    {
        takeInterruption();
        return ending::interrupted;
    }
    return std::nullopt;
}

void wakeableDescriptor::takeInterruption()
{
    interrupted = false;
    if (readerWake >= 0)
    {
        drain(readerWake);
    }
}

} // namespace gssipInternal
