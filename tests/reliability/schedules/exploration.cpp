#include "exploration.h"

#include "testSize.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <iostream>
#include <sys/time.h>
#include <unistd.h>

namespace schedules
{
namespace
{

constexpr int LONGEST_STEP_SEC = 10; // of processor time; a schedule takes milliseconds
constexpr std::size_t SIGNAL_STACK_BYTES = 65536;
constexpr std::array<int, 5> DEADLY{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

exploration const* underWay = nullptr;
plan current;

std::string howToReplay(exploration const& which, plan const& schedule)
{
    testing::TestInfo const* const test = testing::UnitTest::GetInstance()->current_test_info();
    std::string const filter =
        test == nullptr ? "" : std::string(" --gtest_filter=") + test->test_suite_name() + '.' + test->name();
    return which.name + ", " + schedule.describe() + "\nReplay: GSSIP_SCHEDULE_SEED=" + std::to_string(schedule.seed) +
           ' ' + testing::internal::GetArgvs().front() + filter + '\n';
}

/// The process ends; what it was doing is said before.
void tellAndDie(int signal)
{
    for (int const deadly : DEADLY)
    {
        std::signal(deadly, SIG_DFL);
    }
    std::string text = signal == SIGVTALRM ? "a thread makes no step: it spins" : "signal " + std::to_string(signal);
    if (underWay != nullptr)
    {
        text = "Fault: " + text + "\nin " + howToReplay(*underWay, current);
    }
    if (scheduler const* const schedule = scheduler::current())
    {
        text += schedule->story();
    }
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, text.data(), text.size());
    std::abort();
}

/// A crash or an endless loop ends the process: then the schedule must have been named.
void watchForDeath()
{
    static bool const isSet = [] {
        static std::array<unsigned char, SIGNAL_STACK_BYTES> memory;
        stack_t stack{};
        stack.ss_sp = memory.data();
        stack.ss_size = memory.size();
        sigaltstack(&stack, nullptr);
        struct sigaction action = {};
        action.sa_handler = tellAndDie;
        action.sa_flags = SA_ONSTACK;
        for (int const deadly : DEADLY)
        {
            sigaction(deadly, &action, nullptr);
        }
        sigaction(SIGVTALRM, &action, nullptr);
        return true;
    }();
    static_cast<void>(isSet);
}

void limitProcessorTime(int seconds)
{
    itimerval limit{};
    limit.it_value.tv_sec = seconds;
    setitimer(ITIMER_VIRTUAL, &limit, nullptr);
}

outcome runOne(exploration const& wanted, plan const& schedule, bool alwaysTell)
{
    constexpr std::uint64_t LIBERTY_STREAM = 0x11BE47135U;
    watchForDeath();
    underWay = &wanted;
    current = schedule;
    dice chance(schedule.seed ^ LIBERTY_STREAM);
    liberties const allowed = wanted.allow ? wanted.allow(chance) : liberties{};
    limitProcessorTime(LONGEST_STEP_SEC);
    outcome result = run(schedule, allowed, wanted.program, alwaysTell);
    limitProcessorTime(0);
    underWay = nullptr;
    return result;
}

std::optional<std::uint64_t> numberFrom(char const* variable)
{
    char const* const text = std::getenv(variable);
    return text == nullptr ? std::nullopt : std::optional<std::uint64_t>(std::strtoull(text, nullptr, 10));
}

/// The same schedules for every commit; others every night.
std::uint64_t firstSeed()
{
    constexpr std::uint64_t SECONDS_OF_DAY = 86400;
    constexpr std::uint64_t SEEDS_OF_DAY = 1'000'000'000;
    auto const today = static_cast<std::uint64_t>(std::time(nullptr)) / SECONDS_OF_DAY * SEEDS_OF_DAY;
    return numberFrom("GSSIP_SCHEDULE_FIRST").value_or(bySize<std::uint64_t>(1, today, today));
}

void replay(exploration const& wanted, std::uint64_t seed)
{
    plan schedule = wanted.first;
    schedule.seed = seed;
    outcome const result = runOne(wanted, schedule, true);
    std::cout << result.story << wanted.name << ", " << schedule.describe() << ": "
              << (result.fault.empty() ? "no fault" : result.fault) << '\n';
    EXPECT_EQ(result.fault, "");
}

} // namespace

std::optional<finding> findFault(exploration const& wanted)
{
    plan schedule = wanted.first;
    for (std::uint64_t i = 0; i < wanted.count; ++i)
    {
        schedule.seed = wanted.first.seed + i;
        outcome const result = runOne(wanted, schedule, false);
        if (!result.fault.empty())
        {
            return finding{schedule, result, i + 1};
        }
    }
    return std::nullopt;
}

void explore(exploration const& wanted)
{
    if (std::optional<std::uint64_t> const asked = numberFrom("GSSIP_SCHEDULE_SEED"))
    {
        replay(wanted, *asked);
        return;
    }
    exploration shifted = wanted;
    shifted.first.seed += firstSeed();
    auto const start = std::chrono::steady_clock::now();
    std::optional<finding> const found = findFault(shifted);
    double const took_sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (found)
    {
        ADD_FAILURE() << "Fault: " << found->result.fault << "\nin " << howToReplay(wanted, found->schedule)
                      << found->result.story << "found by schedule " << found->tried << " of " << wanted.count;
        return;
    }
    std::printf("%llu schedules from seed %llu on in %.2f s\n", static_cast<unsigned long long>(wanted.count),
                static_cast<unsigned long long>(shifted.first.seed), took_sec);
}

std::vector<plan> everyStrategy()
{
    return {{0, plan::kind::random, 0},
            {0, plan::kind::priorities, 3},
            {0, plan::kind::priorities, 4},
            {0, plan::kind::priorities, 5}};
}

std::string shortName(plan const& strategy)
{
    return strategy.strategy == plan::kind::random ? "random" : "depth" + std::to_string(strategy.depth);
}

} // namespace schedules
