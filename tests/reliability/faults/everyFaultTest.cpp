// Every call that the library makes fails in every way, at every place of every scenario.
//
// GSSIP_FAULT replays one case alone: GSSIP_FAULT='start: eventfd#2 EMFILE once' everyFaultTest. Every failure names
// its case in that form.

#include "faultCase.h"
#include "testSize.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace
{

using faults::faultCase;
using faults::outcome;
using faults::possibility;
using faults::scenario;

/// Runs cases, and keeps the account of them.
class account
{
  public:
    void run(faultCase const& one)
    {
        outcome const result = faults::run(one);
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
    }

    void print(char const* name, char const* what) const
    {
        std::cout << name << ": " << cases << ' ' << what << ", " << struck << " struck; the longest took "
                  << longest_sec << " s: " << longest << '\n';
    }

    unsigned cases = 0;
    unsigned struck = 0;
    double longest_sec = 0.0;
    std::string longest;
};

bool isReplay()
{
    return std::getenv("GSSIP_FAULT") != nullptr;
}

/// How often the library makes each call in an undisturbed run; the most of several, since threads differ.
std::array<unsigned, kit::CALL_KINDS> callsOf(scenario const& where)
{
    std::array<unsigned, kit::CALL_KINDS> most{};
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

/// A line that is blocked for ever takes its time by design: a few places must do for a commit.
bool isSlow(kit::fault const& one)
{
    return one.lasts && one.what.value == EAGAIN && one.at == kit::callKind::deviceWrite;
}

unsigned placesOf(kit::fault const& one, unsigned calls)
{
    return isSlow(one) ? std::min(calls, bySize(1U, 3U, calls)) : calls;
}

/// All single faults of some kinds.
std::vector<kit::fault> singleFaults(scenario const& where, bool (*isWanted)(kit::callKind))
{
    std::array<unsigned, kit::CALL_KINDS> const calls = callsOf(where);
    std::vector<kit::fault> all;
    for (std::size_t i = 0; i < calls.size(); ++i)
    {
        auto const kind = static_cast<kit::callKind>(i);
        for (possibility const& each : faults::possibilitiesOf(kind))
        {
            for (bool const lasts : {false, true})
            {
                kit::fault one{kind, 1, each.what, lasts};
                unsigned const places = isWanted(kind) ? placesOf(one, calls[i]) : 0;
                for (; one.n <= places; ++one.n)
                {
                    all.push_back(one);
                }
            }
        }
    }
    return all;
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
        for (kit::fault const& one : singleFaults(GetParam(), isWanted))
        {
            of.run({&GetParam(), {one}});
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

struct twoFaults
{
    std::size_t first = 0;
    std::size_t second = 0;
};

bool areTwoPlaces(kit::fault const& a, kit::fault const& b)
{
    return a.at != b.at || a.n != b.n;
}

/// All pairs for a release, else some that are drawn.
std::vector<twoFaults> pairsOf(std::vector<kit::fault> const& single)
{
    std::vector<twoFaults> pairs;
    for (std::size_t first = 0; first < single.size(); ++first)
    {
        for (std::size_t second = first + 1; second < single.size(); ++second)
        {
            if (areTwoPlaces(single[first], single[second]))
            {
                pairs.push_back({first, second});
            }
        }
    }
    std::uint64_t const seed = seedOfPairs();
    std::cout << "GSSIP_FAULT_SEED=" << seed << '\n';
    std::shuffle(pairs.begin(), pairs.end(), std::mt19937_64(seed));
    pairs.resize(std::min(pairs.size(), bySize<std::size_t>(100, 4000, pairs.size())));
    return pairs;
}

TEST_P(FaultAtEveryPlace, Pairs)
{
    std::vector<kit::fault> single = singleFaults(GetParam(), [](kit::callKind) { return true; });
    single.erase(std::remove_if(single.begin(), single.end(), isSlow), single.end());
    account of;
    for (twoFaults const& pair : pairsOf(single))
    {
        of.run({&GetParam(), {single[pair.first], single[pair.second]}});
    }
    of.print(GetParam().name, "pairs of faults");
}

std::string nameOf(testing::TestParamInfo<scenario> const& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(In, FaultAtEveryPlace, testing::ValuesIn(faults::scenarios()), nameOf);

TEST(FaultReplay, CaseOfTheEnvironment)
{
    if (!isReplay())
    {
        GTEST_SKIP() << "GSSIP_FAULT names no case";
    }
    faultCase const one = faults::parse(std::getenv("GSSIP_FAULT"));
    faults::warmUp(*one.where);
    account of;
    of.run(one);
    EXPECT_EQ(of.struck, 1U) << "the fault has not happened";
}

} // namespace
