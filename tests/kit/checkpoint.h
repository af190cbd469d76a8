#ifndef KIT_CHECKPOINT_H
#define KIT_CHECKPOINT_H

#include "waitUntil.h"

#include <atomic>
#include <chrono>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>

namespace kit
{

/// True on the thread of that name.
inline bool isThread(std::string const& name)
{
    char own[16] = {};
    return pthread_getname_np(pthread_self(), own, sizeof own) == 0 && name == own;
}

/// Holds back one thread until the test lets it go: the first that comes to the place.
class checkpoint
{
  public:
    void pass()
    {
        if (!reached.exchange(true))
        {
            while (!released)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            left = true;
        }
    }

    bool isReached() const { return reached; }
    void awaitArrival() const { require(reached, "nobody comes to the checkpoint"); }

    /// Returns when the thread has gone on.
    void letGo()
    {
        released = true;
        if (reached)
        {
            require(left, "the thread does not leave the checkpoint");
        }
    }

  private:
    static void require(std::atomic<bool> const& condition, char const* fault)
    {
        if (!waitUntil([&] { return condition.load(); }))
        {
            throw std::runtime_error(fault);
        }
    }

    std::atomic<bool> reached{false};
    std::atomic<bool> released{false};
    std::atomic<bool> left{false};
};

} // namespace kit

#endif
