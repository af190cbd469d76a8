#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <numeric>
#include <set>
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
using kit::operator+;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t ackRequest = 0x4000;
constexpr double longTime_sec = 1000.0;

/// A started port that keeps what it tracks for as long as a test may take.
template <typename Port = exposedPort, typename Clock = kit::settableTime>
struct startedPort : portOnLine<Port, Clock>
{
    startedPort()
    {
        this->port.setAcknowledgeTimeout_sec(longTime_sec);
        EXPECT_TRUE(this->port.start());
    }

    std::vector<unsigned> pendingIds()
    {
        std::vector<unsigned> ids;
        for (gssipSendAckReqEvent const& event : this->events())
        {
            ids.push_back(event.message.getId());
        }
        return ids;
    }
};

// --- Bytes on the line

TEST(Transmit, HeaderOnlyMessage_GoesOutAsTenBytes)
{
    startedPort<> rig;
    rig.port.sendMessage(message(0x1234, 0x0001), false);
    EXPECT_EQ(rig.line.read(10), (bytes{0xFF, 0x81, 0x34, 0x12, 0x00, 0x00, 0x01, 0x00, 0xCC, 0x6B}));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST(Transmit, MessageWithData_GoesOutWithItsChecksums)
{
    startedPort<> rig;
    rig.port.sendMessage(message(2, 0, {0x0102, 0xFFFF, 0x8000}), false);
    bytes const expected{0xFF, 0x81, 0x02, 0x00, 0x03, 0x00, 0x00, 0x00, 0xFC,
                         0x7D, 0x02, 0x01, 0xFF, 0xFF, 0x00, 0x80, 0xFF, 0x7E};
    EXPECT_EQ(rig.line.read(expected.size()), expected);
}

TEST(Transmit, Messages_GoOutInTheOrderOfQueuing)
{
    startedPort<> rig;
    rig.port.sendMessage(message(1), false);
    rig.port.sendMessages({message(2, 0, {7}), message(3)}, false);
    std::vector<gssipMessage> const batch{message(4, 0, {8, 9}), message(5)};
    rig.port.sendDtMessages(batch.begin(), 2);
    rig.port.sendMessage(message(6), true);
    bytes const expected =
        frame(1, 0) + frame(2, 0, {7}) + frame(3, 0) + frame(4, 0, {8, 9}) + frame(5, 0) + frame(6, 0);
    EXPECT_EQ(rig.line.read(expected.size()), expected);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST(Transmit, ChecksumsGiven_AreReplaced)
{
    startedPort<> rig;
    gssipMessage wrong = message(1, 0, {5});
    wrong.setHeaderChecksum(0xDEAD);
    wrong.setDataChecksum(0xBEEF);
    rig.port.sendMessage(wrong, false);
    bytes const expected = frame(1, 0, {5});
    EXPECT_EQ(rig.line.read(expected.size()), expected);
}

TEST(Transmit, LargestMessage_GoesOutWhole)
{
    startedPort<> rig;
    std::vector<std::uint16_t> data(65535);
    std::iota(data.begin(), data.end(), std::uint16_t{1});
    rig.port.sendMessage(message(1, 0, data), false);
    bytes const expected = frame(1, 0, data);
    ASSERT_EQ(expected.size(), 131082U);
    EXPECT_TRUE(rig.line.read(expected.size()) == expected);
}

TEST(Transmit, ManyMessages_AllGoOut)
{
    startedPort<> rig;
    bytes expected;
    for (std::uint16_t id = 0; id < 500; ++id)
    {
        rig.port.sendMessage(message(id, 0, {id}), false);
        expected = expected + frame(id, 0, {id});
    }
    EXPECT_TRUE(rig.line.read(expected.size()) == expected);
    EXPECT_TRUE(kit::waitUntil([&] { return rig.port.getNumberQueuedMessages() == 0; }));
}

TEST(Transmit, CallersMessage_MayBeReusedAtOnce)
{
    startedPort<> rig;
    gssipMessage mine = message(1, 0, {1});
    bytes expected;
    for (std::uint16_t id = 1; id <= 50; ++id)
    {
        mine.setId(id);
        mine.getData()[0] = id;
        rig.port.sendMessage(mine, false);
        expected = expected + frame(id, 0, {id});
    }
    mine.clear();
    EXPECT_EQ(rig.line.read(expected.size()), expected);
}

TEST(Transmit, Batch_StandsTogetherAmongMessagesOfAnotherThread)
{
    startedPort<> rig;
    std::atomic<bool> done{false};
    std::atomic<unsigned> others{0};
    std::thread other([&] {
        while (!done)
        {
            rig.port.sendMessage(message(1), false);
            ++others;
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    });
    std::vector<gssipMessage> const batch{message(10), message(11), message(12), message(13), message(14)};
    bytes const together = frame(10, 0) + frame(11, 0) + frame(12, 0) + frame(13, 0) + frame(14, 0);
    bytes wire;
    for (int sent = 0; sent < 40; ++sent)
    {
        rig.port.sendDtMessages(batch.begin(), 5);
        bytes const next = rig.line.read(together.size());
        wire = wire + next;
    }
    done = true;
    other.join();
    std::size_t const expected = 40 * together.size() + others * 10;
    wire = wire + rig.line.read(expected - wire.size());
    ASSERT_EQ(wire.size(), expected);

    std::size_t batches = 0;
    for (std::size_t at = 0; at < wire.size();)
    {
        bool const isOther = wire[at + 2] == 1;
        bytes const& whole = isOther ? frame(1, 0) : together;
        ASSERT_EQ(bytes(wire.begin() + static_cast<std::ptrdiff_t>(at),
                        wire.begin() + static_cast<std::ptrdiff_t>(std::min(at + whole.size(), wire.size()))),
                  whole);
        at += whole.size();
        batches += isOther ? 0U : 1U;
    }
    EXPECT_EQ(batches, 40U);
}

TEST(Transmit, PortStoppedAndMessageSent_DropsIt)
{
    startedPort<> rig;
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.port.sendMessage(message(1), false), 0U);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(2), false);
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
}

// --- Tracking

TEST(TransmitTracking, EveryRequestOfABatch_IsRegistered)
{
    startedPort<> rig;
    std::vector<gssipMessage> const batch{message(1, ackRequest), message(2), message(3, ackRequest, {9}),
                                          message(4, ackRequest)};
    rig.port.sendDtMessages(batch.begin(), 4);
    EXPECT_EQ(rig.line.read(44), frame(1, ackRequest) + frame(2, 0) + frame(3, ackRequest, {9}) + frame(4, ackRequest));
    EXPECT_TRUE(rig.waitForPending(3));
    EXPECT_THAT(rig.pendingIds(), testing::UnorderedElementsAre(1, 3, 4));
}

TEST(TransmitTracking, NotAskedFor_IsNeverRegistered)
{
    startedPort<> rig;
    rig.port.sendMessage(message(1, ackRequest), false);
    rig.port.sendMessage(message(2, ackRequest), true);
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_THAT(rig.pendingIds(), ElementsAre(2));
    EXPECT_EQ(rig.tracker().nextEventId, 1U);
    EXPECT_EQ(rig.line.read(20), frame(1, ackRequest) + frame(2, ackRequest));
}

TEST(TransmitTracking, NoRequestInTheFlags_IsNotRegistered)
{
    startedPort<> rig;
    rig.port.sendMessage(message(1), true);
    rig.port.sendMessage(message(2, ackRequest), true);
    ASSERT_TRUE(rig.waitForPending(1));
    EXPECT_THAT(rig.pendingIds(), ElementsAre(2));
}

TEST(TransmitTracking, RegisteredMessage_IsAsItWasSent)
{
    startedPort<> rig;
    rig.clock.now_sec = 12.5;
    rig.port.sendMessage(message(7, ackRequest, {1, 2}), true);
    ASSERT_TRUE(rig.waitForPending(1));
    gssipMessage const sent = rig.events().front().message;
    EXPECT_TRUE(sent.isValid());
    EXPECT_EQ(sent.getHeaderAndDataUint8(), frame(7, ackRequest, {1, 2}));
    EXPECT_EQ(sent.getSendTimeStamp(), 12.5);
}

TEST(TransmitTracking, FailedWrite_IsNotRegisteredAndTheThreadGoesOn)
{
    startedPort<> rig;
    rig.line.hangUp();
    rig.port.sendMessage(message(1, ackRequest), true);
    rig.port.sendMessage(message(2, ackRequest), true);
    EXPECT_TRUE(kit::waitUntil([&] { return rig.port.getNumberQueuedMessages() == 0; }));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.pendingIds(), IsEmpty());
    EXPECT_EQ(rig.tracker().nextEventId, 0U);
}

// --- The time of sending

TEST(TransmitTime, MessageWithoutTracking_AsksOnce)
{
    startedPort<> rig;
    for (std::uint16_t id = 0; id < 10; ++id)
    {
        rig.port.sendMessage(message(id, ackRequest), false);
    }
    rig.line.read(100);
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.clock.asked, 10U);
}

TEST(TransmitTime, RegisteredMessage_AsksOnceMoreForItsDeadline)
{
    startedPort<> rig;
    for (std::uint16_t id = 0; id < 10; ++id)
    {
        rig.port.sendMessage(message(id, ackRequest), true);
    }
    ASSERT_TRUE(rig.waitForPending(10));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.clock.asked, 20U);
}

TEST(TransmitTime, IdlePort_NeverAsks)
{
    startedPort<> rig;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.clock.asked, 0U);
}

// --- resendMessage

TEST(ResendMessage, GoesOutAtOnceAheadOfQueuedMessages)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0); // no transmit thread: the queue rests
    rig.port.sendMessage(message(1), false);
    gssipMessage urgent = message(2, ackRequest, {3});

    EXPECT_EQ(rig.port.resendMessage(urgent), 0);

    EXPECT_EQ(rig.line.read(14), frame(2, ackRequest, {3}));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
    EXPECT_THAT(rig.events(), IsEmpty());
}

TEST(ResendMessage, PassesTheClosedGate)
{
    startedPort<> rig;
    rig.port.setHandshakeTimeout_sec(-1.0);
    rig.port.resetPortReady();
    gssipMessage urgent = message(2);
    EXPECT_EQ(rig.port.resendMessage(urgent), 0);
    EXPECT_EQ(rig.line.read(10), frame(2, 0));
}

TEST(ResendMessage, SetsChecksumsAndSendTime)
{
    startedPort<> rig;
    rig.clock.now_sec = 3.25;
    gssipMessage sent = message(2, 0, {0xFFFF});
    EXPECT_EQ(rig.port.resendMessage(sent), 0);
    EXPECT_EQ(sent.getHeaderChecksum(), 0x7DFE);
    EXPECT_EQ(sent.getDataChecksum(), 1U);
    EXPECT_EQ(sent.getSendTimeStamp(), 3.25);
    EXPECT_EQ(rig.clock.asked, 1U);
}

TEST(ResendMessage, ClosedPort_FailsAndStillSetsChecksumsAndSendTime)
{
    portOnLine<> rig;
    rig.clock.now_sec = 3.25;
    gssipMessage sent = message(2, 0, {0xFFFF});
    EXPECT_EQ(rig.port.resendMessage(sent), EBADF);
    EXPECT_EQ(sent.getHeaderChecksum(), 0x7DFE);
    EXPECT_EQ(sent.getDataChecksum(), 1U);
    EXPECT_EQ(sent.getSendTimeStamp(), 3.25);
    EXPECT_EQ(rig.clock.asked, 1U);
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(ResendMessage, ManyThreads_FramesNeverMix)
{
    startedPort<> rig;
    std::vector<std::uint16_t> const data(100, 0x81FF);
    auto const resend = [&](std::uint16_t id) {
        for (int sent = 0; sent < 50; ++sent)
        {
            gssipMessage one = message(id, 0, data);
            EXPECT_EQ(rig.port.resendMessage(one), 0);
        }
    };
    std::thread first(resend, std::uint16_t{1});
    std::thread second(resend, std::uint16_t{2});
    for (int sent = 0; sent < 50; ++sent)
    {
        rig.port.sendMessage(message(3, 0, data), false);
    }
    std::size_t const size = frame(1, 0, data).size();
    bytes const wire = rig.line.read(150 * size);
    first.join();
    second.join();
    ASSERT_EQ(wire.size(), 150 * size);
    std::vector<unsigned> seen(4);
    for (std::size_t at = 0; at < wire.size(); at += size)
    {
        auto const id = static_cast<std::uint16_t>(wire[at + 2]);
        auto const begin = wire.begin() + static_cast<std::ptrdiff_t>(at);
        ASSERT_TRUE(bytes(begin, begin + static_cast<std::ptrdiff_t>(size)) == frame(id, 0, data)) << at;
        ++seen.at(id);
    }
    EXPECT_THAT(seen, ElementsAre(0, 50, 50, 50));
}

// --- Raw bytes

TEST(RawSend, BytesGoOutAsTheyAre)
{
    startedPort<> rig;
    bytes const raw{0x00, 0xFF, 0x81, 0x0D, 0x0A, 0x11, 0x13, 0x04, 0x7F};
    unsigned sent = 0;
    EXPECT_EQ(rig.port.send(raw.data(), static_cast<unsigned>(raw.size()), sent), 0);
    EXPECT_EQ(sent, raw.size());
    EXPECT_EQ(rig.line.read(raw.size()), raw);
    EXPECT_EQ(rig.clock.asked, 0U);
}

TEST(RawSend, ClosedPort_Fails)
{
    portOnLine<> rig;
    bytes const raw{1, 2, 3};
    unsigned sent = 99;
    EXPECT_EQ(rig.port.send(raw.data(), 3, sent), EBADF);
    EXPECT_EQ(sent, 0U);
}

TEST(RawSend, TakesNoLockOfThePort)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    sentry const sendLock(rig.port.sendMutex);
    sentry const txLock(rig.port.txMutex);
    sentry const readyLock(rig.port.readyMutex);
    bytes const raw{1, 2, 3};
    unsigned sent = 0;
    EXPECT_EQ(rig.port.send(raw.data(), 3, sent), 0);
    EXPECT_EQ(rig.line.read(3), raw);
}

TEST(RawSend, OvertakesQueuedMessages)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.port.sendMessage(message(1), false);
    bytes const raw{1, 2, 3};
    unsigned sent = 0;
    EXPECT_EQ(rig.port.send(raw.data(), 3, sent), 0);
    EXPECT_EQ(rig.line.read(3), raw);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
}

// --- What the transmit thread holds while others run

/// Notes which of the port's mutexes are held when it is called back.
class probingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~probingPort() override { stop(); }

    double getAcknowledgeTimeout_sec() override
    {
        probe("registration");
        return exposedPort::getAcknowledgeTimeout_sec();
    }

    void probe(std::string const& where)
    {
        probeOne(where + " sendMutex", sendMutex);
        probeOne(where + " txMutex", txMutex);
        probeOne(where + " readyMutex", readyMutex);
        std::lock_guard<std::mutex> const lock(notesMutex);
        visited.insert(where);
    }

    std::set<std::string> held() const
    {
        std::lock_guard<std::mutex> const lock(notesMutex);
        return heldThen;
    }

    std::set<std::string> places() const
    {
        std::lock_guard<std::mutex> const lock(notesMutex);
        return visited;
    }

  private:
    void probeOne(std::string const& name, pthread_mutex_t& mutex)
    {
        if (pthread_mutex_trylock(&mutex) == 0)
        {
            pthread_mutex_unlock(&mutex);
            return;
        }
        std::lock_guard<std::mutex> const lock(notesMutex);
        heldThen.insert(name);
    }

    mutable std::mutex notesMutex;
    std::set<std::string> heldThen;
    std::set<std::string> visited;
};

/// A clock that has the port's mutexes probed at each query.
class probingClock : public timeStampInterface
{
  public:
    double getTime_sec() override
    {
        if (probingPort* const probed = port)
        {
            probed->probe("time stamp");
        }
        return 0.0;
    }

    std::atomic<probingPort*> port{nullptr};
};

TEST(TransmitLocks, NoneIsHeldAtTheTimeStampAndAtTheRegistration)
{
    portOnLine<probingPort, probingClock> rig;
    rig.clock.port = &rig.port;
    rig.port.setAcknowledgeTimeout_sec(longTime_sec);
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    ASSERT_TRUE(rig.waitForPending(1));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.port.places(), ElementsAre("registration", "time stamp"));
    EXPECT_THAT(rig.port.held(), IsEmpty());
}

// --- The thread's body

/// Runs the body on a thread of the test's until it is told to end.
class bodyOnThread
{
  public:
    template <typename Body>
    bodyOnThread(exposedPort& portToRun, Body body) : port(openGate(portToRun)), call(body)
    {
        EXPECT_TRUE(kit::waitUntil([this] { return port.txRunning.isSet(); }));
    }

    long end()
    {
        port.txRunning.clear();
        kit::waitUntil([this] {
            pthread_mutex_lock(&port.txMutex);
            pthread_mutex_unlock(&port.txMutex);
            pthread_cond_signal(&port.txCond);
            port.signalPortReady();
            return call.hasEnded();
        });
        return call.get();
    }

  private:
    static exposedPort& openGate(exposedPort& port)
    {
        port.signalPortReady();
        return port;
    }

    exposedPort& port;
    kit::callOnThread<long> call;
};

TEST(TransmitThreadBody, SetsItsFlagAndReturnsZeroAfterGoodWrites)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    bodyOnThread body(rig.port, [&] { return long{rig.port.transmitThread()}; });
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_EQ(body.end(), 0);
}

TEST(TransmitThreadBody, ReturnsTheResultOfTheLastWrite)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.line.hangUp();
    bodyOnThread body(rig.port, [&] { return long{rig.port.transmitThread()}; });
    rig.port.sendMessage(message(1), true);
    EXPECT_TRUE(kit::waitUntil([&] { return rig.clock.asked == 1; }));
    EXPECT_EQ(body.end(), EIO);
}

TEST(TransmitThreadBody, RequestOnAPortWithoutAReceiver_IsRegistered)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.port.setAcknowledgeTimeout_sec(longTime_sec);
    bodyOnThread body(rig.port, [&] { return long{rig.port.transmitThread()}; });
    rig.port.sendMessage(message(1, ackRequest), true);
    EXPECT_EQ(rig.line.read(10), frame(1, ackRequest));
    EXPECT_TRUE(rig.waitForPending(1));
    EXPECT_EQ(body.end(), 0);
}

TEST(TransmitThreadBody, Entry_ReturnsNull)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.line.hangUp();
    bodyOnThread body(rig.port, [&] { return exposedPort::callTransmitThread(&rig.port) == nullptr ? 0L : -1L; });
    rig.port.sendMessage(message(1), true);
    EXPECT_TRUE(kit::waitUntil([&] { return rig.clock.asked == 1; }));
    EXPECT_EQ(body.end(), 0);
}

} // namespace
