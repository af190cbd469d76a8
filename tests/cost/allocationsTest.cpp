// How often a message makes the library ask for memory, counted over many messages of 42 bytes. A vector for the
// header, one for the data, and a share of a queue's next block: nothing grows with what is queued or pending.

#include "allocations.h"
#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "sentry.h"

#include <algorithm>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace
{

using kit::bytes;
using kit::frame;
using kit::message;

constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t ACK_REQUESTED = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t OTHER_ID = 2;
constexpr std::uint16_t ID = 1;
constexpr std::size_t FRAME_BYTES = 42;
constexpr std::size_t REPLY_BYTES = 10;
constexpr unsigned MANY = 1000;
constexpr double NEVER_SEC = 1e6;

std::vector<std::uint16_t> const DATA(15, 0x1234);

// What the queues' blocks have room for: 512 bytes, of messages with what stands beside them.
constexpr std::size_t QUEUED_IN_BLOCK = 512 / sizeof(std::tuple<gssipMessage, bool>);
constexpr std::size_t RECEIVED_IN_BLOCK = 512 / sizeof(gssipMessage);
constexpr double QUEUED = 1.0 / QUEUED_IN_BLOCK;
constexpr double RECEIVED = 1.0 / RECEIVED_IN_BLOCK;

class Allocations : public testing::TestWithParam<unsigned>
{
  protected:
    Allocations()
    {
        own.port.setHandshakeTimeout_sec(0.0);
        own.port.setAcknowledgeTimeout_sec(NEVER_SEC);
        own.port.start();
    }

    /// Takes bytes off the line without asking for memory.
    void take(std::size_t count)
    {
        std::uint8_t buffer[256];
        while (count > 0)
        {
            pollfd ready{own.line.masterDescriptor(), POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, 10'000), 1);
            ssize_t const taken = read(own.line.masterDescriptor(), buffer, std::min(count, sizeof buffer));
            ASSERT_GT(taken, 0);
            count -= static_cast<std::size_t>(taken);
        }
    }

    void put(bytes const& data)
    {
        ASSERT_EQ(write(own.line.masterDescriptor(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }

    std::size_t pending()
    {
        sentry const lock(own.tracker().eventQMutex);
        return own.tracker().eventQ.size();
    }

    void awaitPending(std::size_t count)
    {
        while (pending() != count)
        {
            std::this_thread::yield();
        }
    }

    /// So many messages that nobody acknowledges.
    void sendUnanswered(unsigned count)
    {
        gssipMessage const unanswered = message(OTHER_ID, ACK_REQUESTED, DATA);
        for (unsigned i = 0; i < count; ++i)
        {
            own.port.sendMessage(unanswered, true);
            take(FRAME_BYTES);
        }
        ASSERT_TRUE(own.waitForPending(count));
    }

    /// What one run of `step` makes, on average of many.
    template <typename Step>
    double madeBy(Step const& step)
    {
        std::size_t const before = allocationsNow();
        for (unsigned i = 0; i < MANY; ++i)
        {
            step();
        }
        return static_cast<double>(allocationsNow() - before) / MANY;
    }

    static std::size_t allocationsNow() { return kit::allocationsMadeByAll(); }

    kit::portOnLine<> own;
};

/// The queues' blocks come one at a time, so that a run may begin with one more or less.
MATCHER_P(isAbout, expected, "")
{
    return arg > expected - 0.01 && arg < expected + 0.01;
}

INSTANTIATE_TEST_SUITE_P(Pending, Allocations, testing::Values(0U, 1U, 10'000U));

TEST_P(Allocations, SentMessage_TakesTwoAndAShareOfTheQueue)
{
    sendUnanswered(GetParam());
    gssipMessage const sent = message(ID, 0, DATA);
    EXPECT_THAT(madeBy([&] {
                    own.port.sendMessage(sent, false);
                    take(FRAME_BYTES);
                }),
                isAbout(2 + QUEUED));
}

TEST_P(Allocations, SentAndAcknowledgedMessage_TakesTwoMoreForThePendingCopyAndOneForTheAnswer)
{
    sendUnanswered(GetParam());
    gssipMessage const sent = message(ID, ACK_REQUESTED, DATA);
    bytes const answer = frame(ID, ACK);
    std::thread taking([this] {
        gssipMessage never;
        own.port.getMessage(never, true);
    });
    EXPECT_THAT(madeBy([&] {
                    own.port.sendMessage(sent, true);
                    take(FRAME_BYTES);
                    awaitPending(GetParam() + 1); // never two at once, whoever is put aside in between
                    put(answer);
                    awaitPending(GetParam());
                }),
                isAbout(2 + QUEUED + 2 + 1 + RECEIVED));
    own.port.stop();
    taking.join();
}

TEST_P(Allocations, ReceivedMessage_TakesTwoAndAShareOfTheQueue)
{
    sendUnanswered(GetParam());
    bytes const received = frame(ID, 0, DATA);
    gssipMessage taken;
    EXPECT_THAT(madeBy([&] {
                    put(received);
                    EXPECT_EQ(own.port.getMessage(taken, true), 0);
                }),
                isAbout(2 + RECEIVED));
}

TEST_P(Allocations, ReceivedAndAcknowledgedMessage_TakesOneMoreForTheReply)
{
    sendUnanswered(GetParam());
    bytes const received = frame(ID, ACK_REQUESTED, DATA);
    gssipMessage taken;
    EXPECT_THAT(madeBy([&] {
                    put(received);
                    EXPECT_EQ(own.port.getMessage(taken, true), 0);
                    take(REPLY_BYTES);
                }),
                isAbout(2 + RECEIVED + 1));
}

} // namespace
