#ifndef BENCH_TIMING_H
#define BENCH_TIMING_H

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace bench
{

/// Nanoseconds of the monotonic clock for one call.
template <typename Work>
double secondsOf(Work const& work)
{
    auto const start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Registers `subject/contender/size`. `make(size)` gives a thing with `prepare()` and `work()`, called in turn; only
/// the second is timed.
template <typename Make>
void add(std::string const& subject, std::string const& contender, std::size_t size, Make const& make)
{
    std::string const name = subject + '/' + contender + '/' + std::to_string(size);
    benchmark::RegisterBenchmark(name.c_str(), [make, size](benchmark::State& state) {
        auto const subjectUnderTest = make(size);
        for (auto _ : state)
        {
            subjectUnderTest->prepare();
            state.SetIterationTime(secondsOf([&] { subjectUnderTest->work(); }));
        }
    })->UseManualTime();
}

// One function for each file of benchmarks.
void addFraming();
void addMessages();
void addQueue();
void addTracker();

} // namespace bench

#endif
