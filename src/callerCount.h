#ifndef CALLERCOUNT_H
#define CALLERCOUNT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace gssipInternal
{

/// Counts the threads that are inside an object, so that its end can wait for the last of them.
class callerCount
{
  public:
    /// Inside while it exists.
    class caller
    {
      public:
        explicit caller(callerCount& countToJoin) : count(countToJoin) { ++count.inside; }
        ~caller() { count.leave(); }
        caller(caller const&) = delete;
        caller& operator=(caller const&) = delete;

      private:
        callerCount& count;
    };

    void awaitNone()
    {
        std::unique_lock<std::mutex> lock(mutex);
        inside |= AWAITED;
        left.wait(lock, [this] { return inside == AWAITED; });
    }

  private:
    static constexpr std::uint32_t AWAITED = 0x8000'0000;

    /// The object may be gone as soon as the last one is counted out. So nothing is touched after that, but for the
    /// lock when somebody awaits it, who cannot go on before the lock is free.
    void leave()
    {
        std::uint32_t now = inside;
        while ((now & AWAITED) == 0)
        {
            if (inside.compare_exchange_weak(now, now - 1))
            {
                return;
            }
        }
        std::lock_guard<std::mutex> const lock(mutex);
        --inside;
        left.notify_all();
    }

    std::atomic<std::uint32_t> inside{0}; ///< how many, and AWAITED
    std::mutex mutex;                     ///< for the sleep of who awaits them; the last lock in any order
    std::condition_variable left;
};

} // namespace gssipInternal

#endif
