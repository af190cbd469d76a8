// Call-backs that throw, and call-backs that call back, on every thread that makes them.

#include "awaitOnLine.h"
#include "frames.h"
#include "messages.h"
#include "sentry.h"
#include "toldPort.h"
#include "waitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using kit::bytes;
using kit::exposedPort;
using kit::frame;
using kit::frameWithBadHeader;
using kit::message;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;

using rig = kit::toldRig;

/// A place on a thread of the port where the application is called, and what brings that about once.
struct occasion
{
    char const* name;
    char const* place;
    std::function<void(rig&)> bringAbout;
};

void sendRequest(rig& subject)
{
    subject.port.setAcknowledgeTimeout_sec(0.01);
    subject.port.sendMessage(message(1, REQUEST), true);
}

std::vector<occasion> const occasions{
    {"StampOfAMessageSent", "clock@GP TX", [](rig& subject) { subject.port.sendMessage(message(1), false); }},
    {"TimeoutAtTheRegistration", "timeout@GP TX", sendRequest},
    {"ClockAtTheDeadline", "clock@gssipSendAckReq", sendRequest},
    {"Resend", "resend@gssipSendAckReq", sendRequest},
    {"TimeoutAfterTheResend", "timeout@gssipSendAckReq", sendRequest},
    {"StampOfAMessageReceived", "clock@receiver", [](rig& subject) { subject.line.write(frame(1, 0, {1})); }},
    {"ClockAtABadHeader", "clock@receiver", [](rig& subject) { subject.line.write(frameWithBadHeader(1, 0)); }},
    {"LogOfABadHeader", "log@receiver", [](rig& subject) { subject.line.write(frameWithBadHeader(1, 0)); }},
};

class EveryOccasion : public testing::TestWithParam<occasion>
{
  protected:
    /// Starts the port and lets the occasion come.
    void bringAbout(std::function<void()> const& action)
    {
        subject.app.actAt(GetParam().place, action);
        ASSERT_TRUE(subject.port.start());
        GetParam().bringAbout(subject);
        ASSERT_TRUE(kit::waitUntil([&] { return subject.app.calls > 0; }));
        subject.line.readUntilQuiet();
    }

    /// Messages pass both ways, and requests are resent.
    void expectWholePort()
    {
        while (subject.port.getNumberRxQueuedMessages() > 0)
        {
            gssipMessage leftOver;
            subject.port.getMessage(leftOver, true);
        }
        subject.port.signalPortReady();
        subject.port.setAcknowledgeTimeout_sec(0.01);
        subject.port.sendMessage(message(11, REQUEST), true);
        EXPECT_TRUE(kit::awaitOnLine(subject.line, frame(11, REQUEST), 2));
        subject.line.write(frame(12, 0));
        gssipMessage received;
        EXPECT_EQ(subject.port.getMessage(received, true), 0);
        EXPECT_EQ(received.getId(), 12);
        EXPECT_TRUE(subject.port.stop());
    }

    rig subject;
};

INSTANTIATE_TEST_SUITE_P(Threads, EveryOccasion, testing::ValuesIn(occasions),
                         [](testing::TestParamInfo<occasion> const& each) { return std::string(each.param.name); });

/// Thrown every time; the same step is not tried again, so it is called once.
TEST_P(EveryOccasion, CallbackThatThrows_CostsOneMessageAndNothingElse)
{
    bringAbout([] { throw std::runtime_error("from a call-back"); });
    EXPECT_EQ(subject.app.calls, 1);
    EXPECT_TRUE(kit::waitUntil([&] {
        sentry const lock(subject.tracker().eventQMutex);
        return subject.tracker().eventQ.empty();
    }));
    subject.port.stop();
    subject.app.actAt("", {});
    ASSERT_TRUE(subject.port.start());
    expectWholePort();
}

/// The thread itself has survived: nothing is restarted here.
TEST_P(EveryOccasion, CallbackThatThrowsOnceSomethingThatIsNoException_LeavesAWholePort)
{
    bringAbout([this] {
        if (subject.app.calls == 1)
        {
            throw 42;
        }
    });
    expectWholePort();
}

bool isFree(pthread_mutex_t& mutex)
{
    timespec limit{};
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 5;
    return pthread_mutex_timedlock(&mutex, &limit) == 0 && pthread_mutex_unlock(&mutex) == 0;
}

void askEverything(exposedPort& port)
{
    std::string text;
    double gap = 0.0;
    double effective = 0.0;
    EXPECT_EQ(port.getPortConfigStr(text), 0);
    EXPECT_EQ(port.getReceiveInterCharacterGap_sec(gap, &effective), 0);
    EXPECT_EQ(port.getPort(), port.serial.getPort());
    EXPECT_TRUE(port.getReceiveAutoAcknowledgeEnable());
    EXPECT_GT(port.getHandshakeTimeout_sec() + port.getAcknowledgeTimeout_sec(), 0.0);
    port.getNumberQueuedMessages();
    port.getNumberRxQueuedMessages();
    port.serviceTransmitQueue();
    port.removeMsgIdFromTxQueue(999);
}

void sendEverything(exposedPort& port)
{
    port.sendMessage(message(20), false);
    std::vector<gssipMessage> const several{message(21), message(22)};
    port.sendMessages(several, false);
    port.sendDtMessages(several.begin(), 2);
    EXPECT_EQ(port.sendResyncSequence(), 0);
    EXPECT_EQ(port.sendHandshakeReject(23, true), 0);
    gssipMessage again = message(24);
    EXPECT_EQ(port.resendMessage(again), 0);
    std::uint8_t const raw = 0;
    unsigned sent = 0;
    EXPECT_EQ(port.send(&raw, 1, sent), 0);
}

void callBack(exposedPort& port)
{
    EXPECT_TRUE(isFree(port.txMutex));
    EXPECT_TRUE(isFree(port.sendMutex));
    EXPECT_TRUE(isFree(port.readyMutex));
    askEverything(port);
    sendEverything(port);
}

TEST_P(EveryOccasion, CallbackThatAsksAndSends_IsServed)
{
    std::atomic<bool> served{false};
    bringAbout([&] {
        if (subject.app.calls == 1)
        {
            callBack(subject.port);
            served = true;
        }
    });
    EXPECT_TRUE(kit::waitUntil([&] { return served.load(); }));
    EXPECT_EQ(subject.log.count("port(" + std::to_string(subject.port.portId) + ") reject 23"), 1U);
    subject.line.readUntilQuiet();
    expectWholePort();
}

// --- The reading thread, whose line tells of a device that has gone

TEST(ReadingThread, LogThatThrowsAtAFailedRead_IsCalledForTheNext)
{
    rig subject;
    subject.app.actAt("log@receiver", [&] {
        if (subject.app.calls < 3)
        {
            throw std::runtime_error("from the log");
        }
    });
    ASSERT_TRUE(subject.port.start());
    subject.line.hangUp();
    std::string const line = "gssipReceive(" + std::to_string(subject.port.portId) + ") Error Reading Serial Port: ";
    EXPECT_TRUE(subject.log.waitFor(line));
    EXPECT_TRUE(subject.port.stop());
}

// --- The application's own threads

void expectFreeLocks(rig& subject)
{
    EXPECT_TRUE(isFree(subject.port.txMutex));
    EXPECT_TRUE(isFree(subject.port.sendMutex));
    EXPECT_TRUE(isFree(subject.port.readyMutex));
    EXPECT_TRUE(isFree(subject.tracker().eventQMutex));
}

struct throwingRig : rig
{
    explicit throwingRig(char const* place)
    {
        app.actAt(place, [] { throw std::runtime_error("from a call-back"); });
        EXPECT_TRUE(port.start());
    }
};

TEST(ApplicationsThread, ClockThatThrowsAtAnInvalidMessage_IsPassedOnAndNothingIsHeld)
{
    throwingRig subject("clock@application");
    subject.line.write(kit::frameWithBadData(1, 0, {1}));
    gssipMessage received;
    EXPECT_THROW(subject.port.getMessage(received, true), std::runtime_error);
    expectFreeLocks(subject);
}

TEST(ApplicationsThread, ClockThatThrowsAfterAWrite_IsPassedOnAndNothingIsHeld)
{
    throwingRig subject("clock@application");
    gssipMessage again = message(1);
    EXPECT_THROW(subject.port.resendMessage(again), std::runtime_error);
    EXPECT_EQ(subject.line.read(10), frame(1, 0));
    expectFreeLocks(subject);
}

void awaitAnswerTo(rig& subject, std::uint16_t id)
{
    subject.port.exposedPort::setAcknowledgeTimeout_sec(3600.0);
    gssipMessage request = message(id, REQUEST);
    ASSERT_EQ(subject.tracker().processSendAckRequest(request), 0);
}

TEST(ApplicationsThread, ResendThatThrowsAtANak_IsPassedOnAndNothingIsHeld)
{
    throwingRig subject("resend@application");
    awaitAnswerTo(subject, 1);
    subject.line.write(frame(1, NAK));
    gssipMessage received;
    EXPECT_THROW(subject.port.getMessage(received, true), std::runtime_error);
    expectFreeLocks(subject);
}

TEST(ApplicationsThread, ResendThatAsksAndSendsAtANak_IsServed)
{
    rig subject;
    subject.app.actAt("resend@application", [&] { callBack(subject.port); });
    ASSERT_TRUE(subject.port.start());
    awaitAnswerTo(subject, 1);
    subject.line.write(kit::operator+(frame(1, NAK), frame(2, 0)));
    gssipMessage received;
    EXPECT_EQ(subject.port.getMessage(received, true), 0);
    EXPECT_EQ(subject.app.calls, 1);
}

/// The call-back stands in the tracker's lock, which the stop needs: so it is refused, as on a thread of the port.
TEST(ApplicationsThread, ResendThatStopsThePortAtANak_IsRefused)
{
    rig subject;
    bool stopped = true;
    subject.app.actAt("resend@application", [&] { stopped = subject.port.stop(); });
    ASSERT_TRUE(subject.port.start());
    awaitAnswerTo(subject, 1);
    subject.line.write(kit::operator+(frame(1, NAK), frame(2, 0)));
    gssipMessage received;
    EXPECT_EQ(subject.port.getMessage(received, true), 0);
    EXPECT_FALSE(stopped);
    EXPECT_TRUE(subject.port.started);
}

} // namespace
