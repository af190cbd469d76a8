// Memory runs out at every place where it is taken, once in turn.

#include "allocations.h"
#include "awaitOnLine.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <functional>
#include <new>
#include <string>
#include <vector>

namespace
{

using kit::bytes;
using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;

bool isFree(pthread_mutex_t& mutex)
{
    return pthread_mutex_trylock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0;
}

void expectFreeLocks(portOnLine<>& rig)
{
    EXPECT_TRUE(isFree(rig.port.txMutex));
    EXPECT_TRUE(isFree(rig.port.sendMutex));
    EXPECT_TRUE(isFree(rig.port.readyMutex));
    EXPECT_TRUE(isFree(rig.tracker().eventQMutex));
}

/// A port whose device is open and which has no threads: so its queues show what the call left.
struct quietPort : portOnLine<>
{
    quietPort()
    {
        EXPECT_EQ(port.serial.open(), 0);
        port.setAcknowledgeTimeout_sec(3600.0);
        for (std::uint16_t id = 1; id <= 3; ++id)
        {
            port.sendMessage(message(id, 0, {id}), false);
            gssipMessage request = message(id, REQUEST, {id});
            EXPECT_EQ(tracker().processSendAckRequest(request), 0);
        }
    }

    std::string queues()
    {
        std::string text = "queued:";
        for (auto const& [queued, trackAck] : port.txQueue)
        {
            text += " " + std::to_string(queued.getId()) + (trackAck ? "t" : "");
        }
        text += " pending:";
        for (gssipSendAckReqEvent const& event : events())
        {
            text += " " + std::to_string(event.message.getId()) + "x" + std::to_string(event.retransmitCount);
        }
        return text;
    }
};

/// Makes each allocation of the call fail once, each time on a fresh port; the queues are as they were, and the call
/// succeeds afterwards.
void failEachAllocation(std::function<void(quietPort&)> const& call)
{
    bool failed = true;
    int failures = 0;
    for (std::size_t successes = 0; failed; ++successes)
    {
        SCOPED_TRACE(successes);
        quietPort rig;
        std::string const before = rig.queues();
        failed = false;
        try
        {
            kit::oneFailingAllocation const failure(successes);
            call(rig);
            ASSERT_FALSE(failure.happened()) << "the failure is swallowed";
        }
        catch (std::bad_alloc const&)
        {
            failed = true;
            ++failures;
        }
        expectFreeLocks(rig);
        if (failed)
        {
            ASSERT_EQ(rig.queues(), before);
            ASSERT_NO_THROW(call(rig));
        }
    }
    EXPECT_GT(failures, 0);
}

TEST(ApplicationsCall, SendMessage_LeavesTheQueue)
{
    gssipMessage const sent = message(9, 0, {1, 2});
    failEachAllocation([&](quietPort& rig) { rig.port.sendMessage(sent, false); });
}

TEST(ApplicationsCall, SendDtMessages_AppendsAllOrNothing)
{
    std::vector<gssipMessage> const batch(40, message(9, 0, {1, 2}));
    failEachAllocation([&](quietPort& rig) { rig.port.sendDtMessages(batch.begin(), 40); });
}

TEST(ApplicationsCall, SendMessages_LeavesWholeMessagesFromTheFront)
{
    std::vector<gssipMessage> const list{message(9, 0, {1}), message(10, 0, {2}), message(11, 0, {3})};
    for (std::size_t successes = 0; successes < 6; ++successes)
    {
        quietPort rig;
        kit::oneFailingAllocation const failure(successes);
        EXPECT_THROW(rig.port.sendMessages(list, false), std::bad_alloc);
        std::size_t const added = rig.port.txQueue.size() - 3;
        ASSERT_LT(added, list.size());
        for (std::size_t i = 0; i < added; ++i)
        {
            EXPECT_EQ(std::get<0>(rig.port.txQueue[3 + i]).getData(), list[i].getData());
        }
    }
}

TEST(ApplicationsCall, Registration_LeavesTheQueueAndTheIds)
{
    failEachAllocation([](quietPort& rig) {
        std::uint32_t const ids = rig.tracker().nextEventId;
        gssipMessage request = message(9, REQUEST, {1, 2});
        try
        {
            rig.tracker().processSendAckRequest(request);
        }
        catch (std::bad_alloc const&)
        {
            EXPECT_EQ(rig.tracker().nextEventId, ids);
            throw;
        }
    });
}

TEST(ApplicationsCall, Nak_LeavesTheQueue)
{
    gssipMessage const nak = message(2, NAK);
    failEachAllocation([&](quietPort& rig) {
        bool handled = false;
        rig.tracker().processReceiveAckNak(nak, handled);
    });
}

TEST(ApplicationsCall, ControlTransmissions_LeaveTheQueues)
{
    failEachAllocation([](quietPort& rig) { rig.port.sendHandshakeReject(4, true); });
    failEachAllocation([](quietPort& rig) {
        gssipMessage again = message(5, 0, {1});
        rig.port.resendMessage(again);
    });
    failEachAllocation([](quietPort& rig) { rig.port.sendAcknowledgement(message(5, REQUEST)); });
}

TEST(ApplicationsCall, Queries_LeaveTheQueues)
{
    failEachAllocation([](quietPort& rig) {
        std::string text;
        rig.port.getPortConfigStr(text);
    });
    std::string const longName(100, 'x');
    kit::settableTime clock;
    exposedPort named(longName, clock, nullptr, false);
    kit::oneFailingAllocation const failure(0);
    EXPECT_THROW(named.getPort(), std::bad_alloc);
}

TEST(ApplicationsCall, Construction_LeavesNothingBehind)
{
    kit::settableTime clock;
    kit::threadWatch const watch;
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes)
    {
        kit::oneFailingAllocation const failure(successes);
        failed = false;
        try
        {
            exposedPort const port("/nowhere/a/device/with/a/long/name", clock, nullptr, false);
        }
        catch (std::bad_alloc const&)
        {
            failed = true;
        }
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

/// Messages pass both ways and requests are resent.
void expectWholePort(portOnLine<>& rig)
{
    rig.port.signalPortReady();
    rig.port.setAcknowledgeTimeout_sec(0.02);
    rig.port.sendMessage(message(11, REQUEST), true);
    ASSERT_TRUE(kit::awaitOnLine(rig.line, frame(11, REQUEST), 2));
    ASSERT_TRUE(rig.waitForPending(0));
    rig.line.write(frame(12, 0));
    gssipMessage received;
    ASSERT_EQ(rig.port.getMessage(received, true), 0);
    ASSERT_EQ(received.getId(), 12);
    ASSERT_TRUE(rig.port.stop());
}

TEST(ApplicationsCall, Start_CanBeTriedAgain)
{
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes)
    {
        SCOPED_TRACE(successes);
        kit::threadWatch const watch;
        {
            portOnLine<> rig;
            failed = false;
            try
            {
                kit::oneFailingAllocation const failure(successes);
                ASSERT_TRUE(rig.port.start());
            }
            catch (std::bad_alloc const&)
            {
                failed = true;
                EXPECT_FALSE(rig.port.started);
                EXPECT_TRUE(rig.port.stop());
                ASSERT_TRUE(rig.port.start());
            }
            expectWholePort(rig);
        }
        ASSERT_TRUE(watch.waitForAdded(0));
    }
}

TEST(ApplicationsCall, StartThatRanOutOfMemory_CanBeDestroyed)
{
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes)
    {
        SCOPED_TRACE(successes);
        kit::threadWatch const watch;
        {
            portOnLine<> rig;
            failed = false;
            try
            {
                kit::oneFailingAllocation const failure(successes);
                rig.port.start();
            }
            catch (std::bad_alloc const&)
            {
                failed = true;
            }
        }
        ASSERT_TRUE(watch.waitForAdded(0));
    }
}

/// What is received is answered: with the same failure at each place, the message that follows comes through.
TEST(ApplicationsCall, GetMessage_GoesOnWithTheNext)
{
    for (bytes const& arriving : {frame(5, REQUEST, {1}), kit::frameWithBadData(5, REQUEST, {1}), frame(5, 0x1000)})
    {
        bool failed = true;
        for (std::size_t successes = 0; failed; ++successes)
        {
            SCOPED_TRACE(successes);
            portOnLine<> rig;
            ASSERT_TRUE(rig.port.start());
            rig.line.write(arriving + frame(6, 0));
            ASSERT_TRUE(rig.waitForReceived(2));
            gssipMessage received;
            failed = false;
            try
            {
                kit::oneFailingAllocation const failure(successes);
                rig.port.getMessage(received, false);
            }
            catch (std::bad_alloc const&)
            {
                failed = true;
                EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 1U);
            }
            expectFreeLocks(rig);
            if (rig.port.getNumberRxQueuedMessages() == 1)
            {
                ASSERT_EQ(rig.port.getMessage(received, false), 0);
                ASSERT_EQ(received.getId(), 6);
            }
        }
    }
}

// --- The port's own threads

/// Lets traffic of every kind meet the failure, until a run has none: the threads live on.
TEST(LibrarysThreads, EachAllocationFailedOnce_LiveOn)
{
    int failures = 0;
    int runsWithout = 0;
    for (std::size_t successes = 0; runsWithout < 3 && successes < 200; ++successes)
    {
        SCOPED_TRACE(successes);
        portOnLine<> rig;
        rig.port.setAcknowledgeTimeout_sec(0.005);
        ASSERT_TRUE(rig.port.start());
        {
            kit::oneFailingAllocationElsewhere const failure(successes);
            rig.port.sendMessage(message(1, REQUEST, {1, 2}), true);
            rig.port.sendMessage(message(2), false);
            rig.line.write(frame(3, 0, {1, 2, 3}) + kit::frameWithBadHeader(4, 0) + frame(5, 0));
            rig.line.readUntilQuiet(std::chrono::milliseconds(30)); // the resend, too
            failures += failure.happened() ? 1 : 0;
            runsWithout = failure.happened() ? 0 : runsWithout + 1;
        }
        while (rig.port.getNumberRxQueuedMessages() > 0)
        {
            gssipMessage received;
            rig.port.getMessage(received, true);
        }
        ASSERT_TRUE(rig.waitForPending(0));
        expectWholePort(rig);
    }
    EXPECT_EQ(runsWithout, 3);
    EXPECT_GT(failures, 5);
}

} // namespace
