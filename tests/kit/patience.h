#ifndef KIT_PATIENCE_H
#define KIT_PATIENCE_H

#include <functional>
#include <string>

namespace kit
{

/// Runs a check that a machine which puts the test aside for seconds can spoil, again and again until it finds nothing
/// wrong, a few times at most. What is wrong every time is told.
inline std::string whatIsWrongEveryTime(std::function<std::string()> const& check)
{
    constexpr int TIMES = 4;
    std::string wrong = check();
    for (int times = 1; times < TIMES && !wrong.empty(); ++times)
    {
        wrong = check();
    }
    return wrong;
}

/// Says what was expected when it is not so.
inline std::string unless(bool isSo, char const* expectation)
{
    return isSo ? std::string{} : std::string("not so: ") + expectation + "; ";
}

} // namespace kit

#endif
