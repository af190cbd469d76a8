// Call-backs that throw or take their time in every place, a log that is not there, and a time source that steps.

#include "occasions.h"
#include "operations.h"

#include "checkpoint.h"
#include "portOnLine.h"
#include "stopwatch.h"
#include "wholeExchange.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using kit::frame;
using kit::message;
using kit::portOnLine;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr double SOON_SEC = 8.0;

class Misbehaving : public testing::TestWithParam<occasion>
{
  protected:
    void SetUp() override { rig.port.setHandshakeTimeout_sec(0.02); }

    void startAnew()
    {
        EXPECT_TRUE(rig.port.stop());
        ASSERT_TRUE(rig.port.start());
    }

    callbackRig rig;
    std::atomic<bool> misbehaves{true};
};

INSTANTIATE_TEST_SUITE_P(Callback, Misbehaving, testing::ValuesIn(everyOccasion()),
                         [](testing::TestParamInfo<occasion> const& each) { return std::string(each.param.name); });

std::vector<occasion> occasionsOnOwnThreads()
{
    std::vector<occasion> chosen;
    std::copy_if(everyOccasion().begin(), everyOccasion().end(), std::back_inserter(chosen), isOnOwnThread);
    return chosen;
}

class HoldingUpThePort : public Misbehaving
{};

INSTANTIATE_TEST_SUITE_P(Callback, HoldingUpThePort, testing::ValuesIn(occasionsOnOwnThreads()),
                         [](testing::TestParamInfo<occasion> const& each) { return std::string(each.param.name); });

bool isFree(pthread_mutex_t& mutex)
{
    return kit::waitUntil([&] { return pthread_mutex_trylock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0; });
}

/// Off the port's threads it is the caller's; on them it costs the message at hand, once.
TEST_P(Misbehaving, ThrowingAgainAndAgain_CostsNoMoreThanTheMessageAtHand)
{
    rig.app.actAt(GetParam().place, [this] {
        if (misbehaves)
        {
            throw std::runtime_error("from a call-back");
        }
    });
    ASSERT_TRUE(rig.port.start());
    if (isOnOwnThread(GetParam()))
    {
        GetParam().bringAbout(rig);
        ASSERT_TRUE(kit::waitUntil([this] { return rig.app.calls > 0; }));
        rig.line.readUntilQuiet(std::chrono::milliseconds(30));
        EXPECT_LE(rig.app.calls, 2); // of a request, its sending and its resend
    }
    else
    {
        EXPECT_THROW(GetParam().bringAbout(rig), std::runtime_error);
    }
    EXPECT_TRUE(isFree(rig.port.txMutex) && isFree(rig.port.sendMutex) && isFree(rig.port.readyMutex) &&
                isFree(rig.tracker().eventQMutex));
    misbehaves = false;
    startAnew();
    EXPECT_EQ(kit::faultOfExchange(rig), "");
}

TEST_P(Misbehaving, TakingItsTime_DelaysAndLosesNothing)
{
    rig.app.actAt(GetParam().place, [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); });
    ASSERT_TRUE(rig.port.start());
    kit::stopwatch const watch;
    GetParam().bringAbout(rig);
    ASSERT_TRUE(kit::waitUntil([this] { return rig.app.calls > 0; }));
    startAnew();
    EXPECT_GE(watch.elapsed_sec(), 0.05);
    EXPECT_EQ(kit::faultOfExchange(rig), "");
    EXPECT_TRUE(rig.port.stop());
    EXPECT_LT(watch.elapsed_sec(), SOON_SEC);
}

/// The call-back lasts until the operations have returned: one that waited for it would never return.
TEST_P(HoldingUpThePort, CallbackThatTakesItsTime_HoldsUpNoQueryAndNoQueueing)
{
    kit::checkpoint place;
    rig.app.actAt(GetParam().place, [&] { place.pass(); });
    ASSERT_TRUE(rig.port.start());
    GetParam().bringAbout(rig);
    place.awaitArrival();
    for (operation const& each : everyOperation())
    {
        if (each.neverWaits)
        {
            EXPECT_EQ(each.call(rig.port), "") << each.name;
        }
    }
    place.letGo();
    startAnew();
    EXPECT_EQ(kit::faultOfExchange(rig), "");
}

// --- No log

class NullLog : public testing::TestWithParam<occasion>
{};

INSTANTIATE_TEST_SUITE_P(Of, NullLog, testing::ValuesIn(everyOccasion()),
                         [](testing::TestParamInfo<occasion> const& each) { return std::string(each.param.name); });

TEST_P(NullLog, Port_DoesItsWorkWithoutALine)
{
    callbackRig rig(false);
    rig.port.setHandshakeTimeout_sec(0.02);
    ASSERT_TRUE(rig.port.start());
    GetParam().bringAbout(rig);
    EXPECT_TRUE(rig.port.stop());
    rig.port.clearTransmitQueue(); // of what the stop overtook: sent now, it would be pending beside the exchange's own
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(kit::faultOfExchange(rig), "");
    EXPECT_TRUE(rig.log.lines().empty());
}

// --- A time source that steps

constexpr double HOUR_SEC = 3600.0;
constexpr double FIFTY_YEARS_SEC = 50 * 365.0 * 24 * HOUR_SEC;

/// Steps by so much, there and back, each time that it is asked, until it is told to stand still.
class steppingTime : public timeStampInterface
{
  public:
    double getTime_sec() override { return steps && ++asked % 2 == 1 ? from_sec + by_sec : from_sec.load(); }

    std::atomic<double> from_sec{1000.0};
    std::atomic<double> by_sec{0.0};
    std::atomic<bool> steps{true};

  private:
    std::atomic<unsigned> asked{0};
};

class SteppingTime : public testing::TestWithParam<double>
{
  protected:
    void SetUp() override
    {
        rig.clock.by_sec = GetParam();
        rig.port.setHandshakeTimeout_sec(0.02);
        rig.port.setAcknowledgeTimeout_sec(0.02);
        ASSERT_TRUE(rig.port.start());
    }

    portOnLine<kit::exposedPort, steppingTime> rig;
};

INSTANTIATE_TEST_SUITE_P(By, SteppingTime,
                         testing::Values(1.0, -1.0, HOUR_SEC, -HOUR_SEC, FIFTY_YEARS_SEC, -FIFTY_YEARS_SEC, 1e300,
                                         -1e300, std::numeric_limits<double>::infinity(),
                                         std::numeric_limits<double>::quiet_NaN()));

std::size_t times(kit::bytes const& wanted, kit::bytes const& in)
{
    std::size_t count = 0;
    for (auto at = std::search(in.begin(), in.end(), wanted.begin(), wanted.end()); at != in.end();
         at = std::search(at + 1, in.end(), wanted.begin(), wanted.end()))
    {
        ++count;
    }
    return count;
}

/// Early or late, as the source tells; but each message goes out, and none more than twice.
TEST_P(SteppingTime, RequestsSentMeanwhile_AreWrittenOnceOrTwice)
{
    constexpr std::uint16_t COUNT = 10;
    for (std::uint16_t id = 1; id <= COUNT; ++id)
    {
        rig.port.sendMessage(message(id, REQUEST), true);
    }
    ASSERT_TRUE(kit::waitUntil([&] { return rig.port.getNumberQueuedMessages() == 0; }));
    kit::bytes const written = rig.line.readUntilQuiet(std::chrono::milliseconds(200));
    for (std::uint16_t id = 1; id <= COUNT; ++id)
    {
        std::size_t const copies = times(frame(id, REQUEST), written);
        EXPECT_GE(copies, 1U) << id;
        EXPECT_LE(copies, 2U) << id;
    }
}

TEST_P(SteppingTime, MessagesReceivedMeanwhile_AreDeliveredAndAnswered)
{
    constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
    for (std::uint16_t id = 1; id <= 10; ++id)
    {
        rig.line.write(frame(id, REQUEST, {id}));
        gssipMessage received;
        ASSERT_EQ(rig.port.getMessage(received, true), 0);
        ASSERT_EQ(received.getId(), id);
        ASSERT_TRUE(kit::awaitOnLine(rig.line, frame(id, ACK)));
    }
}

TEST_P(SteppingTime, SourceThatStandsStillAgain_FindsAWholePortAfterARestart)
{
    rig.port.sendMessage(message(1, REQUEST), true);
    ASSERT_TRUE(kit::awaitOnLine(rig.line, frame(1, REQUEST)));
    rig.clock.steps = false;
    kit::stopwatch const watch;
    EXPECT_TRUE(rig.port.stop());
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(kit::faultOfExchange(rig), "");
    EXPECT_LT(watch.elapsed_sec(), SOON_SEC);
}

} // namespace
