#include "systemCalls.h"

#include "nextFunction.h"

#include <atomic>
#include <cstdarg>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

std::atomic<kit::systemCalls*> replacement{nullptr};

kit::systemCalls& current()
{
    static kit::systemCalls real;
    kit::systemCalls* const replaced = replacement;
    return replaced != nullptr ? *replaced : real;
}

} // namespace

namespace kit
{

int systemCalls::open(char const* name, int flags, mode_t mode)
{
    static auto* const real = kit::nextFunction<int(char const*, int, ...)>("open");
    return real(name, flags, mode);
}

int systemCalls::ioctl(int descriptor, unsigned long request, void* argument)
{
    static auto* const real = kit::nextFunction<int(int, unsigned long, ...)>("ioctl");
    return real(descriptor, request, argument);
}

int systemCalls::close(int descriptor)
{
    static auto* const real = kit::nextFunction<int(int)>("close");
    return real(descriptor);
}

int systemCalls::fstat(int descriptor, struct stat& status)
{
    return ::fstatat(descriptor, "", &status, AT_EMPTY_PATH);
}

int systemCalls::flock(int descriptor, int operation)
{
    static auto* const real = kit::nextFunction<int(int, int)>("flock");
    return real(descriptor, operation);
}

int systemCalls::eventfd(unsigned count, int flags)
{
    static auto* const real = kit::nextFunction<int(unsigned, int)>("eventfd");
    return real(count, flags);
}

ssize_t systemCalls::write(int descriptor, void const* bytes, std::size_t count)
{
    static auto* const real = kit::nextFunction<ssize_t(int, void const*, std::size_t)>("write");
    return real(descriptor, bytes, count);
}

ssize_t systemCalls::read(int descriptor, void* bytes, std::size_t capacity)
{
    static auto* const real = kit::nextFunction<ssize_t(int, void*, std::size_t)>("read");
    return real(descriptor, bytes, capacity);
}

int systemCalls::poll(pollfd* descriptors, nfds_t count, int limit_ms)
{
    static auto* const real = kit::nextFunction<int(pollfd*, nfds_t, int)>("poll");
    return real(descriptors, count, limit_ms);
}

int systemCalls::ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals)
{
    static auto* const real = kit::nextFunction<int(pollfd*, nfds_t, timespec const*, sigset_t const*)>("ppoll");
    return real(descriptors, count, limit, signals);
}

systemReplaced::systemReplaced(systemCalls& other)
{
    replacement = &other;
}

systemReplaced::~systemReplaced()
{
    replacement = nullptr;
}

} // namespace kit

extern "C" {

int open(char const* name, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE)
    {
        std::va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return current().open(name, flags, mode);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    std::va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return current().ioctl(descriptor, request, argument);
}

int close(int descriptor)
{
    return current().close(descriptor);
}

int fstat(int descriptor, struct stat* status) noexcept
{
    return current().fstat(descriptor, *status);
}

int flock(int descriptor, int operation) noexcept
{
    return current().flock(descriptor, operation);
}

int eventfd(unsigned count, int flags) noexcept
{
    return current().eventfd(count, flags);
}

ssize_t write(int descriptor, void const* bytes, std::size_t count)
{
    return current().write(descriptor, bytes, count);
}

ssize_t read(int descriptor, void* bytes, std::size_t capacity)
{
    return current().read(descriptor, bytes, capacity);
}

int poll(pollfd* descriptors, nfds_t count, int limit_ms)
{
    return current().poll(descriptors, count, limit_ms);
}

int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals)
{
    return current().ppoll(descriptors, count, limit, signals);
}

} // extern "C"
