#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace
{

using kit::bytes;
using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using testing::IsEmpty;

constexpr std::uint16_t ackRequest = 0x4000;

/// A port whose device is open and that has no threads: what is written is the test's doing alone.
struct openPort : portOnLine<>
{
    openPort() { EXPECT_EQ(port.serial.open(), 0); }
};

gssipMessage validRequest(std::uint16_t id, std::vector<std::uint16_t> const& data = {})
{
    gssipMessage request = message(id, ackRequest, data);
    request.setHeaderChecksum();
    request.setDataChecksum();
    return request;
}

gssipMessage damagedRequest(std::uint16_t id)
{
    gssipMessage request = validRequest(id, {1, 2, 3});
    request.setDataChecksum(static_cast<std::uint16_t>(request.getDataChecksum() + 1U));
    return request;
}

// --- Acknowledgements

TEST(SendAcknowledgement, NoRequest_SendsNothing)
{
    openPort rig;
    gssipMessage received = message(1, 0xBFFF);
    received.setHeaderChecksum();
    EXPECT_EQ(rig.port.sendAcknowledgement(received), 0U);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    EXPECT_EQ(rig.clock.asked, 0U);
}

TEST(SendAcknowledgement, ValidRequest_IsAcknowledged)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(1)), 0U);
    EXPECT_EQ(rig.line.read(10), (bytes{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6}));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    EXPECT_EQ(rig.clock.asked, 1U);
}

TEST(SendAcknowledgement, ValidRequestWithData_IsAcknowledgedWithoutData)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(0xABCD, {1, 2, 3})), 0U);
    EXPECT_EQ(rig.line.read(10), frame(0xABCD, 0x8800));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST(SendAcknowledgement, WrongDataChecksum_IsRefused)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendAcknowledgement(damagedRequest(1)), 0U);
    EXPECT_EQ(rig.line.read(10), (bytes{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x84, 0x00, 0xFA}));
}

TEST(SendAcknowledgement, RequestAmongOtherFlags_IsAnswered)
{
    openPort rig;
    gssipMessage received = message(5, 0xFFFF);
    received.setHeaderChecksum();
    EXPECT_EQ(rig.port.sendAcknowledgement(received), 0U);
    EXPECT_EQ(rig.line.read(10), frame(5, 0x8800));
}

/// A message with an opinion of its own on its validity.
class opinionated : public gssipMessage
{
  public:
    opinionated(gssipMessage const& base, bool answer) : gssipMessage(base), valid(answer) {}
    bool isValid() const override { return valid; }

  private:
    bool valid;
};

TEST(SendAcknowledgement, VirtualValidityTest_Decides)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendAcknowledgement(opinionated(damagedRequest(2), true)), 0U);
    EXPECT_EQ(rig.line.read(10), frame(2, 0x8800));
    EXPECT_EQ(rig.port.sendAcknowledgement(opinionated(validRequest(3), false)), 0U);
    EXPECT_EQ(rig.line.read(10), frame(3, 0x8400));
}

TEST(SendAcknowledgement, ClosedPort_GivesTheWritesError)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(1)), static_cast<unsigned>(EBADF));
    EXPECT_EQ(rig.port.sendAcknowledgement(message(1)), 0U);
}

TEST(SendAcknowledgement, PassesQueueAndGateAndTouchesNeither)
{
    openPort rig;
    rig.port.sendMessage(message(9), false);
    EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(1)), 0U);
    EXPECT_EQ(rig.line.read(10), frame(1, 0x8800));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_THAT(rig.events(), IsEmpty());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

// --- The handshake reject

TEST(HandshakeReject, WithoutExtra_SendsAndLogsNothing)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendHandshakeReject(0x12345, false), 0);
    EXPECT_EQ(rig.line.read(10), (bytes{0xFF, 0x81, 0x45, 0x23, 0x00, 0x00, 0x00, 0x92, 0xBC, 0xC8}));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
    EXPECT_EQ(rig.clock.asked, 1U);
}

TEST(HandshakeReject, WithExtra_SendsAndLogsOneLine)
{
    openPort rig;
    rig.clock.now_sec = 4.5;
    EXPECT_EQ(rig.port.sendHandshakeReject(0x12345, true), 0);
    EXPECT_EQ(rig.line.read(10), (bytes{0xFF, 0x81, 0x45, 0x23, 0x00, 0x00, 0x00, 0x93, 0xBC, 0xC7}));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    ASSERT_EQ(rig.log.lines().size(), 1U);
    kit::logLine const line = rig.log.lines().front();
    EXPECT_EQ(line.level, 2);
    EXPECT_EQ(line.time_sec, 4.5);
    EXPECT_EQ(line.text, "port(" + rig.id() + ") reject 74565");
    EXPECT_EQ(rig.clock.asked, 2U);
}

/// The text of the line that a port of that number logs for that id.
std::string rejectText(std::uint32_t portId, unsigned id)
{
    std::uint32_t const next = exposedPort::nextPortId;
    exposedPort::nextPortId = portId;
    portOnLine<> rig;
    exposedPort::nextPortId = portId;
    exposedPort port(rig.line.name(), rig.clock, &rig.log, false);
    exposedPort::nextPortId = std::max(next, exposedPort::nextPortId.load());
    EXPECT_EQ(port.serial.open(), 0);
    EXPECT_EQ(port.sendHandshakeReject(id, true), 0);
    return rig.log.lines().empty() ? "" : rig.log.lines().front().text;
}

TEST(HandshakeReject, Line_HasBothNumbersInDecimal)
{
    EXPECT_EQ(rejectText(3, 0x12345), "port(3) reject 74565");
    EXPECT_EQ(rejectText(0, 0), "port(0) reject 0");
    EXPECT_EQ(rejectText(12, 7), "port(12) reject 7");
    EXPECT_EQ(rejectText(3000000000U, 0xFFFFFFFF), "port(3000000000) reject 4294967295");
}

TEST(HandshakeReject, Gate_IsOpened)
{
    for (bool const extra : {false, true})
    {
        openPort rig;
        EXPECT_EQ(rig.port.sendHandshakeReject(1, extra), 0);
        EXPECT_TRUE(rig.gateIsOpen());
    }
}

TEST(HandshakeReject, WaiterAtTheGate_IsReleased)
{
    for (bool const extra : {false, true})
    {
        openPort rig;
        kit::callOnThread<int> waiting([&] { return rig.port.waitForPortReady(-1.0); });
        waiting.awaitAsleep();
        EXPECT_EQ(rig.port.sendHandshakeReject(1, extra), 0);
        EXPECT_EQ(waiting.get(), 0);
    }
}

TEST(HandshakeReject, TransmitThreadAtTheGate_IsReleased)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    rig.port.setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(watch.idOf("GP TX")));
    rig.port.resetPortReady();
    std::vector<gssipMessage> const two{message(1), message(2)};
    rig.port.sendDtMessages(two.begin(), 2);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(50)), IsEmpty());

    EXPECT_EQ(rig.port.sendHandshakeReject(3, false), 0);

    EXPECT_EQ(rig.line.read(10), frame(3, 0x9200));
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
}

TEST(HandshakeReject, ClosedPort_FailsYetOpensTheGateAndLogs)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.sendHandshakeReject(7, true), EBADF);
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_EQ(rig.log.count("port(" + rig.id() + ") reject 7"), 1U);
}

TEST(HandshakeReject, ClosedPortWithoutExtra_FailsYetOpensTheGate)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.sendHandshakeReject(7, false), EBADF);
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(HandshakeReject, NullLog_IsNoMatter)
{
    openPort rig;
    ASSERT_EQ(rig.port.serial.close(), 0);
    exposedPort port(rig.line.name(), rig.clock, nullptr, false);
    ASSERT_EQ(port.serial.open(), 0);
    EXPECT_EQ(port.sendHandshakeReject(7, true), 0);
    EXPECT_EQ(rig.line.read(10), frame(7, 0x9300));
}

TEST(HandshakeReject, Queue_IsOvertaken)
{
    openPort rig;
    rig.port.sendMessage(message(9), false);
    EXPECT_EQ(rig.port.sendHandshakeReject(7, false), 0);
    EXPECT_EQ(rig.line.read(10), frame(7, 0x9200));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
    EXPECT_THAT(rig.events(), IsEmpty());
}

/// Looks at the port from inside the log.
class lookingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override {}
    void log(double const&, std::int32_t const&, std::string const&) override
    {
        gateWasOpen = port->portReady;
        locksWereFree = isFree(port->sendMutex) && isFree(port->txMutex) && isFree(port->readyMutex);
        written = line->read(10);
    }

    exposedPort* port = nullptr;
    kit::pseudoTerminal* line = nullptr;
    bool gateWasOpen = false;
    bool locksWereFree = false;
    bytes written;

  private:
    static bool isFree(pthread_mutex_t& mutex)
    {
        return pthread_mutex_trylock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0;
    }
};

TEST(HandshakeReject, Line_ComesAfterWriteAndGateWithNoLockHeld)
{
    kit::pseudoTerminal line;
    kit::settableTime clock;
    lookingLog log;
    exposedPort port(line.name(), clock, &log, false);
    log.port = &port;
    log.line = &line;
    ASSERT_EQ(port.serial.open(), 0);
    EXPECT_EQ(port.sendHandshakeReject(7, true), 0);
    EXPECT_TRUE(log.gateWasOpen);
    EXPECT_TRUE(log.locksWereFree);
    EXPECT_EQ(log.written, frame(7, 0x9300));
}

// --- The resync sequence

bytes const filler(20, 0xFF);

TEST(ResyncSequence, TwentyBytes_GoOutAtOnce)
{
    openPort rig;
    rig.port.sendMessage(message(9), false);
    EXPECT_EQ(rig.port.sendResyncSequence(), 0);
    EXPECT_EQ(rig.line.read(20), filler);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
}

TEST(ResyncSequence, NoMessage_MeansNoTimeNoGateNoLine)
{
    openPort rig;
    EXPECT_EQ(rig.port.sendResyncSequence(), 0);
    EXPECT_EQ(rig.clock.asked, 0U);
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
    EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ResyncSequence, ClosedPort_GivesTheWritesError)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.sendResyncSequence(), EBADF);
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(ResyncSequence, WriterInside_IsWaitedFor)
{
    openPort rig;
    pthread_mutex_lock(&rig.port.sendMutex);
    kit::callOnThread<int> resync([&] { return rig.port.sendResyncSequence(); });
    resync.awaitAsleep();
    EXPECT_FALSE(resync.hasEnded());
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(20)), IsEmpty());
    pthread_mutex_unlock(&rig.port.sendMutex);
    EXPECT_EQ(resync.get(), 0);
    EXPECT_EQ(rig.line.read(20), filler);
}

TEST(ControlFrames, WriterInside_IsWaitedFor)
{
    openPort rig;
    pthread_mutex_lock(&rig.port.sendMutex);
    kit::callOnThread<int> reject([&] { return rig.port.sendHandshakeReject(1, false); });
    reject.awaitAsleep();
    EXPECT_FALSE(reject.hasEnded());
    EXPECT_FALSE(rig.gateIsOpen());
    kit::callOnThread<unsigned> reply([&] { return rig.port.sendAcknowledgement(validRequest(2)); });
    reply.awaitAsleep();
    EXPECT_FALSE(reply.hasEnded());
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(20)), IsEmpty());
    pthread_mutex_unlock(&rig.port.sendMutex);
    EXPECT_EQ(reject.get(), 0);
    EXPECT_EQ(reply.get(), 0U);
    EXPECT_EQ(rig.line.read(20).size(), 20U);
}

/// How often each unit stands in the bytes, which must hold nothing else; units must not begin alike.
std::vector<unsigned> countUnits(bytes const& wire, std::vector<bytes> const& units)
{
    std::vector<unsigned> counts(units.size());
    for (std::size_t at = 0; at < wire.size();)
    {
        std::size_t unit = 0;
        while (unit < units.size() &&
               (units[unit].size() > wire.size() - at ||
                !std::equal(units[unit].begin(), units[unit].end(), wire.begin() + static_cast<std::ptrdiff_t>(at))))
        {
            ++unit;
        }
        if (unit == units.size())
        {
            ADD_FAILURE() << "a strange byte at " << at;
            break;
        }
        ++counts[unit];
        at += units[unit].size();
    }
    return counts;
}

TEST(ControlFrames, UnderTraffic_NeverMixWithOtherBytes)
{
    constexpr unsigned rounds = 60;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    std::vector<std::uint16_t> const data(40, 0xFFFF);
    std::thread resync([&] {
        for (unsigned sent = 0; sent < rounds; ++sent)
        {
            EXPECT_EQ(rig.port.sendResyncSequence(), 0);
        }
    });
    std::thread reply([&] {
        for (unsigned sent = 0; sent < rounds; ++sent)
        {
            EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(1)), 0U);
            EXPECT_EQ(rig.port.sendHandshakeReject(2, false), 0);
        }
    });
    for (unsigned sent = 0; sent < rounds; ++sent)
    {
        rig.port.sendMessage(message(3, 0, data), false);
    }
    std::vector<bytes> const units{filler, frame(1, 0x8800), frame(2, 0x9200), frame(3, 0, data)};
    std::size_t size = 0;
    for (bytes const& unit : units)
    {
        size += rounds * unit.size();
    }
    bytes const wire = rig.line.read(size);
    resync.join();
    reply.join();
    ASSERT_EQ(wire.size(), size);
    EXPECT_THAT(countUnits(wire, units), testing::Each(rounds));
}

} // namespace
