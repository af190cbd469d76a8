#include "stillness.h"

#include "scenario.h"
#include "stopwatch.h"

#include <algorithm>
#include <chrono>
#include <pthread.h>
#include <sched.h>

namespace uart
{

stillness::stillness() : watcher([this] { watch(); })
{
    sched_param highest{};
    highest.sched_priority = 90; // only what keeps everything else from running, too, is to be noticed
    pthread_setschedparam(watcher.native_handle(), SCHED_FIFO, &highest);
}

stillness::~stillness()
{
    ended = true;
    watcher.join();
}

void stillness::watch()
{
    constexpr double NAP_SEC = 0.02;
    while (!ended)
    {
        kit::stopwatch const nap;
        std::this_thread::sleep_for(std::chrono::duration<double>(NAP_SEC));
        longest = std::max<double>(longest, nap.elapsed_sec() - NAP_SEC);
    }
}

bool onAMovingMachine(double longestStillness_sec, std::function<bool()> const& run)
{
    constexpr int TIMES = 4;
    for (int times = 1;; ++times)
    {
        stillness watch;
        bool const isWell = run();
        if (isWell || watch.longest_sec() <= longestStillness_sec || times == TIMES)
        {
            return isWell;
        }
        note("the machine stood still for " + std::to_string(watch.longest_sec()) + " s: again");
    }
}

} // namespace uart
