#include "portOnLine.h"
#include "processState.h"
#include "refusals.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <string>

/// \file
/// What becomes of the tracker when the system refuses it something.

namespace
{

class TrackerFailure : public testing::Test
{
  protected:
    void TearDown() override { refuse = {}; }

    kit::refusals& refuse = kit::refusedHere();

    void expectOnlyLine(std::string const& text)
    {
        auto const lines = log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, text);
        EXPECT_EQ(lines[0].level, 4);
        EXPECT_FALSE(lines[0].time_sec.has_value());
    }

    kit::portOnLine<> at;
    kit::recordingLog log;
    std::unique_ptr<kit::exposedSendAckReq> tracker = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
};

TEST_F(TrackerFailure, ConstructWithoutACondition_IsLoggedAndTheObjectStays)
{
    refuse.conditionInit = ENOMEM;
    auto const hampered = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
    refuse = {};
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to initializeEventQ");
    EXPECT_TRUE(hampered->eventQ.empty());
    EXPECT_EQ(hampered->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, ConstructWithoutAMutex_IsLogged)
{
    refuse.mutexInit = ENOMEM;
    auto const hampered = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
    refuse = {};
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to initializeEventQ");
    EXPECT_EQ(hampered->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, DestroyWithAFailingCondition_IsLogged)
{
    refuse.conditionDestroy = EBUSY;
    tracker.reset();
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to unInitializeEventQ");
}

TEST_F(TrackerFailure, DestroyWithAFailingMutex_IsLogged)
{
    refuse.mutexDestroy = EBUSY;
    tracker.reset();
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to unInitializeEventQ");
}

TEST_F(TrackerFailure, ConstructAndDestroyWithoutALog_IsSurvived)
{
    refuse.conditionInit = ENOMEM;
    refuse.conditionDestroy = EBUSY;
    EXPECT_NO_THROW(kit::exposedSendAckReq(at.port, nullptr));
}

TEST_F(TrackerFailure, InitializeEventQ_ReturnsTheFirstErrorAndLeavesTheMutexUncreated)
{
    ASSERT_EQ(tracker->uninitializeEventQ(), 0);
    refuse.conditionInit = ENOMEM;
    refuse.mutexesAsked = 0;
    EXPECT_EQ(tracker->initializeEventQ(), ENOMEM);
    EXPECT_EQ(refuse.mutexesAsked, 0U);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, InitializeEventQ_ReturnsTheErrorOfTheMutex)
{
    ASSERT_EQ(tracker->uninitializeEventQ(), 0);
    refuse.mutexInit = EAGAIN;
    EXPECT_EQ(tracker->initializeEventQ(), EAGAIN);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, UninitializeEventQ_ReturnsTheFirstErrorAndLeavesTheMutex)
{
    refuse.conditionDestroy = EBUSY;
    refuse.mutexesAsked = 0;
    EXPECT_EQ(tracker->uninitializeEventQ(), EBUSY);
    EXPECT_EQ(refuse.mutexesAsked, 0U);
}

TEST_F(TrackerFailure, UninitializeEventQ_ReturnsTheErrorOfTheMutex)
{
    refuse.mutexDestroy = EBUSY;
    EXPECT_EQ(tracker->uninitializeEventQ(), EBUSY);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

/// The start of the event thread: every failure is returned, nothing is logged, and the flag is clear.
class EventThreadFailure : public TrackerFailure
{
  protected:
    void expectNotStarted(int status)
    {
        tracker->eventThreadRunning.set();
        EXPECT_EQ(tracker->initializeEventThread(), status);
        EXPECT_TRUE(tracker->eventThreadRunning.isClear());
        EXPECT_EQ(threads.idOf("gssipSendAckReq"), 0);
        EXPECT_TRUE(log.lines().empty());
    }

    kit::threadWatch threads;
};

TEST_F(EventThreadFailure, AttributesCannotBeMade_IsReturned)
{
    refuse.attributesInit = ENOMEM;
    expectNotStarted(ENOMEM);
}

TEST_F(EventThreadFailure, ThreadCannotBeCreated_IsReturnedAndNothingWaits)
{
    refuse.create = EAGAIN;
    expectNotStarted(EAGAIN);
}

TEST_F(EventThreadFailure, CreationFailsWithAnyError_IsReturned)
{
    for (int const error : {1, 2, 4, 8, 16, 32, 64, EAGAIN, EINVAL, EPERM})
    {
        refuse.create = error;
        refuse.name = ~error & 0x7F; // shares no bit with it; a thread that does not exist is not named anyway
        expectNotStarted(error);
    }
}

TEST_F(EventThreadFailure, NotStarted_CanBeEndedAndStarted)
{
    refuse.create = EAGAIN;
    expectNotStarted(EAGAIN);
    refuse = {};
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
    EXPECT_EQ(tracker->initializeEventThread(), 0);
    EXPECT_NE(threads.idOf("gssipSendAckReq"), 0);
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
}

TEST_F(EventThreadFailure, NamingFailsAlone_ThreadRunsWithoutItsName)
{
    refuse.name = ERANGE;
    EXPECT_EQ(tracker->initializeEventThread(), 0);
    EXPECT_TRUE(tracker->eventThreadRunning.isSet());
    EXPECT_EQ(threads.idOf("gssipSendAckReq"), 0);
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
}

TEST_F(EventThreadFailure, AttributesCannotBeDestroyed_IsReturnedAndTheThreadCanBeEnded)
{
    refuse.attributesDestroy = EINVAL;
    EXPECT_EQ(tracker->initializeEventThread(), EINVAL);
    refuse = {};
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
    EXPECT_TRUE(tracker->eventThreadRunning.isClear());
    EXPECT_TRUE(kit::waitUntil([this] { return threads.idOf("gssipSendAckReq") == 0; }));
}

} // namespace
