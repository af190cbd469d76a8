#ifndef FAULTS_FAULTCASE_H
#define FAULTS_FAULTCASE_H

#include "documentedErrors.h"
#include "scenarios.h"

#include <array>
#include <string>
#include <vector>

namespace faults
{

/// A scenario and what goes wrong in it: nothing, one fault, or two.
///
/// Its text replays it, for example "start: eventfd#2 EMFILE once, close#1 EIO once".
struct faultCase
{
    scenario const* where = nullptr;
    std::vector<kit::fault> faults;
};

std::string textOf(faultCase const& one);

/// Throws `std::invalid_argument` for a text that no case has.
faultCase parse(std::string const& text);

struct outcome
{
    std::vector<std::string> problems;
    std::array<unsigned, kit::CALL_KINDS> calls{}; ///< that the library made, by kind
    bool struck = true;                            ///< every fault has happened
    double duration_sec = 0.0;
};

/// Lets the C++ library, or a sanitizer, make what it makes once and keeps.
void warmUp(scenario const& where);

/// Runs the scenario under the faults, lets the port recover without them, and judges both.
outcome run(faultCase const& one);

} // namespace faults

#endif
