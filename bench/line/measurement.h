#ifndef BENCH_MEASUREMENT_H
#define BENCH_MEASUREMENT_H

#include "lineUnderTest.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace bench
{

/// What a measurement may be asked for; each takes what it needs.
struct options
{
    bool realTime = false;
    joint line = joint::relay;
    std::size_t count = 0; ///< messages, or repetitions
    std::size_t bytes = 42;
    std::size_t lag = 0; ///< messages that stay unacknowledged
    std::size_t ports = 1;

    int transmitPriority() const { return realTime ? 51 : 0; }
};

/// Names with units (`_ns`, `_bytes`, `_per_sec`) and what was measured.
using figures = std::map<std::string, double>;

using measurement = std::function<figures(options const&)>;

/// Measurement and contender to what runs them.
using measurements = std::map<std::pair<std::string, std::string>, measurement>;

// One function for each file of measurements.
void addRoundTrips(measurements& all);
void addStreams(measurements& all);
void addManyPorts(measurements& all);
void addPeers(measurements& all);
void addThreads(measurements& all);
void addLateness(measurements& all);

} // namespace bench

#endif
