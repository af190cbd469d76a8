#ifndef BENCH_ROUNDTRIP_H
#define BENCH_ROUNDTRIP_H

#include "ends.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench
{

/// Not timed.
constexpr std::size_t WARM_UP = 100;

/// A message that takes so long has waited for a time-out.
constexpr std::int64_t STALL_NS = 50'000'000;

inline figures figuresOf(std::vector<std::int64_t> const& times_ns, std::int64_t processor_ns)
{
    auto const stalls = std::count_if(times_ns.begin(), times_ns.end(), [](std::int64_t t) { return t > STALL_NS; });
    auto const count = static_cast<double>(times_ns.size());
    return {{"p50_ns", quantile(times_ns, 0.5)},
            {"p99_ns", quantile(times_ns, 0.99)},
            {"stalls_percent", 100.0 * static_cast<double>(stalls) / count},
            {"cpu_ns", static_cast<double>(processor_ns) / count}};
}

/// Calls `once` until it has warmed up, and then `count` times with the clock running.
template <typename Once>
figures timeEach(std::size_t count, Once const& once)
{
    for (std::size_t i = 0; i < WARM_UP; ++i)
    {
        once();
    }
    std::vector<std::int64_t> times_ns;
    times_ns.reserve(count);
    std::int64_t const processorBefore_ns = processorTime_ns();
    for (std::size_t i = 0; i < count; ++i)
    {
        times_ns.push_back(once());
    }
    return figuresOf(times_ns, processorTime_ns() - processorBefore_ns);
}

template <typename End>
figures roundTrip(pairOf<End> ends, typename End::message const& message, std::size_t count)
{
    threadOn(place::farEnd, [ends] {
        forEachReceived(ends.far, [&](typename End::message const& received) { ends.far.send(received); });
    }).detach();
    typename End::message received;
    return timeEach(count, [&] {
        std::int64_t const start_ns = now_ns();
        ends.near.send(message);
        ends.near.receive(received);
        return now_ns() - start_ns;
    });
}

} // namespace bench

#endif
