// Every call that the library makes fails in every way, at every place of every scenario.
//
// GSSIP_FAULT replays one case alone: GSSIP_FAULT='start: eventfd#2 EMFILE once' everyFaultTest. Every failure names
// its case in that form. GSSIP_FAULT_TIMES says how often, for what depends on the order of threads.

#include "faultLists.h"
#include "testSize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace
{

using faults::callCounts;
using faults::faultCase;
using faults::outcome;
using faults::scenario;

/// Runs cases, and keeps the account of them.
class account
{
  public:
    outcome run(faultCase const& one)
    {
        outcome result = faults::run(one);
        for (std::string const& problem : result.problems)
        {
            ADD_FAILURE() << "GSSIP_FAULT='" << textOf(one) << "': " << problem;
        }
        if (result.duration_sec > longest_sec)
        {
            longest_sec = result.duration_sec;
            longest = textOf(one);
        }
        ++cases;
        struck += result.struck ? 1 : 0;
        failed += result.problems.empty() ? 0U : 1U;
        return result;
    }

    /// More of the same tells nothing new.
    bool hasSeenEnough() const { return failed >= 10; }

    void print(char const* name, char const* what) const
    {
        std::cout << name << ": " << cases << ' ' << what << ", " << struck << " struck; the longest took "
                  << longest_sec << " s: " << longest << '\n';
    }

    unsigned cases = 0;
    unsigned struck = 0;
    unsigned failed = 0;
    double longest_sec = 0.0;
    std::string longest;
};

bool isReplay()
{
    return std::getenv("GSSIP_FAULT") != nullptr;
}

/// What an undisturbed run makes of each call; the most of several runs, since threads differ.
callCounts callsOf(scenario const& where)
{
    callCounts most{};
    for (int times = 0; times < 3; ++times)
    {
        outcome const undisturbed = faults::run({&where, {}});
        EXPECT_EQ(undisturbed.problems, std::vector<std::string>{}) << where.name << " without any fault";
        for (std::size_t i = 0; i < most.size(); ++i)
        {
            most[i] = std::max(most[i], undisturbed.calls[i]);
        }
    }
    return most;
}

class FaultAtEveryPlace : public testing::TestWithParam<scenario>
{
  protected:
    void SetUp() override
    {
        if (isReplay())
        {
            GTEST_SKIP() << "one case is replayed";
        }
        faults::warmUp(GetParam());
    }

    void runAll(bool (*isWanted)(kit::callKind), char const* what)
    {
        account of;
        for (kit::fault const& one : faults::everyFault(callsOf(GetParam()), isWanted))
        {
            if (!of.hasSeenEnough())
            {
                of.run({&GetParam(), {one}});
            }
        }
        of.print(GetParam().name, what);
    }
};

bool isMemory(kit::callKind kind)
{
    return kind == kit::callKind::allocation;
}

TEST_P(FaultAtEveryPlace, Allocation)
{
    runAll(isMemory, "failing allocations");
}

TEST_P(FaultAtEveryPlace, SystemCall)
{
    runAll([](kit::callKind kind) { return !isMemory(kind); }, "failing system calls");
}

std::uint64_t seedOfPairs()
{
    char const* const asked = std::getenv("GSSIP_FAULT_SEED");
    return asked != nullptr ? std::strtoull(asked, nullptr, 10) : std::random_device()();
}

/// What a first fault leads to is found out by a run: also the calls that only it brings about meet a second one.
TEST_P(FaultAtEveryPlace, Pairs)
{
    std::uint64_t const seed = seedOfPairs();
    std::cout << "GSSIP_FAULT_SEED=" << seed << '\n';
    std::mt19937_64 random(seed);
    callCounts const undisturbed = callsOf(GetParam());
    std::vector<kit::fault> firsts = faults::everyFault(undisturbed, [](kit::callKind) { return true; });
    firsts.erase(std::remove_if(firsts.begin(), firsts.end(), faults::isSlow), firsts.end());
    faults::draw(firsts, bySize<std::size_t>(80, 500, firsts.size()), random);
    account single;
    account pairs;
    for (kit::fault const& first : firsts)
    {
        outcome const alone = single.run({&GetParam(), {first}});
        std::vector<kit::fault> seconds = faults::everySecond(first, alone.calls, undisturbed);
        faults::draw(seconds, bySize<std::size_t>(2, 8, seconds.size()), random);
        for (kit::fault const& second : seconds)
        {
            if (!pairs.hasSeenEnough())
            {
                pairs.run({&GetParam(), {first, second}});
            }
        }
    }
    pairs.print(GetParam().name, "pairs of faults");
}

std::string nameOf(testing::TestParamInfo<scenario> const& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(In, FaultAtEveryPlace, testing::ValuesIn(faults::scenarios()), nameOf);

/// A device that fails again and again while a port is left alone with it.
TEST(FaultThatLasts, IsLoggedTenTimesASecondAtMost)
{
    scenario const& where = *faults::scenarioNamed("leftAlone");
    faults::warmUp(where);
    account of;
    for (kit::callKind const kind : {kit::callKind::deviceRead, kit::callKind::ppoll})
    {
        for (faults::possibility const& each : faults::possibilitiesOf(kind))
        {
            of.run({&where, {{kind, 1, each.what, true}}});
        }
    }
    of.print(where.name, "failures that last");
}

unsigned long timesToReplay()
{
    char const* const asked = std::getenv("GSSIP_FAULT_TIMES");
    return asked != nullptr ? std::strtoul(asked, nullptr, 10) : 1;
}

TEST(FaultReplay, CaseOfTheEnvironment)
{
    if (!isReplay())
    {
        GTEST_SKIP() << "GSSIP_FAULT names no case";
    }
    faultCase const one = faults::parse(std::getenv("GSSIP_FAULT"));
    faults::warmUp(*one.where);
    account of;
    for (unsigned long left = timesToReplay(); left > 0 && !HasFailure(); --left)
    {
        of.run(one);
    }
    of.print(one.where->name, "replays");
    EXPECT_GT(of.struck, 0U) << "the fault has not happened";
}

} // namespace
