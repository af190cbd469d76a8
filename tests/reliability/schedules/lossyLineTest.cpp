#include "exploration.h"
#include "lossyExchange.h"
#include "testSize.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <iostream>

namespace
{

using namespace schedules;

constexpr std::uint64_t SEEDS_OF_A_STRATEGY = 100'000'000;

liberties drawLiberties(dice& chance)
{
    liberties allowed;
    allowed.idleWakes = static_cast<unsigned>(chance.below(4));
    allowed.shortTransfers = static_cast<unsigned>(chance.below(30));
    allowed.realTimeRefused = chance.onceIn(2);
    allowed.clocksAreSteps = chance.onceIn(2);
    return allowed;
}

void print(lossyTally const& tally)
{
    std::cout << tally.framesWritten << " frames written, " << tally.secondCopies << " of them by the clock; "
              << tally.bytesDamaged << " of " << tally.bytesArrived << " bytes damaged; " << tally.headersRejected
              << " headers and " << tally.refused << " data checksums wrong, " << tally.unnoticed
              << " damaged frames right all the same; " << tally.delivered
              << " messages delivered; of the undamaged frames behind damage " << tally.foundAgain
              << " had to be received, " << tally.excused << " not\n";
}

class LossyLine : public testing::TestWithParam<plan>
{};

TEST_P(LossyLine, PortsAndModel_Agree)
{
    lossyTally tally;
    std::uint64_t const count = bySize<std::uint64_t>(1000, 100'000, 1'000'000) / everyStrategy().size();
    plan first = GetParam();
    first.seed = first.depth * SEEDS_OF_A_STRATEGY; // other traffic for each strategy
    explore({"lossy line", first, count, drawLiberties,
             [&tally](scheduler& schedule) { exchangeOverLossyLine(schedule, tally); }});
    print(tally);
}

INSTANTIATE_TEST_SUITE_P(Strategies, LossyLine, testing::ValuesIn(everyStrategy()),
                         [](auto const& strategy) { return shortName(strategy.param); });

} // namespace
