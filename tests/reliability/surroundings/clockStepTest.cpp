// The wall clock is stepped, both ways and by little and much, under a port that is waiting in every place at once.

#include "awaitOnLine.h"
#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "stopwatch.h"
#include "wallClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace
{

using kit::frame;
using kit::message;
using std::chrono::seconds;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;

constexpr double ACK_TIMEOUT_SEC = 0.25;
constexpr double HANDSHAKE_TIMEOUT_SEC = 0.4;
constexpr double SOON_SEC = 8.0; // a bound for what must not take an hour

constexpr seconds SECOND(1);
constexpr seconds HOUR(3600);
constexpr seconds FIFTY_YEARS(50LL * 365 * 24 * 3600);

struct step
{
    char const* name;
    seconds by;
};

void PrintTo(step const& each, std::ostream* out)
{
    *out << each.name;
}

step const steps[] = {
    {"SecondBack", -SECOND}, {"SecondAhead", SECOND},          {"HourBack", -HOUR},
    {"HourAhead", HOUR},     {"FiftyYearsBack", -FIFTY_YEARS}, {"FiftyYearsAhead", FIFTY_YEARS},
};

struct received
{
    int status = 0;
    std::uint16_t id = 0;
};

/// A port with a request pending, a message held by the gate, and a caller in `getMessage`.
class WaitingPort : public testing::TestWithParam<step>
{
  protected:
    void SetUp() override
    {
        rig.port.setAcknowledgeTimeout_sec(ACK_TIMEOUT_SEC);
        rig.port.setHandshakeTimeout_sec(HANDSHAKE_TIMEOUT_SEC);
        ASSERT_TRUE(rig.port.start());
        pid_t const transmitThread = watch.idOf("GP TX");
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread)); // on its empty queue, behind the open gate
        rig.port.sendMessage(message(1, REQUEST), true);
        ASSERT_TRUE(kit::awaitOnLine(rig.line, frame(1, REQUEST)));
        ASSERT_TRUE(rig.waitForPending(1));
        rig.port.resetPortReady();
        sinceGateShut = kit::stopwatch();
        rig.port.sendMessage(message(9), false); // whoever is past the gate already takes this one
        ASSERT_TRUE(kit::awaitOnLine(rig.line, frame(9, 0)));
        rig.port.sendMessage(message(2), false);
        receiving.awaitAsleep();
    }

    void expectPunctualPort()
    {
        kit::stopwatch const sinceStep;
        EXPECT_TRUE(kit::awaitOnLine(rig.line, frame(1, REQUEST)));
        EXPECT_GE(sinceSending.elapsed_sec(), ACK_TIMEOUT_SEC);
        EXPECT_TRUE(kit::awaitOnLine(rig.line, frame(2, 0)));
        EXPECT_GE(sinceGateShut.elapsed_sec(), HANDSHAKE_TIMEOUT_SEC);
        EXPECT_TRUE(rig.waitForPending(0)); // after the second time-out
        EXPECT_GE(sinceSending.elapsed_sec(), 2 * ACK_TIMEOUT_SEC);
        EXPECT_FALSE(receiving.hasEnded());
        rig.line.write(frame(3, REQUEST));
        EXPECT_EQ(receiving.get().id, 3);
        EXPECT_TRUE(kit::awaitOnLine(rig.line, frame(3, ACK)));
        EXPECT_LT(sinceStep.elapsed_sec(), SOON_SEC);
    }

    kit::unsteppedAgain const atTheEnd{};
    kit::threadWatch const watch;
    kit::portOnLine<> rig;
    kit::stopwatch const sinceSending{}; // starts before it is sent
    kit::stopwatch sinceGateShut;
    kit::callOnThread<received> receiving{[this] {
        gssipMessage taken;
        int const status = waitForReceiver() ? rig.port.getMessage(taken, true) : -2;
        return received{status, taken.getId()};
    }};

  private:
    bool waitForReceiver()
    {
        return kit::waitUntil([this] { return rig.port.started.load(); });
    }
};

INSTANTIATE_TEST_SUITE_P(Clock, WaitingPort, testing::ValuesIn(steps),
                         [](testing::TestParamInfo<step> const& each) { return std::string(each.param.name); });

TEST_P(WaitingPort, ClockSteppedOnce_SendsAndResendsInTime)
{
    kit::stepWallClock(GetParam().by);
    expectPunctualPort();
}

TEST_P(WaitingPort, ClockSteppedThereAndBack_SendsAndResendsInTime)
{
    kit::stepWallClock(GetParam().by);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // as long as the clock happens to stay wrong
    kit::stepWallClock(-GetParam().by);
    expectPunctualPort();
}

TEST_P(WaitingPort, ClockSteppedAgainAndAgain_SendsAndResendsInTime)
{
    for (int times = 0; times < 10; ++times)
    {
        kit::stepWallClock(times % 2 == 0 ? GetParam().by : -GetParam().by);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    expectPunctualPort();
}

TEST_P(WaitingPort, StoppedAfterAStep_StopsAndStartsAtOnce)
{
    kit::stepWallClock(GetParam().by);
    kit::stopwatch const stopping;
    EXPECT_TRUE(rig.port.stop());
    EXPECT_EQ(receiving.get().status, -1);
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(kit::awaitOnLine(rig.line, frame(2, 0))); // kept through the stop
    EXPECT_LT(stopping.elapsed_sec(), SOON_SEC);
}

} // namespace
