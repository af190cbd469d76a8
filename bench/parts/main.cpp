// The parts of the library that need no line, each beside the least that does the same work.

#include "timing.h"

#include <malloc.h>

namespace
{

/// Memory that has been freed stays with the process: giving it back and fetching it again would be measured otherwise.
void keepMemory()
{
    constexpr int PLENTY = 1 << 30;
    mallopt(M_TRIM_THRESHOLD, PLENTY);
    mallopt(M_MMAP_THRESHOLD, PLENTY);
}

} // namespace

int main(int argc, char** argv)
{
    keepMemory();
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
