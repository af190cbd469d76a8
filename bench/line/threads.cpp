// What a port costs that does nothing: context switches, start and stop, memory.

#include "ends.h"
#include "sleepingThreads.h"

#include <chrono>
#include <memory>
#include <thread>

namespace bench
{
namespace
{

constexpr std::chrono::milliseconds SETTLING(200);
constexpr std::chrono::seconds IDLE(1);

figures idle(options const& asked)
{
    makePorts(asked);
    std::this_thread::sleep_for(SETTLING);
    std::uint64_t const before = contextSwitchesOfOthers();
    std::this_thread::sleep_for(IDLE);
    return {{"switches_per_sec", static_cast<double>(contextSwitchesOfOthers() - before)}};
}

/// The median of each, over so many times of both.
template <typename Start, typename Stop>
figures startAndStop(std::size_t count, Start const& start, Stop const& stop)
{
    std::vector<std::int64_t> starts_ns;
    std::vector<std::int64_t> stops_ns;
    for (std::size_t i = 0; i < count; ++i)
    {
        std::int64_t const begin_ns = now_ns();
        start();
        starts_ns.push_back(now_ns() - begin_ns);
        std::this_thread::sleep_for(std::chrono::milliseconds(2)); // all threads sleep by then
        std::int64_t const end_ns = now_ns();
        stop();
        stops_ns.push_back(now_ns() - end_ns);
    }
    return {{"start_ns", quantile(starts_ns, 0.5)}, {"stop_ns", quantile(stops_ns, 0.5)}};
}

figures startAndStopOfPort(options const& asked)
{
    lineUnderTest const line(asked.line);
    portEnd port(line.nameAt(place::farEnd));
    return startAndStop(
        asked.count, [&] { port.start(); }, [&] { port.stop(); });
}

figures startAndStopOfThreads(options const& asked)
{
    std::unique_ptr<sleepingThreads> threads;
    return startAndStop(
        asked.count, [&] { threads = std::make_unique<sleepingThreads>(asked.realTime); }, [&] { threads->stop(); });
}

/// What each further port, or group of threads, adds: the first one brings the pages that all share.
template <typename MakeOne>
figures memory(options const& asked, MakeOne const& makeOne)
{
    makeOne(0);
    std::this_thread::sleep_for(SETTLING);
    std::size_t const before = privateBytes();
    for (std::size_t i = 1; i <= asked.ports; ++i)
    {
        makeOne(i);
    }
    std::this_thread::sleep_for(SETTLING);
    auto const growth = static_cast<double>(privateBytes() - before);
    return {{"port_bytes", growth / static_cast<double>(asked.ports)}};
}

figures memoryOfPorts(options const& asked)
{
    std::vector<lineUnderTest const*> lines;
    for (std::size_t i = 0; i <= asked.ports; ++i)
    {
        lines.push_back(&everlasting<lineUnderTest>(joint::hook));
    }
    return memory(asked, [&](std::size_t i) { startedPort<portEnd>(lines[i]->nameAt(place::farEnd)); });
}

figures memoryOfThreads(options const& asked)
{
    return memory(asked, [&](std::size_t) { everlasting<sleepingThreads>(asked.realTime); });
}

} // namespace

void addThreads(measurements& all)
{
    all[{"idle", "port"}] = idle;
    all[{"startAndStop", "port"}] = startAndStopOfPort;
    all[{"startAndStop", "threads"}] = startAndStopOfThreads;
    all[{"memory", "port"}] = memoryOfPorts;
    all[{"memory", "threads"}] = memoryOfThreads;
}

} // namespace bench
