#include "failureBudget.h"
#include "lineClock.h"
#include "lineSettings.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{

using gssipInternal::failureBudget;
using gssipInternal::lineClock;
using gssipInternal::lineSettings;
using gssipInternal::NS_PER_MS;
using gssipInternal::NS_PER_SEC;

constexpr std::int64_t START_NS = 1000 * NS_PER_SEC;

TEST(LineClock, IdleLine_HasEndedLongAgo)
{
    lineClock const clock;
    EXPECT_LT(clock.earliestNext_ns(0), START_NS);
    EXPECT_LT(clock.earliestNext_ns(NS_PER_SEC), START_NS);
}

TEST(LineClock, FirstMessage_EndsItsCharactersLater)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 100 * NS_PER_MS);
}

TEST(LineClock, NextMessageWithoutGap_MayComeTwoMillisecondsBeforeTheEnd)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    EXPECT_EQ(clock.earliestNext_ns(0), START_NS + 98 * NS_PER_MS);
}

TEST(LineClock, NextMessageWithGap_HasToComeTheGapAfterTheEnd)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    EXPECT_EQ(clock.earliestNext_ns(1), START_NS + 100 * NS_PER_MS + 1);
    EXPECT_EQ(clock.earliestNext_ns(30 * NS_PER_MS), START_NS + 130 * NS_PER_MS);
}

TEST(LineClock, MessageTakenBeforeTheEnd_IsSentBehindTheOneBefore)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    clock.took(START_NS + 98 * NS_PER_MS, 10, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 110 * NS_PER_MS);
}

TEST(LineClock, MessageTakenAfterAPause_BeginsAtOnce)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    clock.took(START_NS + NS_PER_SEC, 10, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + NS_PER_SEC + 10 * NS_PER_MS);
}

TEST(LineClock, MessageTakenInParts_EndsAsIfTakenWhole)
{
    lineClock clock;
    clock.took(START_NS, 60, NS_PER_MS);
    clock.took(START_NS + 5 * NS_PER_MS, 30, NS_PER_MS);
    clock.took(START_NS + 70 * NS_PER_MS, 10, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 100 * NS_PER_MS);
}

TEST(LineClock, NoLine_EndsWhenTheBytesAreTaken)
{
    lineClock clock;
    clock.took(START_NS, 4000, 0);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS);
    EXPECT_EQ(clock.earliestNext_ns(5), START_NS + 5);
}

TEST(LineClock, LongestMessageOnASlowLine_DoesNotOverflow)
{
    lineClock clock;
    clock.took(START_NS, 131082, 12 * NS_PER_SEC);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 131082 * 12 * NS_PER_SEC);
}

TEST(LineClock, Reset_ForgetsWhatWasTaken)
{
    lineClock clock;
    clock.took(START_NS, 1000, NS_PER_SEC);
    clock.reset();
    EXPECT_LT(clock.earliestNext_ns(0), START_NS);
}

TEST(LineClock, DriverThatHoldsMoreThanComputed_MovesTheEnd)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    clock.holds(START_NS + 90 * NS_PER_MS, 40, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 130 * NS_PER_MS);
}

TEST(LineClock, DriverThatHoldsLessThanComputed_DoesNotBringTheEndNearer)
{
    lineClock clock;
    clock.took(START_NS, 100, NS_PER_MS);
    clock.holds(START_NS + 50 * NS_PER_MS, 0, NS_PER_MS);
    EXPECT_EQ(clock.endOfLine_ns(), START_NS + 100 * NS_PER_MS);
}

TEST(LineSettings, Initially_AreTheDocumentedOnes)
{
    lineSettings const settings;
    EXPECT_EQ(settings.speed, 9600U);
    EXPECT_EQ(settings.bitsPerCharacter(), 10U);
    EXPECT_EQ(settings.gap_ns(), 0);
    EXPECT_DOUBLE_EQ(settings.byteTime_sec(), 10.0 / 9600);
    EXPECT_EQ(settings.byteTime_ns(), 1041666);
}

TEST(LineSettings, EveryFraming_CountsItsBits)
{
    lineSettings settings;
    for (settings.dataBits = 5; settings.dataBits <= 8; ++settings.dataBits)
    {
        for (settings.stopBits = 1; settings.stopBits <= 2; ++settings.stopBits)
        {
            settings.parity = PARITY_NONE;
            EXPECT_EQ(settings.bitsPerCharacter(), 1 + settings.dataBits + settings.stopBits);
            for (PARITY_TYPE const parity : {PARITY_ODD, PARITY_EVEN, PARITY_MARK, PARITY_SPACE})
            {
                settings.parity = parity;
                EXPECT_EQ(settings.bitsPerCharacter(), 2 + settings.dataBits + settings.stopBits);
            }
        }
    }
}

TEST(LineSettings, GreatestGapOnTheSlowestLine_DoesNotOverflow)
{
    lineSettings settings;
    settings.speed = 1;
    settings.interMsgGapBits = 4294967295U;
    EXPECT_EQ(settings.gap_ns(), 4294967295 * NS_PER_SEC);
}

/// Reports failures as they come, each at the end of its pause and the next one right behind it.
std::vector<std::int64_t> pausesOf(failureBudget& budget, std::size_t count, std::int64_t& now_ns)
{
    std::vector<std::int64_t> pauses;
    for (std::size_t each = 0; each < count; ++each)
    {
        pauses.push_back(budget.pauseBefore_ns(now_ns));
        budget.reported(now_ns + pauses.back());
        now_ns += pauses.back();
    }
    return pauses;
}

/// No second, wherever it begins, may see more than ten of these.
void expectAtMostTenInAnySecond(std::vector<std::int64_t> const& reports)
{
    for (std::size_t each = 10; each < reports.size(); ++each)
    {
        ASSERT_GE(reports[each] - reports[each - 10], NS_PER_SEC) << "report " << each;
    }
}

TEST(FailureBudget, FirstFailure_IsReportedAtOnce)
{
    failureBudget budget;
    EXPECT_EQ(budget.pauseBefore_ns(START_NS), 0);
}

TEST(FailureBudget, FirstFailureSoonAfterTheSystemsStart_IsReportedAtOnceToo)
{
    failureBudget budget;
    EXPECT_EQ(budget.pauseBefore_ns(0), 0);
}

TEST(FailureBudget, FailuresWithoutSuccess_PauseLongerAndLongerUpToASecond)
{
    failureBudget budget;
    std::int64_t now_ns = START_NS;
    std::vector<std::int64_t> const pauses = pausesOf(budget, 40, now_ns);

    EXPECT_TRUE(std::is_sorted(pauses.begin(), pauses.end()));
    EXPECT_EQ(pauses.front(), 0);
    EXPECT_GT(pauses[1], 0);
    EXPECT_LE(pauses[1], 100 * NS_PER_MS);
    EXPECT_EQ(pauses.back(), NS_PER_SEC);
    EXPECT_EQ(*std::max_element(pauses.begin(), pauses.end()), NS_PER_SEC);
}

TEST(FailureBudget, Success_MakesTheNextFailureAFirstOne)
{
    failureBudget budget;
    std::int64_t now_ns = START_NS;
    pausesOf(budget, 8, now_ns);
    now_ns += 10 * NS_PER_SEC;
    budget.succeeded();
    EXPECT_EQ(budget.pauseBefore_ns(now_ns), 0);
}

TEST(FailureBudget, FailureAfterALongTimeWithoutSuccess_StillPauses)
{
    failureBudget budget;
    std::int64_t now_ns = START_NS;
    pausesOf(budget, 20, now_ns);
    EXPECT_EQ(budget.pauseBefore_ns(now_ns + 60 * NS_PER_SEC), NS_PER_SEC);
}

TEST(FailureBudget, FailuresThatAreNotReported_CostNothing)
{
    failureBudget budget;
    budget.reported(START_NS);
    std::int64_t const pause_ns = budget.pauseBefore_ns(START_NS);
    for (int each = 0; each < 1000; ++each)
    {
        EXPECT_EQ(budget.pauseBefore_ns(START_NS), pause_ns);
    }
}

TEST(FailureBudget, SuccessAfterEachFailure_DoesNotRefillTheBudget)
{
    failureBudget budget;
    std::vector<std::int64_t> reports;
    std::int64_t now_ns = START_NS;
    for (int each = 0; each < 100; ++each)
    {
        now_ns += budget.pauseBefore_ns(now_ns);
        budget.reported(now_ns);
        reports.push_back(now_ns);
        budget.succeeded();
    }
    EXPECT_EQ(reports[9], START_NS) << "ten at once are within the budget";
    expectAtMostTenInAnySecond(reports);
}

TEST(FailureBudget, RandomFailuresAndSuccesses_StayWithinTheBudget)
{
    auto const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::int64_t> anyDelay_ns(0, 200 * NS_PER_MS);
    std::bernoulli_distribution succeeds(0.5);

    failureBudget budget;
    std::vector<std::int64_t> reports;
    std::int64_t now_ns = START_NS;
    for (int each = 0; each < 2000; ++each)
    {
        std::int64_t const pause_ns = budget.pauseBefore_ns(now_ns);
        ASSERT_GE(pause_ns, 0);
        now_ns += pause_ns;
        budget.reported(now_ns);
        reports.push_back(now_ns);
        if (succeeds(random))
        {
            budget.succeeded();
        }
        now_ns += anyDelay_ns(random);
    }
    expectAtMostTenInAnySecond(reports);
}

} // namespace
