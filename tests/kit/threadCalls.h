#ifndef KIT_THREADCALLS_H
#define KIT_THREADCALLS_H

#include "checkpoint.h"

#include <functional>
#include <pthread.h>
#include <utility>

/// \file
/// Lets a test stand between the code under test and the thread functions of the system: to have failures that no
/// ordinary machine shows, and to bring about an order of steps that is otherwise a matter of luck.
/// Link threadCalls.cpp into the test program: it defines these functions in front of the C library's.

namespace kit
{

using threadEntry = void* (*)(void*);

/// The thread functions as they are. Derive and override what shall differ.
class threadCalls
{
  public:
    threadCalls() = default;
    virtual ~threadCalls() = default;
    threadCalls(threadCalls const&) = delete;
    threadCalls& operator=(threadCalls const&) = delete;

    virtual int create(pthread_t& thread, pthread_attr_t const* attributes, threadEntry entry, void* argument);
    virtual int setName(pthread_t thread, char const* name);
    virtual void beforeLock(pthread_mutex_t& /*mutex*/) {}    ///< on the thread that is about to lock
    virtual void beforeWait(pthread_cond_t& /*condition*/) {} ///< on the thread that is about to wait, mutex held
    virtual void afterWait(pthread_cond_t& /*condition*/) {}  ///< on the thread that has waited, mutex held
    /// Whether the wait that comes now ends at once, though nobody has signalled; after `beforeWait`.
    virtual bool wakesForNothing() { return false; }
};

/// While it lives, every call of this program goes there, from whatever thread. Nobody may be inside at its end.
class threadCallsReplaced
{
  public:
    explicit threadCallsReplaced(threadCalls& replacement);
    ~threadCallsReplaced();
    threadCallsReplaced(threadCallsReplaced const&) = delete;
    threadCallsReplaced& operator=(threadCallsReplaced const&) = delete;
};

/// Holds back the first thread that is about to lock a mutex of which `matches` tells true.
class pauseBeforeLock : public threadCalls
{
  public:
    explicit pauseBeforeLock(std::function<bool(pthread_mutex_t&)> condition) : matches(std::move(condition)) {}

    void beforeLock(pthread_mutex_t& mutex) override
    {
        if (!place.isReached() && matches(mutex))
        {
            place.pass();
        }
    }

    checkpoint place;

  private:
    std::function<bool(pthread_mutex_t&)> const matches;
};

/// Holds back the first thread that is about to wait on a condition of which `matches` tells true. It holds the mutex.
class pauseBeforeWait : public threadCalls
{
  public:
    explicit pauseBeforeWait(std::function<bool(pthread_cond_t&)> condition) : matches(std::move(condition)) {}

    void beforeWait(pthread_cond_t& condition) override
    {
        if (!place.isReached() && matches(condition))
        {
            place.pass();
        }
    }

    checkpoint place;

  private:
    std::function<bool(pthread_cond_t&)> const matches;
};

} // namespace kit

#endif
