#ifndef BENCH_MEMORYRECEIVER_H
#define BENCH_MEMORYRECEIVER_H

#include "gssipPort.h"
#include "gssipReceive.h"
#include "timeStampInterface.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench
{

/// A clock that ends the framing from within: the framing asks it once for every frame. It takes no time itself, since
/// the application's clock is not what is measured.
class countingClock : public timeStampInterface
{
  public:
    double getTime_sec() override
    {
        if (toSet != nullptr && --callsLeft == 0)
        {
            *toSet = true;
            toSet = nullptr;
        }
        return 1.0;
    }

    /// Sets the flag at so many calls from now that this thread makes.
    static void setAfter(std::size_t calls, std::atomic<bool>& flag)
    {
        callsLeft = calls;
        toSet = &flag;
    }

  private:
    inline static thread_local std::size_t callsLeft = 0;
    inline static thread_local std::atomic<bool>* toSet = nullptr;
};

/// A receiver that frames what is in memory, on the caller's thread. Its own threads have ended.
class memoryReceiver : private gssipReceive
{
  public:
    /// The port must have been made with a `countingClock`.
    memoryReceiver(gssipPort& closedPort, asciiLogInterface* logToUse) : gssipReceive(closedPort, logToUse)
    {
        stopRead = true;
        {
            std::lock_guard<std::mutex> const lock(frameMutex);
            stopProcess = true;
        }
        frameCondition.notify_one();
        readThread.join();
        processThread.join();
    }

    void fill(std::vector<std::uint8_t> const& bytes)
    {
        append(bytes);
        forgetMessages();
    }

    /// As `fill`, behind the messages that are there.
    void append(std::vector<std::uint8_t> const& bytes)
    {
        std::lock_guard<std::mutex> const lock(frameMutex);
        frameBuffer = bytes;
        state = SOM_STATE;
        dataAvailable = true;
    }

    void forgetMessages()
    {
        std::lock_guard<std::mutex> const lock(rxQueue.queueMutex);
        rxQueue.queue.clear();
    }

    /// Until so many frames, good ones or ones with a wrong header, have been found.
    void run(std::size_t frames)
    {
        stopProcess = false;
        countingClock::setAfter(frames, stopProcess);
        processReceiveQ();
    }

    std::size_t messages() const { return rxQueue.size(); }
};

} // namespace bench

#endif
