#ifndef OWNEDTHREAD_H
#define OWNEDTHREAD_H

#include "blockedSignals.h"

#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <semaphore.h>

namespace gssipInternal
{

/// Knows whether a POSIX thread exists, so that it is joined exactly once, and whether it has been asked to stop.
///
/// One thread at a time creates and joins; everything else may be called from any thread.
class ownedThread
{
  public:
    ownedThread() { sem_init(&running, 0, 0); }
    ~ownedThread() { sem_destroy(&running); }
    ownedThread(ownedThread const&) = delete;
    ownedThread& operator=(ownedThread const&) = delete;

    /// Creates the thread, with every signal blocked; the result of pthread_create.
    int create(pthread_t& id, pthread_attr_t const& attributes, void* (*entry)(void*), void* argument)
    {
        // Fresh for each start: a former thread may have announced itself without being waited for.
        sem_destroy(&running);
        sem_init(&running, 0, 0);
        blockedSignals const blocked;
        int const status = pthread_create(&id, &attributes, entry, argument);
        existsNow = status == 0;
        return status;
    }

    bool exists() const noexcept { return existsNow; }

    /// Called by the thread when it has taken up its work.
    void announceRunning() noexcept { sem_post(&running); }

    /// Blocks until then. A starter that spun instead could keep the processor from the thread for ever.
    void awaitRunning() noexcept
    {
        while (sem_wait(&running) != 0 && errno == EINTR)
        {}
    }

    /// True from the beginning of a stop to the end of its join, and only then: a thread that has never been started
    /// has not been asked to stop. Set it before passing through the mutex that the thread sleeps with.
    void requestStop() noexcept { stopping = true; }
    bool stopRequested() const noexcept { return stopping; }

    /// Joins the thread if it exists; the stop is over then.
    void join(pthread_t id)
    {
        if (existsNow)
        {
            pthread_join(id, nullptr);
            existsNow = false;
        }
        stopping = false;
    }

  private:
    sem_t running{};
    std::atomic<bool> existsNow{false};
    std::atomic<bool> stopping{false};
};

} // namespace gssipInternal

#endif
