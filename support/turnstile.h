#ifndef TURNSTILE_H
#define TURNSTILE_H

#include "sentry.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

namespace gssipInternal
{

/// Lets threads through one at a time, in the order in which they came. Who need not wait takes no lock.
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
        std::uint32_t const mine = nextTicket++;
        if (mine != nowServing)
        {
            awaitTurn(mine);
        }
    }

    void leave() noexcept
    {
        std::uint32_t const next = ++nowServing;
        if (next != nextTicket)
        {
            callNext();
        }
    }

  private:
    // A thread takes its ticket before it looks who is served, and one that leaves serves the next before it looks
    // whether there are tickets: so one of the two sees the other. The mutex is there for the sleep alone.

    void awaitTurn(std::uint32_t mine) noexcept
    {
        sentry const lock(mutex);
        while (mine != nowServing)
        {
            pthread_cond_wait(&served, &mutex);
        }
    }

    void callNext() noexcept
    {
        sentry const lock(mutex);
        pthread_cond_broadcast(&served); // only one of them holds the next ticket, and any may be that one
    }

    std::atomic<std::uint32_t> nextTicket{0};
    std::atomic<std::uint32_t> nowServing{0};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; ///< the last lock in any order
    pthread_cond_t served = PTHREAD_COND_INITIALIZER;
};

/// Inside a turnstile while it exists: one thread at a time, in the order in which they came.
class turn
{
  public:
    explicit turn(turnstile& doorToPass) noexcept : door(doorToPass) { door.enter(); }
    ~turn() { door.leave(); }
    turn(turn const&) = delete;
    turn& operator=(turn const&) = delete;

  private:
    turnstile& door;
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
