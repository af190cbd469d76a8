#include "process.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <system_error>
#include <unistd.h>

namespace bench
{
namespace
{

constexpr uid_t NOBODY = 65534;

std::int64_t read_ns(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

void check(int status, char const* what)
{
    if (status != 0)
    {
        throw std::system_error(status, std::generic_category(), what);
    }
}

/// The sum of the numbers behind those names in a file of lines "name: number ...".
std::uint64_t sumOf(std::filesystem::path const& file, std::vector<std::string> const& names)
{
    std::ifstream in(file);
    std::uint64_t sum = 0;
    for (std::string line; std::getline(in, line);)
    {
        std::istringstream words(line);
        std::string name;
        std::uint64_t value = 0;
        if (words >> name >> value && std::find(names.begin(), names.end(), name) != names.end())
        {
            sum += value;
        }
    }
    return sum;
}

} // namespace

std::int64_t now_ns()
{
    return read_ns(CLOCK_MONOTONIC);
}

std::int64_t processorTime_ns()
{
    return read_ns(CLOCK_PROCESS_CPUTIME_ID);
}

void runOn(place end)
{
    // Of the machine: what the calling thread may use has been narrowed down by an earlier call.
    bool const isAlone = sysconf(_SC_NPROCESSORS_ONLN) < 2;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(end == place::nearEnd || isAlone ? 0 : 1, &set);
    check(pthread_setaffinity_np(pthread_self(), sizeof set, &set), "pthread_setaffinity_np");
}

void refuseRealTime()
{
    rlimit const none{0, 0};
    check(setrlimit(RLIMIT_RTPRIO, &none) == 0 ? 0 : errno, "setrlimit");
    if (geteuid() == 0) // for whom the limit does not count
    {
        check(setgroups(0, nullptr) == 0 && setresgid(NOBODY, NOBODY, NOBODY) == 0 &&
                      setresuid(NOBODY, NOBODY, NOBODY) == 0
                  ? 0
                  : errno,
              "setresuid");
    }
}

void runRealTime(int priority)
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    check(pthread_setschedparam(pthread_self(), SCHED_RR, &parameters), "pthread_setschedparam");
}

std::uint64_t contextSwitchesOfOthers()
{
    std::uint64_t sum = 0;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        if (task.path().filename() != std::to_string(gettid()))
        {
            sum += sumOf(task.path() / "status", {"voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"});
        }
    }
    return sum;
}

std::size_t privateBytes()
{
    return sumOf("/proc/self/smaps_rollup", {"Private_Clean:", "Private_Dirty:"}) * 1024;
}

double quantile(std::vector<std::int64_t> samples, double share)
{
    if (samples.empty())
    {
        throw std::logic_error("no samples");
    }
    auto const last = static_cast<double>(samples.size() - 1);
    auto const position = static_cast<std::ptrdiff_t>(std::lround(share * last));
    std::nth_element(samples.begin(), samples.begin() + position, samples.end());
    return static_cast<double>(samples[static_cast<std::size_t>(position)]);
}

} // namespace bench
