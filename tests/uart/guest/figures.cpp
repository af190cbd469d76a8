// What a port costs and how quick it is on this machine. Emulation makes every figure worse than on a real one.

#include "exchange.h"
#include "scenario.h"

namespace uart
{

std::vector<scenario> figureScenarios()
{
    return {};
}

} // namespace uart
