// A receiver that comes and goes: nobody uses it when it has gone, no byte is forgotten while it comes, and no line is
// logged when it goes.

#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "threadCalls.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace
{

using kit::bytes;
using kit::callOnThread;
using kit::frame;
using kit::frameWithBadData;
using kit::message;
using kit::pauseBeforeLock;
using kit::portOnLine;
using kit::threadCallsReplaced;
using testing::IsEmpty;
using testing::SizeIs;

std::string const nameOfConsumer = "consumer";

template <typename Port>
int receiveOne(Port& port, bool waitOnInvalid = true)
{
    pthread_setname_np(pthread_self(), nameOfConsumer.c_str());
    gssipMessage received;
    return port.getMessage(received, waitOnInvalid);
}

// --- getMessage against stop

/// Inside, but not asleep yet: the receiver must not go before the caller has left.
TEST(GetMessageAgainstStop, CallerThatEntersJustAsThePortStops_KeepsTheReceiver)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    std::weak_ptr<gssipReceive> const receiver = rig.port.receiver;
    auto* const queueMutex = rig.receiver().rxQueue.queueMutex.native_handle();
    pauseBeforeLock pause(
        [=](pthread_mutex_t& mutex) { return &mutex == queueMutex && kit::isThread(nameOfConsumer); });
    threadCallsReplaced const replaced(pause);
    callOnThread<int> consumer([&] { return receiveOne(rig.port); });
    pause.place.awaitArrival();
    EXPECT_TRUE(rig.port.stop()); // does not wait for the caller
    EXPECT_FALSE(consumer.hasEnded());
    EXPECT_FALSE(receiver.expired());
    pause.place.letGo();
    EXPECT_EQ(consumer.get(), -1);
    EXPECT_TRUE(kit::waitUntil([&] { return receiver.expired(); }));
}

/// Holds back the first consumer that has been woken. It holds the queue's mutex.
class pauseAfterWait : public kit::threadCalls
{
  public:
    void afterWait(pthread_cond_t& /*condition*/) override
    {
        if (kit::isThread(nameOfConsumer))
        {
            place.pass();
        }
    }

    kit::checkpoint place;
};

/// A receiver that is used without a port's share in it has to see to its callers by itself.
TEST(ReceiverAlone, CallerOnItsWayOut_IsWaitedForByTheDestructor)
{
    portOnLine<> rig;
    auto receiver = std::make_unique<gssipReceive>(rig.port, &rig.log);
    pauseAfterWait pause;
    threadCallsReplaced const replaced(pause);
    callOnThread<int> consumer([&, inUse = receiver.get()] {
        pthread_setname_np(pthread_self(), nameOfConsumer.c_str());
        gssipMessage received;
        return (*inUse)(received);
    });
    consumer.awaitAsleep();
    callOnThread<bool> ending([&] {
        receiver.reset();
        return true;
    });
    pause.place.awaitArrival();
    ending.awaitAsleep();
    EXPECT_FALSE(ending.hasEnded());
    pause.place.letGo();
    EXPECT_EQ(consumer.get(), -1);
    EXPECT_TRUE(ending.get());
}

TEST(GetMessageAgainstStop, CallersAndQueriesInLoops_SurviveEveryRestart)
{
    portOnLine<> rig;
    std::atomic<bool> done{false};
    callOnThread<int> consumer([&] {
        while (!done)
        {
            int const result = receiveOne(rig.port);
            EXPECT_TRUE(result == 0 || result == -1) << result;
            std::this_thread::yield();
        }
        return 0;
    });
    callOnThread<int> counter([&] {
        while (!done)
        {
            EXPECT_EQ(rig.port.getNumberRxQueuedMessages(), 0U);
            std::this_thread::yield();
        }
        return 0;
    });
    for (int round = 0; round < 300; ++round)
    {
        ASSERT_TRUE(rig.port.start());
        std::this_thread::sleep_for(std::chrono::microseconds(round % 20 * 20));
        ASSERT_TRUE(rig.port.stop());
    }
    done = true;
    EXPECT_EQ(consumer.get(), 0);
    EXPECT_EQ(counter.get(), 0);
}

/// Does something when an invalid message is reported, on the thread that called `getMessage`.
class reactingLog : public kit::recordingLog
{
  public:
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        recordingLog::log(time_sec, level, text);
        if (reaction && text.find("Invalid Message") != std::string::npos)
        {
            reaction();
        }
    }
    using recordingLog::log;

    std::function<void()> reaction;
};

struct portWithReactingLog
{
    kit::pseudoTerminal line;
    kit::settableTime clock;
    reactingLog log;
    kit::exposedPort port{line.name(), clock, &log, false};
};

TEST(GetMessageAgainstStop, CallersLogSinkThatStopsThePort_IsServed)
{
    for (int round = 0; round < 20; ++round)
    {
        portWithReactingLog rig;
        bool stopped = false;
        rig.log.reaction = [&] { stopped = rig.port.stop(); };
        ASSERT_TRUE(rig.port.start());
        rig.line.write(frameWithBadData(1, 0, {1, 2, 3}));
        ASSERT_EQ(receiveOne(rig.port), -1);
        ASSERT_TRUE(stopped);
        ASSERT_FALSE(rig.port.started);
    }
}

TEST(GetMessageAgainstStop, CallersLogSinkThatRestartsThePort_IsServed)
{
    portWithReactingLog rig;
    rig.log.reaction = [&] {
        EXPECT_TRUE(rig.port.stop());
        EXPECT_TRUE(rig.port.start());
    };
    ASSERT_TRUE(rig.port.start());
    rig.line.write(frameWithBadData(1, 0, {1, 2, 3}));
    EXPECT_EQ(receiveOne(rig.port), -1); // from the receiver that it had entered
    rig.line.write(frame(2, 0));
    EXPECT_EQ(receiveOne(rig.port), 0);
}

// --- Bytes that arrive while the receiver is being built

/// Lets each thread that is created get as far as it can before its creator goes on, and then calls `created`.
class creatorGoesLast : public kit::threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        kit::threadWatch const watch;
        int const status = threadCalls::create(thread, attributes, entry, argument);
        kit::waitUntil([&] {
            std::vector<kit::threadState> const added = watch.added();
            return added.empty() || kit::isAsleep(added.front().id);
        });
        return status;
    }
};

/// Lets each thread begin only when its creator has gone on to sleep or to the end of its work.
class creatorGoesFirst : public kit::threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        auto* const late = new beginning{entry, argument};
        return threadCalls::create(
            thread, attributes,
            [](void* given) {
                std::unique_ptr<beginning> const self(static_cast<beginning*>(given));
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                return self->entry(self->argument);
            },
            late);
    }

  private:
    struct beginning
    {
        kit::threadEntry entry;
        void* argument;
    };
};

/// The reading thread runs before its creator goes on, and everything else long after.
class readerGoesFirst : public creatorGoesFirst
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        return isFirst.exchange(false) ? eager.create(thread, attributes, entry, argument)
                                       : creatorGoesFirst::create(thread, attributes, entry, argument);
    }

  private:
    creatorGoesLast eager;
    std::atomic<bool> isFirst{true};
};

template <typename Order>
void expectMessageThatWaitedOnTheLine()
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    rig.line.write(frame(7, 0, {1, 2}));
    Order order;
    {
        threadCallsReplaced const replaced(order);
        ASSERT_TRUE(rig.port.start());
    }
    EXPECT_TRUE(rig.waitForReceived(1));
    EXPECT_TRUE(rig.port.stop());
}

TEST(ReceiverBeingBuilt, ThreadsThatRunBeforeTheirCreatorGoesOn_ForgetNothing)
{
    expectMessageThatWaitedOnTheLine<creatorGoesLast>();
}

TEST(ReceiverBeingBuilt, ThreadsThatRunLongAfter_ForgetNothing)
{
    expectMessageThatWaitedOnTheLine<creatorGoesFirst>();
}

TEST(ReceiverBeingBuilt, ReaderThatRunsLongBeforeTheOthers_ForgetsNothing)
{
    expectMessageThatWaitedOnTheLine<readerGoesFirst>();
}

TEST(ReceiverBeingBuilt, MessageAtAnyMomentOfARestart_IsReceived)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    for (std::uint16_t round = 1; round <= 300; ++round)
    {
        ASSERT_EQ(rig.port.serial.open(), 0);
        callOnThread<int> sender([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(round % 50 * 10));
            rig.line.write(frame(round, 0));
            return 0;
        });
        ASSERT_TRUE(rig.port.start());
        gssipMessage received;
        ASSERT_EQ(rig.port.getMessage(received, true), 0);
        ASSERT_EQ(received.getId(), round);
        ASSERT_EQ(sender.get(), 0);
        ASSERT_TRUE(rig.port.stop());
    }
}

// --- Silence

/// The close takes its time, since a sender is stuck: meanwhile every read fails.
TEST(OrderlyStop, CloseThatTakesLong_LogsNothing)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    callOnThread<int> stuck([&] {
        bytes const tooMuch(200000);
        unsigned sent = 0;
        return rig.port.send(tooMuch.data(), static_cast<unsigned>(tooMuch.size()), sent);
    });
    stuck.awaitAsleep();
    EXPECT_TRUE(rig.port.stop());
    EXPECT_NE(stuck.get(), 0);
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

TEST(OrderlyStop, AtAnyMomentOfTraffic_LogsNothing)
{
    portOnLine<> rig;
    for (int round = 0; round < 300; ++round)
    {
        ASSERT_TRUE(rig.port.start());
        rig.line.write(frame(1, 0));
        std::this_thread::sleep_for(std::chrono::microseconds(round % 30 * 10));
        ASSERT_TRUE(rig.port.stop());
    }
    EXPECT_THAT(rig.log.lines(), IsEmpty());
}

} // namespace
