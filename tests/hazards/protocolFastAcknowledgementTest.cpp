// Acknowledgements that come before the message that they answer has been registered.

#include "callOnThread.h"
#include "frames.h"
#include "holdingTime.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "systemCalls.h"
#include "threadCalls.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <string>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::exposedPort;
using kit::frame;
using kit::holdingTime;
using kit::message;
using kit::portOnLine;
using kit::operator+;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;
constexpr std::uint16_t MARK = 999; // the id of an ordinary message that shows how far the receiving has come
constexpr double AN_HOUR_SEC = 3600.0;

/// A started port that resends only after an hour, and the peer's side of its line.
struct slowWriter : portOnLine<exposedPort, holdingTime>
{
    slowWriter()
    {
        port.setAcknowledgeTimeout_sec(AN_HOUR_SEC);
        EXPECT_TRUE(port.start());
        transmitThread = watch.idOf("GP TX");
    }
    ~slowWriter() { clock.place.letGo(); }

    /// Returns when the request has been written and not yet been registered.
    void writeRequest(std::uint16_t id)
    {
        port.sendMessage(message(id, REQUEST), true);
        clock.place.awaitArrival();
        EXPECT_EQ(line.read(10), frame(id, REQUEST));
    }

    void register_()
    {
        clock.place.letGo();
        EXPECT_TRUE(kit::waitUntilAsleep(transmitThread));
    }

    /// Receives everything up to a mark, which is sent for that purpose.
    void receiveAll()
    {
        line.write(frame(MARK, 0));
        gssipMessage received;
        EXPECT_EQ(port.getMessage(received, true), 0);
        EXPECT_EQ(received.getId(), MARK);
    }

    void receive(bytes const& replies)
    {
        line.write(replies);
        receiveAll();
    }

    unsigned registrations()
    {
        sentry const lock(tracker().eventQMutex);
        return tracker().nextEventId;
    }

    void expectSettled()
    {
        EXPECT_THAT(events(), IsEmpty());
        EXPECT_EQ(registrations(), 0U);
        EXPECT_THAT(line.readUntilQuiet(), IsEmpty());
    }

    void expectPending(std::uint16_t id)
    {
        ASSERT_THAT(events(), SizeIs(1));
        EXPECT_EQ(events().front().message.getId(), id);
        EXPECT_EQ(events().front().retransmitCount, 0U);
        EXPECT_EQ(registrations(), 1U);
        EXPECT_THAT(line.readUntilQuiet(), IsEmpty());
    }

    kit::threadWatch watch;
    pid_t transmitThread = 0;
};

TEST(AckBeforeRegistration, SettlesTheMessage)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    rig.register_();
    rig.expectSettled();
}

/// With the shortest of time-outs, so that whatever is pending would go out at once.
TEST(AckBeforeRegistration, MessageIsWrittenOnce)
{
    slowWriter rig;
    rig.port.setAcknowledgeTimeout_sec(0.0);
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    rig.register_();
    rig.expectSettled();
}

TEST(AckBeforeRegistration, OfAnotherId_SettlesNothing)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(6, ACK));
    rig.register_();
    rig.expectPending(5);
}

TEST(AckBeforeRegistration, WithData_SettlesNothing)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.line.write(frame(5, ACK, {1}));
    gssipMessage received;
    EXPECT_EQ(rig.port.getMessage(received, true), 0);
    rig.register_();
    rig.expectPending(5);
}

/// An older message of the same id waits: the ACK is its own, and the new one stays to be acknowledged.
TEST(AckBeforeRegistration, WithAnOlderMessageOfThatIdPending_SettlesTheOlder)
{
    slowWriter rig;
    gssipMessage older = message(5, REQUEST);
    older.setSendTimeStamp(-7.0);
    ASSERT_EQ(rig.tracker().processSendAckRequest(older), 0);
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    rig.register_();
    ASSERT_THAT(rig.events(), SizeIs(1));
    EXPECT_NE(rig.events().front().message.getSendTimeStamp(), -7.0);
    EXPECT_EQ(rig.registrations(), 2U);
}

/// The next message of that id is another one.
TEST(AckBeforeRegistration, SettlesOneMessageOnly)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    rig.register_();
    rig.port.sendMessage(message(5, REQUEST), true);
    EXPECT_EQ(rig.line.read(10), frame(5, REQUEST));
    EXPECT_TRUE(rig.waitForPending(1));
}

TEST(NakBeforeRegistration, ResendsAtOnce)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, NAK));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty()); // what is not registered is not resent
    rig.register_();
    EXPECT_EQ(rig.line.read(10), frame(5, REQUEST));
    EXPECT_TRUE(rig.waitForPending(1));
    EXPECT_EQ(rig.events().front().retransmitCount, 1U);
    EXPECT_EQ(rig.registrations(), 1U);
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

TEST(NakBeforeRegistration, AckThatFollows_Settles)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, NAK));
    rig.receive(frame(5, ACK));
    rig.register_();
    rig.expectSettled();
}

TEST(NakBeforeRegistration, AfterAnAck_ChangesNothing)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    rig.receive(frame(5, NAK));
    rig.register_();
    rig.expectSettled();
}

/// It has been received before the message was on the line, so it cannot be the answer, whenever it is taken.
TEST(StaleAck, ReceivedBeforeTheMessageTakenAfter_SettlesNothing)
{
    slowWriter rig;
    rig.line.write(frame(5, ACK));
    ASSERT_TRUE(rig.waitForReceived(1));
    rig.writeRequest(5);
    rig.receiveAll();
    rig.register_();
    rig.expectPending(5);
}

/// The message has been announced, but another writer has the line.
TEST(StaleAck, TakenWhileTheMessageWaitsForItsTurn_SettlesNothing)
{
    slowWriter rig;
    pthread_mutex_lock(&rig.port.sendMutex);
    rig.port.sendMessage(message(5, REQUEST), true);
    ASSERT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    rig.receive(frame(5, ACK));
    pthread_mutex_unlock(&rig.port.sendMutex);
    rig.clock.place.awaitArrival();
    EXPECT_EQ(rig.line.read(10), frame(5, REQUEST));
    rig.register_();
    rig.expectPending(5);
}

TEST(StaleAck, ReceivedWhileTheMessageWaitsForItsTurnTakenAfter_SettlesNothing)
{
    slowWriter rig;
    pthread_mutex_lock(&rig.port.sendMutex);
    rig.port.sendMessage(message(5, REQUEST), true);
    ASSERT_TRUE(kit::waitUntilAsleep(rig.transmitThread));
    rig.line.write(frame(5, ACK));
    ASSERT_TRUE(rig.waitForReceived(1));
    pthread_mutex_unlock(&rig.port.sendMutex);
    rig.clock.place.awaitArrival();
    EXPECT_EQ(rig.line.read(10), frame(5, REQUEST));
    rig.receiveAll();
    rig.register_();
    rig.expectPending(5);
}

/// Its number counts from the start before this one, and says nothing about the present message.
TEST(StaleAck, LeftOverFromBeforeARestart_SettlesNothing)
{
    constexpr std::uint16_t HANDSHAKE = gssipMessage::HANDSHAKE_FLAG;
    slowWriter rig;
    rig.line.write(frame(1, HANDSHAKE) + frame(2, HANDSHAKE) + frame(5, ACK));
    ASSERT_TRUE(rig.waitForReceived(3));
    auto* const queueMutex = rig.receiver().rxQueue.queueMutex.native_handle();
    kit::pauseBeforeLock pause(
        [=](pthread_mutex_t& mutex) { return &mutex == queueMutex && kit::isThread("consumer"); });
    kit::threadCallsReplaced const replaced(pause);
    callOnThread<int> consumer([&] {
        pthread_setname_np(pthread_self(), "consumer");
        gssipMessage received;
        return rig.port.getMessage(received, true);
    });
    pause.place.awaitArrival(); // with the queue that is about to be replaced
    ASSERT_TRUE(rig.port.stop());
    ASSERT_TRUE(rig.port.start());
    rig.writeRequest(5);
    pause.place.letGo();
    EXPECT_EQ(consumer.get(), -1);
    rig.clock.place.letGo();
    EXPECT_TRUE(rig.waitForPending(1));
}

TEST(StaleNak, ReceivedBeforeTheMessageTakenAfter_ResendsNothing)
{
    slowWriter rig;
    rig.line.write(frame(5, NAK));
    ASSERT_TRUE(rig.waitForReceived(1));
    rig.writeRequest(5);
    rig.receiveAll();
    rig.register_();
    rig.expectPending(5);
}

/// Fails writes while it is told to.
class failingLine : public kit::systemCalls
{
  public:
    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        if (fails && kit::isThread("GP TX"))
        {
            fails = false;
            errno = EIO;
            return -1;
        }
        return systemCalls::write(descriptor, data, count);
    }

    std::atomic<bool> fails{true};
};

TEST(FailedWrite, Message_IsNotAwaitedAnyMore)
{
    failingLine system;
    kit::systemReplaced const replaced(system);
    slowWriter rig;
    rig.port.sendMessage(message(5, REQUEST), true);
    rig.register_(); // the time stamp is set all the same
    rig.receive(frame(5, ACK));
    EXPECT_EQ(rig.registrations(), 0U);

    rig.port.sendMessage(message(5, REQUEST), true);
    EXPECT_EQ(rig.line.read(10), frame(5, REQUEST));
    EXPECT_TRUE(rig.waitForPending(1));
}

/// A registration that nobody has announced is none of the transmit thread's message.
TEST(RegistrationByTheApplication, WhileAMessageOfThatIdIsAnsweredEarly_StaysAsItIs)
{
    slowWriter rig;
    rig.writeRequest(5);
    rig.receive(frame(5, ACK));
    gssipMessage own = message(5, REQUEST);
    EXPECT_EQ(rig.tracker().processSendAckRequest(own), 0);
    EXPECT_THAT(rig.events(), SizeIs(1));
    rig.register_();
    EXPECT_THAT(rig.events(), SizeIs(1));
    EXPECT_EQ(rig.registrations(), 1U);
}

TEST(RegistrationByTheApplication, AfterAnAckThatMatchedNothing_IsPending)
{
    portOnLine<> rig;
    bool handled = false;
    EXPECT_EQ(rig.tracker().processReceiveAckNak(message(5, ACK), handled), 0);
    EXPECT_TRUE(handled);
    gssipMessage own = message(5, REQUEST);
    EXPECT_EQ(rig.tracker().processSendAckRequest(own), 0);
    EXPECT_THAT(rig.events(), SizeIs(1));
}

/// Takes its time, so that the peer's answer is mostly there before the registration.
class slowTime : public kit::settableTime
{
  public:
    double getTime_sec() override
    {
        if (kit::isThread("GP TX"))
        {
            std::this_thread::sleep_for(std::chrono::microseconds(30));
        }
        return settableTime::getTime_sec();
    }
};

/// Acknowledges each request at once, and in the end sends a mark.
int acknowledgeAll(kit::pseudoTerminal& line, unsigned requests)
{
    unsigned answered = 0;
    for (; answered < requests; ++answered)
    {
        bytes const request = line.read(10);
        if (request.size() != 10)
        {
            break;
        }
        line.write(frame(static_cast<std::uint16_t>(request[2] | request[3] << 8U), ACK));
    }
    line.write(frame(MARK, 0));
    return static_cast<int>(answered);
}

TEST(ThousandsOfMessages, EachAcknowledgedAtOnce_AreWrittenOnce)
{
    constexpr unsigned requests = 5000;
    portOnLine<exposedPort, slowTime> rig;
    kit::threadWatch const watch;
    rig.port.setAcknowledgeTimeout_sec(AN_HOUR_SEC);
    ASSERT_TRUE(rig.port.start());
    pid_t const transmitThread = watch.idOf("GP TX");
    callOnThread<int> peer([&] { return acknowledgeAll(rig.line, requests); });
    callOnThread<int> receiver([&] {
        gssipMessage received;
        int const result = rig.port.getMessage(received, true);
        return result == 0 ? received.getId() : -1;
    });
    for (unsigned i = 0; i < requests; ++i)
    {
        rig.port.sendMessage(message(static_cast<std::uint16_t>(1000 + i), REQUEST), true);
    }
    EXPECT_EQ(receiver.get(std::chrono::seconds(25)), MARK);
    EXPECT_EQ(peer.get(), static_cast<int>(requests));
    EXPECT_TRUE(kit::waitUntilAsleep(transmitThread));
    EXPECT_THAT(rig.events(), SizeIs(0));
    EXPECT_THAT(rig.line.readUntilQuiet(), IsEmpty());
}

} // namespace
