// Start and stop, thousands of times, in every state that takes no longer than milliseconds to get into.

#include "frames.h"
#include "lifeCycles.h"
#include "messages.h"
#include "processState.h"
#include "pseudoTerminal.h"
#include "referenceDecoder.h"
#include "testSize.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string>
#include <thread>

namespace
{

using cycles::cycleJudge;
using kit::bytes;
using kit::message;
using testing::AnyOf;

std::size_t manyCycles()
{
    return bySize<std::size_t>(2000, 20000, 100000);
}

/// A port on a line.
class QuickCycles : public cycles::lifeCycles
{
  protected:
    QuickCycles() { port.setAcknowledgeTimeout_sec(1000.0); }

    void expectThatThePortWorks()
    {
        ASSERT_TRUE(port.start());
        port.sendMessage(message(0x7777), false);
        EXPECT_EQ(line.read(kit::frame(0x7777, 0).size()), kit::frame(0x7777, 0));
        line.write(kit::frame(0x7778, 0));
        gssipMessage received;
        EXPECT_EQ(port.getMessage(received, true), 0);
        EXPECT_EQ(received.getId(), 0x7778);
        EXPECT_TRUE(port.stop());
    }

    kit::pseudoTerminal line;
    gssipPort port{line.name(), clock, nullptr, false};
};

INSTANTIATE_TEST_SUITE_P(Places, QuickCycles, cycles::everyPlacement(), cycles::nameOfPlace);

TEST_P(QuickCycles, StopRightBehindStart_LeavesNothing)
{
    run(manyCycles(), [this](cycleJudge& judge) {
        judge.start(port);
        judge.stop(port);
    });
    expectThatThePortWorks();
}

TEST_P(QuickCycles, StopAfterARandomTime_LeavesNothing)
{
    run(manyCycles(), [this](cycleJudge& judge) {
        judge.start(port);
        waitUpTo(1000);
        judge.stop(port);
    });
    expectThatThePortWorks();
}

/// A thread that makes one call of `getMessage` each time it is asked.
class waitingReceiver
{
  public:
    explicit waitingReceiver(gssipPort& ofPort) : port(ofPort)
    {
        sem_init(&asked, 0, 0);
        sem_init(&answered, 0, 0);
        thread = std::thread([this] { run(); });
        sem_wait(&answered);
    }
    ~waitingReceiver()
    {
        leaving = true;
        sem_post(&asked);
        thread.join();
        sem_destroy(&asked);
        sem_destroy(&answered);
    }
    waitingReceiver(waitingReceiver const&) = delete;
    waitingReceiver& operator=(waitingReceiver const&) = delete;

    void receive() { sem_post(&asked); }
    bool sleeps() const { return kit::waitUntilAsleep(threadId); }

    int result()
    {
        sem_wait(&answered);
        return status;
    }

  private:
    void run()
    {
        threadId = gettid();
        sem_post(&answered);
        gssipMessage message;
        for (sem_wait(&asked); !leaving; sem_wait(&asked))
        {
            status = port.getMessage(message, true);
            sem_post(&answered);
        }
    }

    gssipPort& port;
    sem_t asked{};
    sem_t answered{};
    std::atomic<bool> leaving{false};
    std::atomic<pid_t> threadId{0};
    int status = 0;
    std::thread thread;
};

TEST_P(QuickCycles, CallerInGetMessage_ReturnsAtStop)
{
    constexpr int STOPPED = -1;
    constexpr int NO_RECEIVER = 0; // who comes after the stop
    waitingReceiver receiver(port);
    std::size_t cycle = 0;
    run(manyCycles(), [&](cycleJudge& judge) {
        bool const isInside = cycle++ % 20 == 0;
        judge.start(port);
        receiver.receive();
        if (isInside)
        {
            EXPECT_TRUE(receiver.sleeps());
        }
        else
        {
            waitUpTo(300);
        }
        judge.stop(port);
        int const result = receiver.result();
        EXPECT_THAT(result, AnyOf(STOPPED, isInside ? STOPPED : NO_RECEIVER));
    });
}

/// Numbers messages, and knows which of them have to come next on the line.
class numberedMessages
{
  public:
    static constexpr std::size_t FRAME_BYTES = 14;

    gssipMessage next(std::uint16_t flags = 0) { return message(1, flags, {static_cast<std::uint16_t>(given++)}); }
    std::size_t givenSoFar() const { return given; }

    /// What is wrong with frames that should be the next ones.
    std::string take(std::vector<kit::decodedFrame> const& frames)
    {
        for (kit::decodedFrame const& frame : frames)
        {
            auto const expected = static_cast<std::uint16_t>(written++);
            if (frame.data != std::vector<std::uint16_t>{expected})
            {
                return "number " + std::to_string(frame.data.at(0)) + " instead of " + std::to_string(expected);
            }
        }
        return {};
    }
    std::size_t writtenSoFar() const { return written; }

  private:
    std::size_t given = 0;
    std::size_t written = 0;
};

/// Everything that was given, and is not queued any more, has been written.
class ConservingCycles : public QuickCycles
{
  protected:
    std::size_t shouldBeOnTheLine() { return messages.givenSoFar() - port.getNumberQueuedMessages(); }

    /// Takes from the line what should be there, and nothing else.
    void expectThatNoneIsLost(std::size_t acknowledgements = 0)
    {
        std::size_t const count = shouldBeOnTheLine() - messages.writtenSoFar();
        std::size_t const size = count * numberedMessages::FRAME_BYTES + acknowledgements * kit::frame(0, 0).size();
        std::vector<kit::decodedFrame> frames = kit::decode(line.read(size)).frames;
        auto const isReply = [](kit::decodedFrame const& frame) { return frame.count == 0; };
        auto const replies = std::stable_partition(frames.begin(), frames.end(), std::not_fn(isReply));
        EXPECT_EQ(frames.end() - replies, static_cast<std::ptrdiff_t>(acknowledgements));
        frames.erase(replies, frames.end());
        EXPECT_EQ(frames.size(), count) << "of those that are not queued any more";
        EXPECT_EQ(messages.take(frames), "");
    }

    void expectThatAllComesAtLast()
    {
        ASSERT_TRUE(port.start());
        EXPECT_TRUE(kit::waitUntil([this] { return port.getNumberQueuedMessages() == 0; }));
        EXPECT_TRUE(port.stop());
        expectThatNoneIsLost();
        EXPECT_EQ(messages.writtenSoFar(), messages.givenSoFar());
        EXPECT_EQ(line.readUntilQuiet(), bytes{}) << "nothing is written twice";
    }

    numberedMessages messages;
};

INSTANTIATE_TEST_SUITE_P(Places, ConservingCycles, cycles::everyPlacement(), cycles::nameOfPlace);

TEST_P(ConservingCycles, FullQueue_IsKeptAtStopAndWrittenAfterwards)
{
    constexpr unsigned FULL = 120;
    constexpr unsigned GAP_CHARACTERS = 10; // 0.1 ms, so that the queue lasts longer than the cycle
    ASSERT_EQ(port.configurePort(921600, 8, PARITY_NONE, 1, GAP_CHARACTERS, 1.0, 1.0, 5), 0);
    constexpr std::size_t MESSAGE_BYTES = 256; // in the queue, at most
    std::size_t cycles = 0;
    std::size_t interrupted = 0;
    auto const oneCycle = [&](cycleJudge& judge) {
        judge.start(port);
        for (unsigned queued = port.getNumberQueuedMessages(); queued < FULL; ++queued)
        {
            port.sendMessage(messages.next(), false);
        }
        waitUpTo(1000);
        judge.stop(port);
        ++cycles;
        interrupted += port.getNumberQueuedMessages() > 0 ? 1U : 0U;
        expectThatNoneIsLost();
    };
    run(manyCycles(), oneCycle, FULL * MESSAGE_BYTES);
    expectThatAllComesAtLast();
    EXPECT_GT(interrupted, cycles / 2) << "the queue was empty before the stop";
}

TEST_P(ConservingCycles, ClosedGate_KeepsWhatWaitsBeforeIt)
{
    port.setHandshakeTimeout_sec(-1.0); // waits without limit
    run(manyCycles(), [&](cycleJudge& judge) {
        judge.start(port); // which opens the gate for what is left
        ASSERT_TRUE(kit::waitUntil([this] { return port.getNumberQueuedMessages() == 0; }));
        expectThatNoneIsLost();

        line.write(kit::frame(9, gssipMessage::ACK_REQ_FLAG));
        gssipMessage request;
        ASSERT_EQ(port.getMessage(request, true), 0);
        for (int each = 0; each < 3; ++each)
        {
            port.sendMessage(messages.next(), false);
        }
        waitUpTo(100);
        judge.stop(port);
        EXPECT_THAT(port.getNumberQueuedMessages(), AnyOf(2U, 3U)) << "one may have slept behind the gate";
        expectThatNoneIsLost(1);
    });
    expectThatAllComesAtLast();
}

TEST_P(ConservingCycles, PendingAcknowledgement_IsForgotten)
{
    run(manyCycles(), [&](cycleJudge& judge) {
        judge.start(port);
        port.sendMessage(messages.next(gssipMessage::ACK_REQ_FLAG), true);
        ASSERT_TRUE(kit::waitUntil([this] { return port.getNumberQueuedMessages() == 0; }));
        waitUpTo(100);
        judge.stop(port);
        expectThatNoneIsLost();
    });
    expectThatAllComesAtLast();
}

} // namespace
