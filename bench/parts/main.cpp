// The parts of the library that need no line, each beside the least that does the same work.

#include "timing.h"

#include <future>
#include <malloc.h>
#include <thread>

namespace
{

/// Memory that has been freed stays with the process: giving it back and fetching it again would be measured otherwise.
void keepMemory()
{
    constexpr int PLENTY = 1 << 30;
    mallopt(M_TRIM_THRESHOLD, PLENTY);
    mallopt(M_MMAP_THRESHOLD, PLENTY);
}

/// A second thread, asleep while it exists. A process that has a port has others, and while there is none the C library
/// leaves out what makes memory and locks safe between threads: the floors would be those of another kind of process.
class otherThread
{
  public:
    otherThread() = default;
    ~otherThread()
    {
        end.set_value();
        sleeper.join();
    }
    otherThread(otherThread const&) = delete;
    otherThread& operator=(otherThread const&) = delete;

  private:
    std::promise<void> end;
    std::thread sleeper{[ended = end.get_future()] { ended.wait(); }};
};

} // namespace

int main(int argc, char** argv)
{
    keepMemory();
    otherThread const asleep;
    bench::addFraming();
    bench::addMessages();
    bench::addQueue();
    bench::addTracker();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 2;
    }
    return benchmark::RunSpecifiedBenchmarks() == 0 ? 1 : 0;
}
