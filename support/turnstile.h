#ifndef TURNSTILE_H
#define TURNSTILE_H

#include "sentry.h"

#include <cstdint>
#include <pthread.h>

namespace gssipInternal
{

/// Lets threads through one at a time, in the order in which they came.
class turnstile
{
  public:
    turnstile() = default;
    ~turnstile()
    {
        pthread_cond_destroy(&served);
        pthread_mutex_destroy(&mutex);
    }
    turnstile(turnstile const&) = delete;
    turnstile& operator=(turnstile const&) = delete;

    /// Blocks until every thread that came before has left.
    void enter() noexcept
    {
        sentry const lock(mutex);
        std::uint32_t const mine = nextTicket++;
        while (mine != nowServing)
        {
            pthread_cond_wait(&served, &mutex);
        }
    }

    void leave() noexcept
    {
        sentry const lock(mutex);
        if (++nowServing != nextTicket)
        {
            pthread_cond_broadcast(&served); // only one of them holds the next ticket, and any may be that one
        }
    }

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; ///< guards the tickets; the last lock in any order
    pthread_cond_t served = PTHREAD_COND_INITIALIZER;
    std::uint32_t nextTicket = 0;
    std::uint32_t nowServing = 0;
};

/// A scoped lock whose waiters are served in the order in which they came.
///
/// A plain mutex may be taken again and again by the thread that has just released it, past others that have been
/// woken. Here a thread waits for the mutex inside the turnstile, and who wants it next has to queue there.
class fairSentry
{
  public:
    fairSentry(turnstile& door, pthread_mutex_t& mutexToHold) noexcept : mutex(mutexToHold)
    {
        door.enter();
        pthread_mutex_lock(&mutex);
        door.leave();
    }
    ~fairSentry() { pthread_mutex_unlock(&mutex); }
    fairSentry(fairSentry const&) = delete;
    fairSentry& operator=(fairSentry const&) = delete;

  private:
    pthread_mutex_t& mutex;
};

} // namespace gssipInternal

#endif
