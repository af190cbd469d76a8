// Threads, mutexes, conditions and semaphores, as a schedule has them. Outside of one each call is passed on.
//
// A mutex and a semaphore keep their state where the C library keeps it, in the same form while they are free: one that
// was made before a schedule, or outlives it, serves both.

#include "realCall.h"
#include "scheduler.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <semaphore.h>
#include <string>

using schedules::NEVER_NS;
using schedules::realCall;
using schedules::scheduler;
using schedules::thread;
using schedules::waiting;
using schedules::wake;

namespace
{

constexpr int DESTROYED = -1; // as the C library marks a mutex
constexpr int FREE = 0;
constexpr std::int64_t NS_PER_SEC = 1'000'000'000;

int& ownerOf(pthread_mutex_t& mutex)
{
    return mutex.__data.__owner;
}

void checkMutex(scheduler& schedule, pthread_mutex_t const& mutex)
{
    bool const isOne = mutex.__data.__kind == PTHREAD_MUTEX_TIMED_NP && mutex.__data.__owner >= FREE &&
                       schedule.find(static_cast<pthread_t>(std::max(mutex.__data.__owner, 1))) != nullptr;
    if (!isOne)
    {
        schedule.fail("a mutex is used that does not exist (any more)");
    }
}

void checkCondition(scheduler& schedule, pthread_cond_t const& condition)
{
    auto const* const first = reinterpret_cast<unsigned char const*>(&condition);
    if (std::any_of(first, first + sizeof condition, [](unsigned char byte) { return byte != 0; })) // nobody sets any
    {
        schedule.fail("a condition is used that does not exist (any more)");
    }
}

void acquire(scheduler& schedule, pthread_mutex_t& mutex)
{
    while (ownerOf(mutex) != FREE)
    {
        schedule.record("waits for mutex", &mutex, ownerOf(mutex));
        schedule.block(waiting::mutex, &mutex);
        checkMutex(schedule, mutex);
    }
    ownerOf(mutex) = static_cast<int>(schedule.self().number);
}

void release(scheduler& schedule, pthread_mutex_t& mutex)
{
    if (ownerOf(mutex) != static_cast<int>(schedule.self().number))
    {
        schedule.fail("a thread releases a mutex that it does not hold");
    }
    schedule.observeRelease(&mutex);
    ownerOf(mutex) = FREE;
    schedule.wakeAll(waiting::mutex, &mutex);
}

int waitOn(scheduler& schedule, pthread_cond_t& condition, pthread_mutex_t& mutex, std::int64_t deadline_ns,
           bool onWallClock)
{
    checkCondition(schedule, condition);
    checkMutex(schedule, mutex);
    schedule.step("is about to wait on", &condition);
    schedule.self().goesToSleep = true;
    release(schedule, mutex);
    schedule.self().goesToSleep = false;
    schedule.record("waits on", &condition);
    wake const reason = schedule.block(waiting::condition, &condition, deadline_ns, onWallClock);
    schedule.record(reason == wake::timeout ? "has waited too long on" : "was woken from", &condition);
    acquire(schedule, mutex);
    return reason == wake::timeout ? ETIMEDOUT : 0;
}

std::int64_t nanoseconds(timespec const& time)
{
    // Far beyond any schedule, and far from overflowing.
    constexpr std::int64_t MOST_SEC = 4'000'000'000;
    std::int64_t const seconds = std::clamp<std::int64_t>(time.tv_sec, -MOST_SEC, MOST_SEC);
    return seconds == MOST_SEC ? NEVER_NS : seconds * NS_PER_SEC + time.tv_nsec;
}

bool isNormalised(timespec const& time)
{
    return time.tv_nsec >= 0 && time.tv_nsec < NS_PER_SEC;
}

unsigned& countOf(sem_t* semaphore)
{
    return *reinterpret_cast<unsigned*>(semaphore);
}

bool isRealTime(pthread_attr_t const* attributes)
{
    int inherits = PTHREAD_INHERIT_SCHED;
    int policy = SCHED_OTHER;
    return attributes != nullptr && pthread_attr_getinheritsched(attributes, &inherits) == 0 &&
           inherits == PTHREAD_EXPLICIT_SCHED && pthread_attr_getschedpolicy(attributes, &policy) == 0 &&
           (policy == SCHED_RR || policy == SCHED_FIFO);
}

bool isDetached(pthread_attr_t const* attributes)
{
    int state = PTHREAD_CREATE_JOINABLE;
    return attributes != nullptr && pthread_attr_getdetachstate(attributes, &state) == 0 &&
           state == PTHREAD_CREATE_DETACHED;
}

thread& known(scheduler& schedule, pthread_t id)
{
    thread* const found = schedule.find(id);
    if (found == nullptr || found->isJoined)
    {
        schedule.fail("a thread is named that does not exist (any more)");
    }
    return *found;
}

} // namespace

extern "C" {

int pthread_create(pthread_t* id, pthread_attr_t const* attributes, void* (*entry)(void*), void* argument) noexcept
{
    static auto* const real = realCall<decltype(pthread_create)>("pthread_create");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(id, attributes, entry, argument);
    }
    schedule->step("creates a thread");
    if (schedule->refusesRealTime() && isRealTime(attributes))
    {
        return EPERM;
    }
    thread* const made = schedule->create(entry, argument);
    if (made == nullptr)
    {
        schedule->record("no thread can be created");
        return EAGAIN;
    }
    made->isDetached = isDetached(attributes);
    *id = scheduler::idOf(*made);
    schedule->step("has created thread", nullptr, made->number);
    return 0;
}

int pthread_join(pthread_t id, void** result)
{
    static auto* const real = realCall<decltype(pthread_join)>("pthread_join");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(id, result);
    }
    schedule->step("joins thread", nullptr, static_cast<std::int64_t>(id));
    thread& joined = known(*schedule, id);
    joined.isJoined = true;
    while (joined.state != schedules::threadState::ended)
    {
        schedule->block(waiting::thread, &joined);
    }
    if (result != nullptr)
    {
        *result = joined.result;
    }
    return 0;
}

int pthread_detach(pthread_t id) noexcept
{
    static auto* const real = realCall<decltype(pthread_detach)>("pthread_detach");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(id);
    }
    known(*schedule, id).isDetached = true;
    return 0;
}

int pthread_setname_np(pthread_t id, char const* name) noexcept
{
    static auto* const real = realCall<decltype(pthread_setname_np)>("pthread_setname_np");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(id, name);
    }
    known(*schedule, id).name = name;
    return 0;
}

/// Of the running thread alone, so no system call is needed. The process's own mask stays as it is.
int pthread_sigmask(int how, sigset_t const* set, sigset_t* former) noexcept
{
    static auto* const real = realCall<decltype(pthread_sigmask)>("pthread_sigmask");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(how, set, former);
    }
    sigset_t& mask = schedule->self().signals;
    if (former != nullptr)
    {
        *former = mask;
    }
    if (set != nullptr && how == SIG_SETMASK)
    {
        mask = *set;
    }
    return 0;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = realCall<decltype(pthread_mutex_lock)>("pthread_mutex_lock");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(mutex);
    }
    schedule->step("locks", mutex);
    checkMutex(*schedule, *mutex);
    acquire(*schedule, *mutex);
    return 0;
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = realCall<decltype(pthread_mutex_trylock)>("pthread_mutex_trylock");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(mutex);
    }
    schedule->step("tries to lock", mutex);
    checkMutex(*schedule, *mutex);
    if (ownerOf(*mutex) != FREE)
    {
        return EBUSY;
    }
    acquire(*schedule, *mutex);
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = realCall<decltype(pthread_mutex_unlock)>("pthread_mutex_unlock");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(mutex);
    }
    checkMutex(*schedule, *mutex);
    release(*schedule, *mutex);
    schedule->step("has unlocked", mutex);
    return 0;
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = realCall<decltype(pthread_mutex_destroy)>("pthread_mutex_destroy");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(mutex);
    }
    checkMutex(*schedule, *mutex);
    if (ownerOf(*mutex) != FREE || schedule->anyoneWaits(waiting::mutex, mutex))
    {
        schedule->fail("a mutex is destroyed while somebody holds it or waits for it");
    }
    mutex->__data.__kind = DESTROYED;
    return 0;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    static auto* const real = realCall<decltype(pthread_cond_wait)>("pthread_cond_wait");
    scheduler* const schedule = scheduler::current();
    return schedule == nullptr ? real(condition, mutex) : waitOn(*schedule, *condition, *mutex, NEVER_NS, false);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* deadline)
{
    static auto* const real = realCall<decltype(pthread_cond_clockwait)>("pthread_cond_clockwait");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(condition, mutex, clock, deadline);
    }
    if (!isNormalised(*deadline))
    {
        return EINVAL;
    }
    return waitOn(*schedule, *condition, *mutex, nanoseconds(*deadline), clock == CLOCK_REALTIME);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* deadline)
{
    static auto* const real = realCall<decltype(pthread_cond_timedwait)>("pthread_cond_timedwait");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(condition, mutex, deadline);
    }
    if (!isNormalised(*deadline))
    {
        return EINVAL;
    }
    return waitOn(*schedule, *condition, *mutex, nanoseconds(*deadline), true);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    static auto* const real = realCall<decltype(pthread_cond_signal)>("pthread_cond_signal");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(condition);
    }
    schedule->step("signals", condition);
    checkCondition(*schedule, *condition);
    schedule->wakeOne(waiting::condition, condition);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    static auto* const real = realCall<decltype(pthread_cond_broadcast)>("pthread_cond_broadcast");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(condition);
    }
    schedule->step("signals all on", condition);
    checkCondition(*schedule, *condition);
    schedule->wakeAll(waiting::condition, condition);
    return 0;
}

int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    static auto* const real = realCall<decltype(pthread_cond_destroy)>("pthread_cond_destroy");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(condition);
    }
    checkCondition(*schedule, *condition);
    if (schedule->anyoneWaits(waiting::condition, condition))
    {
        schedule->fail("a condition is destroyed while somebody waits on it");
    }
    std::memset(condition, 0xFF, sizeof *condition);
    return 0;
}

int sem_wait(sem_t* semaphore)
{
    static auto* const real = realCall<decltype(sem_wait)>("sem_wait");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(semaphore);
    }
    schedule->step("takes from semaphore", semaphore);
    while (countOf(semaphore) == 0)
    {
        schedule->block(waiting::semaphore, semaphore);
    }
    --countOf(semaphore);
    return 0;
}

int sem_post(sem_t* semaphore) noexcept
{
    static auto* const real = realCall<decltype(sem_post)>("sem_post");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(semaphore);
    }
    schedule->step("posts semaphore", semaphore);
    ++countOf(semaphore);
    schedule->wakeAll(waiting::semaphore, semaphore);
    return 0;
}

int sem_destroy(sem_t* semaphore) noexcept
{
    static auto* const real = realCall<decltype(sem_destroy)>("sem_destroy");
    scheduler* const schedule = scheduler::current();
    if (schedule == nullptr)
    {
        return real(semaphore);
    }
    if (schedule->anyoneWaits(waiting::semaphore, semaphore))
    {
        schedule->fail("a semaphore is destroyed while somebody waits for it");
    }
    return 0;
}

} // extern "C"
