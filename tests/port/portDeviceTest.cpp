#include "callOnThread.h"
#include "exposedPort.h"
#include "frames.h"
#include "messages.h"
#include "processState.h"
#include "recordingLog.h"
#include "scriptedDevice.h"
#include "sentry.h"
#include "settableTime.h"

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t ackRequest = 0x4000;

template <typename Port = exposedPort>
struct portOnScript
{
    kit::threadWatch watch;
    scriptedDevice device;
    kit::settableTime clock;
    kit::recordingLog log;
    Port port{"scripted device", clock, &log, false};

    kit::exposedSendAckReq& tracker() { return kit::exposedSendAckReq::of(port.sendAckReq); }

    std::size_t pending()
    {
        sentry const lock(tracker().eventQMutex);
        return tracker().eventQ.size();
    }

    bool gateIsOpen()
    {
        sentry const lock(port.readyMutex);
        return port.portReady;
    }

    void openDevice()
    {
        ASSERT_EQ(port.serial.open(), 0);
        device.forgetCalls();
    }

    bool waitForSent(std::size_t frames)
    {
        return kit::waitUntil([&] { return device.sent().size() >= frames; });
    }
};

gssipMessage validRequest(std::uint16_t id)
{
    gssipMessage request = message(id, ackRequest);
    request.setHeaderChecksum();
    return request;
}

// --- Construction and destruction

TEST(PortDevice, Construction_GivesNameAndLogAndAsksNothing)
{
    portOnScript<> rig;
    EXPECT_THAT(rig.device.calls(), ElementsAre("serialPort(scripted device)"));
    EXPECT_EQ(rig.device.logGiven, &rig.log);
}

TEST(PortDevice, NullLog_IsNotPassedOn)
{
    portOnScript<> rig;
    exposedPort const port("another", rig.clock, nullptr, false);
    EXPECT_NE(rig.device.logGiven, nullptr);
}

TEST(PortDevice, DestructionOfAStoppedPort_ClosesNothing)
{
    portOnScript<> rig;
    {
        exposedPort const port("another", rig.clock, &rig.log, false);
        rig.device.forgetCalls();
    }
    EXPECT_THAT(rig.device.calls(), ElementsAre("~serialPort()"));
}

TEST(PortDevice, DestructionOfAStartedPort_ClosesOnce)
{
    portOnScript<> rig;
    {
        gssipPort port("another", rig.clock, &rig.log, false);
        EXPECT_TRUE(port.start());
        rig.device.forgetCalls();
    }
    EXPECT_THAT(rig.device.calls(), ElementsAre("close()", "~serialPort()"));
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(PortDevice, Name_ComesFromTheDevice)
{
    portOnScript<> rig;
    EXPECT_EQ(rig.port.getPort(), "scripted device as the device says");
}

// --- configurePort

int configure(gssipPort& port)
{
    return port.configurePort(19200, 7, PARITY_EVEN, 2, 2, 0.2, 0.6, 9);
}

TEST(PortDeviceConfigure, Steps_AreTakenInOrderWithTheirArguments)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.byteTime_sec = 0.02;
    EXPECT_EQ(configure(rig.port), 0);
    EXPECT_THAT(rig.device.calls(),
                ElementsAre("setRaw()", "setSpeed(19200)", "setDataBits(7)", "setParity(3)", "setStopBits(2)",
                            "setVminVtime(1, 10)", "getByteTransmitTime(0.000000)", "setInterMsgGapBits(22)",
                            "setVminVtime(1, 2)"));
    EXPECT_EQ(rig.port.rxInterCharGap_sec, 9 * 0.02);
}

std::vector<std::pair<std::string, int>> const stepsWithABitEach{
    {"setRaw", 1},
    {"setSpeed", 2},
    {"setDataBits", 4},
    {"setParity", 8},
    {"setStopBits", 16},
    {"setVminVtime(1, 10)", 32},
    {"setInterMsgGapBits", 64},
    {"setVminVtime(1, 1)", 128},
};

TEST(PortDeviceConfigure, EachFailingStep_ShowsInTheResultAndStopsNothing)
{
    for (auto const& [call, bit] : stepsWithABitEach)
    {
        portOnScript<> rig;
        rig.device.forgetCalls();
        rig.device.answer(call, bit);
        EXPECT_EQ(configure(rig.port), bit) << call;
        EXPECT_EQ(rig.device.calls().size(), 9U) << call;
    }
}

TEST(PortDeviceConfigure, EveryStepFailing_GivesTheOrOfAll)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.answer("getByteTransmitTime", 256);
    for (auto const& [call, bit] : stepsWithABitEach)
    {
        rig.device.answer(call, bit);
    }
    EXPECT_EQ(configure(rig.port), 511);
    EXPECT_EQ(rig.device.calls().size(), 9U);
}

TEST(PortDeviceConfigure, ByteTimeThatCannotBeHad_GivesTheShortestReceiveGap)
{
    portOnScript<> rig;
    rig.device.answer("getByteTransmitTime", 256);
    EXPECT_EQ(configure(rig.port), 256);
    EXPECT_EQ(rig.port.rxInterCharGap_sec, 0.0);
    EXPECT_EQ(rig.device.calls().back(), "setVminVtime(1, 1)");
}

TEST(PortDeviceConfigure, StartedPort_IsNeitherClosedNorOpened)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.device.forgetCalls();
    EXPECT_EQ(configure(rig.port), 0);
    EXPECT_EQ(rig.device.count("open()"), 0U);
    EXPECT_EQ(rig.device.count("close()"), 0U);
    EXPECT_EQ(rig.device.calls().size(), 9U);
}

// --- The receive gap and the text

TEST(PortDeviceGap, FailureOfTheDevice_IsReturnedAndTheGapKept)
{
    portOnScript<> rig;
    rig.device.answer("setVminVtime", 19);
    EXPECT_EQ(rig.port.setReceiveInterCharacterGap_sec(0.35), 19);
    EXPECT_EQ(rig.port.rxInterCharGap_sec, 0.35);
    EXPECT_EQ(rig.device.calls().back(), "setVminVtime(1, 4)");
}

TEST(PortDeviceGap, Query_AsksWithZeroesAndMultipliesVtime)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.vtimeInForce = 37;
    double gap = 0.0;
    double effective = 0.0;
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, &effective), 0);
    EXPECT_EQ(gap, 0.00520833);
    EXPECT_EQ(effective, 37 * 0.1);
    EXPECT_THAT(rig.device.calls(), ElementsAre("getVminVtime(0, 0)"));
}

TEST(PortDeviceGap, FailingQuery_LeavesTheEffectiveGapAlone)
{
    portOnScript<> rig;
    rig.device.answer("getVminVtime", 21);
    double gap = 0.0;
    double effective = 99.0;
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, &effective), 21);
    EXPECT_EQ(gap, 0.00520833);
    EXPECT_EQ(effective, 99.0);
}

TEST(PortDeviceGap, QueryWithoutEffective_DoesNotAskTheDevice)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.answer("getVminVtime", 21);
    double gap = 0.0;
    EXPECT_EQ(rig.port.getReceiveInterCharacterGap_sec(gap, nullptr), 0);
    EXPECT_THAT(rig.device.calls(), IsEmpty());
}

TEST(PortDeviceText, IsFollowedByThePortsOwn)
{
    portOnScript<> rig;
    rig.device.text = "any text\nof the device";
    std::string text;
    EXPECT_EQ(rig.port.getPortConfigStr(text), 0);
    EXPECT_EQ(text, "any text\nof the device\nackTo(0.200000) hsTo(0.600000) interCharGap(0.005208)");
}

TEST(PortDeviceText, ThatCannotBeHad_IsReportedAndNothingAppended)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.answer("getConfigString", 17);
    rig.device.text = "half of it";
    std::string text = "former";
    EXPECT_EQ(rig.port.getPortConfigStr(text), 17);
    EXPECT_EQ(text, "half of it");
    EXPECT_THAT(rig.device.calls(), ElementsAre("getConfigString()"));
}

// --- start

TEST(PortDeviceStart, ClosedDevice_IsOpenedBeforeAnyThread)
{
    portOnScript<> rig;
    rig.device.forgetCalls();
    rig.device.duringOpen = [&rig] {
        EXPECT_THAT(rig.watch.added(), IsEmpty());
        EXPECT_EQ(rig.port.receiver, nullptr);
        EXPECT_FALSE(rig.gateIsOpen());
    };
    EXPECT_TRUE(rig.port.start());
    EXPECT_THAT(rig.device.calls(), ElementsAre("open()"));
}

TEST(PortDeviceStart, OpenDevice_IsNotOpenedAgain)
{
    portOnScript<> rig;
    rig.openDevice();
    EXPECT_TRUE(rig.port.start());
    EXPECT_THAT(rig.device.calls(), IsEmpty());
}

TEST(PortDeviceStart, StartedPort_AsksNothing)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.device.forgetCalls();
    EXPECT_TRUE(rig.port.start());
    EXPECT_THAT(rig.device.calls(), IsEmpty());
}

TEST(PortDeviceStart, OpenThatFails_StillMakesTheThreads)
{
    portOnScript<> rig;
    rig.device.answer("open", 13);
    EXPECT_FALSE(rig.port.start());
    EXPECT_FALSE(rig.port.started);
    EXPECT_NE(rig.port.receiver, nullptr);
    EXPECT_TRUE(rig.watch.waitForAdded(4));
}

TEST(PortDeviceStart, AfterOneThatFailed_EndsItsThreadsAndOpensAgain)
{
    portOnScript<> rig;
    rig.device.answer("open", 13);
    ASSERT_FALSE(rig.port.start());
    ASSERT_TRUE(rig.watch.waitForAdded(4));
    rig.device.forgetCalls();
    rig.device.answer("open", 0);
    rig.device.duringOpen = [&rig] { EXPECT_TRUE(rig.watch.waitForAdded(0)); };
    EXPECT_TRUE(rig.port.start());
    EXPECT_EQ(rig.device.count("open()"), 1U);
    EXPECT_TRUE(rig.watch.waitForAdded(4));
}

// --- stop

TEST(PortDeviceStop, Device_IsClosedWhileEverythingStillRuns)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.watch.waitForAdded(4));
    rig.device.forgetCalls();
    std::size_t threadsThen = 0;
    bool receiverThen = false;
    rig.device.duringClose = [&] {
        threadsThen = rig.watch.added().size();
        receiverThen = rig.port.receiver != nullptr;
    };
    EXPECT_TRUE(rig.port.stop());
    EXPECT_GE(threadsThen, 3U); // the reading thread may have left by itself
    EXPECT_TRUE(receiverThen);
    EXPECT_THAT(rig.device.calls(), ElementsAre("close()"));
}

TEST(PortDeviceStop, StoppedPort_AsksNothing)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    rig.device.forgetCalls();
    EXPECT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.device.calls(), IsEmpty());
}

TEST(PortDeviceStop, AfterAFailedStart_AsksNothing)
{
    portOnScript<> rig;
    rig.device.answer("open", 13);
    ASSERT_FALSE(rig.port.start());
    rig.device.forgetCalls();
    EXPECT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.device.count("close()"), 0U);
}

TEST(PortDeviceStop, CloseThatFails_EndsTheThreadsAndLeavesThePortStarted)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.device.answer("close", 5);
    EXPECT_FALSE(rig.port.stop());
    EXPECT_TRUE(rig.port.started);
    EXPECT_EQ(rig.port.receiver, nullptr);
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(PortDeviceStop, AfterOneThatFailed_RunsAgain)
{
    portOnScript<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.device.answer("close", 5);
    ASSERT_FALSE(rig.port.stop());
    EXPECT_TRUE(rig.port.start()); // it counts as started
    EXPECT_TRUE(rig.watch.waitForAdded(0));
    EXPECT_FALSE(rig.port.stop());
    rig.device.answer("close", 0);
    rig.device.forgetCalls();
    EXPECT_TRUE(rig.port.stop());
    EXPECT_FALSE(rig.port.started);
    EXPECT_THAT(rig.device.calls(), ElementsAre("close()"));
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.watch.waitForAdded(4));
}

TEST(PortDeviceStop, DestructionAfterOneThatFailed_ClosesOnceMore)
{
    portOnScript<> rig;
    {
        gssipPort port("another", rig.clock, &rig.log, false);
        ASSERT_TRUE(port.start());
        rig.device.answer("close", 5);
        EXPECT_FALSE(port.stop());
        rig.device.forgetCalls();
    }
    EXPECT_THAT(rig.device.calls(), ElementsAre("close()", "~serialPort()"));
}

// --- The single write

bool isHeld(pthread_mutex_t& mutex)
{
    return pthread_mutex_trylock(&mutex) != 0 || pthread_mutex_unlock(&mutex) != 0;
}

TEST(PortDeviceWrite, Frame_GoesOutInOneCallUnderTheSendMutexAlone)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.device.duringSend = [&rig] {
        EXPECT_TRUE(isHeld(rig.port.sendMutex));
        EXPECT_FALSE(isHeld(rig.port.txMutex));
        EXPECT_FALSE(isHeld(rig.port.readyMutex));
    };
    gssipMessage sent = message(1, 0, {2, 3});
    EXPECT_EQ(rig.port._gssipSend(sent), 0);
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0, {2, 3})));
    EXPECT_FALSE(isHeld(rig.port.sendMutex));
}

TEST(PortDeviceWrite, TransmitThread_HoldsTheSendMutexAlone)
{
    portOnScript<> rig;
    rig.device.duringSend = [&rig] {
        EXPECT_TRUE(isHeld(rig.port.sendMutex));
        // Other threads may have these for a moment.
        for (pthread_mutex_t* mutex : {&rig.port.txMutex, &rig.port.readyMutex, &rig.tracker().eventQMutex})
        {
            EXPECT_TRUE(kit::waitUntil([mutex] { return !isHeld(*mutex); }));
        }
    };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    EXPECT_TRUE(rig.waitForSent(1));
    EXPECT_TRUE(rig.port.stop());
}

TEST(PortDeviceWrite, TimeStamp_IsTakenAfterTheWrite)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.clock.now_sec = 1.0;
    rig.device.duringSend = [&rig] {
        EXPECT_EQ(rig.clock.asked, 0U);
        rig.clock.now_sec = 2.0;
    };
    gssipMessage sent = message(1);
    EXPECT_EQ(rig.port._gssipSend(sent), 0);
    EXPECT_EQ(sent.getSendTimeStamp(), 2.0);
    EXPECT_EQ(rig.clock.asked, 1U);
}

TEST(PortDeviceWrite, FailureOfTheDevice_IsReturnedAsItIs)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.device.answer("send", 77);
    rig.clock.now_sec = 3.0;
    gssipMessage sent = message(1, 0, {0xFFFF});
    EXPECT_EQ(rig.port._gssipSend(sent), 77);
    EXPECT_TRUE(sent.isValid());
    EXPECT_EQ(sent.getSendTimeStamp(), 3.0);
    EXPECT_EQ(rig.port.resendMessage(sent), 77);
    EXPECT_EQ(rig.port.sendHandshakeReject(1, false), 77);
    EXPECT_EQ(rig.port.sendHandshakeReject(1, true), 77);
    EXPECT_EQ(rig.port.sendResyncSequence(), 77);
    EXPECT_EQ(rig.port.sendAcknowledgement(validRequest(1)), 77U);
    EXPECT_EQ(rig.device.sent().size(), 6U); // nothing is tried twice
}

TEST(PortDeviceWrite, RejectThatFails_OpensTheGateAndLogsAllTheSame)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.device.answer("send", 77);
    EXPECT_EQ(rig.port.sendHandshakeReject(0x10001, true), 77);
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_EQ(rig.log.count("port(" + std::to_string(rig.port.portId) + ") reject 65537"), 1U);
}

TEST(PortDeviceWrite, Reject_OpensTheGateAfterTheWrite)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.device.duringSend = [&rig] { EXPECT_FALSE(rig.gateIsOpen()); };
    EXPECT_EQ(rig.port.sendHandshakeReject(1, false), 0);
    EXPECT_TRUE(rig.gateIsOpen());
}

TEST(PortDeviceWrite, Resync_IsOneWriteUnderTheSendMutex)
{
    portOnScript<> rig;
    rig.openDevice();
    rig.device.duringSend = [&rig] { EXPECT_TRUE(isHeld(rig.port.sendMutex)); };
    EXPECT_EQ(rig.port.sendResyncSequence(), 0);
    EXPECT_THAT(rig.device.sent(), ElementsAre(kit::bytes(20, 0xFF)));
}

TEST(PortDeviceWrite, Resync_IsTriedOnAClosedDeviceToo)
{
    portOnScript<> rig;
    rig.device.answer("send", 9);
    EXPECT_EQ(rig.port.sendResyncSequence(), 9);
    EXPECT_EQ(rig.device.sent().size(), 1U);
}

TEST(PortDeviceWrite, RawBytes_PassThroughWithResultAndCount)
{
    portOnScript<> rig;
    rig.openDevice();
    kit::bytes const raw{1, 2, 3};
    unsigned sent = 0;
    EXPECT_EQ(rig.port.send(raw.data(), 3, sent), 0);
    EXPECT_EQ(sent, 3U);
    rig.device.answer("send", 66);
    EXPECT_EQ(rig.port.send(raw.data(), 2, sent), 66);
    EXPECT_EQ(sent, 1U);
    EXPECT_THAT(rig.device.sent(), ElementsAre(raw, kit::bytes{1, 2}));
    EXPECT_EQ(rig.clock.asked, 0U);
}

// --- The transmit thread and a device that fails or is slow

TEST(PortDeviceTransmit, FailedWrite_IsNeitherTrackedNorTriedAgain)
{
    portOnScript<> rig;
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    rig.device.answer("send", 5);
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    ASSERT_TRUE(rig.waitForSent(1));
    EXPECT_TRUE(kit::waitUntil([&] { return rig.clock.asked == 1; }));
    rig.device.answer("send", 0);
    rig.port.sendMessage(message(2, ackRequest), true);
    EXPECT_TRUE(kit::waitUntil([&] { return rig.pending() == 1; }));
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, ackRequest), frame(2, ackRequest)));
    sentry const lock(rig.tracker().eventQMutex);
    EXPECT_EQ(rig.tracker().eventQ.front().message.getId(), 2U);
    EXPECT_EQ(rig.tracker().nextEventId, 1U);
}

TEST(PortDeviceTracking, CharacterTimeThatCannotBeHad_IsLeftOutOfTheDeadline)
{
    portOnScript<> rig;
    rig.device.byteTime_sec = 100.0;
    rig.port.setAcknowledgeTimeout_sec(50.0);
    timespec withIt{};
    EXPECT_EQ(rig.port.sendAckReq.computeAckNakAbsTimeout(0.0, message(1), withIt), 0);
    rig.device.answer("getByteTransmitTime", 19);
    timespec without{};
    EXPECT_EQ(rig.port.sendAckReq.computeAckNakAbsTimeout(0.0, message(1), without), 0);
    EXPECT_NEAR(static_cast<double>(withIt.tv_sec - without.tv_sec), 1000.0, 10.0) << "ten characters";
    EXPECT_NEAR(static_cast<double>(without.tv_sec - std::time(nullptr)), 50.0, 10.0);
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

/// Holds whoever passes until it is let go.
class barrier
{
  public:
    void pass()
    {
        std::unique_lock<std::mutex> lock(mutex);
        ++inside;
        changed.notify_all();
        changed.wait(lock, [this] { return opened; });
    }

    bool waitForInside(unsigned count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return inside >= count; });
    }

    void open()
    {
        std::lock_guard<std::mutex> const lock(mutex);
        opened = true;
        changed.notify_all();
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    unsigned inside = 0;
    bool opened = false;
};

TEST(PortDeviceTransmit, SlowWrite_HoldsUpNoProducer)
{
    barrier slow;
    portOnScript<> rig;
    rig.device.duringSend = [&slow] { slow.pass(); };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    ASSERT_TRUE(slow.waitForInside(1));

    std::vector<gssipMessage> const batch{message(2), message(3)};
    rig.port.sendMessage(message(7), false);
    rig.port.sendDtMessages(batch.begin(), 2);
    rig.port.removeMsgIdFromTxQueue(7);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U); // the one that is being written is not counted

    slow.open();
    EXPECT_TRUE(rig.waitForSent(3));
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0), frame(2, 0), frame(3, 0)));
}

TEST(PortDeviceTransmit, Clearing_DoesNotTouchTheMessageBeingWritten)
{
    barrier slow;
    portOnScript<> rig;
    rig.port.setAcknowledgeTimeout_sec(1000.0);
    rig.device.duringSend = [&slow] { slow.pass(); };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, ackRequest), true);
    ASSERT_TRUE(slow.waitForInside(1));
    rig.port.sendMessage(message(2), false);
    rig.port.clearTransmitQueue();
    rig.port.removeMsgIdFromTxQueue(1);
    slow.open();
    EXPECT_TRUE(kit::waitUntil([&] { return rig.pending() == 1; }));
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, ackRequest)));
}

TEST(PortDeviceTransmit, Reply_GoesOutRightAfterTheMessageBeingWritten)
{
    barrier slow;
    portOnScript<> rig;
    rig.device.duringSend = [&slow] { slow.pass(); };
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    ASSERT_TRUE(slow.waitForInside(1));
    std::vector<gssipMessage> const batch{message(2), message(3), message(4)};
    rig.port.sendDtMessages(batch.begin(), 3);
    kit::callOnThread<int> reject([&] { return rig.port.sendHandshakeReject(9, false); });
    reject.awaitAsleep();
    slow.open();
    EXPECT_EQ(reject.get(), 0);
    EXPECT_TRUE(rig.waitForSent(5));
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0), frame(9, 0x9200), frame(2, 0), frame(3, 0), frame(4, 0)));
}

TEST(PortDeviceTransmit, StopDuringAWrite_KeepsTheRestQueued)
{
    barrier slow;
    portOnScript<> rig;
    rig.device.duringSend = [&slow] { slow.pass(); };
    rig.device.duringClose = [&slow] { slow.open(); };
    ASSERT_TRUE(rig.port.start());
    std::vector<gssipMessage> const batch{message(1), message(2), message(3)};
    rig.port.sendDtMessages(batch.begin(), 3);
    ASSERT_TRUE(slow.waitForInside(1));
    EXPECT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0)));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.waitForSent(3));
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0), frame(2, 0), frame(3, 0)));
}

TEST(PortDeviceTransmit, GateOpenedWhileThePortIsBeingStopped_LetsNothingThrough)
{
    portOnScript<> rig;
    rig.port.setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port.start());
    pid_t const transmitThread = rig.watch.idOf("GP TX");
    ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
    rig.port.resetPortReady();
    std::vector<gssipMessage> const batch{message(1), message(2)};
    rig.port.sendDtMessages(batch.begin(), 2); // the second one waits in front of the gate
    ASSERT_TRUE(rig.waitForSent(1));
    ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
    rig.device.duringClose = [&rig] {
        rig.port.signalPortReady();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    };
    EXPECT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.device.sent(), ElementsAre(frame(1, 0)));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 1U);
}

} // namespace
