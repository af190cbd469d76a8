#ifndef FAULTS_DOCUMENTEDERRORS_H
#define FAULTS_DOCUMENTEDERRORS_H

#include "faultPlan.h"

#include <vector>

namespace faults
{

/// What can become of a call, and whether that may cost anything: a start, a message, a setting.
struct possibility
{
    kit::effect what;
    bool costsOnce = true;
    bool costsForEver = true;
};

/// All that the manual pages tell of a call of that kind and that a caller without a fault of its own can meet.
std::vector<possibility> const& possibilitiesOf(kit::callKind kind);

} // namespace faults

#endif
