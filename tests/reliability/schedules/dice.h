#ifndef SCHEDULES_DICE_H
#define SCHEDULES_DICE_H

#include <cstddef>
#include <cstdint>

namespace schedules
{

/// Numbers that depend on the seed alone, on every machine and with every compiler.
class dice
{
  public:
    explicit dice(std::uint64_t seed) : state(seed) {}

    std::uint64_t next()
    {
        state += 0x9E3779B97F4A7C15U;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
        return mixed ^ (mixed >> 31U);
    }

    /// 0 to `bound` - 1; `bound` must not be 0.
    std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() % bound); }

    std::int64_t between(std::int64_t least, std::int64_t most)
    {
        return least + static_cast<std::int64_t>(next() % (static_cast<std::uint64_t>(most - least) + 1));
    }

    /// True once in `times`, on average; never when that is 0.
    bool onceIn(std::uint64_t times) { return times != 0 && next() % times == 0; }

  private:
    std::uint64_t state;
};

} // namespace schedules

#endif
