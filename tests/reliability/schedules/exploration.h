#ifndef SCHEDULES_EXPLORATION_H
#define SCHEDULES_EXPLORATION_H

#include "scheduler.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// \file
/// Runs many schedules of one program.
///
///     explore({"name of the program", {0, plan::kind::priorities, 3}, 1000, drawLiberties, program});
///
/// runs 1000 of them, with seeds that follow each other, and fails the running test at the first fault: with what went
/// wrong, the schedule's last steps, and how to see them again. The environment variable GSSIP_SCHEDULE_SEED names one
/// seed: then that schedule alone runs, and its steps are printed in any case. GSSIP_SCHEDULE_FIRST moves the first
/// seed.

namespace schedules
{

struct exploration
{
    std::string name;
    plan first; ///< strategy and depth of all schedules, and the first one's seed
    std::uint64_t count = 0;
    std::function<liberties(dice&)> allow; ///< empty: none
    std::function<void(scheduler&)> program;
};

/// One that has a fault.
struct finding
{
    plan schedule;
    outcome result;
    std::uint64_t tried = 0; ///< schedules, this one included
};

/// The first fault, and nothing when there is none.
std::optional<finding> findFault(exploration const& wanted);

/// The same for a test: says what it has found, and fails when it has found something.
void explore(exploration const& wanted);

/// Every strategy that is worth while: random, and priorities of the depths 3 to 5.
std::vector<plan> everyStrategy();
/// As part of a test's name: "random", "depth3".
std::string shortName(plan const& strategy);

} // namespace schedules

#endif
