#ifndef KIT_LIVINGTHREADS_H
#define KIT_LIVINGTHREADS_H

#include "threadCalls.h"
#include "waitUntil.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace kit
{

/// Knows the threads that this program has created and that have not ended, without asking the system for them.
/// Needs threadCalls.cpp, and `threadCallsReplaced` around it.
class livingThreads : public threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, threadEntry entry, void* argument) override
    {
        auto order = std::make_unique<work>(work{*this, entry, argument});
        {
            std::lock_guard<std::mutex> const lock(mutex);
            ++living;
        }
        int const status = threadCalls::create(thread, attributes, run, order.get());
        if (status == 0)
        {
            static_cast<void>(order.release()); // the new thread's
        }
        else
        {
            std::lock_guard<std::mutex> const lock(mutex);
            --living;
        }
        return status;
    }

    std::size_t count() const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return living;
    }

    bool waitForCount(std::size_t wanted) const
    {
        return waitUntil([&] { return count() == wanted; });
    }

    /// The system's number of a thread that lives; 0 when there is none such.
    pid_t idOf(pthread_t thread) const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        auto const found = find(thread);
        return found == known.end() ? 0 : found->id;
    }

  private:
    struct work
    {
        livingThreads& owner;
        threadEntry entry;
        void* argument;
    };

    struct member
    {
        pthread_t thread;
        pid_t id;
    };

    static void* run(void* order)
    {
        std::unique_ptr<work> const mine(static_cast<work*>(order));
        presence const here(mine->owner);
        return mine->entry(mine->argument);
    }

    class presence
    {
      public:
        explicit presence(livingThreads& list) : owner(list)
        {
            std::lock_guard<std::mutex> const lock(owner.mutex);
            owner.known.push_back({pthread_self(), gettid()});
        }
        ~presence() // also when the thread is ended by the system's unwinding
        {
            std::lock_guard<std::mutex> const lock(owner.mutex);
            owner.known.erase(owner.find(pthread_self()));
            --owner.living;
        }
        presence(presence const&) = delete;
        presence& operator=(presence const&) = delete;

      private:
        livingThreads& owner;
    };

    std::vector<member>::const_iterator find(pthread_t thread) const
    {
        return std::find_if(known.begin(), known.end(),
                            [&](member const& each) { return pthread_equal(each.thread, thread) != 0; });
    }

    mutable std::mutex mutex;
    std::size_t living = 0;
    std::vector<member> known;
};

} // namespace kit

#endif
