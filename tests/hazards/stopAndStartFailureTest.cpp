// Starts that fail wholly or half: the port can be stopped, destroyed and started again.

#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "temporaryFolder.h"
#include "threadCalls.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::threadCalls;
using kit::threadCallsReplaced;
using testing::IsEmpty;
using testing::SizeIs;

constexpr double WITHOUT_LIMIT = -1.0;

/// A port whose device can be plugged in later.
struct portWithoutDevice
{
    void plugIn() { std::filesystem::create_symlink(line.name(), name); }

    kit::temporaryFolder folder;
    std::string name = (folder.path / "tty").string();
    kit::pseudoTerminal line;
    kit::settableTime clock;
    kit::recordingLog log;
    exposedPort port{name, clock, &log, false};
};

/// The port passes messages in both directions, each once.
template <typename Rig>
void expectTraffic(Rig& rig)
{
    for (std::uint16_t id = 1; id <= 40; ++id)
    {
        rig.line.write(frame(id, 0, {id, id}));
        gssipMessage received;
        ASSERT_EQ(rig.port.getMessage(received, true), 0);
        ASSERT_EQ(received.getId(), id);
        rig.port.sendMessage(message(id), false);
        ASSERT_EQ(rig.line.read(10), frame(id, 0));
    }
    EXPECT_THAT(rig.line.readUntilQuiet(std::chrono::milliseconds(20)), IsEmpty());
    EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
}

// --- No device

TEST(StartWithoutDevice, Destroyed_LeavesNoThread)
{
    kit::threadWatch const watch;
    {
        portWithoutDevice rig;
        EXPECT_FALSE(rig.port.start());
        EXPECT_THAT(watch.added(), SizeIs(4));
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

/// The transmit thread waits in the shut gate, without limit.
TEST(StartWithoutDevice, DestroyedWithShutGate_LeavesNoThread)
{
    kit::threadWatch const watch;
    {
        portWithoutDevice rig;
        rig.port.setHandshakeTimeout_sec(WITHOUT_LIMIT);
        EXPECT_FALSE(rig.port.start());
        pid_t const transmitThread = watch.idOf("GP TX");
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
        rig.port.resetPortReady();
        pthread_cond_signal(&rig.port.txCond);
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread));
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

/// A class of the port's own kind does not stop in its destructor: the port has to see to its threads by itself.
TEST(StartWithoutDevice, PlainPortDestroyed_LeavesNoThread)
{
    kit::threadWatch const watch;
    kit::settableTime clock;
    {
        gssipPort port("/nowhere/tty", clock, nullptr, false);
        EXPECT_FALSE(port.start());
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(StartWithoutDevice, Stop_HasNothingToDo)
{
    portWithoutDevice rig;
    EXPECT_FALSE(rig.port.start());
    EXPECT_TRUE(rig.port.stop());
    EXPECT_FALSE(rig.port.started);
}

TEST(StartWithoutDevice, TriedAgainAndAgain_KeepsFourThreads)
{
    kit::threadWatch const watch;
    portWithoutDevice rig;
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_FALSE(rig.port.start());
    }
    EXPECT_TRUE(watch.waitForAdded(4));
}

TEST(StartWithoutDevice, DevicePresentAtTheNextStart_PassesEveryMessageOnce)
{
    kit::threadWatch const watch;
    {
        portWithoutDevice rig;
        EXPECT_FALSE(rig.port.start());
        rig.plugIn();
        ASSERT_TRUE(rig.port.start());
        EXPECT_TRUE(watch.waitForAdded(4));
        expectTraffic(rig);
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

/// The former receiver's caller is let go, and the one after gets what comes.
TEST(StartWithoutDevice, ConsumerOfTheFailedStart_IsReleasedByTheNext)
{
    portWithoutDevice rig;
    EXPECT_FALSE(rig.port.start());
    kit::callOnThread<int> consumer([&] {
        gssipMessage received;
        return rig.port.getMessage(received, true);
    });
    consumer.awaitAsleep();
    rig.plugIn();
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(consumer.get(), -1);
    expectTraffic(rig);
}

/// Else a former reader could take bytes for a receiver that is about to go.
TEST(StartWithoutDevice, FormerThreads_EndBeforeTheDeviceIsOpened)
{
    portWithoutDevice rig;
    ASSERT_FALSE(rig.port.start());
    auto* const formerFrames = kit::exposedReceive::of(*rig.port.receiver).frameMutex.native_handle();
    kit::pauseBeforeLock pause( // to end the former receiver
        [=](pthread_mutex_t& mutex) { return &mutex == formerFrames && kit::isThread("starter"); });
    threadCallsReplaced const replaced(pause);
    rig.plugIn();
    kit::callOnThread<bool> starting([&] {
        pthread_setname_np(pthread_self(), "starter");
        return rig.port.start();
    });
    pause.place.awaitArrival();
    EXPECT_FALSE(rig.port.serial.isOpen());
    pause.place.letGo();
    EXPECT_TRUE(starting.get());
}

// --- No thread

/// Refuses one creation of a thread, or one naming.
class refusing : public threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        return creationsLeft-- == 0 ? EAGAIN : threadCalls::create(thread, attributes, entry, argument);
    }
    int setName(pthread_t thread, char const* name) override
    {
        return name == refusedName ? ERANGE : threadCalls::setName(thread, name);
    }

    bool hasRefused() const { return creationsLeft < 0; }

    std::atomic<int> creationsLeft{-1};
    std::string refusedName;
};

/// Starts with the creation after `successes` others refused, until none is; `then` is told what became of each start.
template <typename Then>
void refuseEachCreation(Then const& then)
{
    int refused = 0;
    bool any = true;
    for (int successes = 0; any; ++successes)
    {
        SCOPED_TRACE(successes);
        kit::threadWatch const watch;
        {
            portOnLine<> rig;
            refusing system;
            system.creationsLeft = successes;
            bool started = false;
            {
                threadCallsReplaced const replaced(system);
                started = rig.port.start();
            }
            any = system.hasRefused();
            refused += any ? 1 : 0;
            ASSERT_EQ(started, !any);
            then(rig);
        }
        ASSERT_TRUE(watch.waitForAdded(0));
    }
    EXPECT_GE(refused, 4); // one for each thread of the port
}

TEST(StartWithoutThread, EachCreationRefusedOnce_IsDestroyed)
{
    refuseEachCreation([](portOnLine<>& /*rig*/) {});
}

TEST(StartWithoutThread, EachCreationRefusedOnce_StopsAsStoppedAndStartsAgain)
{
    refuseEachCreation([](portOnLine<>& rig) {
        if (!rig.port.started)
        {
            ASSERT_TRUE(rig.port.stop());
            ASSERT_TRUE(rig.port.start());
        }
        expectTraffic(rig);
    });
}

double processorTime_sec()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

TEST(StartWithoutThread, EachCreationRefusedOnce_NothingSpins)
{
    refuseEachCreation([](portOnLine<>& /*rig*/) {
        double const before_sec = processorTime_sec();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_LT(processorTime_sec() - before_sec, 0.1);
    });
}

/// The result of a thread of the standard library becomes a number.
TEST(StartWithoutThread, ReceiversThreadRefused_TellsTheErrorNumber)
{
    portOnLine<> rig;
    refusing system;
    system.creationsLeft = 0;
    threadCallsReplaced const replaced(system);
    EXPECT_EQ(rig.port.initializeReceiveThread(), EAGAIN);
}

TEST(StartWithoutThread, EventThreadRefused_TellsTheErrorNumberAndWaitsForNothing)
{
    portOnLine<> rig;
    refusing system;
    system.creationsLeft = 1; // one is made to see what the system permits
    threadCallsReplaced const replaced(system);
    EXPECT_EQ(rig.tracker().initializeEventThread(), EAGAIN);
}

/// Without a receiver there is no event thread either, but the transmit thread; the device stays taken.
TEST(StartWithoutThread, ReceiversThreadRefused_TransmitThreadIsMadeAndTheDeviceStaysTaken)
{
    kit::threadWatch const watch;
    kit::pseudoTerminal line;
    kit::settableTime clock;
    kit::recordingLog log;
    serialPort other(line.name(), log);
    {
        exposedPort port(line.name(), clock, &log, false);
        refusing system;
        system.creationsLeft = 1; // the second of the receiver's two
        {
            threadCallsReplaced const replaced(system);
            EXPECT_FALSE(port.start());
        }
        EXPECT_TRUE(watch.waitForAdded(1));
        EXPECT_NE(watch.idOf("GP TX"), 0);
        EXPECT_EQ(port.receiver, nullptr);
        EXPECT_TRUE(port.serial.isOpen());
        EXPECT_EQ(other.open(), EBUSY);
        EXPECT_TRUE(port.stop());
        EXPECT_EQ(other.open(), EBUSY) << "a port that counts as stopped has nothing to do";
    }
    EXPECT_EQ(other.open(), 0);
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(StartWithoutName, EventThread_RunsAllTheSame)
{
    portOnLine<> rig;
    refusing system;
    system.refusedName = "gssipSendAckReq";
    threadCallsReplaced const replaced(system);
    EXPECT_TRUE(rig.port.start());
    rig.port.setAcknowledgeTimeout_sec(0.02);
    rig.port.sendMessage(message(1, gssipMessage::ACK_REQ_FLAG), true);
    EXPECT_THAT(rig.line.read(20), SizeIs(20)); // resent, by the thread without a name
}

TEST(StartWithoutName, TransmitThread_FailsAndIsStartedAgain)
{
    kit::threadWatch const watch;
    {
        portOnLine<> rig;
        refusing system;
        system.refusedName = "GP TX";
        {
            threadCallsReplaced const replaced(system);
            EXPECT_FALSE(rig.port.start());
        }
        EXPECT_TRUE(rig.port.stop());
        EXPECT_TRUE(rig.port.start());
        EXPECT_TRUE(watch.waitForAdded(4));
        expectTraffic(rig);
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

// --- A thread that begins late

/// Refuses the name of the transmit thread, so that nobody waits for it, and holds back what it does.
class lateTransmitThread : public threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        if (entry != &exposedPort::callTransmitThread)
        {
            return threadCalls::create(thread, attributes, entry, argument);
        }
        port = argument;
        return threadCalls::create(
            thread, attributes,
            [](void* self) {
                auto* const late = static_cast<lateTransmitThread*>(self);
                late->beginning.pass();
                return exposedPort::callTransmitThread(late->port);
            },
            this);
    }
    int setName(pthread_t /*thread*/, char const* /*name*/) override { return ERANGE; }

    kit::checkpoint beginning;

  private:
    void* port = nullptr;
};

/// Holds back what the transmit thread does.
class slowTransmitThread : public lateTransmitThread
{
  public:
    int setName(pthread_t thread, char const* name) override { return threadCalls::setName(thread, name); }
};

/// They interrupt the wait for the new thread, which has to be taken up again.
TEST(LateThread, SignalsToTheStarter_DoNotEndItsWait)
{
    static std::atomic<int> taken{0};
    taken = 0;
    struct sigaction counting = {};
    struct sigaction former = {};
    counting.sa_handler = [](int) { ++taken; }; // without SA_RESTART: the wait fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &counting, &former), 0);
    portOnLine<> rig;
    slowTransmitThread system;
    {
        threadCallsReplaced const replaced(system);
        std::atomic<pthread_t> starter{};
        kit::callOnThread<int> starting([&] {
            starter = pthread_self();
            return rig.port.initializeTransmitThread();
        });
        system.beginning.awaitArrival();
        for (int signals = 1; signals <= 3; ++signals)
        {
            starting.awaitAsleep();
            pthread_kill(starter, SIGUSR1);
            ASSERT_TRUE(kit::waitUntil([&] { return taken == signals; }));
        }
        starting.awaitAsleep();
        EXPECT_FALSE(starting.hasEnded());
        system.beginning.letGo();
        EXPECT_EQ(starting.get(), 0);
    }
    EXPECT_TRUE(rig.port.txRunning.isSet());
    EXPECT_EQ(rig.port.uninitializeTransmitThread(), 0);
    sigaction(SIGUSR1, &former, nullptr);
}

/// The thread sets its own run flag, long after the stop has cleared it.
TEST(LateThread, StoppedBeforeItBegan_EndsAtOnce)
{
    portOnLine<> rig;
    lateTransmitThread system;
    {
        threadCallsReplaced const replaced(system);
        EXPECT_EQ(rig.port.initializeTransmitThread(), ERANGE);
    }
    system.beginning.awaitArrival();
    kit::callOnThread<int> stopping([&] { return rig.port.uninitializeTransmitThread(); });
    stopping.awaitAsleep();
    system.beginning.letGo();
    EXPECT_EQ(stopping.get(), 0);
    EXPECT_TRUE(rig.port.txRunning.isClear());
}

TEST(LateThread, PortStartedAgainBeforeItBegan_HasOneTransmitThread)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    lateTransmitThread system;
    {
        threadCallsReplaced const replaced(system);
        EXPECT_EQ(rig.port.initializeTransmitThread(), ERANGE);
    }
    system.beginning.awaitArrival();
    kit::callOnThread<bool> starting([&] { return rig.port.start(); });
    starting.awaitAsleep();
    system.beginning.letGo();
    EXPECT_TRUE(starting.get());
    expectTraffic(rig);
    EXPECT_TRUE(rig.port.stop());
}

} // namespace
