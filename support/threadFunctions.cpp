#include "threadFunctions.h"

#include "blockedSignals.h"

#include <cerrno>
#include <cstddef>
#include <sched.h>

namespace
{

constexpr std::size_t STACK_BYTES = std::size_t{256} * 1024;

void* endAtOnce(void* /*unused*/)
{
    return nullptr;
}

/// The result of starting a thread that is scheduled as `attr` tells.
int tryThread(pthread_attr_t const& attr)
{
    gssipInternal::blockedSignals const blocked;
    pthread_t thread{};
    int const status = pthread_create(&thread, &attr, endAtOnce, nullptr);
    if (status == 0)
    {
        pthread_join(thread, nullptr);
    }
    return status;
}

bool isRealTime(int policy)
{
    return policy != SCHED_OTHER && policy != SCHED_BATCH && policy != SCHED_IDLE;
}

bool callerIsRealTime()
{
    int policy = SCHED_OTHER;
    sched_param parameters{};
    return pthread_getschedparam(pthread_self(), &policy, &parameters) == 0 && isRealTime(policy);
}

int setScheduling(pthread_attr_t& attr, int inheritSched, int policy, int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    int status = pthread_attr_setinheritsched(&attr, inheritSched);
    if (status == 0)
    {
        status = pthread_attr_setschedpolicy(&attr, policy);
    }
    if (status == 0)
    {
        status = pthread_attr_setschedparam(&attr, &parameters);
    }
    return status;
}

/// Inheriting needs no system call that could be refused; only a real-time caller's scheduling must not be inherited.
int setDefaultScheduling(pthread_attr_t& attr)
{
    return setScheduling(attr, callerIsRealTime() ? PTHREAD_EXPLICIT_SCHED : PTHREAD_INHERIT_SCHED, SCHED_OTHER, 0);
}

} // namespace

int lockMutex(pthread_mutex_t& mutex)
{
    return pthread_mutex_lock(&mutex);
}

int unlockMutex(pthread_mutex_t& mutex)
{
    return pthread_mutex_unlock(&mutex);
}

int setPthreadAttributes(int detachState, int policy, int priority, int inheritSched, int scope, pthread_attr_t& attr)
{
    int status = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE); // for the thread that is tried below
    if (status == 0)
    {
        status = setScheduling(attr, inheritSched, policy, priority);
    }
    if (status == 0)
    {
        status = pthread_attr_setscope(&attr, scope);
    }
    if (status == 0)
    {
        status = pthread_attr_setstacksize(&attr, STACK_BYTES);
    }
    if (status == 0 && isRealTime(policy) && inheritSched == PTHREAD_EXPLICIT_SCHED)
    {
        status = tryThread(attr);
        if (status != 0 && status != EAGAIN)
        {
            status = setDefaultScheduling(attr);
        }
    }
    return status == 0 ? pthread_attr_setdetachstate(&attr, detachState) : status;
}
