#ifndef BLOCKEDSIGNALS_H
#define BLOCKEDSIGNALS_H

#include <csignal>
#include <pthread.h>

namespace gssipInternal
{

/// Blocks every signal of the calling thread while it exists.
///
/// A thread created meanwhile inherits that, from its first instruction on: signals are the application's, and their
/// handlers never run on a thread of the library.
class blockedSignals
{
  public:
    blockedSignals() noexcept
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former);
    }
    ~blockedSignals() { pthread_sigmask(SIG_SETMASK, &former, nullptr); }
    blockedSignals(blockedSignals const&) = delete;
    blockedSignals& operator=(blockedSignals const&) = delete;

  private:
    sigset_t former{};
};

} // namespace gssipInternal

#endif
