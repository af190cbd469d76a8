// Every way in which a port is used, in thousands of orders of steps: see portPrograms.cpp.

#include "exploration.h"
#include "portPrograms.h"
#include "testSize.h"

#include <gtest/gtest.h>
#include <ostream>
#include <tuple>
#include <vector>

namespace schedules
{

void PrintTo(portProgram const& program, std::ostream* out)
{
    *out << program.name;
}

void PrintTo(plan const& strategy, std::ostream* out)
{
    *out << shortName(strategy);
}

} // namespace schedules

namespace
{

using namespace schedules;

using combination = std::tuple<portProgram, plan>;

class PortSchedules : public testing::TestWithParam<combination>
{};

std::uint64_t schedulesOfEach()
{
    std::uint64_t const combinations = portPrograms().size() * everyStrategy().size();
    return bySize<std::uint64_t>(10'000, 200'000, 2'000'000) / combinations + 1;
}

TEST_P(PortSchedules, EveryOrderOfSteps_KeepsEveryMessageAndEnds)
{
    auto const& [program, strategy] = GetParam();
    plan first = strategy;
    first.steps = program.steps;
    explore({program.name, first, schedulesOfEach(), program.allow, program.run});
}

TEST_P(PortSchedules, EqualSeeds_GiveEqualSteps)
{
    auto const& [program, strategy] = GetParam();
    for (std::uint64_t seed = 1; seed <= 5; ++seed)
    {
        plan wanted = strategy;
        wanted.seed = seed;
        wanted.steps = program.steps;
        dice chance(seed);
        liberties const allowed = program.allow(chance);
        outcome const once = run(wanted, allowed, program.run);
        outcome const again = run(wanted, allowed, program.run);
        EXPECT_EQ(once.digest, again.digest) << program.name << ", " << wanted.describe();
        EXPECT_GT(once.steps, 50U);
    }
}

INSTANTIATE_TEST_SUITE_P(All, PortSchedules,
                         testing::Combine(testing::ValuesIn(portPrograms()), testing::ValuesIn(everyStrategy())),
                         [](auto const& each) {
                             return std::get<0>(each.param).name + "_" + shortName(std::get<1>(each.param));
                         });

} // namespace
