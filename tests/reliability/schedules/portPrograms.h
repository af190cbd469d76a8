#ifndef SCHEDULES_PORTPROGRAMS_H
#define SCHEDULES_PORTPROGRAMS_H

#include "scheduler.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace schedules
{

/// What applications do with ports, in small: a few threads, a few operations each, drawn by chance.
struct portProgram
{
    std::string name;
    std::uint64_t steps; ///< that one takes, about
    std::function<liberties(dice&)> allow;
    std::function<void(scheduler&)> run;
};

std::vector<portProgram> const& portPrograms();

} // namespace schedules

#endif
