#ifndef GSSIPPORTSTATE_H
#define GSSIPPORTSTATE_H

#include "gssipPort.h"
#include "ownedThread.h"
#include "sentry.h"
#include "turnstile.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

struct gssipPort::privateState
{
    std::mutex lifecycle; ///< serialises start and stop; the first lock in any order
    gssipInternal::ownedThread transmit;
    gssipInternal::turnstile writers;                 ///< before `sendMutex`
    std::vector<std::uint8_t> image;                  ///< of the frame that is being written; guarded by sendMutex
    std::uint32_t timesOpened = 0;                    ///< of the port-ready gate; guarded by readyMutex
    std::atomic<gssipReceive const*> newest{nullptr}; ///< the receiver that was made last
    std::atomic<unsigned> queued{0};                  ///< length of `txQueue` when `txMutex` was last released
};

/// Holds `txMutex`, and leaves the length of the queue behind for those who must not wait.
class gssipPort::queueAccess
{
  public:
    explicit queueAccess(gssipPort& portToAccess) : port(portToAccess), lock(portToAccess.txMutex) {}
    ~queueAccess() { port.own->queued.store(static_cast<unsigned>(port.txQueue.size()), std::memory_order_relaxed); }
    queueAccess(queueAccess const&) = delete;
    queueAccess& operator=(queueAccess const&) = delete;

  private:
    gssipPort& port;
    sentry const lock;
};

#endif
