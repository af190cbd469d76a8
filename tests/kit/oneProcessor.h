#ifndef KIT_ONEPROCESSOR_H
#define KIT_ONEPROCESSOR_H

#include <cstddef>
#include <sched.h>

namespace kit
{

/// The processors that the calling thread may use.
inline cpu_set_t permittedProcessors()
{
    cpu_set_t permitted;
    CPU_ZERO(&permitted);
    sched_getaffinity(0, sizeof permitted, &permitted);
    return permitted;
}

/// The first of them alone.
inline cpu_set_t firstProcessor()
{
    cpu_set_t const permitted = permittedProcessors();
    std::size_t first = 0;
    while (!CPU_ISSET(first, &permitted))
    {
        ++first;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(first, &one);
    return one;
}

/// Keeps the calling thread, and the threads that it creates meanwhile, on one processor while it exists.
class onOneProcessor
{
  public:
    onOneProcessor()
    {
        cpu_set_t const one = firstProcessor();
        sched_setaffinity(0, sizeof one, &one);
    }
    ~onOneProcessor() { sched_setaffinity(0, sizeof former, &former); }
    onOneProcessor(onOneProcessor const&) = delete;
    onOneProcessor& operator=(onOneProcessor const&) = delete;

  private:
    cpu_set_t const former = permittedProcessors();
};

} // namespace kit

#endif
