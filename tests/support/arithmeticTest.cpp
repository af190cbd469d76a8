#include "littleEndian.h"
#include "monotonicTime.h"
#include "timespecMath.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace
{

using namespace gssipInternal;

TEST(LittleEndian, Word_HasItsLeastSignificantByteFirst)
{
    std::array<std::uint8_t, 2> bytes{};
    storeWord(0x81FF, bytes.data());
    EXPECT_EQ(bytes, (std::array<std::uint8_t, 2>{0xFF, 0x81}));
    EXPECT_EQ(loadWord(bytes.data()), 0x81FF);
}

TEST(LittleEndian, EveryWord_ComesBack)
{
    for (unsigned value = 0; value <= 0xFFFF; ++value)
    {
        std::array<std::uint8_t, 2> bytes{};
        storeWord(static_cast<std::uint16_t>(value), bytes.data());
        ASSERT_EQ(bytes[0], value % 256);
        ASSERT_EQ(bytes[1], value / 256);
        ASSERT_EQ(loadWord(bytes.data()), value);
    }
}

TEST(LittleEndian, ManyWords_AreStoredOneBehindTheOther)
{
    std::vector<std::uint16_t> const words{0x0102, 0x0304, 0xFFFE};
    std::vector<std::uint8_t> bytes(8, 0xAA);
    storeWords(words.data(), bytes.data() + 1, words.size()); // at an odd address too
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{0xAA, 0x02, 0x01, 0x04, 0x03, 0xFE, 0xFF, 0xAA}));

    std::vector<std::uint16_t> read(3);
    loadWords(bytes.data() + 1, read.data(), read.size());
    EXPECT_EQ(read, words);
}

TEST(LittleEndian, NoWords_NeedNoPlace)
{
    storeWords(nullptr, nullptr, 0);
    loadWords(nullptr, nullptr, 0);
    SUCCEED();
}

timespec timeOf(std::time_t seconds, long nanoseconds)
{
    timespec time{};
    time.tv_sec = seconds;
    time.tv_nsec = nanoseconds;
    return time;
}

void expectTime(timespec const& time, std::time_t seconds, long nanoseconds)
{
    EXPECT_EQ(time.tv_sec, seconds);
    EXPECT_EQ(time.tv_nsec, nanoseconds);
}

TEST(MonotonicNow, Time_IsTheMonotonicClocks)
{
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    std::int64_t const now_ns = monotonicNow_ns();
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);

    EXPECT_GE(now_ns, before.tv_sec * NS_PER_SEC + before.tv_nsec);
    EXPECT_LE(now_ns, after.tv_sec * NS_PER_SEC + after.tv_nsec);
}

TEST(ToTimespec, Nanoseconds_AreSplitAndNormalised)
{
    expectTime(toTimespec(0), 0, 0);
    expectTime(toTimespec(1), 0, 1);
    expectTime(toTimespec(999'999'999), 0, 999'999'999);
    expectTime(toTimespec(1'000'000'000), 1, 0);
    expectTime(toTimespec(12'345'678'901), 12, 345'678'901);
}

TEST(ToTimespec, NegativeNanoseconds_AreNormalisedToo)
{
    expectTime(toTimespec(-1), -1, 999'999'999);
    expectTime(toTimespec(-1'000'000'000), -1, 0);
    expectTime(toTimespec(-1'500'000'000), -2, 500'000'000);
}

TEST(AddSaturating, OrdinaryTimes_AreAddedWithCarry)
{
    expectTime(addSaturating(timeOf(10, 400'000'000), 2, 500'000'000), 12, 900'000'000);
    expectTime(addSaturating(timeOf(10, 500'000'000), 2, 500'000'000), 13, 0);
    expectTime(addSaturating(timeOf(10, 999'999'999), 0, 1'000'000'000), 11, 999'999'999);
    expectTime(addSaturating(timeOf(10, 400'000'000), -3, 700'000'000), 8, 100'000'000);
    expectTime(addSaturating(timeOf(10, 0), -10, 0), 0, 0);
}

TEST(AddSaturating, BeyondWhatTimespecHolds_IsTheNearestThatItHolds)
{
    constexpr std::time_t latest = std::numeric_limits<std::time_t>::max();
    constexpr std::time_t earliest = std::numeric_limits<std::time_t>::min();
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();

    expectTime(addSaturating(timeOf(10, 0), most, 0), latest, 999'999'999);
    expectTime(addSaturating(timeOf(latest, 500'000'000), 0, 500'000'000), latest, 999'999'999);
    expectTime(addSaturating(timeOf(latest, 500'000'000), 0, 499'999'999), latest, 999'999'999);
    expectTime(addSaturating(timeOf(latest - 5, 0), 5, 7), latest, 7);
    expectTime(addSaturating(timeOf(-10, 0), least, 0), earliest, 0);
    expectTime(addSaturating(timeOf(earliest, 0), -1, 0), earliest, 0);
}

TEST(Shifted, Time_MovesBothWays)
{
    expectTime(shifted(timeOf(100, 250'000'000), 3'600'000'000'000), 3700, 250'000'000);
    expectTime(shifted(timeOf(100, 250'000'000), -3'600'000'000'000), -3500, 250'000'000);
    expectTime(shifted(timeOf(100, 250'000'000), -250'000'001), 99, 999'999'999);
    expectTime(shifted(timeOf(100, 250'000'000), 0), 100, 250'000'000);
}

TEST(Shifted, LatestAndEarliestTime_StayWhatTheyAre)
{
    expectTime(shifted(latestTimespec(), NS_PER_SEC), latestTimespec().tv_sec, 999'999'999);
    expectTime(shifted(earliestTimespec(), -NS_PER_SEC), earliestTimespec().tv_sec, 0);
}

} // namespace
