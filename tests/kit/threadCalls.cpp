#include "threadCalls.h"

#include "nextFunction.h"

#include <atomic>
#include <ctime>

namespace
{

std::atomic<kit::threadCalls*> replacement{nullptr};

/// True while this thread is inside a replacement, whose own calls are the system's business.
thread_local bool inside = false;

template <typename Call>
void tell(Call const& call)
{
    kit::threadCalls* const replaced = replacement;
    if (replaced != nullptr && !inside)
    {
        inside = true;
        call(*replaced);
        inside = false;
    }
}

/// Before a wait; true when the wait is to end at once.
bool isOverBeforeItBegins(pthread_cond_t& condition)
{
    bool isOver = false;
    tell([&](kit::threadCalls& calls) {
        calls.beforeWait(condition);
        isOver = calls.wakesForNothing();
    });
    return isOver;
}

bool isAhead(clockid_t clock, timespec const& deadline)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec != deadline.tv_sec ? now.tv_sec < deadline.tv_sec : now.tv_nsec < deadline.tv_nsec;
}

/// What the wait of a thread that wakes for nothing comes to: others may have had the mutex meanwhile.
int wakeForNothing(pthread_mutex_t* mutex)
{
    constexpr timespec A_MOMENT{0, 200'000};
    pthread_mutex_unlock(mutex);
    clock_nanosleep(CLOCK_MONOTONIC, 0, &A_MOMENT, nullptr);
    pthread_mutex_lock(mutex);
    return 0;
}

} // namespace

namespace kit
{

int threadCalls::create(pthread_t& thread, pthread_attr_t const* attributes, threadEntry entry, void* argument)
{
    static auto* const real =
        kit::nextFunction<int(pthread_t*, pthread_attr_t const*, threadEntry, void*)>("pthread_create");
    return real(&thread, attributes, entry, argument);
}

int threadCalls::setName(pthread_t thread, char const* name)
{
    static auto* const real = kit::nextFunction<int(pthread_t, char const*)>("pthread_setname_np");
    return real(thread, name);
}

threadCallsReplaced::threadCallsReplaced(threadCalls& other)
{
    replacement = &other;
}

threadCallsReplaced::~threadCallsReplaced()
{
    replacement = nullptr;
}

} // namespace kit

extern "C" {

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) noexcept
{
    static kit::threadCalls systems;
    int status = 0;
    bool served = false;
    tell([&](kit::threadCalls& calls) {
        status = calls.create(*thread, attributes, entry, argument);
        served = true;
    });
    return served ? status : systems.create(*thread, attributes, entry, argument);
}

int pthread_setname_np(pthread_t thread, char const* name) noexcept
{
    static kit::threadCalls systems;
    int status = 0;
    bool served = false;
    tell([&](kit::threadCalls& calls) {
        status = calls.setName(thread, name);
        served = true;
    });
    return served ? status : systems.setName(thread, name);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static auto* const real = kit::nextFunction<int(pthread_mutex_t*)>("pthread_mutex_lock");
    tell([&](kit::threadCalls& calls) { calls.beforeLock(*mutex); });
    return real(mutex);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    static auto* const real = kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
    int const status = isOverBeforeItBegins(*condition) ? wakeForNothing(mutex) : real(condition, mutex);
    tell([&](kit::threadCalls& calls) { calls.afterWait(*condition); });
    return status;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)>("pthread_cond_clockwait");
    int const status = isOverBeforeItBegins(*condition) && isAhead(clock, *deadline)
                           ? wakeForNothing(mutex)
                           : real(condition, mutex, clock, deadline);
    tell([&](kit::threadCalls& calls) { calls.afterWait(*condition); });
    return status;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, timespec const*)>("pthread_cond_timedwait");
    int const status = isOverBeforeItBegins(*condition) && isAhead(CLOCK_REALTIME, *deadline)
                           ? wakeForNothing(mutex)
                           : real(condition, mutex, deadline);
    tell([&](kit::threadCalls& calls) { calls.afterWait(*condition); });
    return status;
}

} // extern "C"
