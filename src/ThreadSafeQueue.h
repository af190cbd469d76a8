#ifndef THREADSAFEQUEUE_H
#define THREADSAFEQUEUE_H

#include "gssipExport.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

/// A first-in first-out queue that blocks its consumer while it is empty, until it is stopped.
///
/// Any thread may push, pop, ask and stop at the same time. There is no size limit. It must not be destroyed while
/// a thread is inside.
template <typename T>
class GSSIP_EXPORT ThreadSafeQueue
{
  public:
    ThreadSafeQueue() : counts(std::make_unique<counters>()) {}
    ThreadSafeQueue(ThreadSafeQueue const&) = delete;
    ThreadSafeQueue& operator=(ThreadSafeQueue const&) = delete;
    ~ThreadSafeQueue() = default;

    /// Appends an element made of `arguments` (a copy of an lvalue) and wakes one consumer.
    /// Waits for the lock only. When memory runs out, `std::bad_alloc`, and the queue is as before.
    template <typename... Arguments>
    void push(Arguments&&... arguments)
    {
        {
            access const lock(*this);
            queue.emplace_back(std::forward<Arguments>(arguments)...);
            counts->pushed.store(pushed() + 1, std::memory_order_release); // one thread at a time is here
        }
        queueCondition.notify_one();
    }

    /// Takes the front element into `element`; blocks while the queue is empty and not stopped.
    /// False, with `element` untouched, when it is stopped and empty.
    bool pop_wait(T& element)
    {
        std::uint64_t arrival = 0;
        return pop_wait(element, arrival);
    }

    /// The same; `arrival` is the number of the element that was taken, counted from 1 as they were pushed.
    bool pop_wait(T& element, std::uint64_t& arrival)
    {
        access lock(*this);
        queueCondition.wait(lock.held, [this] { return !queue.empty() || stopped; });
        if (queue.empty())
        {
            return false;
        }
        arrival = counts->pushed.load(std::memory_order_relaxed) - queue.size() + 1;
        element = std::move(queue.front());
        queue.pop_front();
        return true;
    }

    /// Lets every consumer go as soon as the queue is empty, now and from now on.
    void stop()
    {
        {
            std::lock_guard<std::mutex> const lock(queueMutex);
            stopped = true;
        }
        queueCondition.notify_all();
    }

    /// The number of elements, exact whenever nobody holds the lock, else as of its last release. Never blocks.
    std::size_t size() const
    {
        if (std::unique_lock<std::mutex> const lock(queueMutex, std::try_to_lock); lock.owns_lock())
        {
            counts->size.store(queue.size(), std::memory_order_relaxed);
        }
        return counts->size.load(std::memory_order_relaxed);
    }

    /// How many elements have been pushed so far. Never blocks.
    std::uint64_t pushed() const { return counts->pushed.load(std::memory_order_acquire); }

    std::deque<T> queue;                    ///< the elements, the oldest in front; guarded by queueMutex
    mutable std::mutex queueMutex;          ///< guards `queue`; the last lock in any order
    std::condition_variable queueCondition; ///< with `queueMutex`: an element came, or the queue was stopped
    std::atomic<bool> stopped{false};       ///< set with `queueMutex` held (see `stop`), so that no consumer misses it

  private:
    struct counters
    {
        std::atomic<std::size_t> size{0};
        std::atomic<std::uint64_t> pushed{0};
    };

    /// Holds the lock, and leaves the number of elements behind for `size`.
    class access
    {
      public:
        explicit access(ThreadSafeQueue& queueToHold) : held(queueToHold.queueMutex), owner(queueToHold) {}
        ~access() { owner.counts->size.store(owner.queue.size(), std::memory_order_relaxed); }
        access(access const&) = delete;
        access& operator=(access const&) = delete;

        std::unique_lock<std::mutex> held;

      private:
        ThreadSafeQueue& owner;
    };

    std::unique_ptr<counters> counts;
};

#endif
