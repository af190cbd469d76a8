#ifndef FAULTS_FAULTLISTS_H
#define FAULTS_FAULTLISTS_H

#include "faultCase.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace faults
{

/// How often the library makes each call, by kind.
using callCounts = std::array<unsigned, kit::CALL_KINDS>;

/// Every fault at every place that such a run has, of the kinds wanted. A line that is blocked for ever takes seconds
/// by design: how many places get that depends on the size of the tests.
std::vector<kit::fault> everyFault(callCounts const& calls, bool (*isWanted)(kit::callKind));

/// Takes seconds by design.
bool isSlow(kit::fault const& one);

/// What can be stacked on a fault under which the calls were counted: every fault at another place, but each pair of
/// places that an undisturbed run has too in one order alone.
std::vector<kit::fault> everySecond(kit::fault const& first, callCounts const& underFirst,
                                    callCounts const& undisturbed);

/// Some of a list, drawn; all of it when it is no longer.
void draw(std::vector<kit::fault>& list, std::size_t most, std::mt19937_64& random);

} // namespace faults

#endif
