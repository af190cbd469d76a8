#include "frames.h"
#include "messages.h"
#include "portOnLine.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;
using testing::IsEmpty;

constexpr std::uint16_t ackRequest = 0x4000;

/// A clock that does something else the first time that it is asked.
class actingClock : public timeStampInterface
{
  public:
    double getTime_sec() override
    {
        if (!asked.exchange(true) && act)
        {
            act();
        }
        return 0.0;
    }

    std::function<void()> act; ///< to be told before the port is started
    std::atomic<bool> asked{false};
};

using actingRig = portOnLine<exposedPort, actingClock>;

TEST(TransmitCallback, ClockThatThrows_CostsThatMessagesTracking)
{
    actingRig rig;
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    rig.clock.act = [] { throw std::runtime_error("no time"); };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    rig.port.sendMessage(message(2, ackRequest), true);
    EXPECT_EQ(rig.line.read(20), frame(1, ackRequest) + frame(2, ackRequest));
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_EQ(rig.events().front().message.getId(), 2U);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST(TransmitCallback, ClockThatThrows_ReleasesEveryLock)
{
    actingRig rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.clock.act = [] { throw std::runtime_error("no time"); };
    gssipMessage first = message(1);
    EXPECT_THROW(rig.port.resendMessage(first), std::runtime_error);
    for (pthread_mutex_t* mutex : {&rig.port.sendMutex, &rig.port.readyMutex, &rig.port.txMutex})
    {
        EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
        pthread_mutex_unlock(mutex);
    }
    gssipMessage second = message(2);
    EXPECT_EQ(rig.port.resendMessage(second), 0);
    EXPECT_EQ(rig.line.read(20), frame(1, 0) + frame(2, 0));
}

/// A port whose acknowledgement time-out cannot be had the first time.
class throwingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~throwingPort() override { stop(); }

    double getAcknowledgeTimeout_sec() override
    {
        if (!thrown.exchange(true))
        {
            throw std::runtime_error("no time-out");
        }
        return 1000.0;
    }

    std::atomic<bool> thrown{false};
};

TEST(TransmitCallback, TimeoutThatThrows_CostsThatMessagesTracking)
{
    portOnLine<throwingPort> rig;
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    rig.port.sendMessage(message(2, ackRequest), true);
    EXPECT_EQ(rig.line.read(20), frame(1, ackRequest) + frame(2, ackRequest));
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_EQ(rig.events().front().message.getId(), 2U);
    EXPECT_EQ(rig.tracker().nextEventId, 1U);
}

TEST(TransmitCallback, Clock_MayCallQueriesAndSendOperations)
{
    actingRig rig;
    rig.clock.act = [&rig] {
        gssipMessage resent = message(3);
        std::uint8_t const raw[] = {1, 2, 3};
        unsigned sent = 0;
        EXPECT_EQ(rig.port.resendMessage(resent), 0);
        EXPECT_EQ(rig.port.send(raw, 3, sent), 0);
        EXPECT_EQ(rig.port.sendHandshakeReject(4, true), 0);
        EXPECT_EQ(rig.port.sendResyncSequence(), 0);
        rig.port.sendMessage(message(2), false);
        rig.port.removeMsgIdFromTxQueue(9);
        EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
        EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
        EXPECT_FALSE(rig.port.serviceTransmitQueue());
    };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    kit::bytes const expected =
        frame(1, 0) + frame(3, 0) + kit::bytes{1, 2, 3} + frame(4, 0x9300) + kit::bytes(20, 0xFF) + frame(2, 0);
    EXPECT_EQ(rig.line.read(expected.size()), expected);
}

/// A log that sends a message for its first line.
class sendingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override {}
    void log(double const&, std::int32_t const&, std::string const&) override
    {
        if (!told.exchange(true))
        {
            port->sendMessage(message(2), false);
            EXPECT_EQ(port->sendHandshakeReject(3, false), 0);
        }
    }

    gssipPort* port = nullptr;
    std::atomic<bool> told{false};
};

TEST(TransmitCallback, LogOfAReject_MaySend)
{
    kit::pseudoTerminal line;
    kit::settableTime clock;
    sendingLog log;
    exposedPort port(line.name(), clock, &log, false);
    log.port = &port;
    ASSERT_EQ(port.serial.open(), 0);
    EXPECT_EQ(port.sendHandshakeReject(1, true), 0);
    EXPECT_EQ(line.read(20), frame(1, 0x9300) + frame(3, 0x9200));
    EXPECT_EQ(port.getNumberQueuedMessages(), 1U);
}

} // namespace
