#include "trends.h"

#include "entriesIn.h"
#include "linearFit.h"
#include "memoryInUse.h"
#include "sanitized.h"

#include <iomanip>

namespace soak
{
namespace
{

// How much may be added over the whole run. What scatters from sample to sample by accident (three standard errors of
// the slope) is taken off before.
constexpr double MOST_HEAP_BYTES = 64.0 * 1024;
constexpr double MOST_RESIDENT_BYTES = 2.0 * 1024 * 1024;
constexpr double MOST_OF_PROCESSOR_TIME = 0.2; // of its mean

struct trend
{
    char const* name;
    char const* unit;
    double sample::*value;
    double unitSize;
    double most;             ///< growth over the run, in the value's own unit
    bool isShareOfMean;      ///< the bound is a share of the mean instead
    bool isWithoutSanitizer; ///< a sanitizer's own needs drown it
};

constexpr trend TRENDS[] = {
    {"heap", "KiB", &sample::heap_bytes, 1024, MOST_HEAP_BYTES, false, true},
    {"resident memory", "KiB", &sample::resident_bytes, 1024, MOST_RESIDENT_BYTES, false, true},
    {"descriptors", "", &sample::descriptors, 1, 0, false, false},
    {"threads", "", &sample::threads, 1, 0, false, false},
    {"processor time a message", "us", &sample::processorTime_us, 1, MOST_OF_PROCESSOR_TIME, true, true},
};

std::vector<double> valuesOf(std::vector<sample> const& samples, std::size_t warmUp, double sample::*value)
{
    std::vector<double> values;
    for (std::size_t each = warmUp; each < samples.size(); ++each)
    {
        values.push_back(samples[each].*value);
    }
    return values;
}

} // namespace

sample sampleNow(double processorTime_us)
{
    sample now;
    now.heap_bytes = static_cast<double>(kit::heapInUse_bytes());
    now.resident_bytes = static_cast<double>(kit::residentMemory_bytes());
    now.descriptors = static_cast<double>(kit::descriptorsOfProcess());
    now.threads = static_cast<double>(kit::threadsOfProcess());
    now.processorTime_us = processorTime_us;
    return now;
}

std::string judgeTrends(std::vector<sample> const& samples, std::size_t warmUp, std::ostream& out)
{
    std::string fault;
    out << std::fixed << std::setprecision(2) << '\n'
        << std::left << std::setw(28) << "trend" << std::right << std::setw(12) << "mean" << std::setw(12) << "growth"
        << std::setw(12) << "certain" << std::setw(12) << "at most" << '\n';
    for (trend const& each : TRENDS)
    {
        kit::linearFit const fit = kit::fitOf(valuesOf(samples, warmUp, each.value));
        double const most = each.isShareOfMean ? each.most * fit.mean : each.most;
        bool const isJudged = !(kit::isSanitized && each.isWithoutSanitizer);
        bool const grows = isJudged && fit.certainGrowth() > most + 1e-6;
        out << std::left << std::setw(24) << each.name << std::setw(4) << each.unit << std::right << std::setw(12)
            << fit.mean / each.unitSize << std::setw(12) << fit.growth() / each.unitSize << std::setw(12)
            << fit.certainGrowth() / each.unitSize << std::setw(12) << most / each.unitSize
            << (isJudged ? (grows ? "  GROWS" : "") : "  not judged") << '\n';
        fault += grows ? std::string(each.name) + " grows; " : std::string();
    }
    return fault;
}

} // namespace soak
