#include "callOnThread.h"
#include "portOnLine.h"
#include "resendingPort.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <utility>
#include <vector>

namespace
{

using namespace std::chrono_literals;

constexpr std::uint16_t request = 0x4000;
constexpr std::uint16_t ack = 0x8800;
constexpr std::uint16_t nak = 0x8400;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

double secondsOf(timespec const& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double wallClock_sec()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return secondsOf(now);
}

bool isNormalised(timespec const& time)
{
    return time.tv_nsec >= 0 && time.tv_nsec <= 999999999;
}

bool operator==(timespec const& a, timespec const& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

gssipSendAckReqEvent eventWith(std::uint16_t messageId, time_t seconds, long nanoseconds, std::uint32_t eventId)
{
    gssipSendAckReqEvent event;
    event.message.setId(messageId);
    event.absTimeout = {seconds, nanoseconds};
    event.eventId = eventId;
    return event;
}

/// The tracker of a port that is not started, so that no other thread works on its queue.
class Tracker : public testing::Test
{
  protected:
    void SetUp() override
    {
        at.clock.now_sec = 1000.0;
        at.port.serial.setSpeed(9600);
        at.port.writes = false;
    }

    /// A message that has just been sent.
    gssipMessage sent(std::uint16_t id, std::uint16_t flags = request)
    {
        gssipMessage message(id, flags, 0);
        message.setSendTimeStamp(at.clock.now_sec);
        return message;
    }

    int registerSent(gssipMessage message) { return tracker.processSendAckRequest(message); }

    void registerWithTimeout(std::uint16_t id, double timeout_sec)
    {
        at.port.setAcknowledgeTimeout_sec(timeout_sec);
        ASSERT_EQ(registerSent(sent(id)), 0);
    }

    /// The message that has come, and whether it was handled, which is wrong before the call either way.
    std::pair<int, bool> received(gssipMessage const& message, bool expectedHandled)
    {
        bool handled = !expectedHandled;
        int const result = tracker.processReceiveAckNak(message, handled);
        return {result, handled};
    }

    void expectHandled(gssipMessage const& message) { EXPECT_EQ(received(message, true), std::make_pair(0, true)); }
    void expectNotHandled(gssipMessage const& message)
    {
        EXPECT_EQ(received(message, false), std::make_pair(0, false));
    }

    std::vector<unsigned> pendingIds()
    {
        std::vector<unsigned> ids;
        for (gssipSendAckReqEvent const& event : at.events())
        {
            ids.push_back(event.message.getId());
        }
        return ids;
    }

    template <typename Operation>
    auto underLock(Operation const& operation)
    {
        sentry const lock(tracker.eventQMutex);
        return operation();
    }

    /// Whether the operation signals the condition that the event thread would wait for.
    template <typename Operation>
    bool signals(Operation const& operation)
    {
        timespec const deadline{std::time(nullptr) + 60, 0};
        kit::callOnThread<int> waiting([this, deadline] {
            sentry const lock(tracker.eventQMutex);
            return pthread_cond_timedwait(&tracker.eventQCond, &tracker.eventQMutex, &deadline);
        });
        waiting.awaitAsleep();
        operation();
        bool const signalled = waiting.endsWithin(100ms);
        underLock([this] { return pthread_cond_signal(&tracker.eventQCond); });
        EXPECT_EQ(waiting.get(), 0);
        return signalled;
    }

    /// The deadline lies `seconds` after the time of a call that was made between the two times given.
    void expectDeadline(timespec const& deadline, double before_sec, double seconds, double after_sec)
    {
        constexpr double rounding_sec = 2e-6; // of a double that counts seconds since 1970
        EXPECT_TRUE(isNormalised(deadline));
        EXPECT_GE(secondsOf(deadline), before_sec + seconds - rounding_sec);
        EXPECT_LE(secondsOf(deadline), after_sec + seconds + rounding_sec);
    }

    kit::portOnLine<kit::resendingPort> at;
    kit::exposedSendAckReq& tracker{at.tracker()};
};

// Construction.

TEST_F(Tracker, Construct_HasNothingPendingAndCountsFromZero)
{
    EXPECT_TRUE(tracker.eventQ.empty());
    EXPECT_EQ(tracker.nextEventId, 0U);
    EXPECT_TRUE(tracker.eventThreadRunning.isClear());
    EXPECT_EQ(tracker.log, &at.log);
    EXPECT_TRUE(at.log.lines().empty());
}

TEST_F(Tracker, Members_StandInTheirOrder)
{
    std::vector<void const volatile*> const members{&tracker,
                                                    &tracker.eventThreadId,
                                                    &tracker.eventThreadRunning,
                                                    &tracker.eventQ,
                                                    &tracker.nextEventId,
                                                    &tracker.eventQMutex,
                                                    &tracker.eventQCond,
                                                    &tracker.log};
    for (std::size_t next = 1; next < members.size(); ++next)
    {
        EXPECT_LT(members[next - 1], members[next]) << next;
    }
}

TEST_F(Tracker, ConstructWithoutALog_KeepsALogThatDropsLines)
{
    kit::exposedSendAckReq const silent(at.port, nullptr);
    EXPECT_NE(silent.log, nullptr);
}

TEST_F(Tracker, EventQ_CanBeTakenDownAndSetUpAgain)
{
    EXPECT_EQ(tracker.uninitializeEventQ(), 0);
    EXPECT_EQ(tracker.initializeEventQ(), 0);
    EXPECT_EQ(registerSent(sent(1)), 0);
    EXPECT_EQ(pendingIds(), std::vector<unsigned>{1});
}

TEST(TrackerEvent, Construct_HasCountersOfZero)
{
    gssipSendAckReqEvent const event;
    EXPECT_EQ(event.eventId, 0U);
    EXPECT_EQ(event.retransmitCount, 0U);
    EXPECT_EQ(event.message.getId(), 0);
}

TEST(TrackerEvent, Fields_StandInTheirOrder)
{
    gssipSendAckReqEvent const event;
    std::vector<void const*> const fields{&event.message, &event.absTimeout, &event.eventId, &event.retransmitCount};
    for (std::size_t next = 1; next < fields.size(); ++next)
    {
        EXPECT_LT(fields[next - 1], fields[next]) << next;
    }
}

TEST(TrackerEvent, Copy_HasEveryFieldAndItsOwnMessage)
{
    gssipSendAckReqEvent event = eventWith(7, 5, 6, 8);
    event.message.getData() = {1, 2};
    event.retransmitCount = 1;
    gssipSendAckReqEvent const copy = event;
    event.message.clear();
    EXPECT_EQ(copy.message.getId(), 7);
    EXPECT_EQ(copy.message.getData(), (std::vector<std::uint16_t>{1, 2}));
    EXPECT_EQ(copy.absTimeout.tv_sec, 5);
    EXPECT_EQ(copy.absTimeout.tv_nsec, 6);
    EXPECT_EQ(copy.eventId, 8U);
    EXPECT_EQ(copy.retransmitCount, 1U);
}

// The order of events.

TEST(TrackerOrder, EarlierSecondsComeFirst)
{
    EXPECT_TRUE(eventLess(eventWith(0, 1, 900, 9), eventWith(0, 2, 100, 1)));
    EXPECT_FALSE(eventLess(eventWith(0, 2, 100, 1), eventWith(0, 1, 900, 9)));
}

TEST(TrackerOrder, SecondsAreSigned)
{
    EXPECT_TRUE(eventLess(eventWith(0, -1, 0, 9), eventWith(0, 1, 0, 1)));
    EXPECT_FALSE(eventLess(eventWith(0, 1, 0, 1), eventWith(0, -1, 0, 9)));
}

TEST(TrackerOrder, EqualSecondsGoByNanoseconds)
{
    EXPECT_TRUE(eventLess(eventWith(0, 1, 100, 9), eventWith(0, 1, 200, 1)));
    EXPECT_FALSE(eventLess(eventWith(0, 1, 200, 1), eventWith(0, 1, 100, 9)));
    EXPECT_TRUE(eventLess(eventWith(0, 1, -1, 9), eventWith(0, 1, 1, 1)));
}

TEST(TrackerOrder, EqualDeadlinesGoById)
{
    EXPECT_TRUE(eventLess(eventWith(0, 1, 100, 1), eventWith(0, 1, 100, 2)));
    EXPECT_FALSE(eventLess(eventWith(0, 1, 100, 2), eventWith(0, 1, 100, 1)));
    EXPECT_TRUE(eventLess(eventWith(0, 1, 100, 1), eventWith(0, 1, 100, 0xFFFFFFFF))) << "ids are unsigned";
}

TEST(TrackerOrder, AnEventIsNotBeforeItself)
{
    EXPECT_FALSE(eventLess(eventWith(1, 1, 1, 1), eventWith(2, 1, 1, 1)));
}

// Deadlines.

TEST_F(Tracker, Deadline_IsTimeoutAndTransmissionTimeAfterTheGivenTime)
{
    at.port.setAcknowledgeTimeout_sec(3.0);
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 3.0 + 10 * 10.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Deadline_CountsTheWholeFrameAtTheSpeedAndFramingOfTheLine)
{
    at.port.serial.setSpeed(300);
    at.port.serial.setParity(PARITY_EVEN);
    at.port.serial.setStopBits(2);
    at.port.setAcknowledgeTimeout_sec(0.0);
    gssipMessage const message(1, request, 100);
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, message, deadline), 0);
    expectDeadline(deadline, before_sec, 212 * 12.0 / 300, wallClock_sec());
}

TEST_F(Tracker, Deadline_TimeThatHasPassedIsTakenOff)
{
    at.port.setAcknowledgeTimeout_sec(3.0);
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(998.75, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 3.0 - 1.25 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Deadline_GivenTimeInTheFutureIsAdded)
{
    at.port.setAcknowledgeTimeout_sec(3.0);
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1002.0, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 5.0 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Deadline_OverdueLiesInThePast)
{
    at.port.setAcknowledgeTimeout_sec(0.5);
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(900.0, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 0.5 - 100.0 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Deadline_DefaultTimeoutIsTwoTenthsOfASecond)
{
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 0.2 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Deadline_OfTheDocumentedExampleIsTheDocumentedTime)
{
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, gssipMessage(7, request, 3), deadline), 0);
    expectDeadline(deadline, before_sec, 0.21875, wallClock_sec());
}

TEST_F(Tracker, Deadline_TimeoutIsAskedThroughTheVirtualOperation)
{
    at.port.setAcknowledgeTimeout_sec(1.0);
    at.port.extraTimeout_sec = 6.0;
    timespec deadline{};
    double const before_sec = wallClock_sec();
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), 0);
    expectDeadline(deadline, before_sec, 7.0 + 100.0 / 9600, wallClock_sec());
    EXPECT_EQ(at.port.timeoutAsked, 1U);
}

TEST_F(Tracker, Deadline_TimeIsAskedOnce)
{
    timespec deadline{};
    std::uint64_t const before = at.clock.asked;
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), 0);
    EXPECT_EQ(at.clock.asked, before + 1);
}

TEST_F(Tracker, Deadline_NotANumberIsEinvalAndLeavesTheDeadline)
{
    at.port.setAcknowledgeTimeout_sec(notANumber);
    timespec deadline{7, 8};
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), EINVAL);
    EXPECT_TRUE(deadline == (timespec{7, 8}));
    at.port.setAcknowledgeTimeout_sec(0.2);
    EXPECT_EQ(tracker.computeAckNakAbsTimeout(notANumber, sent(1), deadline), EINVAL);
}

TEST_F(Tracker, Deadline_BeyondTheRangeIsNormalisedAndLate)
{
    timespec deadline{};
    for (double const timeout_sec : {1e300, infinity})
    {
        at.port.setAcknowledgeTimeout_sec(timeout_sec);
        EXPECT_EQ(tracker.computeAckNakAbsTimeout(1000.0, sent(1), deadline), 0);
        EXPECT_TRUE(isNormalised(deadline));
        EXPECT_EQ(deadline.tv_sec, std::numeric_limits<time_t>::max());
    }
}

// Registration.

TEST_F(Tracker, Register_MessageThatRequestsAcknowledgementIsPending)
{
    EXPECT_EQ(registerSent(sent(5)), 0);
    auto const events = at.events();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].message.getId(), 5);
    EXPECT_EQ(events[0].eventId, 0U);
    EXPECT_EQ(events[0].retransmitCount, 0U);
    EXPECT_EQ(tracker.nextEventId, 1U);
}

TEST_F(Tracker, Register_MessageThatRequestsNothingIsNotQueued)
{
    for (std::uint16_t const flags : {std::uint16_t{0}, ack, nak, static_cast<std::uint16_t>(~request)})
    {
        EXPECT_EQ(registerSent(sent(5, flags)), 0);
    }
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(tracker.nextEventId, 0U);
    EXPECT_EQ(at.port.timeoutAsked, 0U);
}

TEST_F(Tracker, Register_KeepsAFullCopyAndLeavesTheMessage)
{
    gssipMessage message(5, request, 2);
    message.getData() = {0x1234, 0xABCD};
    message.setDataChecksum(0x41FF);
    message.setSendTimeStamp(999.5);
    message.setReceiveTimeStamp(2.0);
    EXPECT_EQ(tracker.processSendAckRequest(message), 0);
    EXPECT_EQ(message.getData(), (std::vector<std::uint16_t>{0x1234, 0xABCD}));
    EXPECT_EQ(message.getSendTimeStamp(), 999.5);
    message.clear();

    gssipMessage const kept = at.events().at(0).message;
    EXPECT_EQ(kept.getId(), 5);
    EXPECT_EQ(kept.getProtocolFlags(), request);
    EXPECT_EQ(kept.getData(), (std::vector<std::uint16_t>{0x1234, 0xABCD}));
    EXPECT_EQ(kept.getDataChecksum(), 0x41FF);
    EXPECT_EQ(kept.getSendTimeStamp(), 999.5);
    EXPECT_EQ(kept.getReceiveTimeStamp(), 2.0);
}

TEST_F(Tracker, Register_DeadlineCountsFromTheSendTime)
{
    at.port.setAcknowledgeTimeout_sec(9.0);
    gssipMessage message = sent(5);
    message.setSendTimeStamp(998.0);
    double const before_sec = wallClock_sec();
    EXPECT_EQ(registerSent(message), 0);
    expectDeadline(at.events().at(0).absTimeout, before_sec, 7.0 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Register_OverdueMessageIsQueuedWithADeadlineInThePast)
{
    gssipMessage message = sent(5);
    message.setSendTimeStamp(900.0);
    EXPECT_EQ(registerSent(message), 0);
    ASSERT_EQ(at.events().size(), 1U);
    EXPECT_LT(secondsOf(at.events()[0].absTimeout), wallClock_sec() - 50.0);
}

TEST_F(Tracker, Register_FailingConversionQueuesNothing)
{
    at.port.setAcknowledgeTimeout_sec(notANumber);
    EXPECT_EQ(registerSent(sent(5)), EINVAL);
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(tracker.nextEventId, 0U);
    at.port.setAcknowledgeTimeout_sec(0.2);
    EXPECT_EQ(registerSent(sent(5)), 0);
    EXPECT_EQ(at.events().at(0).eventId, 0U);
}

TEST_F(Tracker, Register_FailingConversionDoesNotSignal)
{
    at.port.setAcknowledgeTimeout_sec(notANumber);
    EXPECT_FALSE(signals([this] { registerSent(sent(5)); }));
}

TEST_F(Tracker, Register_IdsCountUp)
{
    for (std::uint16_t id = 10; id < 14; ++id)
    {
        EXPECT_EQ(registerSent(sent(id)), 0);
    }
    std::vector<unsigned> ids;
    for (gssipSendAckReqEvent const& event : at.events())
    {
        ids.push_back(event.eventId);
    }
    EXPECT_EQ(ids, (std::vector<unsigned>{0, 1, 2, 3}));
}

TEST_F(Tracker, Register_IdsWrap)
{
    tracker.nextEventId = 0xFFFFFFFF;
    EXPECT_EQ(registerSent(sent(1)), 0);
    EXPECT_EQ(at.events().at(0).eventId, 0xFFFFFFFF);
    EXPECT_EQ(tracker.nextEventId, 0U);
}

TEST_F(Tracker, Register_EarlierDeadlineGoesToTheFront)
{
    registerWithTimeout(1, 30.0);
    registerWithTimeout(2, 10.0);
    registerWithTimeout(3, 20.0);
    registerWithTimeout(4, -5.0);
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{4, 2, 3, 1}));
}

TEST_F(Tracker, Register_EqualDeadlinesStayInTheOrderOfQueuing)
{
    std::vector<unsigned> expected;
    for (std::uint16_t id = 0; id < 40; ++id)
    {
        registerWithTimeout(id, infinity); // all of them the latest time there is
        expected.push_back(id);
    }
    EXPECT_EQ(pendingIds(), expected);
}

TEST_F(Tracker, Register_SortsTheWholeQueue)
{
    underLock([this] {
        tracker.eventQ = {eventWith(1, 5000, 0, 70), eventWith(2, 3000, 0, 71), eventWith(3, 4000, 0, 72)};
        return 0;
    });
    registerWithTimeout(4, 10.0);
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{2, 3, 1, 4}));
}

TEST_F(Tracker, Register_Signals)
{
    EXPECT_TRUE(signals([this] { EXPECT_EQ(registerSent(sent(1)), 0); }));
}

TEST_F(Tracker, Register_OfAMessageThatRequestsNothingDoesNotSignal)
{
    EXPECT_FALSE(signals([this] { EXPECT_EQ(registerSent(sent(1, 0)), 0); }));
}

TEST_F(Tracker, Register_AsksThePortBeforeItTakesTheLock)
{
    EXPECT_EQ(registerSent(sent(1)), 0);
    EXPECT_EQ(at.port.timeoutAsked, 1U);
    EXPECT_FALSE(at.port.timeoutHeldTracker);
}

// Received acknowledgements.

TEST_F(Tracker, Ack_RemovesItsEvent)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, ack, 0));
    EXPECT_TRUE(at.events().empty());
    EXPECT_TRUE(at.port.resent().empty());
}

TEST_F(Tracker, Ack_LeavesTheOthersInTheirOrder)
{
    for (std::uint16_t id = 1; id <= 5; ++id)
    {
        registerWithTimeout(id, 10.0 * id);
    }
    expectHandled(gssipMessage(3, ack, 0));
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{1, 2, 4, 5}));
}

TEST_F(Tracker, Ack_ItsFlagAloneIsEnough)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, gssipMessage::ACK_FLAG, 0));
    EXPECT_TRUE(at.events().empty());
}

TEST_F(Tracker, Ack_RemovesAnEventThatHasBeenResent)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, nak, 0));
    expectHandled(gssipMessage(5, ack, 0));
    EXPECT_TRUE(at.events().empty());
}

TEST_F(Tracker, Ack_OfAnIdPendingTwiceRemovesTheEarlierDeadline)
{
    registerWithTimeout(5, 20.0);
    registerWithTimeout(6, 15.0);
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, ack, 0));
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{6, 5}));
    EXPECT_EQ(at.events().at(1).eventId, 0U) << "the one registered first had the later deadline";
}

TEST_F(Tracker, Ack_OfNothingPendingIsHandledAndChangesNothing)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(6, ack, 0));
    EXPECT_EQ(pendingIds(), std::vector<unsigned>{5});
}

TEST_F(Tracker, Ack_WithDataIsNotHandled)
{
    registerWithTimeout(5, 10.0);
    expectNotHandled(gssipMessage(5, ack, 1));
    EXPECT_EQ(pendingIds(), std::vector<unsigned>{5});
}

TEST_F(Tracker, OtherMessage_IsNotHandled)
{
    registerWithTimeout(5, 10.0);
    for (std::uint16_t const flags :
         {std::uint16_t{0}, request, std::uint16_t{0x9200}, static_cast<std::uint16_t>(~std::uint16_t{0x0C00})})
    {
        expectNotHandled(gssipMessage(5, flags, 0));
    }
    EXPECT_EQ(pendingIds(), std::vector<unsigned>{5});
}

TEST_F(Tracker, AckAndNakTogether_CountAsAnAck)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, ack | nak, 0));
    EXPECT_TRUE(at.events().empty());
    EXPECT_TRUE(at.port.resent().empty());
}

TEST_F(Tracker, Ack_Signals)
{
    registerWithTimeout(5, 10.0);
    EXPECT_TRUE(signals([this] { expectHandled(gssipMessage(5, ack, 0)); }));
}

TEST_F(Tracker, AckOfNothingPending_DoesNotSignal)
{
    EXPECT_FALSE(signals([this] { expectHandled(gssipMessage(5, ack, 0)); }));
}

// Received negative acknowledgements.

TEST_F(Tracker, Nak_ResendsTheStoredMessage)
{
    at.port.setAcknowledgeTimeout_sec(10.0);
    gssipMessage message(5, request, 2);
    message.getData() = {7, 8};
    message.setSendTimeStamp(1000.0);
    EXPECT_EQ(tracker.processSendAckRequest(message), 0);
    expectHandled(gssipMessage(5, nak, 0));
    auto const resent = at.port.resent();
    ASSERT_EQ(resent.size(), 1U);
    EXPECT_EQ(resent[0].getId(), 5);
    EXPECT_EQ(resent[0].getProtocolFlags(), request);
    EXPECT_EQ(resent[0].getData(), (std::vector<std::uint16_t>{7, 8}));
    EXPECT_EQ(at.events().at(0).retransmitCount, 1U);
}

TEST_F(Tracker, Nak_NewDeadlineCountsFromItsReceiveTime)
{
    registerWithTimeout(5, 10.0);
    gssipMessage answer(5, nak, 0);
    answer.setReceiveTimeStamp(996.0);
    double const before_sec = wallClock_sec();
    expectHandled(answer);
    expectDeadline(at.events().at(0).absTimeout, before_sec, 6.0 + 100.0 / 9600, wallClock_sec());
}

TEST_F(Tracker, Nak_SecondOneDropsTheEventWithoutAResend)
{
    registerWithTimeout(4, 10.0);
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(5, nak, 0));
    expectHandled(gssipMessage(5, nak, 0));
    EXPECT_EQ(pendingIds(), std::vector<unsigned>{4});
    EXPECT_EQ(at.port.resent().size(), 1U);
    EXPECT_TRUE(at.log.lines().empty());
}

TEST_F(Tracker, Nak_OfNothingPendingIsHandledAndResendsNothing)
{
    registerWithTimeout(5, 10.0);
    expectHandled(gssipMessage(6, nak, 0));
    EXPECT_EQ(at.events().at(0).retransmitCount, 0U);
    EXPECT_TRUE(at.port.resent().empty());
}

TEST_F(Tracker, Nak_WithDataIsNotHandled)
{
    registerWithTimeout(5, 10.0);
    expectNotHandled(gssipMessage(5, nak, 1));
    EXPECT_EQ(at.events().at(0).retransmitCount, 0U);
}

TEST_F(Tracker, Nak_OfAnIdPendingTwiceResendsTheEarlierDeadline)
{
    registerWithTimeout(5, 20.0);
    registerWithTimeout(5, 10.0);
    gssipMessage answer(5, nak, 0);
    answer.setReceiveTimeStamp(1000.0);
    expectHandled(answer);
    for (gssipSendAckReqEvent const& event : at.events())
    {
        EXPECT_EQ(event.retransmitCount, event.eventId) << "event 1 had the earlier deadline";
    }
}

TEST_F(Tracker, Nak_Signals)
{
    registerWithTimeout(5, 10.0);
    EXPECT_TRUE(signals([this] { expectHandled(gssipMessage(5, nak, 0)); }));
    EXPECT_TRUE(signals([this] { expectHandled(gssipMessage(5, nak, 0)); })) << "also when it drops the event";
}

TEST_F(Tracker, NakWhoseDeadlineFails_ReturnsTheErrorAndIsHandled)
{
    registerWithTimeout(5, 10.0);
    timespec const before = at.events().at(0).absTimeout;
    at.port.setAcknowledgeTimeout_sec(notANumber);
    EXPECT_FALSE(
        signals([this] { EXPECT_EQ(received(gssipMessage(5, nak, 0), true), std::make_pair(int{EINVAL}, true)); }));
    ASSERT_EQ(at.events().size(), 1U);
    EXPECT_EQ(at.events()[0].retransmitCount, 1U);
    EXPECT_TRUE(at.events()[0].absTimeout == before);
    EXPECT_EQ(at.port.resent().size(), 1U);
}

TEST_F(Tracker, NakOfANotANumberTime_ReturnsTheError)
{
    registerWithTimeout(5, 10.0);
    gssipMessage answer(5, nak, 0);
    answer.setReceiveTimeStamp(notANumber);
    EXPECT_EQ(received(answer, true), std::make_pair(int{EINVAL}, true));
}

// The step that resends or drops.

class TrackerStep : public Tracker
{
  protected:
    int retransmit(double time_sec, int index)
    {
        return underLock([&] { return tracker.processRetransmit(time_sec, index); });
    }

    void setCount(std::size_t index, std::uint32_t count)
    {
        underLock([&] { return tracker.eventQ.at(index).retransmitCount = count; });
    }
};

TEST_F(TrackerStep, FirstTime_ResendsAndSetsANewDeadline)
{
    registerWithTimeout(5, 10.0);
    double const before_sec = wallClock_sec();
    EXPECT_EQ(retransmit(999.0, 0), 0);
    ASSERT_EQ(at.events().size(), 1U);
    EXPECT_EQ(at.events()[0].retransmitCount, 1U);
    expectDeadline(at.events()[0].absTimeout, before_sec, 9.0 + 100.0 / 9600, wallClock_sec());
    EXPECT_EQ(at.port.resent().size(), 1U);
}

TEST_F(TrackerStep, FirstTime_SendTimeIsStampedOnTheStoredCopy)
{
    at.port.writes = true; // to a closed device: stamped all the same
    registerWithTimeout(5, 10.0);
    at.clock.now_sec = 1004.0;
    EXPECT_EQ(retransmit(1004.0, 0), 0);
    EXPECT_EQ(at.events().at(0).message.getSendTimeStamp(), 1004.0);
}

TEST_F(TrackerStep, FirstTime_ResultOfTheResendIsIgnored)
{
    registerWithTimeout(5, 10.0);
    at.port.resendResult = EIO;
    EXPECT_EQ(retransmit(1000.0, 0), 0);
    EXPECT_EQ(at.events().at(0).retransmitCount, 1U);
}

TEST_F(TrackerStep, FirstTime_ResendsWithTheTrackerLocked)
{
    registerWithTimeout(5, 10.0);
    EXPECT_EQ(retransmit(1000.0, 0), 0);
    EXPECT_TRUE(at.port.resendHeldTracker);
}

TEST_F(TrackerStep, FirstTime_SortsByTheNewDeadline)
{
    registerWithTimeout(1, 10.0);
    registerWithTimeout(2, 20.0);
    registerWithTimeout(3, 40.0);
    at.port.setAcknowledgeTimeout_sec(30.0);
    EXPECT_EQ(retransmit(1000.0, 0), 0);
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{2, 1, 3}));
}

TEST_F(TrackerStep, FirstTime_FailingDeadlineIsReturnedAfterTheResendAndTheSort)
{
    underLock([this] {
        tracker.eventQ = {eventWith(1, 5000, 0, 70), eventWith(2, 3000, 0, 71), eventWith(3, 4000, 0, 72)};
        return 0;
    });
    at.port.setAcknowledgeTimeout_sec(notANumber);
    EXPECT_EQ(retransmit(1000.0, 0), EINVAL);
    EXPECT_EQ(at.port.resent().size(), 1U);
    EXPECT_EQ(at.port.resent()[0].getId(), 1);
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{2, 3, 1}));
    EXPECT_EQ(at.events()[2].retransmitCount, 1U);
}

TEST_F(TrackerStep, FirstTime_TakesTheEventAtTheIndex)
{
    registerWithTimeout(1, 10.0);
    registerWithTimeout(2, 20.0);
    EXPECT_EQ(retransmit(1000.0, 1), 0);
    ASSERT_EQ(at.port.resent().size(), 1U);
    EXPECT_EQ(at.port.resent()[0].getId(), 2);
}

TEST_F(TrackerStep, SecondTime_DropsTheEventSilently)
{
    registerWithTimeout(1, 10.0);
    registerWithTimeout(2, 20.0);
    registerWithTimeout(3, 30.0);
    setCount(1, 1);
    EXPECT_EQ(retransmit(1000.0, 1), 0);
    EXPECT_EQ(pendingIds(), (std::vector<unsigned>{1, 3}));
    EXPECT_TRUE(at.port.resent().empty());
    EXPECT_TRUE(at.log.lines().empty());
}

TEST_F(TrackerStep, AnyFurtherTime_IsEinvalAndLeavesTheEvent)
{
    registerWithTimeout(1, 10.0);
    for (std::uint32_t const count : {2U, 3U, 100U})
    {
        setCount(0, count);
        EXPECT_EQ(retransmit(1000.0, 0), 22);
        ASSERT_EQ(at.events().size(), 1U);
        EXPECT_EQ(at.events()[0].retransmitCount, count + 1);
    }
    EXPECT_TRUE(at.port.resent().empty());
}

// The searches and the clearing.

TEST_F(Tracker, FindByMessageId_GivesTheFirstPosition)
{
    underLock([this] {
        tracker.eventQ = {eventWith(7, 1, 0, 3), eventWith(8, 2, 0, 1), eventWith(8, 3, 0, 2)};
        EXPECT_EQ(tracker.findFirstEventByMessageId(7), 0);
        EXPECT_EQ(tracker.findFirstEventByMessageId(8), 1);
        EXPECT_EQ(tracker.findFirstEventByMessageId(9), -1);
        EXPECT_EQ(tracker.findFirstEventByMessageId(0x0107), -1) << "all 16 bits count";
        EXPECT_EQ(tracker.findFirstEventByMessageId(0x0008 + 0x8000), -1);
        return 0;
    });
}

TEST_F(Tracker, FindByEventId_GivesThePosition)
{
    underLock([this] {
        tracker.eventQ = {eventWith(7, 1, 0, 3), eventWith(8, 2, 0, 1), eventWith(8, 3, 0, 70000)};
        EXPECT_EQ(tracker.findFirstEventByEventId(3), 0);
        EXPECT_EQ(tracker.findFirstEventByEventId(1), 1);
        EXPECT_EQ(tracker.findFirstEventByEventId(70000), 2);
        EXPECT_EQ(tracker.findFirstEventByEventId(70000 - 65536), -1) << "all 32 bits count";
        return 0;
    });
}

TEST_F(Tracker, Find_InAnEmptyQueueGivesMinusOne)
{
    EXPECT_EQ(underLock([this] { return tracker.findFirstEventByMessageId(0); }), -1);
    EXPECT_EQ(underLock([this] { return tracker.findFirstEventByEventId(0); }), -1);
}

TEST_F(Tracker, Clear_RemovesEveryEventAndKeepsTheCounter)
{
    registerWithTimeout(1, 10.0);
    registerWithTimeout(2, 20.0);
    tracker.clearQueue();
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(tracker.nextEventId, 2U);
}

TEST_F(Tracker, Clear_OfAnEmptyQueueDoesNothing)
{
    tracker.clearQueue();
    EXPECT_TRUE(at.events().empty());
    EXPECT_EQ(registerSent(sent(1)), 0);
    EXPECT_EQ(at.events().size(), 1U);
}

TEST_F(Tracker, Clear_DoesNotSignal)
{
    registerWithTimeout(1, 10.0);
    EXPECT_FALSE(signals([this] { tracker.clearQueue(); }));
}

} // namespace
