#ifndef CALLERCOUNT_H
#define CALLERCOUNT_H

#include <condition_variable>
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
        explicit caller(callerCount& countToJoin) : count(countToJoin)
        {
            std::lock_guard<std::mutex> const lock(count.mutex);
            ++count.inside;
        }
        ~caller()
        {
            std::lock_guard<std::mutex> const lock(count.mutex);
            --count.inside;
            count.left.notify_all(); // under the lock: the object may be gone as soon as it is free
        }
        caller(caller const&) = delete;
        caller& operator=(caller const&) = delete;

      private:
        callerCount& count;
    };

    void awaitNone()
    {
        std::unique_lock<std::mutex> lock(mutex);
        left.wait(lock, [this] { return inside == 0; });
    }

  private:
    std::mutex mutex; ///< guards `inside`; the last lock in any order
    std::condition_variable left;
    unsigned inside = 0;
};

} // namespace gssipInternal

#endif
