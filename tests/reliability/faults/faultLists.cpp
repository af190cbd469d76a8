#include "faultLists.h"

#include "testSize.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace faults
{
namespace
{

unsigned countOf(callCounts const& calls, kit::callKind kind)
{
    return calls[static_cast<std::size_t>(kind)];
}

unsigned placesOf(kit::fault const& one, unsigned calls)
{
    return isSlow(one) ? std::min(calls, bySize(1U, 3U, calls)) : calls;
}

void appendEveryPlace(std::vector<kit::fault>& all, kit::fault one, unsigned calls)
{
    unsigned const places = placesOf(one, calls);
    for (one.n = 1; one.n <= places; ++one.n)
    {
        all.push_back(one);
    }
}

auto placeOf(kit::fault const& one)
{
    return std::tie(one.at, one.n);
}

} // namespace

bool isSlow(kit::fault const& one)
{
    return one.lasts && one.what.value == EAGAIN && one.at == kit::callKind::deviceWrite;
}

std::vector<kit::fault> everyFault(callCounts const& calls, bool (*isWanted)(kit::callKind))
{
    std::vector<kit::fault> all;
    for (std::size_t i = 0; i < calls.size(); ++i)
    {
        auto const kind = static_cast<kit::callKind>(i);
        for (possibility const& each : possibilitiesOf(kind))
        {
            for (bool const lasts : {false, true})
            {
                appendEveryPlace(all, {kind, 1, each.what, lasts}, isWanted(kind) ? calls[i] : 0);
            }
        }
    }
    return all;
}

std::vector<kit::fault> everySecond(kit::fault const& first, callCounts const& underFirst,
                                    callCounts const& undisturbed)
{
    std::vector<kit::fault> all = everyFault(underFirst, [](kit::callKind) { return true; });
    auto const isLeftOut = [&](kit::fault const& second) {
        bool const isNew = second.n > countOf(undisturbed, second.at);
        return isSlow(second) || placeOf(second) == placeOf(first) || (!isNew && placeOf(second) < placeOf(first));
    };
    all.erase(std::remove_if(all.begin(), all.end(), isLeftOut), all.end());
    return all;
}

void draw(std::vector<kit::fault>& list, std::size_t most, std::mt19937_64& random)
{
    if (list.size() > most)
    {
        std::shuffle(list.begin(), list.end(), random);
        list.resize(most);
    }
}

} // namespace faults
