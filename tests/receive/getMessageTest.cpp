#include "frames.h"
#include "portOnLine.h"

#include <atomic>
#include <cerrno>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <thread>

namespace
{

using namespace std::chrono_literals;
using kit::bytes;
using kit::operator+;

bytes const acknowledgementOf1{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6};
bytes const negativeAcknowledgementOf1{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x84, 0x00, 0xFA};

constexpr std::uint16_t request = 0x4000;
constexpr std::uint16_t handshake = 0x1000;
constexpr std::uint16_t ack = 0x8800;
constexpr std::uint16_t nak = 0x8400;

/// Counts how often it is asked whether to acknowledge, and answers as it is told to.
class advisedPort : public kit::exposedPort
{
  public:
    using kit::exposedPort::exposedPort;
    ~advisedPort() override { stop(); }

    bool getReceiveAutoAcknowledgeEnable() override
    {
        ++asked;
        return answer;
    }

    std::atomic<bool> answer{true};
    std::atomic<unsigned> asked{0};
};

/// A started port. Every test says how the gate stands before the call it looks at.
template <typename Port>
class StartedPort : public testing::Test
{
  protected:
    void SetUp() override
    {
        at.port.setAcknowledgeTimeout_sec(60.0); // no resend of its own accord while a test runs
        ASSERT_TRUE(at.port.start());
        at.port.resetPortReady();
    }

    int get(bool waitOnInvalid = true) { return at.port.getMessage(message, waitOnInvalid); }

    /// Brings the bytes into the receive queue, as `count` messages, before anybody takes one.
    void receive(bytes const& stream, unsigned count)
    {
        at.line.write(stream);
        ASSERT_TRUE(at.waitForReceived(count));
    }

    /// Makes a message pending, as if it had been sent.
    void expectAnswerTo(std::uint16_t id)
    {
        gssipMessage sent(id, request, 0);
        sent.setSendTimeStamp(at.clock.now_sec);
        ASSERT_EQ(at.port.sendAckReq.processSendAckRequest(sent), 0);
    }

    void expectSilence() { EXPECT_EQ(at.line.readUntilQuiet(30ms), bytes{}); }

    void expectAnswer(bytes const& answer)
    {
        EXPECT_EQ(at.line.read(answer.size()), answer);
        expectSilence();
    }

    std::string invalidMessage() { return "Port(" + at.id() + ") Invalid Message"; }

    kit::portOnLine<Port> at;
    gssipMessage message;
};

using GetMessage = StartedPort<kit::exposedPort>;
using GetMessageAdvised = StartedPort<advisedPort>;

// Ordinary messages.

TEST_F(GetMessage, OrdinaryMessage_IsReturnedWithAllItsFields)
{
    at.clock.now_sec = 50.25;
    receive({0xFF, 0x81, 0x05, 0x00, 0x02, 0x00, 0x01, 0x00, 0xF9, 0x7D, 0x34, 0x12, 0xCD, 0xAB, 0xFF, 0x41}, 1);
    at.clock.now_sec = 60.0;
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getSOM(), 0x81FF);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_EQ(message.getDataWordSize(), 2);
    EXPECT_EQ(message.getProtocolFlags(), 0x0001);
    EXPECT_EQ(message.getHeaderChecksum(), 0x7DF9);
    EXPECT_EQ(message.getData(), (std::vector<std::uint16_t>{0x1234, 0xABCD}));
    EXPECT_EQ(message.getDataChecksum(), 0x41FF);
    EXPECT_EQ(message.getReceiveTimeStamp(), 50.25);
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
    EXPECT_TRUE(message.isValid());
}

TEST_F(GetMessage, OrdinaryMessage_IsNotAnswered)
{
    receive(kit::frame(1, 0, {7}), 1);
    EXPECT_EQ(get(), 0);
    expectSilence();
}

TEST_F(GetMessage, OrdinaryMessage_LeavesAClosedGateClosed)
{
    receive(kit::frame(1, 0), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_FALSE(at.gateIsOpen());
}

TEST_F(GetMessage, OrdinaryMessage_LeavesAnOpenGateOpen)
{
    at.port.signalPortReady();
    receive(kit::frame(1, 0), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, SeveralMessages_ComeOnePerCallInOrder)
{
    receive(kit::frame(1, 0) + kit::frame(2, 0, {5}) + kit::frame(3, 0), 3);
    for (unsigned const id : {1U, 2U, 3U})
    {
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(message.getId(), id);
    }
    EXPECT_EQ(at.port.getNumberRxQueuedMessages(), 0U);
}

TEST_F(GetMessage, NothingReceived_BlocksUntilAMessageArrives)
{
    auto getting = std::async(std::launch::async, [this] { return get(); });
    EXPECT_EQ(getting.wait_for(20ms), std::future_status::timeout);
    at.line.write(kit::frame(4, 0));
    ASSERT_EQ(getting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(getting.get(), 0);
    EXPECT_EQ(message.getId(), 4);
}

TEST_F(GetMessage, MessageLeftFromBefore_IsReplacedWhole)
{
    message = gssipMessage(77, request, 5);
    message.setSendTimeStamp(4.0);
    receive(kit::frame(1, 0), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_TRUE(message.getData().empty());
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
}

// Messages that request acknowledgement.

TEST_F(GetMessage, Request_IsAnsweredWithAckAndReturned)
{
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_EQ(message.getProtocolFlags(), request);
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, RequestWithData_IsAnsweredWithAHeaderOnlyAck)
{
    receive(kit::frame(1, request, {1, 2, 3}), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getData().size(), 3U);
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, Request_HasBeenAnsweredWhenItIsReturned)
{
    receive(kit::frame(1, request), 1);
    std::uint64_t const askedForReceiving = at.clock.asked;
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(at.clock.asked, askedForReceiving + 1) << "the answer's send time";
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, Request_ClosesTheGate)
{
    at.port.signalPortReady();
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_FALSE(at.gateIsOpen());
}

TEST_F(GetMessage, EachRequest_IsAnsweredWhenItIsTaken)
{
    receive(kit::frame(1, request) + kit::frame(1, request), 2);
    EXPECT_EQ(get(), 0);
    expectAnswer(acknowledgementOf1);
    EXPECT_EQ(get(), 0);
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, RequestWithoutAutomaticAcknowledgement_IsReturnedUnansweredAndClosesTheGate)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    at.port.signalPortReady();
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_FALSE(at.gateIsOpen());
    expectSilence();
}

TEST_F(GetMessageAdvised, OverrideSaysNo_RequestIsNotAnswered)
{
    at.port.answer = false;
    EXPECT_TRUE(at.port.rxAutoAck);
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    expectSilence();
}

TEST_F(GetMessageAdvised, OverrideSaysYes_RequestIsAnswered)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessageAdvised, Override_IsAskedForEachMessageTaken)
{
    receive(kit::frame(1, handshake) + kit::frame(2, ack) + kit::frame(3, 0), 3);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(at.port.asked, 3U);
}

// Acknowledgements.

TEST_F(GetMessage, AckOfATrackedMessage_IsSwallowedAndOpensTheGate)
{
    expectAnswerTo(9);
    receive(kit::frame(9, ack) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.events().empty());
    EXPECT_TRUE(at.gateIsOpen());
    expectSilence();
}

TEST_F(GetMessage, AckOfAMessageSentOverTheLine_SettlesIt)
{
    at.port.signalPortReady();
    at.port.sendMessage(gssipMessage(9, request, 0), true);
    EXPECT_EQ(at.line.read(10), kit::frame(9, request));
    ASSERT_TRUE(at.waitForPending(1));
    receive(kit::frame(9, ack) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.events().empty());
    expectSilence();
}

TEST_F(GetMessage, AckOfNothingPending_IsSwallowedAndOpensTheGate)
{
    receive(kit::frame(9, ack) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, AckBehindWhichNothingComes_KeepsTheCallerWaiting)
{
    expectAnswerTo(9);
    at.line.write(kit::frame(9, ack));
    auto getting = std::async(std::launch::async, [this] { return get(); });
    ASSERT_TRUE(at.waitForPending(0));
    EXPECT_TRUE(kit::waitUntil([this] { return at.gateIsOpen(); }));
    EXPECT_EQ(getting.wait_for(20ms), std::future_status::timeout);
    at.line.write(kit::frame(5, 0));
    ASSERT_EQ(getting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(getting.get(), 0);
    EXPECT_EQ(message.getId(), 5);
}

TEST_F(GetMessage, AckWithoutAutomaticAcknowledgement_StillSettles)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    expectAnswerTo(9);
    receive(kit::frame(9, ack) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.events().empty());
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, AckThenRequest_LeavesTheGateClosed)
{
    receive(kit::frame(9, ack) + kit::frame(1, request), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_FALSE(at.gateIsOpen());
}

TEST_F(GetMessage, AckWithData_IsReturnedLikeAnOrdinaryMessage)
{
    expectAnswerTo(9);
    receive(kit::frame(9, ack, {0x1234}), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 9);
    EXPECT_EQ(message.getData(), std::vector<std::uint16_t>{0x1234});
    EXPECT_EQ(at.events().size(), 1U);
    EXPECT_FALSE(at.gateIsOpen());
}

TEST_F(GetMessage, NakWithData_IsReturnedLikeAnOrdinaryMessage)
{
    expectAnswerTo(9);
    receive(kit::frame(9, nak, {0x1234}), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 9);
    EXPECT_EQ(at.events().at(0).retransmitCount, 0U);
    expectSilence();
}

TEST_F(GetMessage, AckThatRequestsAcknowledgement_IsAnsweredAndSwallowed)
{
    expectAnswerTo(1);
    receive(kit::frame(1, 0x4800) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.events().empty());
    EXPECT_TRUE(at.gateIsOpen());
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, Nak_ResendsIsSwallowedAndOpensTheGate)
{
    expectAnswerTo(9);
    receive(kit::frame(9, nak) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
    expectAnswer(kit::frame(9, request));
    ASSERT_EQ(at.events().size(), 1U);
    EXPECT_EQ(at.events()[0].retransmitCount, 1U);
}

TEST_F(GetMessage, NakWithoutAutomaticAcknowledgement_StillResends)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    expectAnswerTo(9);
    receive(kit::frame(9, nak) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    expectAnswer(kit::frame(9, request));
}

TEST_F(GetMessage, NakWhoseDeadlineCannotBeComputed_ReturnsTheErrorAndOpensTheGate)
{
    for (bool const automatic : {true, false})
    {
        at.port.setReceiveAutoAcknowledgeEnable(automatic);
        at.port.setAcknowledgeTimeout_sec(60.0);
        expectAnswerTo(9);
        at.port.resetPortReady();
        receive(kit::frame(9, nak) + kit::frame(5, 0), 2);
        at.port.setAcknowledgeTimeout_sec(std::numeric_limits<double>::quiet_NaN());
        EXPECT_EQ(get(), EINVAL);
        EXPECT_EQ(message.getId(), 9);
        EXPECT_EQ(message.getProtocolFlags(), nak);
        EXPECT_TRUE(at.gateIsOpen());
        expectAnswer(kit::frame(9, request));
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(message.getId(), 5);
        at.port.sendAckReq.clearQueue();
    }
}

// Handshakes.

TEST_F(GetMessage, Handshake_IsSwallowedAndOpensTheGate)
{
    receive(kit::frame(1, handshake) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
    EXPECT_TRUE(at.log.lines().empty());
    expectSilence();
}

TEST_F(GetMessage, HandshakeWithData_IsSwallowed)
{
    receive(kit::frame(1, handshake, {1, 2}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, HandshakeReject_IsSwallowedAndOpensTheGate)
{
    for (std::uint16_t const flags : {std::uint16_t{0x9200}, std::uint16_t{0x9300}})
    {
        at.port.resetPortReady();
        receive(kit::frame(1, flags) + kit::frame(5, 0), 2);
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(message.getId(), 5);
        EXPECT_TRUE(at.gateIsOpen());
    }
}

TEST_F(GetMessage, HandshakeThatRequestsAcknowledgement_IsAnsweredAndSwallowed)
{
    receive(kit::frame(1, handshake | request) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen()) << "only a message that is returned closes the gate";
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, HandshakeWithoutAutomaticAcknowledgement_IsSwallowedUnanswered)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    receive(kit::frame(1, handshake | request) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
    expectSilence();
}

TEST_F(GetMessage, HandshakeWithAckFlagAndData_IsSwallowed)
{
    receive(kit::frame(1, ack | handshake, {3}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, InvalidHandshake_IsInvalid)
{
    receive(kit::frameWithBadData(1, handshake, {3}), 1);
    EXPECT_EQ(get(false), 1);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
}

TEST_F(GetMessage, InvalidHandshakeSkipped_LeavesTheGateClosed)
{
    receive(kit::frameWithBadData(1, handshake, {3}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_FALSE(at.gateIsOpen());
}

// Invalid messages.

TEST_F(GetMessage, Invalid_IsReturnedAs1WithTheMessageAndOpensTheGate)
{
    receive(kit::frameWithBadData(1, 0, {0x1234}), 1);
    EXPECT_EQ(get(false), 1);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_EQ(message.getData(), std::vector<std::uint16_t>{0x1234});
    EXPECT_FALSE(message.isValid());
    EXPECT_TRUE(at.gateIsOpen());
    expectSilence();
}

TEST_F(GetMessage, Invalid_IsLoggedOnceWithTimeAndLevel2)
{
    receive(kit::frameWithBadData(1, 0, {0x1234}), 1);
    at.clock.now_sec = 91.5;
    EXPECT_EQ(get(false), 1);
    auto const lines = at.log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, invalidMessage());
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].time_sec, 91.5);
}

TEST_F(GetMessage, InvalidRequest_IsAnsweredWithNak)
{
    receive(kit::frameWithBadData(1, request, {0x1234}), 1);
    EXPECT_EQ(get(false), 1);
    EXPECT_TRUE(at.gateIsOpen());
    expectAnswer(negativeAcknowledgementOf1);
}

TEST_F(GetMessage, InvalidRequestWithoutAutomaticAcknowledgement_IsLoggedUnanswered)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    receive(kit::frameWithBadData(1, request, {0x1234}), 1);
    EXPECT_EQ(get(false), 1);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_TRUE(at.gateIsOpen());
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
    expectSilence();
}

TEST_F(GetMessage, InvalidSkipped_IsLoggedAndTheNextMessageReturned)
{
    receive(kit::frameWithBadData(1, 0, {0x1234}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
}

TEST_F(GetMessage, InvalidSkipped_LeavesAClosedGateClosed)
{
    receive(kit::frameWithBadData(1, request, {0x1234}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), 0);
    EXPECT_FALSE(at.gateIsOpen());
    expectAnswer(negativeAcknowledgementOf1);
}

TEST_F(GetMessage, InvalidSkipped_LeavesAnOpenGateOpen)
{
    at.port.signalPortReady();
    receive(kit::frameWithBadData(1, request, {0x1234}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), 0);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessage, InvalidSkippedWithoutAutomaticAcknowledgement_IsLoggedUnanswered)
{
    at.port.setReceiveAutoAcknowledgeEnable(false);
    receive(kit::frameWithBadData(1, request, {0x1234}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_FALSE(at.gateIsOpen());
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
    expectSilence();
}

TEST_F(GetMessage, EachInvalidSkipped_IsLogged)
{
    receive(kit::frameWithBadData(1, 0, {1}) + kit::frameWithBadData(2, 0, {1}) + kit::frameWithBadData(3, 0, {1}) +
                kit::frame(5, 0),
            4);
    EXPECT_EQ(get(true), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_EQ(at.log.count(invalidMessage()), 3U);
}

/// A message of an application that accepts even ids only.
class evenMessage : public gssipMessage
{
  public:
    bool isValid() const override { return gssipMessage::isValid() && getId() % 2 == 0; }
};

TEST_F(GetMessage, MessageWithATestOfItsOwn_IsJudgedByIt)
{
    evenMessage even;
    receive(kit::frame(1, request) + kit::frame(2, 0), 2);
    EXPECT_EQ(at.port.getMessage(even, true), 0);
    EXPECT_EQ(even.getId(), 2);
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
    expectAnswer(negativeAcknowledgementOf1);
}

// An acknowledgement that cannot be written: the device closes while the message waits in the queue.

class GetMessageMute : public GetMessage
{
  protected:
    void receiveAndClose(bytes const& stream, unsigned count)
    {
        receive(stream, count);
        ASSERT_EQ(at.port.serial.close(), 0);
    }
};

TEST_F(GetMessageMute, Request_ReturnsTheErrorAndOpensTheGate)
{
    receiveAndClose(kit::frame(1, request), 1);
    EXPECT_EQ(get(), EBADF);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessageMute, OrdinaryMessage_NeedsNoAnswerAndIsReturned)
{
    receiveAndClose(kit::frame(1, 0), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_FALSE(at.gateIsOpen());
}

TEST_F(GetMessageMute, AckThatRequestsAcknowledgement_DoesNotReachTheTracker)
{
    expectAnswerTo(1);
    receiveAndClose(kit::frame(1, 0x4800), 1);
    EXPECT_EQ(get(), EBADF);
    EXPECT_EQ(at.events().size(), 1U);
    EXPECT_TRUE(at.gateIsOpen());
}

TEST_F(GetMessageMute, Invalid_IsReturnedAs1InsteadOfTheError)
{
    receiveAndClose(kit::frameWithBadData(1, request, {7}), 1);
    EXPECT_EQ(get(false), 1);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_TRUE(at.gateIsOpen());
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
}

TEST_F(GetMessageMute, InvalidToBeSkipped_ReturnsTheErrorAndLeavesTheGate)
{
    receiveAndClose(kit::frameWithBadData(1, request, {7}) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(true), EBADF);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_FALSE(at.gateIsOpen());
    EXPECT_EQ(at.log.count(invalidMessage()), 1U);
    EXPECT_EQ(get(true), 0);
    EXPECT_EQ(message.getId(), 5);
}

// Without a receiver, and at its end.

void expectCleared(gssipMessage const& message)
{
    EXPECT_EQ(message.getSOM(), gssipMessage::SOM);
    EXPECT_EQ(message.getId(), 0);
    EXPECT_EQ(message.getDataWordSize(), 0);
    EXPECT_EQ(message.getProtocolFlags(), 0);
    EXPECT_TRUE(message.getData().empty());
    EXPECT_EQ(message.getReceiveTimeStamp(), 0.0);
}

TEST(GetMessageWithoutReceiver, NeverStarted_Returns0WithAClearedMessage)
{
    kit::portOnLine<> at;
    gssipMessage message(7, request, 3);
    message.setReceiveTimeStamp(5.0);
    at.port.signalPortReady();
    EXPECT_EQ(at.port.getMessage(message, true), 0);
    expectCleared(message);
    EXPECT_TRUE(at.gateIsOpen()) << "the cleared message requests nothing";
}

TEST(GetMessageWithoutReceiver, Stopped_Returns0WithAClearedMessage)
{
    kit::portOnLine<> at;
    ASSERT_TRUE(at.port.start());
    ASSERT_TRUE(at.port.stop());
    gssipMessage message(7, request, 3);
    EXPECT_EQ(at.port.getMessage(message, false), 0);
    expectCleared(message);
}

TEST_F(GetMessageAdvised, StopDuringTheWait_ReturnsMinusOne)
{
    auto getting = std::async(std::launch::async, [this] { return get(); });
    at.line.write(kit::frame(1, handshake));
    ASSERT_TRUE(kit::waitUntil([this] { return at.port.asked == 1; })) << "from here on the caller waits for the next";
    EXPECT_TRUE(at.port.stop());
    ASSERT_EQ(getting.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(getting.get(), -1);
    EXPECT_EQ(message.getId(), 1) << "as last filled";
}

TEST_F(GetMessage, StopBeforeAnyMessage_ReturnsMinusOneWithTheMessageCleared)
{
    message = gssipMessage(7, request, 3);
    auto getting = std::async(std::launch::async, [this] { return get(); });
    EXPECT_EQ(getting.wait_for(50ms), std::future_status::timeout);
    EXPECT_TRUE(at.port.stop());
    ASSERT_EQ(getting.wait_for(10s), std::future_status::ready);
    int const result = getting.get();
    EXPECT_TRUE(result == -1 || result == 0) << "0: the caller came only after the stop";
    expectCleared(message);
}

TEST_F(GetMessage, StartedAgain_ReceivesAgain)
{
    ASSERT_TRUE(at.port.stop());
    ASSERT_TRUE(at.port.start());
    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    expectAnswer(acknowledgementOf1);
}

TEST_F(GetMessage, MessagesNotTaken_AreGoneAfterAStop)
{
    receive(kit::frame(1, 0) + kit::frame(2, 0), 2);
    ASSERT_TRUE(at.port.stop());
    EXPECT_EQ(at.port.getNumberRxQueuedMessages(), 0U);
    ASSERT_TRUE(at.port.start());
    receive(kit::frame(3, 0), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 3);
}

/// The port reads its own message back, answers it, and takes the echo of its own answer for an acknowledgement.
TEST_F(GetMessage, EchoOfAnOwnRequest_IsReturnedAnsweredAndItsAnswersEchoSettlesIt)
{
    at.port.signalPortReady();
    at.port.sendMessage(gssipMessage(9, request, 0), true);
    ASSERT_EQ(at.line.read(10), kit::frame(9, request));
    ASSERT_TRUE(at.waitForPending(1));
    receive(kit::frame(9, request), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 9);
    bytes const answer = at.line.read(10);
    EXPECT_EQ(answer, kit::frame(9, ack));
    receive(answer + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_TRUE(at.events().empty());
}

// The exchange as a whole.

TEST_F(GetMessage, RequestThenAnswer_GateHoldsBackWhatIsSentMeanwhile)
{
    at.port.setHandshakeTimeout_sec(-1.0); // nothing but the gate lets the transmit thread go
    at.port.signalPortReady();
    at.port.sendMessage(gssipMessage(20, 0, 0), false); // takes the thread through the gate it stands behind
    EXPECT_EQ(at.line.read(10), kit::frame(20, 0));

    receive(kit::frame(1, request), 1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(at.line.read(10), acknowledgementOf1);
    at.port.sendMessage(gssipMessage(21, 0, 0), false); // one may still pass: the gate is asked before the queue
    at.port.sendMessage(gssipMessage(22, 0, 0), false);
    bytes const passed = at.line.readUntilQuiet(100ms);
    EXPECT_NE(passed, kit::frame(21, 0) + kit::frame(22, 0));

    receive(kit::frame(2, handshake) + kit::frame(5, 0), 2);
    EXPECT_EQ(get(), 0);
    bytes const rest = at.line.read(20 - passed.size());
    EXPECT_EQ(passed + rest, kit::frame(21, 0) + kit::frame(22, 0));
}

} // namespace
