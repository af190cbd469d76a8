#ifndef BENCH_SLEEPINGTHREADS_H
#define BENCH_SLEEPINGTHREADS_H

#include "process.h"

#include <array>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace bench
{

/// The floor of a port that does nothing: four threads that sleep on one condition. Two of them have the priorities
/// given, unless those are 0.
class sleepingThreads
{
  public:
    explicit sleepingThreads(bool realTime)
    {
        constexpr std::array<int, 4> PRIORITIES{0, 0, 50, 51};
        for (std::size_t i = 0; i < threads.size(); ++i)
        {
            int const priority = realTime ? PRIORITIES[i] : 0;
            threads[i] = std::thread([this, priority] { sleep(priority); });
        }
    }

    /// Wakes and joins them.
    void stop()
    {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            stopped = true;
        }
        condition.notify_all();
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }

  private:
    void sleep(int priority)
    {
        if (priority != 0)
        {
            runRealTime(priority);
        }
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return stopped; });
    }

    std::mutex mutex;
    std::condition_variable condition;
    bool stopped = false;
    std::array<std::thread, 4> threads;
};

} // namespace bench

#endif
