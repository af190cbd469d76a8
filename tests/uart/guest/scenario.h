#ifndef UART_SCENARIO_H
#define UART_SCENARIO_H

#include <functional>
#include <string>
#include <vector>

/// \file
/// What a scenario is, and how it tells what it has found. Each runs in a process of its own.

namespace uart
{

/// Scenarios of one lane follow each other. The two pairs' lanes run side by side, the others behind them.
enum class lane { firstPair, secondPair, usb, alone };

struct scenario
{
    std::string name;
    lane where;
    int limit_sec;
    std::function<void()> run;
};

/// Says what was expected when it is not so; the scenario fails then, and goes on.
bool expect(bool isSo, std::string const& expectation);

/// The same for two values that ought to be equal.
template <typename Value>
bool expectEqual(Value const& actual, Value const& expected, std::string const& what)
{
    return expect(actual == expected,
                  what + " is " + std::to_string(expected) + ", but it is " + std::to_string(actual));
}

/// A measured figure for the table at the end.
void figure(std::string const& name, double value, std::string const& unit);

/// Says something worth knowing.
void note(std::string const& text);

/// How many expectations were not met.
int failures();

// The groups, each in its own file.
std::vector<scenario> bootScenarios();
std::vector<scenario> exchangeScenarios();
std::vector<scenario> deviceScenarios();
std::vector<scenario> trafficScenarios();
std::vector<scenario> lifeScenarios();
std::vector<scenario> clockScenarios();
std::vector<scenario> usbScenarios();
std::vector<scenario> figureScenarios();

} // namespace uart

#endif
