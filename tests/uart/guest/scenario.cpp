#include "scenario.h"

#include <atomic>
#include <cstdio>

namespace uart
{
namespace
{

std::atomic<int> unmet{0};

} // namespace

bool expect(bool isSo, std::string const& expectation)
{
    if (!isSo)
    {
        ++unmet;
        std::printf("    not so: %s\n", expectation.c_str());
        std::fflush(stdout);
    }
    return isSo;
}

void figure(std::string const& name, double value, std::string const& unit)
{
    std::printf("    figure: %s: %.6g %s\n", name.c_str(), value, unit.c_str());
}

void note(std::string const& text)
{
    std::printf("    %s\n", text.c_str());
}

int failures()
{
    return unmet;
}

} // namespace uart
