#include "rig.h"

#include "processState.h"
#include "waitUntil.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>
#include <vector>

namespace soak
{
namespace
{

constexpr std::chrono::seconds PATIENCE{60};

bool everyOtherThreadSleeps()
{
    std::vector<kit::threadState> const threads = kit::processThreads();
    return std::all_of(threads.begin(), threads.end(), [](kit::threadState const& each) {
        return each.id == ::gettid() || kit::waitUntilAsleep(each.id);
    });
}

} // namespace

rig::rig(settings const& chosen) : line(chosen.seed), random(chosen.seed)
{
    stations[0] = std::make_unique<station>(line.device(0), chosen, chosen.seed + 3);
    stations[1] = std::make_unique<station>(line.device(1), chosen, chosen.seed + 4);
}

bool rig::start()
{
    return stations[0]->start() && stations[1]->start();
}

void rig::talk()
{
    stations[0]->talk();
    stations[1]->talk();
}

void rig::fallSilent()
{
    stations[0]->fallSilent();
    stations[1]->fallSilent();
}

bool rig::isAtRest()
{
    return stations[0]->isAtRest() && stations[1]->isAtRest() && line.isQuiet();
}

/// Between queue and line, and between line and application, a message is seen nowhere. A thread that has one in its
/// hands may wait for a processor for longer than the rest lasts; so each has to be seen asleep besides.
bool rig::staysAtRest()
{
    constexpr std::chrono::milliseconds LONG_ENOUGH{200};
    auto const progress = [this] { return line.bytesTaken() + stations[0]->delivered() + stations[1]->delivered(); };
    std::uint64_t const before = progress();
    auto const moves = [&] { return progress() != before || !isAtRest(); };
    return !moves() && !kit::waitUntil(moves, LONG_ENOUGH) && everyOtherThreadSleeps() && !moves();
}

bool rig::awaitRest()
{
    return kit::waitUntil([this] { return staysAtRest() && !line.completeHalfFrames(); }, PATIENCE);
}

/// What comes late is not lost, and must not count among what comes next.
void rig::awaitDelivery()
{
    for (std::size_t side = 0; side < 2; ++side)
    {
        kit::waitUntil([&] { return at(side).delivered() >= line.deliverable(1 - side); });
    }
}

std::string rig::settle(effects const& allowed)
{
    std::string fault = awaitRest() ? "" : "the ports do not come to rest; ";
    awaitDelivery();
    std::array<station::books, 2> const ends{at(0).takeBooks(), at(1).takeBooks()};
    std::array<spoiledWay::books, 2> const ways{line.takeBooks(0), line.takeBooks(1)};
    for (std::size_t side = 0; side < 2; ++side)
    {
        std::string const wrong =
            soak::settle(side, allowed, ways[side], ends[side].given, ends[1 - side], totals[side]);
        fault += wrong.empty() ? "" : "side " + std::to_string(side) + ": " + wrong;
    }
    return fault;
}

} // namespace soak
