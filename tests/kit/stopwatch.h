#ifndef KIT_STOPWATCH_H
#define KIT_STOPWATCH_H

#include <chrono>

namespace kit
{

/// Measures from its construction, on the clock that nobody steps.
class stopwatch
{
  public:
    double elapsed_sec() const { return std::chrono::duration<double>(clock::now() - start).count(); }

  private:
    using clock = std::chrono::steady_clock;
    clock::time_point start = clock::now();
};

} // namespace kit

#endif
