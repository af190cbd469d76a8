#ifndef KIT_PROCESSORTIME_H
#define KIT_PROCESSORTIME_H

#include <ctime>

namespace kit
{

/// Measures what the whole process has worked since its construction. What else the machine does makes no difference.
class processorTime
{
  public:
    double used_sec() const { return now_sec() - start_sec; }

  private:
    static double now_sec()
    {
        timespec now{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }

    double start_sec = now_sec();
};

} // namespace kit

#endif
