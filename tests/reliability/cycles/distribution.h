#ifndef CYCLES_DISTRIBUTION_H
#define CYCLES_DISTRIBUTION_H

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <ostream>
#include <vector>

namespace cycles
{

/// Times, and how they are distributed.
class distribution
{
  public:
    /// Room for all is taken at once, so that the list does not grow while memory is watched.
    explicit distribution(std::size_t most) : times_sec(most) {}

    void add(double time_sec) { times_sec.at(count++) = time_sec; }

    /// Below which so many of a hundred are.
    double percentile_sec(double percent) const
    {
        std::vector<double> sorted(times_sec.begin(), times_sec.begin() + static_cast<std::ptrdiff_t>(count));
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0 : sorted[static_cast<std::size_t>(percent / 100 * static_cast<double>(count - 1))];
    }

    friend std::ostream& operator<<(std::ostream& out, distribution const& shown)
    {
        out << std::fixed << std::setprecision(3);
        return out << "p50 " << shown.percentile_sec(50) * 1e3 << ", p90 " << shown.percentile_sec(90) * 1e3 << ", p99 "
                   << shown.percentile_sec(99) * 1e3 << ", max " << shown.percentile_sec(100) * 1e3 << " ms";
    }

  private:
    std::vector<double> times_sec;
    std::size_t count = 0;
};

} // namespace cycles

#endif
