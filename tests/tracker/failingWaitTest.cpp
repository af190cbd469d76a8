// Waits that the system ends with an error: the one who waits tells of it, and does not go on as if nothing had been.

#include "callOnThread.h"
#include "checkpoint.h"
#include "messages.h"
#include "nextFunction.h"
#include "portOnLine.h"
#include "processState.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>

namespace
{

/// The condition whose waits fail, and how.
std::atomic<pthread_cond_t*> failing{nullptr};
constexpr int ERROR = ENOTRECOVERABLE;

} // namespace

extern "C" {

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    static auto* const real = kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*)>("pthread_cond_wait");
    return condition == failing ? ERROR : real(condition, mutex);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* deadline)
{
    static auto* const real =
        kit::nextFunction<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)>("pthread_cond_clockwait");
    return condition == failing ? ERROR : real(condition, mutex, clock, deadline);
}

} // extern "C"

namespace
{

using kit::message;
using kit::portOnLine;

class FailingWait : public testing::Test
{
  protected:
    void TearDown() override { failing = nullptr; }

    kit::threadWatch threads;
    portOnLine<> rig;
};

TEST_F(FailingWait, OfTheGate_IsReturned)
{
    failing = &rig.port.readyCond;
    EXPECT_EQ(rig.port.waitForPortReady(1000.0), ERROR);
    EXPECT_EQ(rig.port.waitForPortReady(-1.0), ERROR);
    rig.port.signalPortReady();
    EXPECT_EQ(rig.port.waitForPortReady(-1.0), 0) << "an open gate is not waited for";
}

TEST_F(FailingWait, OfTheGate_LetsTheTransmitThreadSend)
{
    rig.port.setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port.start());
    failing = &rig.port.readyCond;
    rig.port.resetPortReady();
    rig.port.sendMessage(message(1), false);
    rig.port.sendMessage(message(2), false);
    EXPECT_EQ(rig.line.read(20).size(), 20U);
}

TEST_F(FailingWait, OfTheEventThread_EndsItWithThatError)
{
    failing = &rig.tracker().eventQCond;
    EXPECT_EQ(rig.tracker().eventThread(), ERROR);
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isSet()) << "nobody has asked it to end";
}

/// Time-outs are served again after a stop and a start; the stop joins the thread that has ended as any other.
TEST_F(FailingWait, OfTheEventThreadUntilADeadline_EndsItUntilTheNextStart)
{
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(kit::waitUntilAsleep(threads.idOf("gssipSendAckReq")));
    failing = &rig.tracker().eventQCond;
    gssipMessage request = message(1, gssipMessage::ACK_REQ_FLAG);
    ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
    EXPECT_TRUE(kit::waitUntil([this] { return threads.idOf("gssipSendAckReq") == 0; }));
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isSet());
    EXPECT_EQ(rig.events().size(), 1U);
    failing = nullptr;
    EXPECT_TRUE(rig.port.stop());
    ASSERT_TRUE(rig.port.start());
    rig.port.setAcknowledgeTimeout_sec(0.0);
    rig.port.sendMessage(message(2, gssipMessage::ACK_REQ_FLAG), true);
    EXPECT_EQ(rig.line.read(20).size(), 20U) << "written, and resent";
}

} // namespace
