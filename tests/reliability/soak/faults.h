#ifndef SOAK_FAULTS_H
#define SOAK_FAULTS_H

#include "rig.h"

#include <string>
#include <vector>

namespace soak
{

/// Something that happens to the line or to a port while both sides talk.
struct fault
{
    char const* name;
    /// Lets it happen for about so long, and mends it; tells what it may have cost. Both ports are started then.
    effects (*happen)(rig& toSpoil, double length_sec);
};

std::vector<fault> const& allFaults();

} // namespace soak

#endif
