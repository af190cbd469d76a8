#ifndef SENTRY_H
#define SENTRY_H

#include <pthread.h>

/// A scoped lock: holds the mutex from its construction (which blocks until the mutex is free) to its destruction.
///
/// The mutex must be initialised and must outlive the sentry.
class sentry
{
  public:
    /// Locks the mutex.
    explicit sentry(pthread_mutex_t& mutexToHold) noexcept : mutex(mutexToHold) { pthread_mutex_lock(&mutex); }
    ~sentry() { pthread_mutex_unlock(&mutex); }
    sentry(sentry const&) = delete;
    sentry& operator=(sentry const&) = delete;

  private:
    pthread_mutex_t& mutex;
};

#endif
