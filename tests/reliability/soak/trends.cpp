#include "trends.h"

#include "entriesIn.h"
#include "linearFit.h"
#include "memoryInUse.h"
#include "sanitized.h"

#include <algorithm>
#include <iomanip>

namespace soak
{
namespace
{

// How much may be added over the run. What scatters from sample to sample by accident (three standard errors of
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
    enum { COUNT, BYTES, SHARE_OF_MEAN } kind;
    double most;             ///< growth over the run
    bool isWithoutSanitizer; ///< a sanitizer's own needs drown it
};

constexpr trend TRENDS[] = {
    {"heap", "KiB", &sample::heap_bytes, 1024, trend::BYTES, MOST_HEAP_BYTES, true},
    {"resident memory", "KiB", &sample::resident_bytes, 1024, trend::BYTES, MOST_RESIDENT_BYTES, true},
    {"descriptors", "", &sample::descriptors, 1, trend::COUNT, 0, false},
    {"threads", "", &sample::threads, 1, trend::COUNT, 0, false},
    {"processor time a message", "us", &sample::processorTime_us, 1, trend::SHARE_OF_MEAN, MOST_OF_PROCESSOR_TIME,
     true},
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

struct finding
{
    double mean;
    double growth;
    double certain; ///< of the growth
    double most;
};

finding findingOf(trend const& each, std::vector<sample> const& samples, std::size_t warmUp)
{
    std::vector<double> const values = valuesOf(samples, each.kind == trend::COUNT ? 0 : warmUp, each.value);
    kit::linearFit const fit = kit::fitOf(values);
    if (each.kind == trend::COUNT)
    {
        double const above = *std::max_element(values.begin(), values.end()) - values.front();
        return {fit.mean, above, above, each.most};
    }
    double const most = each.kind == trend::SHARE_OF_MEAN ? each.most * fit.mean : each.most;
    return {fit.mean, fit.growth(), fit.certainGrowth(), most};
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
        << std::left << std::setw(30) << "trend" << std::right << std::setw(12) << "mean" << std::setw(12) << "growth"
        << std::setw(12) << "certain" << std::setw(12) << "at most" << '\n';
    for (trend const& each : TRENDS)
    {
        finding const found = findingOf(each, samples, warmUp);
        bool const isJudged = !(kit::isSanitized && each.isWithoutSanitizer);
        bool const grows = isJudged && found.certain > found.most;
        out << std::left << std::setw(26) << each.name << std::setw(4) << each.unit << std::right << std::setw(12)
            << found.mean / each.unitSize << std::setw(12) << found.growth / each.unitSize << std::setw(12)
            << found.certain / each.unitSize << std::setw(12) << found.most / each.unitSize
            << (isJudged ? (grows ? "  GROWS" : "") : "  not judged") << '\n';
        fault += grows ? std::string(each.name) + " grows; " : std::string();
    }
    return fault;
}

} // namespace soak
