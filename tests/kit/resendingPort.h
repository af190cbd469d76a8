#ifndef KIT_RESENDINGPORT_H
#define KIT_RESENDINGPORT_H

#include "exposedPort.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace kit
{

/// A port that watches how its tracker calls back: what it resends, and with which locks it asks.
class resendingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~resendingPort() override { stop(); }

    int resendMessage(gssipMessage& message) override
    {
        resendHeldTracker = trackerIsLocked();
        {
            std::lock_guard<std::mutex> const lock(mutex);
            seen.push_back(message);
        }
        if (onResend)
        {
            onResend();
        }
        int const written = writes ? exposedPort::resendMessage(message) : 0;
        return resendResult != 0 ? resendResult.load() : written;
    }

    double getAcknowledgeTimeout_sec() override
    {
        ++timeoutAsked;
        timeoutHeldTracker = trackerIsLocked();
        return exposedPort::getAcknowledgeTimeout_sec() + extraTimeout_sec;
    }

    /// The messages as they were handed over for resending.
    std::vector<gssipMessage> resent() const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return seen;
    }

    std::function<void()> onResend;   ///< called before each resend; to be set while nothing is pending
    std::atomic<bool> writes{true};   ///< false: nothing is put on the line
    std::atomic<int> resendResult{0}; ///< what `resendMessage` returns instead of its own result
    std::atomic<double> extraTimeout_sec{0.0};
    std::atomic<unsigned> timeoutAsked{0};
    std::atomic<bool> resendHeldTracker{false};
    std::atomic<bool> timeoutHeldTracker{false};

  private:
    bool trackerIsLocked()
    {
        pthread_mutex_t& trackerMutex = exposedSendAckReq::of(sendAckReq).eventQMutex;
        if (pthread_mutex_trylock(&trackerMutex) == EBUSY)
        {
            return true;
        }
        pthread_mutex_unlock(&trackerMutex);
        return false;
    }

    mutable std::mutex mutex;
    std::vector<gssipMessage> seen;
};

} // namespace kit

#endif
