// Starts, stops, settings, queries and traffic at the same time, and from the port's own threads.

#include "awaitOnLine.h"
#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using kit::callOnThread;
using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;

/// Threads that repeat their work until the end of the scope.
class background
{
  public:
    ~background()
    {
        done = true;
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }

    void repeat(std::function<void()> work)
    {
        threads.emplace_back([this, work = std::move(work)] {
            while (!done)
            {
                work();
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
    }

  private:
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
};

// --- Start and stop against each other

TEST(StartAndStop, FromSeveralThreadsAtOnce_AreServedOneAfterTheOther)
{
    kit::threadWatch const watch;
    portOnLine<> rig;
    {
        background others;
        for (int i = 0; i < 3; ++i)
        {
            others.repeat([&] { EXPECT_TRUE(rig.port.start()); });
            others.repeat([&] { EXPECT_TRUE(rig.port.stop()); });
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    ASSERT_TRUE(rig.port.start());
    EXPECT_TRUE(watch.waitForAdded(4));
    rig.port.sendMessage(message(1), false);
    EXPECT_EQ(rig.line.read(10), frame(1, 0));
    ASSERT_TRUE(rig.port.stop());
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(StartAndStop, StopDuringAStop_WaitsForItsEnd)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    std::atomic<int> served{0};
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 4; ++i)
    {
        stoppers.emplace_back([&] {
            EXPECT_TRUE(rig.port.stop());
            EXPECT_FALSE(rig.port.serial.isOpen());
            EXPECT_EQ(rig.port.receiver, nullptr);
            ++served;
        });
    }
    for (std::thread& stopper : stoppers)
    {
        stopper.join();
    }
    EXPECT_EQ(served, 4);
}

// --- From call-backs on the port's own threads

/// What a call-back on a thread of the port was answered, and on which thread.
struct answers
{
    void ask(gssipPort& port)
    {
        if (!done.exchange(true))
        {
            start = port.start();
            stop = port.stop();
            asked = true;
        }
    }

    std::atomic<bool> done{false};
    std::atomic<bool> asked{false};
    std::atomic<int> start{-1};
    std::atomic<int> stop{-1};
};

class askingLog : public kit::recordingLog
{
  public:
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        recordingLog::log(time_sec, level, text);
        if (port != nullptr)
        {
            given.ask(*port);
        }
    }
    using recordingLog::log;

    std::atomic<gssipPort*> port{nullptr};
    answers given;
};

class askingTime : public kit::settableTime
{
  public:
    double getTime_sec() override
    {
        if (port != nullptr && isOn(thread))
        {
            given.ask(*port);
        }
        return settableTime::getTime_sec();
    }

    static bool isOn(std::string const& name)
    {
        std::array<char, 16> own{};
        return pthread_getname_np(pthread_self(), own.data(), own.size()) == 0 && name == own.data();
    }

    std::atomic<gssipPort*> port{nullptr};
    std::string thread; ///< the only one that asks
    answers given;
};

struct askingRig
{
    kit::pseudoTerminal line;
    askingTime clock;
    askingLog log;
    exposedPort port{line.name(), clock, &log, false};
};

void expectRefusalAndARunningPort(askingRig& rig, answers const& given)
{
    ASSERT_TRUE(kit::waitUntil([&] { return given.asked.load(); }));
    EXPECT_EQ(given.start, 1); // it is started
    EXPECT_EQ(given.stop, 0);
    EXPECT_TRUE(rig.port.started);
    rig.port.signalPortReady();
    rig.port.sendMessage(message(9), false);
    EXPECT_TRUE(kit::awaitOnLine(rig.line, frame(9, 0)));
    EXPECT_TRUE(rig.port.stop());
}

TEST(StartAndStopFromWithin, ProcessingThreadsLogSink_IsRefusedAtOnce)
{
    askingRig rig;
    rig.log.port = &rig.port;
    ASSERT_TRUE(rig.port.start());
    rig.line.write(kit::frameWithBadHeader(1, 0));
    expectRefusalAndARunningPort(rig, rig.log.given);
}

TEST(StartAndStopFromWithin, ReadingThreadsLogSink_IsRefusedAtOnce)
{
    askingRig rig;
    rig.log.port = &rig.port;
    ASSERT_TRUE(rig.port.start());
    rig.line.hangUp();
    ASSERT_TRUE(kit::waitUntil([&] { return rig.log.given.asked.load(); }));
    EXPECT_EQ(rig.log.given.start, 1);
    EXPECT_EQ(rig.log.given.stop, 0);
    EXPECT_TRUE(rig.port.started);
    EXPECT_TRUE(rig.port.stop());
}

TEST(StartAndStopFromWithin, TransmitThreadsClock_IsRefusedAtOnce)
{
    askingRig rig;
    rig.clock.thread = "GP TX";
    rig.clock.port = &rig.port;
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    expectRefusalAndARunningPort(rig, rig.clock.given);
}

TEST(StartAndStopFromWithin, EventThreadsClock_IsRefusedAtOnce)
{
    askingRig rig;
    rig.clock.thread = "gssipSendAckReq";
    rig.clock.port = &rig.port;
    rig.port.setAcknowledgeTimeout_sec(0.01);
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1, gssipMessage::ACK_REQ_FLAG), true);
    expectRefusalAndARunningPort(rig, rig.clock.given);
}

/// Another thread is in the middle of a stop and waits for the thread that now asks.
TEST(StartAndStopFromWithin, DuringAStopThatWaitsForTheCallback_IsRefusedAtOnce)
{
    struct patientTime : kit::settableTime
    {
        double getTime_sec() override
        {
            if (askingTime::isOn("GP TX"))
            {
                inside = true;
                kit::waitUntil([this] { return stopBegun.load(); });
                given.ask(*port);
            }
            return settableTime::getTime_sec();
        }
        gssipPort* port = nullptr;
        std::atomic<bool> inside{false};
        std::atomic<bool> stopBegun{false};
        answers given;
    };
    portOnLine<exposedPort, patientTime> rig;
    rig.clock.port = &rig.port;
    ASSERT_TRUE(rig.port.start());
    rig.port.sendMessage(message(1), false);
    ASSERT_TRUE(kit::waitUntil([&] { return rig.clock.inside.load(); }));
    callOnThread<bool> stopping([&] { return rig.port.stop(); });
    stopping.awaitAsleep();
    rig.clock.stopBegun = true;
    EXPECT_TRUE(stopping.get());
    EXPECT_EQ(rig.clock.given.stop, 0);
}

/// A thread of one port is an ordinary thread to another.
TEST(StartAndStopFromWithin, OtherPort_IsServed)
{
    askingRig rig;
    portOnLine<> other;
    rig.log.port = &other.port;
    ASSERT_TRUE(rig.port.start());
    rig.line.write(kit::frameWithBadHeader(1, 0));
    ASSERT_TRUE(kit::waitUntil([&] { return rig.log.given.asked.load(); }));
    EXPECT_EQ(rig.log.given.start, 1);
    EXPECT_EQ(rig.log.given.stop, 1);
}

// --- Everything at once: for the thread sanitizer, and for whoever hangs

void pullLevers(background& others, exposedPort& port)
{
    others.repeat([&] {
        static std::atomic<int> turn{0};
        double const value = 0.001 * (++turn % 5 + 1);
        port.setAcknowledgeTimeout_sec(value);
        port.setHandshakeTimeout_sec(value);
        port.setReceiveInterCharacterGap_sec(value);
        port.setReceiveAutoAcknowledgeEnable(turn % 2 == 0);
        port.configurePort(115200, 8, PARITY_NONE, 1, 0, value, value, 2);
    });
    others.repeat([&] {
        std::string text;
        double gap = 0.0;
        double effective = 0.0;
        EXPECT_EQ(port.getPortConfigStr(text), 0);
        EXPECT_EQ(port.getReceiveInterCharacterGap_sec(gap, &effective), 0);
        EXPECT_LT(port.getAcknowledgeTimeout_sec() + port.getHandshakeTimeout_sec() + gap, 1.0);
        port.getReceiveAutoAcknowledgeEnable();
        port.getNumberQueuedMessages();
        port.getNumberRxQueuedMessages();
        port.getPort();
    });
}

void sendEverything(background& others, exposedPort& port)
{
    others.repeat([&] {
        port.sendMessage(message(1, gssipMessage::ACK_REQ_FLAG, {1, 2, 3}), true);
        std::vector<gssipMessage> const several{message(2), message(3, gssipMessage::ACK_REQ_FLAG)};
        port.sendMessages(several, false);
        port.sendDtMessages(several.begin(), 2);
        port.removeMsgIdFromTxQueue(2);
        port.serviceTransmitQueue();
    });
    others.repeat([&] {
        std::array<std::uint8_t, 3> const raw{1, 2, 3};
        unsigned sent = 0;
        port.send(raw.data(), 3, sent);
        port.sendResyncSequence();
        port.sendHandshakeReject(4, true);
    });
}

void receiveEverything(background& others, exposedPort& port)
{
    others.repeat([&] {
        gssipMessage received;
        port.getMessage(received, false);
    });
}

/// The peer acknowledges some messages, refuses others, sends its own and throws rubbish in between.
void answerEverything(background& others, kit::pseudoTerminal& line)
{
    others.repeat([&] {
        line.write(frame(1, gssipMessage::ACK_FLAG));
        line.write(frame(3, gssipMessage::NAK_FLAG));
        line.write(frame(5, gssipMessage::ACK_REQ_FLAG, {1}));
        line.write(kit::frameWithBadData(6, 0, {1}));
        line.write(kit::frameWithBadHeader(7, 0));
    });
    others.repeat([&] { line.readUntilQuiet(std::chrono::milliseconds(1)); });
}

/// Nothing is received while the port is stopped: a peer that writes all the same would fill the line and block.
TEST(EverythingAtOnce, StartedPort_HasNoRaceAndNoHang)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    {
        background others;
        pullLevers(others, rig.port);
        sendEverything(others, rig.port);
        receiveEverything(others, rig.port);
        answerEverything(others, rig.line);
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    }
    EXPECT_TRUE(rig.port.stop());
}

TEST(EverythingAtOnce, PortThatStartsAndStops_HasNoRaceAndNoHang)
{
    portOnLine<> rig;
    {
        background others;
        others.repeat([&] {
            EXPECT_TRUE(rig.port.start());
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            EXPECT_TRUE(rig.port.stop());
        });
        pullLevers(others, rig.port);
        sendEverything(others, rig.port);
        receiveEverything(others, rig.port);
        others.repeat([&] { rig.line.readUntilQuiet(std::chrono::milliseconds(1)); });
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    }
}

TEST(EverythingAtOnce, PortsThatAreConstructed_HaveNoRace)
{
    kit::settableTime clock;
    std::vector<std::thread> constructors;
    for (int i = 0; i < 4; ++i)
    {
        constructors.emplace_back([&] {
            for (int round = 0; round < 50; ++round)
            {
                exposedPort const port("/nowhere/tty", clock, nullptr, false);
            }
        });
    }
    for (std::thread& constructor : constructors)
    {
        constructor.join();
    }
}

} // namespace
