#include "frames.h"
#include "messages.h"
#include "monotonicTimeStamp.h"
#include "portOnLine.h"
#include "processState.h"
#include "stopwatch.h"
#include "temporaryFolder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::uint16_t ackRequest = 0x4000;

std::string ownThreadName()
{
    std::string name = kit::taskFile(gettid(), "comm");
    name.pop_back();
    return name;
}

/// Queues a message as a derived class can, whether the device is open or not.
void putIntoQueue(exposedPort& port, gssipMessage const& queued)
{
    sentry const lock(port.txMutex);
    port.txQueue.emplace_back(queued, false);
}

// --- Starting

TEST(PortStart, ReturnsTrueAndShowsIt)
{
    portOnLine<> rig;
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.port.started);
    EXPECT_TRUE(rig.port.serial.isOpen());
    EXPECT_NE(rig.port.receiver, nullptr);
    EXPECT_TRUE(rig.port.txRunning.isSet());
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isSet());
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_TRUE(kit::holdsOpen(rig.line.name()));
}

TEST(PortStart, RunsFourThreadsOfWhichTwoHaveNames)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(watch.waitForAdded(4));
    EXPECT_THAT(watch.namesAdded(), UnorderedElementsAre("GP TX", "gssipSendAckReq", ownThreadName(), ownThreadName()));
}

TEST(PortStart, NamedThreads_AreThoseOfTheMembers)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    char name[16] = {};
    ASSERT_EQ(pthread_getname_np(rig.port.txThread, name, sizeof(name)), 0);
    EXPECT_STREQ(name, "GP TX");
    ASSERT_EQ(pthread_getname_np(rig.tracker().eventThreadId, name, sizeof(name)), 0);
    EXPECT_STREQ(name, "gssipSendAckReq");
}

TEST(PortStart, StartedPort_StaysAsItIs)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(watch.waitForAdded(4));
    auto const threads = watch.idsAdded();
    gssipReceive const* const receiver = rig.port.receiver.get();
    rig.port.resetPortReady();

    EXPECT_TRUE(rig.port.start());

    EXPECT_EQ(watch.idsAdded(), threads);
    EXPECT_EQ(rig.port.receiver.get(), receiver);
    EXPECT_FALSE(rig.gateIsOpen());
}

TEST(PortStart, DeviceAlreadyOpen_IsUsed)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    EXPECT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
}

TEST(PortStart, WritesNoLogLine)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    EXPECT_THAT(rig.log.lines(), IsEmpty());
    EXPECT_EQ(rig.clock.asked, 0U);
}

TEST(PortStart, SeveralPorts_HaveFourThreadsEach)
{
    kit::threadWatch const watch;
    portOnLine<> one;
    portOnLine<> two;
    ASSERT_TRUE(one.port.start());
    ASSERT_TRUE(two.port.start());
    EXPECT_TRUE(watch.waitForAdded(8));
    ASSERT_TRUE(one.port.stop());
    EXPECT_TRUE(watch.waitForAdded(4));
    two.port.sendMessage(message(2), false);
    EXPECT_EQ(two.line.read(10), frame(2, 0));
}

// --- What the threads are like

bool mayUseRoundRobin()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attributes, SCHED_RR);
    sched_param priority{};
    priority.sched_priority = 51;
    pthread_attr_setschedparam(&attributes, &priority);
    pthread_t thread{};
    int const status = pthread_create(
        &thread, &attributes, [](void*) -> void* { return nullptr; }, nullptr);
    if (status == 0)
    {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attributes);
    return status == 0;
}

std::tuple<int, int> schedulingOf(pid_t thread)
{
    sched_param priority{};
    sched_getparam(thread, &priority);
    return {sched_getscheduler(thread), priority.sched_priority};
}

TEST(PortThreads, TransmitAndEventThread_AreRealTimeWhereTheProcessMay)
{
    bool const realTime = mayUseRoundRobin();
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    std::tuple<int, int> const ordinary{SCHED_OTHER, 0};
    EXPECT_EQ(schedulingOf(watch.idOf("GP TX")), realTime ? std::make_tuple(SCHED_RR, 51) : ordinary);
    EXPECT_EQ(schedulingOf(watch.idOf("gssipSendAckReq")), realTime ? std::make_tuple(SCHED_RR, 50) : ordinary);
}

TEST(PortThreads, ReceivingThreads_AreScheduledLikeTheirStarter)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(watch.waitForAdded(4));
    for (kit::threadState const& thread : watch.added())
    {
        if (thread.name == ownThreadName())
        {
            EXPECT_EQ(schedulingOf(thread.id), std::make_tuple(SCHED_OTHER, 0));
        }
    }
}

TEST(PortThreads, EverySignal_IsBlocked)
{
    std::uint64_t const all = kit::everySignalBlocked();
    for (int const number : {SIGHUP, SIGINT, SIGUSR1, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGIO})
    {
        ASSERT_NE(all >> (number - 1) & 1U, 0U) << number;
    }
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(watch.waitForAdded(4));
    for (kit::threadState const& thread : watch.added())
    {
        EXPECT_EQ(thread.blockedSignals & all, all) << thread.name << std::hex << ' ' << thread.blockedSignals;
    }
}

TEST(PortThreads, StartersOwnSignals_StayAsTheyWere)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number <= SIGRTMAX; ++number)
    {
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
    }
}

TEST(PortThreads, TransmitThread_IsJoinable)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_getattr_np(rig.port.txThread, &attributes), 0);
    int state = -1;
    EXPECT_EQ(pthread_attr_getdetachstate(&attributes, &state), 0);
    EXPECT_EQ(state, PTHREAD_CREATE_JOINABLE);
    pthread_attr_destroy(&attributes);
}

// --- Stopping

TEST(PortStop, NeverStarted_ReturnsTrueAndChangesNothing)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    EXPECT_TRUE(rig.port.stop());
    EXPECT_TRUE(rig.port.serial.isOpen());
    EXPECT_FALSE(rig.gateIsOpen());
    EXPECT_THAT(watch.added(), IsEmpty());
}

TEST(PortStop, StartedPort_EndsThreadsAndClosesTheDevice)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.port.stop());
    EXPECT_FALSE(rig.port.started);
    EXPECT_FALSE(rig.port.serial.isOpen());
    EXPECT_FALSE(kit::holdsOpen(rig.line.name()));
    EXPECT_EQ(rig.port.receiver, nullptr);
    EXPECT_TRUE(rig.port.txRunning.isClear());
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isClear());
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(PortStop, StoppedPort_ReturnsTrueAgain)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.port.stop());
    EXPECT_TRUE(rig.port.stop());
    EXPECT_FALSE(rig.port.started);
}

TEST(PortStop, Gate_IsLeftOpen)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.port.resetPortReady();
    ASSERT_TRUE(rig.port.stop());
    EXPECT_TRUE(rig.gateIsOpen());
}

TEST(PortStop, QuietPort_TakesLessThanFiftyMilliseconds)
{
    double quickest_sec = 1000.0;
    for (int stops = 0; stops < 10; ++stops)
    {
        portOnLine<> rig;
        ASSERT_TRUE(rig.port.start());
        kit::stopwatch const watch;
        ASSERT_TRUE(rig.port.stop());
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.05);
}

TEST(PortStop, FromSeveralThreads_EveryCallReturnsTrue)
{
    kit::threadWatch const watch;
    for (int round = 0; round < 20; ++round)
    {
        portOnLine<> rig;
        ASSERT_TRUE(rig.port.start());
        auto const stop = [&rig] { return rig.port.stop(); };
        auto one = std::async(std::launch::async, stop);
        auto two = std::async(std::launch::async, stop);
        EXPECT_TRUE(one.get());
        EXPECT_TRUE(two.get());
        EXPECT_FALSE(rig.port.started);
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(PortStart, FromSeveralThreads_OneReceiverSetIsMade)
{
    for (int round = 0; round < 20; ++round)
    {
        kit::threadWatch const watch;
        portOnLine<> rig;
        auto const start = [&rig] { return rig.port.start(); };
        auto one = std::async(std::launch::async, start);
        auto two = std::async(std::launch::async, start);
        EXPECT_TRUE(one.get());
        EXPECT_TRUE(two.get());
        EXPECT_TRUE(watch.waitForAdded(4));
    }
}

TEST(PortStartAndStop, FromSeveralThreads_LeaveAWholePortOrNone)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    auto const toggle = [&rig] {
        for (int round = 0; round < 30; ++round)
        {
            EXPECT_TRUE(rig.port.start());
            EXPECT_TRUE(rig.port.stop());
        }
    };
    auto one = std::async(std::launch::async, toggle);
    auto two = std::async(std::launch::async, toggle);
    one.get();
    two.get();
    EXPECT_FALSE(rig.port.started);
    EXPECT_TRUE(watch.waitForAdded(0));
    EXPECT_TRUE(rig.port.start());
    EXPECT_TRUE(watch.waitForAdded(4));
}

// --- Starting again

TEST(PortRestart, ManyTimes_LeavesNoThreadAndNoDescriptor)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    std::size_t const descriptors = kit::openFiles().size();
    for (int round = 0; round < 100; ++round)
    {
        ASSERT_TRUE(rig.port.start());
        ASSERT_TRUE(rig.port.stop());
        ASSERT_EQ(kit::openFiles().size(), descriptors);
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(PortRestart, EachTime_SendsAndReceives)
{
    portOnLine<> rig;
    for (std::uint16_t round = 0; round < 20; ++round)
    {
        ASSERT_TRUE(rig.port.start());
        rig.port.sendMessage(message(round), false);
        EXPECT_EQ(rig.line.read(10), frame(round, 0));
        rig.line.write(frame(round, 1));
        gssipMessage received;
        ASSERT_EQ(rig.port.getMessage(received, true), 0);
        EXPECT_EQ(received.getId(), round);
        ASSERT_TRUE(rig.port.stop());
    }
}

TEST(PortRestart, MessagesLeftQueued_AreSent)
{
    portOnLine<> rig;
    rig.port.setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port.start());
    rig.port.resetPortReady();
    // One message may still pass; the others wait in front of the gate.
    std::vector<gssipMessage> const five{message(1), message(2), message(3), message(4), message(5)};
    rig.port.sendDtMessages(five.begin(), 5);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 4U);

    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.line.read(40), frame(2, 0) + frame(3, 0) + frame(4, 0) + frame(5, 0));
    EXPECT_TRUE(kit::waitUntil([&] { return rig.port.getNumberQueuedMessages() == 0; }));
}

TEST(PortRestart, MessagesQueuedWhileStopped_AreSent)
{
    portOnLine<> rig;
    putIntoQueue(rig.port, message(1));
    putIntoQueue(rig.port, message(2));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.line.read(20), frame(1, 0) + frame(2, 0));
}

TEST(PortRestart, Settings_AreKept)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.configurePort(19200, 8, PARITY_NONE, 2, 1, 0.3, 0.4, 2), 0);
    std::string before;
    rig.port.getPortConfigStr(before);
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    ASSERT_TRUE(rig.port.start());
    std::string after;
    rig.port.getPortConfigStr(after);
    EXPECT_EQ(after, before);
    termios const settings = rig.line.settings();
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B19200));
}

TEST(PortRestart, ReceivedAndNotTaken_IsGone)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.line.write(frame(1, 0) + frame(2, 0) + frame(3, 0));
    EXPECT_TRUE(rig.waitForReceived(3));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
}

// --- The number of received messages

TEST(RxQueuedCount, FollowsTheReceiversQueue)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.line.write(frame(1, 0) + frame(2, 0, {5}));
    EXPECT_TRUE(rig.waitForReceived(2));
    gssipMessage received;
    EXPECT_EQ(rig.port.getMessage(received, true), 0);
    EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 1U);
}

TEST(RxQueuedCount, NeverWaitsForTheLock)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    rig.line.write(frame(1, 0) + frame(2, 0));
    ASSERT_TRUE(rig.waitForReceived(2));
    std::lock_guard<std::mutex> const lock(rig.receiver().rxQueue.queueMutex);
    auto asking = std::async(std::launch::async, [&] { return rig.port.getNumberRxQueuedMessages(); });
    EXPECT_EQ(asking.get(), 2U);
}

// --- A device that is missing

/// A port on a device name behind which a line can appear.
struct portOnMissingDevice
{
    void plugIn() { std::filesystem::create_symlink(line.name(), folder.path / "tty"); }
    void unplug() { std::filesystem::remove(folder.path / "tty"); }

    kit::temporaryFolder folder;
    kit::pseudoTerminal line;
    kit::settableTime clock;
    kit::recordingLog log;
    kit::threadWatch watch;
    exposedPort port{(folder.path / "tty").string(), clock, &log, false};
};

TEST(FailedStart, ReturnsFalseAndLeavesFourThreads)
{
    portOnMissingDevice rig;
    EXPECT_FALSE(rig.port.start());
    EXPECT_FALSE(rig.port.started);
    EXPECT_FALSE(rig.port.serial.isOpen());
    EXPECT_NE(rig.port.receiver, nullptr);
    EXPECT_TRUE(rig.watch.waitForAdded(4));
    EXPECT_THAT(rig.watch.namesAdded(),
                UnorderedElementsAre("GP TX", "gssipSendAckReq", ownThreadName(), ownThreadName()));
}

TEST(FailedStart, Stop_ReturnsTrueAndDoesNothing)
{
    portOnMissingDevice rig;
    ASSERT_FALSE(rig.port.start());
    ASSERT_TRUE(rig.watch.waitForAdded(4));
    auto const threads = rig.watch.idsAdded();
    EXPECT_TRUE(rig.port.stop());
    EXPECT_EQ(rig.watch.idsAdded(), threads);
    EXPECT_NE(rig.port.receiver, nullptr);
}

TEST(FailedStart, DeviceAppears_NextStartWorks)
{
    portOnMissingDevice rig;
    ASSERT_FALSE(rig.port.start());
    rig.plugIn();
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(rig.watch.waitForAdded(4));
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    rig.line.write(frame(2, 0));
    gssipMessage received;
    EXPECT_EQ(rig.port.getMessage(received, true), 0);
    EXPECT_EQ(received.getId(), 2U);
    EXPECT_TRUE(rig.port.stop());
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(FailedStart, Repeated_RunsTheWholeSequenceWithNewThreads)
{
    portOnMissingDevice rig;
    ASSERT_FALSE(rig.port.start());
    ASSERT_TRUE(rig.watch.waitForAdded(4));
    auto const first = rig.watch.idsAdded();
    std::weak_ptr<gssipReceive> const formerReceiver = rig.port.receiver;
    rig.port.resetPortReady();

    EXPECT_FALSE(rig.port.start());

    EXPECT_TRUE(rig.watch.waitForAdded(4));
    EXPECT_NE(rig.watch.idsAdded(), first);
    EXPECT_TRUE(formerReceiver.expired());
    EXPECT_NE(rig.port.receiver, nullptr);
    sentry const lock(rig.port.readyMutex);
    EXPECT_TRUE(rig.port.portReady);
}

TEST(FailedStart, QueuedMessages_StayUntilTheDeviceIsThere)
{
    portOnMissingDevice rig;
    putIntoQueue(rig.port, message(1));
    ASSERT_FALSE(rig.port.start());
    putIntoQueue(rig.port, message(2));
    pthread_cond_signal(&rig.port.txCond);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 2U);
    rig.plugIn();
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(rig.line.read(20), frame(1, 0) + frame(2, 0));
}

TEST(FailedStart, SendMessage_DropsSilently)
{
    portOnMissingDevice rig;
    ASSERT_FALSE(rig.port.start());
    EXPECT_EQ(rig.port.sendMessage(message(1), true), 0U);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), 0U);
}

TEST(FailedStart, AfterAGoodOne_IsTheSame)
{
    portOnMissingDevice rig;
    rig.plugIn();
    ASSERT_TRUE(rig.port.start());
    ASSERT_TRUE(rig.port.stop());
    rig.unplug();
    EXPECT_FALSE(rig.port.start());
    EXPECT_FALSE(rig.port.started);
    EXPECT_TRUE(rig.watch.waitForAdded(4));
    rig.plugIn();
    EXPECT_TRUE(rig.port.start());
}

TEST(FailedStart, DeviceIsNoTerminal_ReturnsFalse)
{
    portOnLine<> rig;
    exposedPort port("/dev/null", rig.clock, &rig.log, false);
    EXPECT_FALSE(port.start());
    EXPECT_FALSE(port.serial.isOpen());
}

// --- The parts of start and stop

TEST(TransmitThreadLifecycle, InitializeAndUninitialize)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    EXPECT_EQ(rig.port.initializeTransmitThread(), 0);
    EXPECT_TRUE(rig.port.txRunning.isSet());
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_TRUE(watch.waitForAdded(1));
    EXPECT_NE(watch.idOf("GP TX"), 0);

    rig.port.resetPortReady();
    EXPECT_EQ(rig.port.uninitializeTransmitThread(), 0);
    EXPECT_TRUE(rig.port.txRunning.isClear());
    EXPECT_TRUE(rig.gateIsOpen());
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(TransmitThreadLifecycle, UninitializeWithoutAThread_ReturnsZero)
{
    portOnLine<> rig;
    EXPECT_EQ(rig.port.uninitializeTransmitThread(), 0);
    EXPECT_TRUE(rig.gateIsOpen());
}

/// Two on one queue would send two messages past the gate at once, and the first could not be joined any more.
TEST(TransmitThreadLifecycle, InitializeTwice_LeavesOneThread)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    ASSERT_EQ(rig.port.initializeTransmitThread(), 0);
    pid_t const former = watch.idOf("GP TX");
    EXPECT_EQ(rig.port.initializeTransmitThread(), 0);
    EXPECT_TRUE(watch.waitForAdded(1));
    EXPECT_NE(watch.idOf("GP TX"), former);
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    EXPECT_EQ(rig.port.uninitializeTransmitThread(), 0);
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(ReceiveThreadLifecycle, InitializeAndUninitialize)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    EXPECT_EQ(rig.port.initializeReceiveThread(), 0);
    EXPECT_NE(rig.port.receiver, nullptr);
    EXPECT_TRUE(watch.waitForAdded(3));
    EXPECT_NE(watch.idOf("gssipSendAckReq"), 0);
    EXPECT_FALSE(rig.gateIsOpen());

    EXPECT_EQ(rig.port.uninitializeReceiveThread(), 0);
    EXPECT_EQ(rig.port.receiver, nullptr);
    EXPECT_TRUE(watch.waitForAdded(0));
    EXPECT_TRUE(rig.port.serial.isOpen());
}

TEST(ReceiveThreadLifecycle, InitializeTwice_ReplacesTheReceiver)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    ASSERT_EQ(rig.port.initializeReceiveThread(), 0);
    std::weak_ptr<gssipReceive> const former = rig.port.receiver;
    EXPECT_EQ(rig.port.initializeReceiveThread(), 0);
    EXPECT_TRUE(former.expired());
    EXPECT_TRUE(watch.waitForAdded(3));
    rig.line.write(frame(1, 0));
    EXPECT_TRUE(rig.waitForReceived(1));
    EXPECT_EQ(rig.port.uninitializeReceiveThread(), 0);
}

// --- Destruction

/// A port as an application makes it, with nothing of the tests' in between.
struct plainPort
{
    kit::pseudoTerminal line;
    kit::settableTime clock;
    kit::recordingLog log;
    kit::threadWatch watch;
    std::unique_ptr<gssipPort> port = std::make_unique<gssipPort>(line.name(), clock, &log, false);
};

TEST(PortDestruction, StartedPort_IsStopped)
{
    plainPort rig;
    ASSERT_TRUE(rig.port->start());
    rig.port.reset();
    EXPECT_TRUE(rig.watch.waitForAdded(0));
    EXPECT_FALSE(kit::holdsOpen(rig.line.name()));
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(PortDestruction, StoppedPort_LeavesNothing)
{
    plainPort rig;
    ASSERT_TRUE(rig.port->start());
    ASSERT_TRUE(rig.port->stop());
    rig.port.reset();
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(PortDestruction, AfterAFailedStart_EndsTheThreads)
{
    plainPort rig;
    auto port = std::make_unique<gssipPort>("/nonexistent/tty", rig.clock, &rig.log, false);
    ASSERT_FALSE(port->start());
    port.reset();
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(PortDestruction, WithQueuedMessagesInFrontOfTheClosedGate)
{
    plainPort rig;
    rig.port->setHandshakeTimeout_sec(-1.0);
    ASSERT_TRUE(rig.port->start());
    rig.line.write(frame(1, ackRequest)); // closes the gate
    gssipMessage received;
    ASSERT_EQ(rig.port->getMessage(received, true), 0);
    std::vector<gssipMessage> const three{message(1), message(2, 0, {1, 2, 3}), message(3)};
    rig.port->sendDtMessages(three.begin(), 3);
    rig.port.reset();
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

TEST(PortDestruction, ThroughTheInterface)
{
    plainPort rig;
    ASSERT_TRUE(rig.port->start());
    std::unique_ptr<gssipPortInterface> port = std::move(rig.port);
    port.reset();
    EXPECT_TRUE(rig.watch.waitForAdded(0));
}

// --- Calls from the port's own threads

struct answers
{
    bool stopped = false;
    bool startedAgain = false;
};

/// Calls `stop` and `start` of the port once, on whatever thread it is asked, and keeps the answers.
class meddler
{
  public:
    void meddle(gssipPort& port)
    {
        if (!tried.exchange(true))
        {
            answers given;
            given.stopped = port.stop();
            given.startedAgain = port.start();
            promise.set_value(given);
        }
    }

    answers wait()
    {
        std::future<answers> future = promise.get_future();
        if (future.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
        {
            ADD_FAILURE() << "nobody was asked, or the calls do not return";
            return {};
        }
        return future.get();
    }

  private:
    std::atomic<bool> tried{false};
    std::promise<answers> promise;
};

class meddlingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override { meddle(); }
    void log(double const&, std::int32_t const&, std::string const&) override { meddle(); }

    void meddle()
    {
        if (gssipPort* const meddledWith = port)
        {
            by.meddle(*meddledWith);
        }
    }

    std::atomic<gssipPort*> port{nullptr};
    meddler by;
};

/// A port that is stopped and started from the sink of its log lines.
struct portWithMeddlingLog
{
    explicit portWithMeddlingLog(std::string const& device) : port(device, clock, &log, false) { log.port = &port; }

    kit::settableTime clock;
    meddlingLog log;
    exposedPort port;
};

void expectStillRunning(exposedPort& port, kit::pseudoTerminal& line)
{
    EXPECT_TRUE(port.started);
    port.sendMessage(message(1), false);
    EXPECT_EQ(line.read(10), frame(1, 0));
    EXPECT_TRUE(port.stop());
    EXPECT_TRUE(port.start());
}

TEST(CallFromOwnThread, ProcessingThread_StopIsRefused)
{
    kit::pseudoTerminal line;
    portWithMeddlingLog rig(line.name());
    ASSERT_TRUE(rig.port.start());
    line.write(kit::frameWithBadHeader(1, 0));
    answers const given = rig.log.by.wait();
    EXPECT_FALSE(given.stopped);
    EXPECT_TRUE(given.startedAgain);
    expectStillRunning(rig.port, line);
}

TEST(CallFromOwnThread, ReadingThread_StopIsRefused)
{
    kit::pseudoTerminal line;
    portWithMeddlingLog rig(line.name());
    ASSERT_TRUE(rig.port.start());
    line.hangUp();
    answers const given = rig.log.by.wait();
    EXPECT_FALSE(given.stopped);
    EXPECT_TRUE(given.startedAgain);
    EXPECT_TRUE(rig.port.started);
    EXPECT_TRUE(rig.port.serial.isOpen());
    EXPECT_TRUE(rig.port.stop());
}

TEST(CallFromOwnThread, OfAPortThatFailedToStart_StartIsRefused)
{
    kit::threadWatch const watch;
    portWithMeddlingLog rig("/nonexistent/tty");
    ASSERT_FALSE(rig.port.start()); // its reading thread reports that the device is closed
    answers const given = rig.log.by.wait();
    EXPECT_TRUE(given.stopped);
    EXPECT_FALSE(given.startedAgain);
    EXPECT_FALSE(rig.port.started);
    EXPECT_TRUE(watch.waitForAdded(4));
}

class meddlingPort : public exposedPort
{
  public:
    using exposedPort::exposedPort;
    ~meddlingPort() override { stop(); }

    double getAcknowledgeTimeout_sec() override
    {
        inRegistration.meddle(*this);
        return 0.01;
    }

    int resendMessage(gssipMessage& resent) override
    {
        inResend.meddle(*this);
        return exposedPort::resendMessage(resent);
    }

    meddler inRegistration;
    meddler inResend;
};

TEST(CallFromOwnThread, TransmitAndEventThread_StopIsRefused)
{
    portOnLine<meddlingPort, monotonicTimeStamp> rig;
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(7, ackRequest), true);
    answers const onTransmitThread = rig.port.inRegistration.wait();
    EXPECT_FALSE(onTransmitThread.stopped);
    EXPECT_TRUE(onTransmitThread.startedAgain);
    answers const onEventThread = rig.port.inResend.wait();
    EXPECT_FALSE(onEventThread.stopped);
    EXPECT_TRUE(onEventThread.startedAgain);
    EXPECT_EQ(rig.line.read(20), frame(7, ackRequest) + frame(7, ackRequest));
    expectStillRunning(rig.port, rig.line);
}

TEST(CallFromOwnThread, OfAnotherPort_StopsIt)
{
    kit::pseudoTerminal line;
    portOnLine<> other;
    portWithMeddlingLog rig(line.name());
    ASSERT_TRUE(other.port.start());
    rig.log.port = &other.port;
    ASSERT_TRUE(rig.port.start());
    line.write(kit::frameWithBadHeader(1, 0));
    answers const given = rig.log.by.wait();
    EXPECT_TRUE(given.stopped);
    EXPECT_TRUE(given.startedAgain);
    expectStillRunning(other.port, other.line);
}

TEST(CallFromCallersThread, SinkOfInvalidMessages_MayStopThePort)
{
    kit::pseudoTerminal line;
    portWithMeddlingLog rig(line.name());
    ASSERT_TRUE(rig.port.start());
    line.write(kit::frameWithBadData(1, 0, {5}));
    gssipMessage received;
    EXPECT_EQ(rig.port.getMessage(received, false), 1);
    answers const given = rig.log.by.wait();
    EXPECT_TRUE(given.stopped);
    EXPECT_TRUE(given.startedAgain);
    expectStillRunning(rig.port, line);
}

} // namespace
