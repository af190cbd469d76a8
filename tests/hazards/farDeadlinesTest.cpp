// Deadlines that 32 bits of time cannot hold: they are computed, kept and waited for as any other.

#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "nextFunction.h"
#include "portOnLine.h"
#include "stopwatch.h"
#include "timeFunctions.h"
#include "wallClock.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <pthread.h>
#include <string>

namespace
{

std::atomic<unsigned> waits{0};

} // namespace

/// Counts: whoever waits for a deadline that seems over wakes again and again.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)>("pthread_cond_clockwait");
    ++waits;
    return real(condition, mutex, clock, deadline);
}

namespace
{

using kit::frame;
using kit::message;
using std::chrono::seconds;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::int64_t LAST_OF_32_BITS = std::numeric_limits<std::int32_t>::max();
constexpr double TIMEOUT_SEC = 0.8;
constexpr double SOON_SEC = 10.0;
constexpr unsigned FEW_WAITS = 20; // for what sleeps three times

static_assert(sizeof(std::time_t) == 8, "the target has 64 bits for time too");

struct year
{
    char const* name;
    seconds sinceEpoch;
};

void PrintTo(year const& each, std::ostream* out)
{
    *out << each.name;
}

year const years[] = {
    {"2038AsItsBitsRunOut", seconds(LAST_OF_32_BITS)}, // while the waits below go on
    {"2040", seconds(2'208'988'800)},
    {"2107AsNoUnsignedNumberHelps", seconds(4'323'369'600)},
};

class FarDeadline : public testing::TestWithParam<year>
{
  protected:
    void SetUp() override { kit::setWallClock(GetParam().sinceEpoch); }

    static std::int64_t wallNow_sec()
    {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec;
    }

    kit::unsteppedAgain const atTheEnd{};
};

INSTANTIATE_TEST_SUITE_P(In, FarDeadline, testing::ValuesIn(years),
                         [](testing::TestParamInfo<year> const& each) { return std::string(each.param.name); });

TEST_P(FarDeadline, Computed_LiesSoManySecondsAhead)
{
    for (double const ahead_sec : {0.25, 1.0, 3600.0, 1e9, -0.25, -1e9})
    {
        timespec deadline{};
        std::int64_t const before_sec = wallNow_sec();
        ASSERT_EQ(doubleToTimespec(ahead_sec, deadline), 0);
        double const least_sec = static_cast<double>(before_sec) + ahead_sec;
        double const held_sec = static_cast<double>(deadline.tv_sec) + static_cast<double>(deadline.tv_nsec) * 1e-9;
        EXPECT_GE(held_sec, least_sec - 1e-3) << ahead_sec;
        EXPECT_LT(held_sec, least_sec + SOON_SEC) << ahead_sec;
    }
}

TEST_P(FarDeadline, OfARequest_ResendsItInTimeAndGivesItUp)
{
    kit::portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(TIMEOUT_SEC);
    ASSERT_TRUE(rig.port.start());
    kit::stopwatch const watch;
    unsigned const before = waits;
    rig.port.sendMessage(message(1, REQUEST), true);
    ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_GE(rig.events().at(0).absTimeout.tv_sec, GetParam().sinceEpoch.count());
    EXPECT_EQ(rig.line.read(10), frame(1, REQUEST));
    EXPECT_GE(watch.elapsed_sec(), TIMEOUT_SEC);
    EXPECT_TRUE(rig.waitForPending(0));
    EXPECT_GE(watch.elapsed_sec(), 2 * TIMEOUT_SEC);
    EXPECT_LT(watch.elapsed_sec(), SOON_SEC);
    EXPECT_LT(waits - before, FEW_WAITS) << "it waits, and does not spin";
    EXPECT_TRUE(rig.line.readUntilQuiet().empty()) << "it is sent twice, and not again";
}

TEST_P(FarDeadline, OfAnAcknowledgedRequest_IsForgotten)
{
    kit::portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    ASSERT_TRUE(rig.port.start());
    kit::callOnThread<int> receiving([&] {
        gssipMessage none;
        return rig.port.getMessage(none, true);
    });
    rig.port.sendMessage(message(1, REQUEST), true);
    ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_GE(rig.events().front().absTimeout.tv_sec, GetParam().sinceEpoch.count() + 1000);
    rig.line.write(frame(1, gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG));
    EXPECT_TRUE(rig.waitForPending(0));
    EXPECT_TRUE(rig.port.stop());
    EXPECT_EQ(receiving.get(), -1);
}

TEST_P(FarDeadline, OfTheGate_IsWaitedFor)
{
    kit::portOnLine<> rig;
    kit::stopwatch const watch;
    unsigned const before = waits;
    EXPECT_EQ(rig.port.waitForPortReady(TIMEOUT_SEC), ETIMEDOUT);
    EXPECT_GE(watch.elapsed_sec(), TIMEOUT_SEC);
    EXPECT_LT(watch.elapsed_sec(), SOON_SEC);
    EXPECT_LT(waits - before, FEW_WAITS) << "it waits, and does not spin";
}

/// Nothing has to be stepped for that: a time-out may be as long.
TEST(FarDeadlineOfToday, OfARequest_IsKept)
{
    constexpr double FIFTY_YEARS_SEC = 50.0 * 365 * 24 * 3600;
    kit::portOnLine<> rig;
    rig.port.setAcknowledgeTimeout_sec(FIFTY_YEARS_SEC);
    ASSERT_TRUE(rig.port.start());
    unsigned const before = waits;
    rig.port.sendMessage(message(1, REQUEST), true);
    ASSERT_EQ(rig.line.read(10), frame(1, REQUEST));
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_GT(rig.events().front().absTimeout.tv_sec, LAST_OF_32_BITS);
    EXPECT_TRUE(rig.line.readUntilQuiet().empty()) << "it is not due";
    EXPECT_EQ(rig.events().size(), 1U);
    EXPECT_LT(waits - before, FEW_WAITS) << "it waits, and does not spin";
}

} // namespace
