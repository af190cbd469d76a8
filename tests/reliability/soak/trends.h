#ifndef SOAK_TRENDS_H
#define SOAK_TRENDS_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace soak
{

/// What must not grow while a program runs on, sampled at rest.
struct sample
{
    double heap_bytes = 0;
    double resident_bytes = 0;
    double descriptors = 0;
    double threads = 0;
    double processorTime_us = 0; ///< for each message, while there is no fault
};

sample sampleNow(double processorTime_us);

/// Prints how everything went on, and tells what has grown, or nothing. A count may never be above the first sample,
/// which is taken before any fault. Through the rest a line is fitted, from behind the warm-up on, the first `warmUp`
/// samples.
std::string judgeTrends(std::vector<sample> const& samples, std::size_t warmUp, std::ostream& out);

} // namespace soak

#endif
