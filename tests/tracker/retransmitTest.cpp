#include "frames.h"
#include "monotonicTimeStamp.h"
#include "portOnLine.h"
#include "processState.h"
#include "resendingPort.h"
#include "stopwatch.h"
#include "threadFunctions.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <sched.h>

namespace
{

using namespace std::chrono_literals;
using kit::bytes;
using kit::operator+;

constexpr std::uint16_t request = 0x4000;
constexpr std::uint16_t ack = 0x8800;
constexpr std::uint16_t nak = 0x8400;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double never_sec = 600.0; // far beyond the end of any test
constexpr double soon_sec = 0.02;

constexpr unsigned speed = 1200;
constexpr double headerTime_sec = 10 * 10.0 / speed; // of a header-only message on the line
constexpr char const* threadName = "gssipSendAckReq";

using portWithRealTime = kit::portOnLine<kit::resendingPort, monotonicTimeStamp>;

/// A started port on a slow line, on which a message's own time shows.
class Retransmit : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(at.port.serial.setSpeed(speed), 0);
        ASSERT_TRUE(at.port.start());
    }

    void send(gssipMessage const& message, double timeout_sec)
    {
        at.port.setAcknowledgeTimeout_sec(timeout_sec);
        at.port.sendMessage(message, true);
    }

    /// From the first resend on, before its new deadline is computed.
    void useAfterResend(double timeout_sec)
    {
        at.port.onResend = [this, timeout_sec] { at.port.setAcknowledgeTimeout_sec(timeout_sec); };
    }

    /// The message is on the line and pending before this returns. It must stay so: a short time-out goes with a long
    /// one after the resend.
    void sendAndRegister(std::uint16_t id, double timeout_sec)
    {
        std::size_t const before = at.events().size();
        send(gssipMessage(id, request, 0), timeout_sec);
        ASSERT_EQ(at.line.read(10), kit::frame(id, request));
        ASSERT_TRUE(at.waitForPending(before + 1));
    }

    void receive(std::uint16_t id, std::uint16_t flags)
    {
        gssipMessage answer(id, flags, 0);
        answer.setReceiveTimeStamp(at.clock.getTime_sec());
        bool handled = false;
        EXPECT_EQ(at.port.sendAckReq.processReceiveAckNak(answer, handled), 0);
        EXPECT_TRUE(handled);
    }

    void expectSilence(std::chrono::milliseconds duration = 50ms)
    {
        EXPECT_EQ(at.line.readUntilQuiet(duration), bytes{});
    }

    kit::threadWatch threads;
    portWithRealTime at;
};

// A message that is never acknowledged.

TEST_F(Retransmit, Unacknowledged_IsWrittenTwiceAndGoneAfterTheSecondDeadline)
{
    send(gssipMessage(5, request, 0), soon_sec);
    EXPECT_EQ(at.line.read(20), kit::frame(5, request) + kit::frame(5, request));
    EXPECT_TRUE(at.waitForPending(0));
    expectSilence(300ms);
    EXPECT_TRUE(at.log.lines().empty());
}

TEST_F(Retransmit, Unacknowledged_IsNotResentBeforeItsDeadline)
{
    kit::stopwatch const sinceSend;
    send(gssipMessage(5, request, 0), soon_sec);
    ASSERT_EQ(at.line.read(20).size(), 20U);
    double const resent_sec = sinceSend.elapsed_sec();
    EXPECT_GE(resent_sec, soon_sec + headerTime_sec);
    EXPECT_LT(resent_sec, 8.0);
}

TEST_F(Retransmit, Unacknowledged_IsNotDroppedBeforeItsSecondDeadline)
{
    kit::stopwatch const sinceSend;
    send(gssipMessage(5, request, 0), soon_sec);
    ASSERT_EQ(at.line.read(20).size(), 20U);
    EXPECT_TRUE(at.waitForPending(0));
    double const dropped_sec = sinceSend.elapsed_sec();
    EXPECT_GE(dropped_sec, 2 * (soon_sec + headerTime_sec));
    EXPECT_LT(dropped_sec, 8.0);
}

TEST_F(Retransmit, LongMessage_GetsTheTimeThatItNeedsOnTheLine)
{
    gssipMessage const message(5, request, 24); // 60 bytes
    kit::stopwatch const sinceSend;
    send(message, 0.0);
    bytes const image = kit::frame(5, request, std::vector<std::uint16_t>(24, 0));
    ASSERT_EQ(image.size(), 60U);
    EXPECT_EQ(at.line.read(120), image + image);
    EXPECT_GE(sinceSend.elapsed_sec(), 60 * 10.0 / speed);
}

TEST_F(Retransmit, ResentBytes_AreThoseOfTheFirstCopy)
{
    gssipMessage message(0x1234, request, 3);
    message.getData() = {0x81FF, 0x0001, 0xFFFE};
    send(message, soon_sec);
    bytes const image = kit::frame(0x1234, request, {0x81FF, 0x0001, 0xFFFE});
    EXPECT_EQ(at.line.read(image.size()), image);
    EXPECT_EQ(at.line.read(image.size()), image);
}

TEST_F(Retransmit, Resend_IsCountedAndStamped)
{
    useAfterResend(never_sec);
    double const before_sec = at.clock.getTime_sec();
    sendAndRegister(5, soon_sec);
    ASSERT_EQ(at.line.read(10).size(), 10U);
    auto const events = at.events(); // the tracker is locked while it resends: here the resend is over
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].retransmitCount, 1U);
    EXPECT_GE(events[0].message.getSendTimeStamp(), before_sec + soon_sec + headerTime_sec);
}

TEST_F(Retransmit, Resend_GoesThroughTheVirtualOperationWithTheTrackerLocked)
{
    send(gssipMessage(5, request, 0), soon_sec);
    ASSERT_EQ(at.line.read(20).size(), 20U);
    EXPECT_TRUE(at.waitForPending(0));
    auto const resent = at.port.resent();
    ASSERT_EQ(resent.size(), 1U);
    EXPECT_EQ(resent[0].getId(), 5);
    EXPECT_TRUE(at.port.resendHeldTracker);
}

TEST_F(Retransmit, FailedResend_CountsAsAResend)
{
    at.port.writes = false;
    at.port.resendResult = EIO;
    send(gssipMessage(5, request, 0), soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    EXPECT_TRUE(kit::waitUntil([this] { return at.port.resent().size() == 1; }));
    EXPECT_TRUE(at.waitForPending(0));
    expectSilence();
    EXPECT_EQ(at.port.resent().size(), 1U);
}

TEST_F(Retransmit, OverdueRegistration_IsResentAtOnce)
{
    at.port.setAcknowledgeTimeout_sec(never_sec);
    gssipMessage late(5, request, 0);
    late.setSendTimeStamp(at.clock.getTime_sec() - never_sec - 60.0);
    ASSERT_EQ(at.port.sendAckReq.processSendAckRequest(late), 0);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
}

TEST_F(Retransmit, UntrackedMessage_IsWrittenOnce)
{
    at.port.setAcknowledgeTimeout_sec(0.0);
    at.port.sendMessage(gssipMessage(5, request, 0), false);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    expectSilence(200ms);
    EXPECT_TRUE(at.events().empty());
}

TEST_F(Retransmit, TrackedMessageThatRequestsNothing_IsWrittenOnce)
{
    send(gssipMessage(5, 0, 0), 0.0);
    EXPECT_EQ(at.line.read(10), kit::frame(5, 0));
    expectSilence(200ms);
}

TEST_F(Retransmit, ManyUnacknowledged_AreEachWrittenTwice)
{
    constexpr std::uint16_t count = 20;
    for (std::uint16_t id = 0; id < count; ++id)
    {
        send(gssipMessage(id, request, 0), soon_sec);
    }
    bytes const written = at.line.read(count * std::size_t{20});
    EXPECT_TRUE(at.waitForPending(0));
    expectSilence();
    std::vector<unsigned> copies(count, 0);
    ASSERT_EQ(written.size(), count * std::size_t{20});
    for (std::size_t offset = 0; offset < written.size(); offset += 10)
    {
        ++copies.at(written[offset + 2]);
    }
    EXPECT_EQ(copies, std::vector<unsigned>(count, 2));
}

// Acknowledgements in time.

TEST_F(Retransmit, Ack_PreventsTheResend)
{
    sendAndRegister(5, 1.0);
    receive(5, ack);
    EXPECT_TRUE(at.events().empty());
    expectSilence(1300ms);
}

TEST_F(Retransmit, AckOverTheLine_PreventsTheResend)
{
    sendAndRegister(5, never_sec);
    at.line.write(kit::frame(5, ack) + kit::frame(6, 0));
    gssipMessage message;
    EXPECT_EQ(at.port.getMessage(message, true), 0);
    EXPECT_EQ(message.getId(), 6);
    EXPECT_TRUE(at.events().empty());
}

TEST_F(Retransmit, AckAfterTheResend_RemovesTheEvent)
{
    useAfterResend(never_sec);
    sendAndRegister(5, soon_sec);
    ASSERT_EQ(at.line.read(10), kit::frame(5, request));
    receive(5, ack);
    EXPECT_TRUE(at.events().empty());
    expectSilence();
}

TEST_F(Retransmit, AckOfTheFront_LetsTheNextDeadlineBeServed)
{
    sendAndRegister(5, 1.0);
    sendAndRegister(6, 1.1);
    receive(5, ack);
    EXPECT_EQ(at.line.read(10), kit::frame(6, request));
}

TEST_F(Retransmit, ClearedQueue_IsNotResentAndServiceGoesOn)
{
    useAfterResend(never_sec);
    sendAndRegister(5, 1.0);
    at.port.sendAckReq.clearQueue();
    expectSilence(1300ms);
    sendAndRegister(6, soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(6, request));
}

// Negative acknowledgements.

TEST_F(Retransmit, Nak_ResendsAtOnce)
{
    kit::stopwatch const sinceSend;
    sendAndRegister(5, never_sec);
    receive(5, nak);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    EXPECT_LT(sinceSend.elapsed_sec(), never_sec / 10);
    EXPECT_EQ(at.events().size(), 1U);
}

TEST_F(Retransmit, Nak_GivesANewDeadlineAfterWhichTheEventIsDropped)
{
    sendAndRegister(5, never_sec);
    at.port.setAcknowledgeTimeout_sec(soon_sec);
    kit::stopwatch const sinceNak;
    receive(5, nak);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    EXPECT_TRUE(at.waitForPending(0));
    EXPECT_GE(sinceNak.elapsed_sec(), soon_sec + headerTime_sec);
    expectSilence();
}

TEST_F(Retransmit, NakTwice_ResendsOnceAndDropsWithoutAWait)
{
    sendAndRegister(5, never_sec);
    receive(5, nak);
    receive(5, nak);
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    expectSilence();
}

TEST_F(Retransmit, NakAfterAResend_DropsAtOnce)
{
    useAfterResend(never_sec);
    sendAndRegister(5, soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    receive(5, nak);
    EXPECT_TRUE(at.events().empty());
    expectSilence();
}

TEST_F(Retransmit, NakOverTheLine_Resends)
{
    sendAndRegister(5, never_sec);
    at.line.write(kit::frame(5, nak) + kit::frame(6, 0));
    gssipMessage message;
    EXPECT_EQ(at.port.getMessage(message, true), 0);
    EXPECT_EQ(message.getId(), 6);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
}

// The order of deadlines.

TEST_F(Retransmit, EarlierDeadlineRegisteredLater_IsServedFirst)
{
    useAfterResend(never_sec);
    sendAndRegister(5, never_sec);
    sendAndRegister(6, soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(6, request));
    auto const events = at.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].message.getId(), 5);
    EXPECT_EQ(events[0].retransmitCount, 0U);
}

TEST_F(Retransmit, Deadlines_AreServedInTheirOrder)
{
    useAfterResend(never_sec);
    for (std::uint16_t id = 5; id <= 7; ++id)
    {
        gssipMessage message(id, request, 0);
        message.setSendTimeStamp(at.clock.getTime_sec());
        at.port.setAcknowledgeTimeout_sec(0.3 * (8 - id));
        ASSERT_EQ(at.port.sendAckReq.processSendAckRequest(message), 0);
    }
    EXPECT_EQ(at.line.read(30), kit::frame(7, request) + kit::frame(6, request) + kit::frame(5, request));
}

// The thread's start and end.

TEST_F(Retransmit, Start_DropsWhatWasPending)
{
    ASSERT_TRUE(at.port.stop());
    at.port.setAcknowledgeTimeout_sec(0.0);
    gssipMessage message(5, request, 0);
    for (int count = 0; count < 3; ++count)
    {
        ASSERT_EQ(at.port.sendAckReq.processSendAckRequest(message), 0);
    }
    ASSERT_EQ(at.events().size(), 3U);
    ASSERT_TRUE(at.port.start());
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(at.tracker().nextEventId, 3U);
    EXPECT_TRUE(at.log.lines().empty());
    expectSilence();
}

TEST_F(Retransmit, Stop_LeavesWhatIsPendingUnserved)
{
    sendAndRegister(5, never_sec);
    EXPECT_TRUE(at.port.stop());
    EXPECT_EQ(at.events().size(), 1U);
    EXPECT_TRUE(at.port.resent().empty());
}

TEST_F(Retransmit, Stop_DoesNotWaitForADeadline)
{
    sendAndRegister(5, never_sec);
    kit::stopwatch const sinceStop;
    EXPECT_TRUE(at.port.stop());
    EXPECT_LT(sinceStop.elapsed_sec(), 10.0);
}

TEST_F(Retransmit, FailingDeadline_EndsTheThreadAfterTheResend)
{
    ASSERT_NE(threads.idOf(threadName), 0);
    useAfterResend(notANumber);
    sendAndRegister(5, soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    EXPECT_TRUE(kit::waitUntil([this] { return threads.idOf(threadName) == 0; }));
    EXPECT_TRUE(at.tracker().eventThreadRunning.isSet()) << "nobody has asked it to end";
    EXPECT_EQ(at.events().at(0).retransmitCount, 1U);
}

TEST_F(Retransmit, EndedThread_LeavesDeadlinesUnservedUntilTheNextStart)
{
    useAfterResend(notANumber);
    sendAndRegister(5, soon_sec);
    EXPECT_EQ(at.line.read(10), kit::frame(5, request));
    ASSERT_TRUE(kit::waitUntil([this] { return threads.idOf(threadName) == 0; }));

    send(gssipMessage(6, request, 0), 0.0);
    EXPECT_EQ(at.line.read(10), kit::frame(6, request));
    expectSilence(200ms);

    EXPECT_TRUE(at.port.stop());
    EXPECT_TRUE(at.port.start());
    send(gssipMessage(7, request, 0), 0.0);
    EXPECT_EQ(at.line.read(20), kit::frame(7, request) + kit::frame(7, request));
}

TEST_F(Retransmit, EventPastBothCopies_EndsTheThread)
{
    at.port.setAcknowledgeTimeout_sec(0.3);
    {
        sentry const lock(at.tracker().eventQMutex);
        gssipSendAckReqEvent event;
        event.message = gssipMessage(5, request, 0);
        ASSERT_EQ(at.tracker().computeAckNakAbsTimeout(at.clock.getTime_sec(), event.message, event.absTimeout), 0);
        event.retransmitCount = 2;
        at.tracker().eventQ.push_back(event);
        pthread_cond_signal(&at.tracker().eventQCond);
    }
    EXPECT_TRUE(kit::waitUntil([this] { return threads.idOf(threadName) == 0; }));
    EXPECT_EQ(at.events().size(), 1U);
    EXPECT_TRUE(at.port.stop());
}

/// The tracker's thread without a started port around it.
class EventThread : public testing::Test
{
  protected:
    void SetUp() override
    {
        at.port.writes = false;
        at.port.setAcknowledgeTimeout_sec(0.0);
    }

    int registerSentASecondAgo(std::uint16_t id)
    {
        gssipMessage message(id, request, 0);
        message.setSendTimeStamp(at.clock.getTime_sec() - 1.0);
        return tracker.processSendAckRequest(message);
    }

    /// Asks a thread that the tracker itself has not started to end.
    void askToEnd()
    {
        tracker.eventThreadRunning.clear();
        sentry const lock(tracker.eventQMutex);
        pthread_cond_signal(&tracker.eventQCond);
    }

    std::ptrdiff_t eventThreads() const
    {
        auto const names = threads.namesAdded();
        return std::count(names.begin(), names.end(), threadName);
    }

    /// The system shows a thread that has been joined a little longer.
    bool allHaveEnded() const
    {
        return kit::waitUntil([this] { return eventThreads() == 0; });
    }

    /// Puts an event into the queue that has been due since 1970.
    void addDue(std::uint16_t id, std::uint32_t retransmitCount)
    {
        sentry const lock(tracker.eventQMutex);
        gssipSendAckReqEvent event;
        event.message = gssipMessage(id, request, 0);
        event.retransmitCount = retransmitCount;
        tracker.eventQ.push_back(event);
        pthread_cond_signal(&tracker.eventQCond);
    }

    void expectNoWakeUp()
    {
        pid_t const id = threads.idOf(threadName);
        ASSERT_TRUE(kit::waitUntilAsleep(id));
        std::string const before = kit::statusField(id, "voluntary_ctxt_switches");
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(kit::statusField(id, "voluntary_ctxt_switches"), before);
    }

    bool comesToRun()
    {
        return kit::waitUntil([this] { return tracker.eventThreadRunning.isSet(); });
    }

    kit::threadWatch threads;
    portWithRealTime at;
    kit::exposedSendAckReq& tracker{at.tracker()};
};

TEST_F(EventThread, Initialize_ReturnsWhenTheThreadRuns)
{
    EXPECT_EQ(tracker.initializeEventThread(), 0);
    EXPECT_TRUE(tracker.eventThreadRunning.isSet());
    EXPECT_EQ(eventThreads(), 1);
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
}

TEST_F(EventThread, Initialize_UsesTheStatedAttributes)
{
    pthread_attr_t attributes{};
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(setPthreadAttributes(0, 2, 50, 1, 0, attributes), 0);
    int expectedPolicy = -1;
    sched_param expected{};
    pthread_attr_getschedpolicy(&attributes, &expectedPolicy);
    pthread_attr_getschedparam(&attributes, &expected);
    pthread_attr_destroy(&attributes);

    ASSERT_EQ(tracker.initializeEventThread(), 0);
    int policy = -1;
    sched_param given{};
    EXPECT_EQ(pthread_getschedparam(tracker.eventThreadId, &policy, &given), 0);
    EXPECT_EQ(policy, expectedPolicy);
    EXPECT_EQ(given.sched_priority, expected.sched_priority);
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
}

TEST_F(EventThread, Initialize_TwiceLeavesOneThread)
{
    EXPECT_EQ(tracker.initializeEventThread(), 0);
    EXPECT_EQ(tracker.initializeEventThread(), 0);
    EXPECT_TRUE(kit::waitUntil([this] { return eventThreads() == 1; }));
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
    EXPECT_TRUE(allHaveEnded());
}

TEST_F(EventThread, Unnitialize_EndsTheThread)
{
    ASSERT_EQ(tracker.initializeEventThread(), 0);
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
    EXPECT_TRUE(tracker.eventThreadRunning.isClear());
    EXPECT_TRUE(allHaveEnded());
}

TEST_F(EventThread, Unnitialize_WithoutAThreadReturnsZero)
{
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
}

TEST_F(EventThread, Unnitialize_OfAThreadThatEndedByItselfReturnsZero)
{
    ASSERT_EQ(tracker.initializeEventThread(), 0);
    addDue(1, 2);
    ASSERT_TRUE(allHaveEnded());
    EXPECT_TRUE(tracker.eventThreadRunning.isSet());
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
    EXPECT_TRUE(tracker.eventThreadRunning.isClear());
}

TEST_F(EventThread, Unnitialize_LeavesPendingEvents)
{
    ASSERT_EQ(tracker.initializeEventThread(), 0);
    at.port.setAcknowledgeTimeout_sec(never_sec);
    ASSERT_EQ(registerSentASecondAgo(1), 0);
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
    EXPECT_EQ(at.events().size(), 1U);
}

TEST_F(EventThread, InitializeAndUnnitialize_CanBeRepeated)
{
    for (int round = 0; round < 100; ++round)
    {
        ASSERT_EQ(tracker.initializeEventThread(), 0);
        ASSERT_EQ(tracker.unnitializeEventThread(), 0);
    }
    EXPECT_TRUE(allHaveEnded());
}

TEST_F(EventThread, NothingPending_Sleeps)
{
    ASSERT_EQ(tracker.initializeEventThread(), 0);
    expectNoWakeUp();
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
}

TEST_F(EventThread, DeadlineFarAway_SleepsUntilThen)
{
    ASSERT_EQ(tracker.initializeEventThread(), 0);
    at.port.setAcknowledgeTimeout_sec(never_sec);
    ASSERT_EQ(registerSentASecondAgo(1), 0);
    expectNoWakeUp();
    EXPECT_EQ(tracker.unnitializeEventThread(), 0);
}

TEST_F(EventThread, Body_SetsItsFlagEmptiesTheQueueAndReturnsZeroWhenAskedToEnd)
{
    ASSERT_EQ(registerSentASecondAgo(1), 0);
    auto running = std::async(std::launch::async, [this] { return tracker.eventThread(); });
    ASSERT_TRUE(comesToRun());
    EXPECT_TRUE(at.waitForPending(0));
    askToEnd();
    ASSERT_EQ(running.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(running.get(), 0);
    EXPECT_TRUE(at.port.resent().empty());
}

TEST_F(EventThread, Body_ResendsAndDrops)
{
    auto running = std::async(std::launch::async, [this] { return tracker.eventThread(); });
    ASSERT_TRUE(comesToRun());
    ASSERT_EQ(registerSentASecondAgo(1), 0);
    EXPECT_TRUE(kit::waitUntil([this] { return at.port.resent().size() == 1; }));
    EXPECT_TRUE(at.waitForPending(0));
    askToEnd();
    EXPECT_EQ(running.get(), 0);
    EXPECT_EQ(at.port.resent().size(), 1U);
}

TEST_F(EventThread, Body_ReturnsTheErrorOfAFailingDeadline)
{
    auto running = std::async(std::launch::async, [this] { return tracker.eventThread(); });
    ASSERT_TRUE(comesToRun());
    at.port.setAcknowledgeTimeout_sec(notANumber);
    addDue(1, 0);
    ASSERT_EQ(running.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(running.get(), EINVAL);
    EXPECT_TRUE(tracker.eventThreadRunning.isSet());
    EXPECT_EQ(at.port.resent().size(), 1U);
}

TEST_F(EventThread, Body_ReturnsEinvalForAnEventPastBothCopies)
{
    auto running = std::async(std::launch::async, [this] { return tracker.eventThread(); });
    ASSERT_TRUE(comesToRun());
    addDue(1, 2);
    ASSERT_EQ(running.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(running.get(), 22);
}

TEST_F(EventThread, Entry_RunsTheBodyAndReturnsNull)
{
    auto running = std::async(std::launch::async, [this] {
        return gssipSendAckReq::callEventThread(&static_cast<gssipSendAckReq&>(tracker));
    });
    ASSERT_TRUE(comesToRun());
    askToEnd();
    ASSERT_EQ(running.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(running.get(), nullptr);
}

} // namespace
