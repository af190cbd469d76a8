#ifndef KIT_SYSTEMCALLS_H
#define KIT_SYSTEMCALLS_H

#include <csignal>
#include <cstddef>
#include <ctime>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>

/// \file
/// Lets a test stand between the code under test and the system, to have drivers and failures that no ordinary machine
/// shows. Link systemCalls.cpp into the test program: it defines these functions in front of the C library's.

namespace kit
{

/// The system as it is. Derive and override what shall differ; results and errno are those of the calls.
class systemCalls
{
  public:
    systemCalls() = default;
    virtual ~systemCalls() = default;
    systemCalls(systemCalls const&) = delete;
    systemCalls& operator=(systemCalls const&) = delete;

    virtual int open(char const* name, int flags, mode_t mode);
    virtual int ioctl(int descriptor, unsigned long request, void* argument);
    virtual int close(int descriptor);
    virtual int fstat(int descriptor, struct stat& status);
    virtual int flock(int descriptor, int operation);
    virtual int eventfd(unsigned count, int flags);
    virtual ssize_t write(int descriptor, void const* bytes, std::size_t count);
    virtual ssize_t read(int descriptor, void* bytes, std::size_t capacity);
    virtual int poll(pollfd* descriptors, nfds_t count, int limit_ms);
    virtual int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals);
};

/// While it lives, every call of this program goes to that system, from whatever thread.
class systemReplaced
{
  public:
    explicit systemReplaced(systemCalls& replacement);
    ~systemReplaced();
    systemReplaced(systemReplaced const&) = delete;
    systemReplaced& operator=(systemReplaced const&) = delete;
};

} // namespace kit

#endif
