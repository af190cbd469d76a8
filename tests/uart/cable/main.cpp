// Runs an emulated machine whose serial ports are wired in pairs (0 to 1, 2 to 3), by cables that keep the line's time.
// The arguments are the machine's command line; the ports are added to it. Ends with the machine, with its status.

#include "commands.h"
#include "machine.h"
#include "wire.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <poll.h>
#include <string>
#include <vector>

namespace
{

constexpr unsigned PORTS = 4;

/// Sleeps until a character is due, or something can be read that somebody wants to read.
void sleepUntilNext(std::vector<cable::wire> const& wires, std::vector<pollfd> sockets)
{
    std::int64_t due_ns = cable::NEVER_NS;
    for (cable::wire const& each : wires)
    {
        sockets.push_back({each.awaitedSocket(), POLLIN, 0});
        due_ns = std::min(due_ns, each.due_ns());
    }
    std::int64_t const rest_ns =
        due_ns == cable::NEVER_NS ? 1'000'000'000 : std::max<std::int64_t>(0, due_ns - cable::now_ns());
    timespec const limit{rest_ns / 1'000'000'000, rest_ns % 1'000'000'000};
    ppoll(sockets.data(), sockets.size(), &limit, nullptr);
}

int run(std::vector<std::string> const& command)
{
    std::vector<cable::plug> lines(PORTS);
    cable::plug ordered;
    cable::machine target(command, lines, ordered);
    std::vector<cable::wire> wires;
    for (unsigned port = 0; port < PORTS; ++port)
    {
        wires.emplace_back(lines[port].ours(), lines[port ^ 1U].ours());
    }
    cable::commands orders(ordered.ours(), wires, target);
    while (orders.step())
    {
        target.readMonitor();
        for (cable::wire& each : wires)
        {
            each.step(cable::now_ns());
        }
        sleepUntilNext(wires, {{ordered.ours(), POLLIN, 0}, {target.monitorSocket(), POLLIN, 0}});
    }
    return target.wait();
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return run({argv + 1, argv + argc});
    }
    catch (std::exception const& fault)
    {
        std::fprintf(stderr, "uart-cable: %s\n", fault.what());
        return 1;
    }
}
