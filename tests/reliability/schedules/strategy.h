#ifndef SCHEDULES_STRATEGY_H
#define SCHEDULES_STRATEGY_H

#include "dice.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace schedules
{

/// Which schedule of a program is meant. Two runs with equal plans are equal step by step.
struct plan
{
    enum class kind {
        random,    ///< any thread may be next after every step
        priorities ///< probabilistic concurrency testing: the thread of the highest priority runs, and at `depth` - 1
                   ///< places the running one falls behind all others
    };

    std::uint64_t seed = 0;
    kind strategy = kind::random;
    unsigned depth = 3;         ///< of `priorities`; how many orders between steps a fault may need to show
    std::uint64_t steps = 4096; ///< of `priorities`; about how many the program takes, rather too many than too few

    std::string describe() const;
};

/// Chooses who takes the next step.
class strategy
{
  public:
    virtual ~strategy() = default;

    /// One of `able`, which holds numbers of threads in rising order and is not empty.
    virtual unsigned choose(std::vector<unsigned> const& able, unsigned running) = 0;

    static std::unique_ptr<strategy> make(plan const& wanted);
};

} // namespace schedules

#endif
