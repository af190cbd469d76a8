#ifndef THREADFUNCTIONS_H
#define THREADFUNCTIONS_H

#include "gssipExport.h"

#include <pthread.h>

/// Locks the mutex; blocks until it is free. Returns 0, or the error number of `pthread_mutex_lock`.
GSSIP_EXPORT int lockMutex(pthread_mutex_t& mutex);

/// Unlocks a mutex that the caller holds. Returns 0, or the error number of `pthread_mutex_unlock`.
GSSIP_EXPORT int unlockMutex(pthread_mutex_t& mutex);

/// Fills thread attributes that `pthread_attr_init` has initialised.
///
/// The five integers are the POSIX constants of those names, for example PTHREAD_CREATE_JOINABLE, SCHED_RR, 51,
/// PTHREAD_EXPLICIT_SCHED, PTHREAD_SCOPE_SYSTEM. The stack is set to 256 KiB, enough for the application's call-backs
/// and small enough for a process that locks its memory.
///
/// A process that may not use real-time scheduling gets attributes with the default scheduling instead, and 0. That is
/// found out by starting a thread that ends at once, since neither user id nor resource limits tell it reliably.
///
/// Returns 0, EINVAL or ENOTSUP for a value that POSIX does not know, or EAGAIN when the system has no room for a
/// thread; the attributes may then be partly set. Takes as long as a thread takes to start and end.
/// May be called from any thread.
GSSIP_EXPORT int setPthreadAttributes(int detachState, int policy, int priority, int inheritSched, int scope,
                                      pthread_attr_t& attr);

#endif
