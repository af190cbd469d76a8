// Files, as a schedule has them. Outside of one, and for descriptors of the process, each call is passed on.

#include "fileTable.h"
#include "realCall.h"
#include "scheduler.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using schedules::fileTable;
using schedules::NEVER_NS;
using schedules::openFile;
using schedules::realCall;
using schedules::scheduler;
using schedules::waiting;

namespace
{

constexpr std::int64_t NS_PER_SEC = 1'000'000'000;
constexpr std::int64_t NS_PER_MS = 1'000'000;
constexpr std::int64_t LONGEST_CLOSE_NS = 30 * NS_PER_SEC;

/// The schedule that a call belongs to; null when it is to be passed on.
scheduler* scheduleOf(int descriptor)
{
    return fileTable::isNumber(descriptor) ? scheduler::current() : nullptr;
}

/// The file of a call, which may run when it has become the caller's turn.
std::shared_ptr<openFile> fileFor(scheduler& schedule, char const* call, int descriptor)
{
    schedule.step(call, nullptr, descriptor);
    std::shared_ptr<openFile> file = schedule.files().find(descriptor);
    if (file == nullptr)
    {
        schedule.fail(std::string(call) + ": the descriptor is closed");
    }
    return file;
}

class eventFile : public openFile
{
  public:
    explicit eventFile(unsigned initial) : count(initial) {}

    ssize_t read(void* bytes, std::size_t /*capacity*/) override
    {
        if (count == 0)
        {
            errno = EAGAIN;
            return -1;
        }
        std::memcpy(bytes, &count, sizeof count);
        count = 0;
        return sizeof count;
    }

    ssize_t write(void const* bytes, std::size_t /*count*/) override
    {
        std::uint64_t added = 0;
        std::memcpy(&added, bytes, sizeof added);
        count += added;
        return sizeof added;
    }

    short ready(short events) override { return static_cast<short>(events & ((count != 0 ? POLLIN : 0) | POLLOUT)); }

    char const* kind() const override { return "eventfd"; }

  private:
    std::uint64_t count;
};

/// How many are ready; fills in what they are ready for.
int look(fileTable const& files, pollfd* polled, nfds_t count)
{
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i)
    {
        std::shared_ptr<openFile> const file = polled[i].fd < 0 ? nullptr : files.find(polled[i].fd);
        short const none = polled[i].fd < 0 ? short{0} : short{POLLNVAL};
        polled[i].revents = file == nullptr ? none : file->ready(polled[i].events);
        ready += polled[i].revents != 0 ? 1 : 0;
    }
    return ready;
}

/// Marks the descriptors as waited for.
class waitMark
{
  public:
    waitMark(fileTable& tableToMark, pollfd const* polledFiles, nfds_t numberPolled)
        : table(tableToMark), polled(polledFiles), count(numberPolled)
    {
        mark(1);
    }
    ~waitMark() { mark(-1); }
    waitMark(waitMark const&) = delete;
    waitMark& operator=(waitMark const&) = delete;

  private:
    void mark(int by)
    {
        for (nfds_t i = 0; i < count; ++i)
        {
            table.wait(polled[i].fd, by);
        }
    }

    fileTable& table;
    pollfd const* const polled;
    nfds_t const count;
};

int pollUntil(scheduler& schedule, pollfd* polled, nfds_t count, std::int64_t deadline_ns)
{
    schedule.step("polls", nullptr, polled[0].fd);
    int ready = look(schedule.files(), polled, count);
    if (ready == 0 && schedule.now_ns() < deadline_ns)
    {
        waitMark const mark(schedule.files(), polled, count);
        schedule.record("waits for files", nullptr, polled[0].fd);
        schedule.blockForFiles([&] { return look(schedule.files(), polled, count) != 0; }, deadline_ns);
        ready = look(schedule.files(), polled, count);
    }
    for (nfds_t i = 0; i < count; ++i)
    {
        if ((polled[i].revents & POLLNVAL) != 0)
        {
            schedule.fail("poll: the descriptor is closed");
        }
    }
    schedule.record("has polled", nullptr, ready);
    return ready;
}

bool isAnyOf(pollfd const* polled, nfds_t count)
{
    return scheduler::current() != nullptr &&
           std::any_of(polled, polled + count, [](pollfd const& each) { return fileTable::isNumber(each.fd); });
}

} // namespace

extern "C" {

int open(char const* path, int flags, ...)
{
    static auto* const real = realCall<decltype(open)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr || !schedule->files().knows(path))
    {
        return real(path, flags, mode);
    }
    schedule->step("opens");
    int const descriptor = schedule->files().open(path);
    schedule->record("has opened", nullptr, descriptor);
    return descriptor;
}

int close(int descriptor)
{
    static auto* const real = realCall<decltype(close)>("close");
    scheduler* const schedule = scheduleOf(descriptor);
    if (schedule == nullptr)
    {
        return real(descriptor);
    }
    std::shared_ptr<openFile> const file = fileFor(*schedule, "close", descriptor);
    if (schedule->files().isWaitedFor(descriptor))
    {
        schedule->fail("close: somebody waits for the descriptor");
    }
    schedule->files().remove(descriptor);
    if (file->holdsUpClose())
    {
        schedule->blockForFiles([&] { return !file->holdsUpClose(); }, schedule->now_ns() + LONGEST_CLOSE_NS);
    }
    return 0;
}

int eventfd(unsigned count, int flags) noexcept
{
    static auto* const real = realCall<decltype(eventfd)>("eventfd");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(count, flags);
    }
    schedule->step("makes an event");
    return schedule->files().insert(std::make_shared<eventFile>(count));
}

ssize_t read(int descriptor, void* bytes, std::size_t capacity)
{
    static auto* const real = realCall<decltype(read)>("read");
    scheduler* const schedule = scheduleOf(descriptor);
    if (schedule == nullptr)
    {
        return real(descriptor, bytes, capacity);
    }
    std::shared_ptr<openFile> const file = fileFor(*schedule, "read", descriptor);
    ssize_t const taken = file->read(bytes, capacity);
    schedule->record("has read", nullptr, taken);
    schedule->filesChanged();
    return taken;
}

ssize_t write(int descriptor, void const* bytes, std::size_t count)
{
    static auto* const real = realCall<decltype(write)>("write");
    scheduler* const schedule = scheduleOf(descriptor);
    if (schedule == nullptr)
    {
        return real(descriptor, bytes, count);
    }
    std::shared_ptr<openFile> const file = fileFor(*schedule, "write", descriptor);
    ssize_t const taken = file->write(bytes, count);
    schedule->record("has written", nullptr, taken);
    schedule->filesChanged();
    schedule->step("goes on after writing");
    return taken;
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    static auto* const real = realCall<decltype(ioctl)>("ioctl");
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    scheduler* const schedule = scheduleOf(descriptor);
    if (schedule == nullptr)
    {
        return real(descriptor, request, argument);
    }
    int const status = fileFor(*schedule, "ioctl", descriptor)->ioctl(request, argument);
    schedule->filesChanged();
    return status;
}

int flock(int descriptor, int operation) noexcept
{
    static auto* const real = realCall<decltype(flock)>("flock");
    scheduler* const schedule = scheduleOf(descriptor);
    return schedule == nullptr ? real(descriptor, operation)
                               : fileFor(*schedule, "flock", descriptor)->flock(operation);
}

int fstat(int descriptor, struct stat* status) noexcept
{
    static auto* const real = realCall<decltype(fstat)>("fstat");
    scheduler* const schedule = scheduleOf(descriptor);
    if (schedule == nullptr)
    {
        return real(descriptor, status);
    }
    fileFor(*schedule, "fstat", descriptor)->describe(*status);
    return 0;
}

int poll(pollfd* polled, nfds_t count, int limit_ms)
{
    static auto* const real = realCall<decltype(poll)>("poll");
    if (!isAnyOf(polled, count))
    {
        return real(polled, count, limit_ms);
    }
    scheduler& schedule = *scheduler::current();
    return pollUntil(schedule, polled, count, limit_ms < 0 ? NEVER_NS : schedule.now_ns() + limit_ms * NS_PER_MS);
}

int ppoll(pollfd* polled, nfds_t count, timespec const* limit, sigset_t const* signals)
{
    static auto* const real = realCall<decltype(ppoll)>("ppoll");
    if (!isAnyOf(polled, count))
    {
        return real(polled, count, limit, signals);
    }
    scheduler& schedule = *scheduler::current();
    std::int64_t const deadline_ns =
        limit == nullptr ? NEVER_NS : schedule.now_ns() + limit->tv_sec * NS_PER_SEC + limit->tv_nsec;
    return pollUntil(schedule, polled, count, deadline_ns);
}

} // extern "C"
