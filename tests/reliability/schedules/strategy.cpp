#include "strategy.h"

#include <algorithm>

namespace schedules
{
namespace
{

bool contains(std::vector<unsigned> const& able, unsigned thread)
{
    return std::binary_search(able.begin(), able.end(), thread);
}

/// Goes on with the running thread for a while that differs from schedule to schedule, from not at all to long: short
/// ones find what needs many switches, long ones what needs a thread to stand still while another gets far.
class randomStrategy : public strategy
{
  public:
    explicit randomStrategy(std::uint64_t seed) : chance(seed), stayOf256(STAYS[chance.below(std::size(STAYS))]) {}

    unsigned choose(std::vector<unsigned> const& able, unsigned running) override
    {
        if (chance.below(256) < stayOf256 && contains(able, running))
        {
            return running;
        }
        return able[chance.below(able.size())];
    }

  private:
    static constexpr unsigned STAYS[] = {0, 128, 216, 248};

    dice chance;
    unsigned const stayOf256;
};

/// A schedule's number of steps is known about; the places for changes are drawn among all of them, or among the first
/// half, quarter or eighth.
class priorityStrategy : public strategy
{
  public:
    explicit priorityStrategy(plan const& wanted) : chance(wanted.seed)
    {
        constexpr unsigned HALVINGS = 4;
        std::uint64_t const steps = std::max<std::uint64_t>(wanted.steps >> chance.below(HALVINGS), 1);
        for (unsigned i = 1; i < wanted.depth; ++i)
        {
            changes.insert(chance.next() % steps);
        }
    }

    unsigned choose(std::vector<unsigned> const& able, unsigned running) override
    {
        if (changes.count(step++) != 0)
        {
            priorities[running] = lowest--;
        }
        return *std::max_element(able.begin(), able.end(),
                                 [this](unsigned a, unsigned b) { return priorityOf(a) < priorityOf(b); });
    }

  private:
    std::int64_t priorityOf(unsigned thread)
    {
        auto const found = priorities.find(thread);
        return found != priorities.end() ? found->second
                                         : priorities.emplace(thread, chance.next() >> 2U).first->second;
    }

    dice chance;
    std::set<std::uint64_t> changes;
    std::map<unsigned, std::int64_t> priorities;
    std::int64_t lowest = -1;
    std::uint64_t step = 0;
};

} // namespace

std::string plan::describe() const
{
    std::string const drawn = "seed " + std::to_string(seed);
    return strategy == kind::random ? drawn + ", random" : drawn + ", priorities, depth " + std::to_string(depth);
}

std::unique_ptr<strategy> strategy::make(plan const& wanted)
{
    if (wanted.strategy == plan::kind::random)
    {
        return std::make_unique<randomStrategy>(wanted.seed);
    }
    return std::make_unique<priorityStrategy>(wanted);
}

} // namespace schedules
