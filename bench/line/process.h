#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench
{

/// Makes something that lives until the process ends: its threads may use it at any moment.
template <typename Object, typename... Arguments>
Object& everlasting(Arguments&&... arguments)
{
    return *std::make_unique<Object>(std::forward<Arguments>(arguments)...).release();
}

/// Nanoseconds of the monotonic clock.
std::int64_t now_ns();

/// Processor time that all threads of the process have used.
std::int64_t processorTime_ns();

/// The two ends of a line run on different processors; a thread inherits the place of the one that makes it.
enum class place { nearEnd, farEnd };
void runOn(place end);

/// A thread at one end.
template <typename Body>
std::thread threadOn(place end, Body body)
{
    return std::thread([end, body] {
        runOn(end);
        body();
    });
}

/// Gives up every right to real-time scheduling; threads asked for with it get the default one from now on.
void refuseRealTime();

/// The calling thread runs at SCHED_RR with that priority from now on. Throws `std::system_error`.
void runRealTime(int priority);

/// How often the threads of the process, but for the calling one, have been switched to or away from.
std::uint64_t contextSwitchesOfOthers();

/// Bytes of memory that belong to this process alone.
std::size_t privateBytes();

/// The value that the given share (0 to 1) of the samples does not exceed.
double quantile(std::vector<std::int64_t> samples, double share);

} // namespace bench

#endif
