#ifndef BENCH_TIMING_H
#define BENCH_TIMING_H

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace bench
{

/// Seconds that one call takes.
template <typename Work>
double secondsOf(Work const& work)
{
    auto const start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double medianOf(std::vector<double>& samples)
{
    auto const middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

/// Registers `subject/contender/size`. `make(size)` gives a thing with `prepare()` and `work()`, called in turn; only
/// the second is timed. The median is told besides the mean: whatever else the machine does hits single calls.
template <typename Make>
void add(std::string const& subject, std::string const& contender, std::size_t size, Make const& make)
{
    std::string const name = subject + '/' + contender + '/' + std::to_string(size);
    benchmark::RegisterBenchmark(name.c_str(), [make, size](benchmark::State& state) {
        auto const subjectUnderTest = make(size);
        std::vector<double> times_sec;
        for (auto _ : state)
        {
            subjectUnderTest->prepare();
            times_sec.push_back(secondsOf([&] { subjectUnderTest->work(); }));
            state.SetIterationTime(times_sec.back());
        }
        state.counters["median_ns"] = 1e9 * medianOf(times_sec);
    })->UseManualTime();
}

// One function for each file of benchmarks.
void addFraming();
void addMessages();
void addQueue();
void addTracker();

} // namespace bench

#endif
