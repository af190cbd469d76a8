#ifndef UART_STILLNESS_H
#define UART_STILLNESS_H

#include <atomic>
#include <functional>
#include <thread>

namespace uart
{

/// Notices when the whole machine stands still, as an emulated one does when its host is busy: then time has passed in
/// which nothing could be done in time.
class stillness
{
  public:
    stillness();
    ~stillness();
    stillness(stillness const&) = delete;
    stillness& operator=(stillness const&) = delete;

    double longest_sec() const { return longest; }

  private:
    void watch();

    std::atomic<bool> ended{false};
    std::atomic<double> longest{0.0};
    std::thread watcher;
};

/// Runs what has narrow time limits. When the machine has stood still for longer than it may, that says nothing, and it
/// is run again, a few times at most. `run` tells whether all was well; expectations are to be told afterwards.
bool onAMovingMachine(double longestStillness_sec, std::function<bool()> const& run);

} // namespace uart

#endif
