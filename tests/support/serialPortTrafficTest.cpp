#include "callOnThread.h"
#include "serialPortOnLine.h"
#include "stopwatch.h"
#include "systemCalls.h"
#include "waitUntil.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using kit::bytes;
using std::chrono::milliseconds;

class SerialPortTraffic : public testing::Test, protected kit::serialPortOnLine
{
  protected:
    void SetUp() override { ASSERT_EQ(port.open(), 0); }

    void sendAll(bytes const& data)
    {
        kit::transfer const result = send(data);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.count, data.size());
    }
};

TEST_F(SerialPortTraffic, Send_DeliversEveryByteValueUnchanged)
{
    sendAll(kit::everyByteValue());
    EXPECT_EQ(line.read(256), kit::everyByteValue());
    EXPECT_EQ(line.readUntilQuiet(), bytes{}) << "nothing may follow";
}

TEST_F(SerialPortTraffic, Receive_GetsEveryByteValueUnchanged)
{
    line.write(kit::everyByteValue());
    EXPECT_EQ(receiveAll(256), kit::everyByteValue());
}

TEST_F(SerialPortTraffic, Receive_IsNotEchoed)
{
    line.write({'a', '\n', 3, 4});
    EXPECT_EQ(receiveAll(4), (bytes{'a', '\n', 3, 4}));
    EXPECT_EQ(line.readUntilQuiet(), bytes{});
}

TEST_F(SerialPortTraffic, SendOfNothing_SucceedsAtOnce)
{
    unsigned sent = 7;
    EXPECT_EQ(port.send(nullptr, 0, sent), 0);
    EXPECT_EQ(sent, 0U);
    EXPECT_EQ(line.readUntilQuiet(), bytes{});
}

TEST_F(SerialPortTraffic, SendOfOneByte_Arrives)
{
    sendAll({0x81});
    EXPECT_EQ(line.read(1), bytes{0x81});
}

TEST_F(SerialPortTraffic, SendOfMoreThanTheDriverHolds_GoesOnWhileTheReaderIsSlow)
{
    bytes const message = kit::patternOf(131082);
    kit::callOnThread<bytes> reader([this] {
        bytes all;
        for (bytes next{0}; !next.empty();)
        {
            next = line.read(std::min<std::size_t>(2000, 131082 - all.size()));
            all.insert(all.end(), next.begin(), next.end());
            std::this_thread::sleep_for(milliseconds(1));
        }
        return all;
    });
    sendAll(message);
    EXPECT_EQ(reader.get(), message);
}

/// A driver that takes a byte or few at a time, is interrupted, and has no room now and then.
class haltingDriver : public kit::systemCalls
{
  public:
    explicit haltingDriver(int ownEnd) : terminalEnd(ownEnd) {}

    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        if (descriptor == terminalEnd || count <= 8) // the events that wake threads are written to as well
        {
            return systemCalls::write(descriptor, data, count);
        }
        switch (++calls % 4)
        {
        case 1:
            return refusal(EINTR);
        case 2:
            return refusal(EAGAIN);
        default:
            return systemCalls::write(descriptor, data, calls % 4 == 3 ? 1 : 3);
        }
    }

    unsigned calls = 0;

  private:
    static ssize_t refusal(int error)
    {
        errno = error;
        return -1;
    }

    int terminalEnd;
};

TEST_F(SerialPortTraffic, PartialAndInterruptedWrites_AreContinued)
{
    haltingDriver driver(line.masterDescriptor());
    bytes const message = kit::patternOf(500);
    {
        kit::systemReplaced const replaced(driver);
        sendAll(message);
    }
    EXPECT_GT(driver.calls, 400U);
    EXPECT_EQ(line.read(message.size()), message);
    EXPECT_EQ(line.readUntilQuiet(), bytes{});
}

TEST_F(SerialPortTraffic, BlockedLine_TimesOutWithTheNumberWritten)
{
    bytes const message = kit::patternOf(100000);
    kit::stopwatch const watch;
    kit::transfer const blocked = send(message);

    EXPECT_EQ(blocked.status, ETIMEDOUT);
    EXPECT_GE(watch.elapsed_sec(), 2.0);
    EXPECT_LT(watch.elapsed_sec(), 10.0);
    EXPECT_GT(blocked.count, 0U);
    ASSERT_LT(blocked.count, message.size());
    EXPECT_EQ(line.read(blocked.count), bytes(message.data(), message.data() + blocked.count));
    EXPECT_EQ(line.readUntilQuiet(), bytes{});

    sendAll(kit::everyByteValue());
    EXPECT_EQ(line.read(256), kit::everyByteValue()) << "the line flows again";
}

TEST_F(SerialPortTraffic, LineThatMovesNowAndThen_IsNotTakenForBlocked)
{
    bytes const message = kit::patternOf(70000); // many times what the driver holds
    std::atomic<bool> allTaken{false};
    kit::callOnThread<bytes> reader([&] {
        bytes all;
        while (all.size() < message.size())
        {
            kit::waitUntil([&] { return allTaken.load(); }, milliseconds(300));
            bytes const next = line.read(std::min<std::size_t>(6000, message.size() - all.size()));
            all.insert(all.end(), next.begin(), next.end());
        }
        return all;
    });
    kit::stopwatch const watch;
    sendAll(message);
    allTaken = true;
    EXPECT_GE(watch.elapsed_sec(), 2.0) << "the reader was too quick for this test";
    EXPECT_EQ(reader.get(), message);
}

TEST_F(SerialPortTraffic, SenderAndReceiver_WorkAtTheSameTime)
{
    bytes const outward = kit::patternOf(60000);
    bytes inward = kit::patternOf(60000);
    std::reverse(inward.begin(), inward.end());

    kit::callOnThread<bytes> receiver([this, count = inward.size()] { return receiveAll(count); });
    kit::callOnThread<int> sender([&] { return send(outward).status; });
    kit::callOnThread<bytes> otherEnd([&] { return line.read(outward.size()); });
    for (std::size_t done = 0; done < inward.size(); done += 1000)
    {
        line.write({inward.begin() + static_cast<std::ptrdiff_t>(done),
                    inward.begin() + static_cast<std::ptrdiff_t>(done + 1000)});
    }
    EXPECT_EQ(receiver.get(), inward);
    EXPECT_EQ(sender.get(), 0);
    EXPECT_EQ(otherEnd.get(), outward);
}

/// A message that shows where it begins and ends: its sender, its length, then its sender again for each byte.
bytes messageOf(std::uint8_t sender, std::uint8_t length)
{
    bytes message(std::size_t{length} + 2, sender);
    message[1] = length;
    return message;
}

TEST_F(SerialPortTraffic, SeveralSenders_NeverMixTheirBytes)
{
    auto const seed = std::random_device{}();
    std::cout << "seed " << seed << '\n';
    constexpr std::uint8_t senders = 4;
    constexpr std::size_t messagesEach = 60;

    std::vector<std::vector<bytes>> planned(senders);
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> anyLength(1, 255);
    std::size_t total = 0;
    for (std::uint8_t sender = 0; sender < senders; ++sender)
    {
        for (std::size_t each = 0; each < messagesEach; ++each)
        {
            planned[sender].push_back(messageOf(sender, static_cast<std::uint8_t>(anyLength(random))));
            total += planned[sender].back().size();
        }
    }
    kit::callOnThread<bytes> reader([&] { return line.read(total); });
    std::vector<std::thread> threads;
    for (std::uint8_t sender = 0; sender < senders; ++sender)
    {
        threads.emplace_back([&, sender] {
            for (bytes const& message : planned[sender])
            {
                sendAll(message);
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    bytes const arrived = reader.get();
    ASSERT_EQ(arrived.size(), total);
    std::vector<std::size_t> next(senders, 0);
    for (std::size_t place = 0; place < arrived.size();)
    {
        std::uint8_t const sender = arrived[place];
        ASSERT_LT(sender, senders);
        ASSERT_LT(next[sender], messagesEach);
        bytes const& expected = planned[sender][next[sender]++];
        ASSERT_LE(place + expected.size(), arrived.size());
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), arrived.begin() + static_cast<std::ptrdiff_t>(place)));
        place += expected.size();
    }
}

TEST_F(SerialPortTraffic, SeveralSendersOnASlowLine_NeverMixTheirBytes)
{
    constexpr std::size_t length =
        40000; // much more than the driver holds, so that every sender has to wait in the middle
    kit::callOnThread<int> first([this] { return send(bytes(length, 'a')).status; });
    kit::callOnThread<int> second([this] { return send(bytes(length, 'b')).status; });
    first.awaitAsleep();
    second.awaitAsleep();
    bytes const arrived = line.read(2 * length);
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 0);

    ASSERT_EQ(arrived.size(), 2 * length);
    auto const firstHalf = arrived.begin() + length;
    EXPECT_EQ(std::count(arrived.begin(), firstHalf, arrived.front()), length);
    EXPECT_EQ(std::count(firstHalf, arrived.end(), arrived.back()), length);
    EXPECT_NE(arrived.front(), arrived.back());
}

TEST_F(SerialPortTraffic, BeforeFirstByte_IsCalledWhileNothingIsOnTheLine)
{
    bytes seen{1};
    unsigned calls = 0;
    unsigned sent = 0;
    bytes const message{1, 2, 3};
    EXPECT_EQ(port.send(message.data(), 3, sent,
                        [&] {
                            ++calls;
                            seen = line.readUntilQuiet(milliseconds(20));
                        }),
              0);
    EXPECT_EQ(sent, 3U);
    EXPECT_EQ(calls, 1U);
    EXPECT_EQ(seen, bytes{});
    EXPECT_EQ(line.read(3), message);
}

TEST_F(SerialPortTraffic, BeforeFirstByte_IsCalledAtEachAttemptUntilTheDriverTakesOne)
{
    haltingDriver driver(line.masterDescriptor());
    unsigned calls = 0;
    unsigned sent = 0;
    bytes const message = kit::patternOf(100);
    kit::systemReplaced const replaced(driver);
    EXPECT_EQ(port.send(message.data(), 100, sent, [&] { ++calls; }), 0);

    EXPECT_EQ(sent, 100U);
    EXPECT_EQ(calls, 3U) << "interrupted, no room, taken";
}

TEST_F(SerialPortTraffic, ReceiveWithVmin1_ReturnsWithTheFirstByteWhateverVtime)
{
    for (unsigned char const vtime : {std::uint8_t{0}, std::uint8_t{10}, std::uint8_t{255}})
    {
        ASSERT_EQ(port.setVminVtime(1, vtime), 0);
        kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
        receiving.awaitAsleep();
        EXPECT_FALSE(receiving.hasEnded());
        kit::stopwatch const watch;
        line.write({0x42});
        kit::transfer const result = receiving.get();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.data, bytes{0x42});
        EXPECT_LT(watch.elapsed_sec(), 5.0);
    }
}

TEST_F(SerialPortTraffic, ReceiveOfBytesThatWait_GetsThemAll)
{
    line.write(kit::everyByteValue());
    bytes first = receive(1).data;
    EXPECT_EQ(first, bytes{0}) << "no more than there is room for";
    bytes expected = kit::everyByteValue();
    expected.erase(expected.begin());
    EXPECT_EQ(receive().data, expected);
}

TEST_F(SerialPortTraffic, ReceiveWithoutRoom_EndsWithNothing)
{
    line.write({1});
    EXPECT_EQ(receive(0).status, 0);
    EXPECT_EQ(receive().data, bytes{1});
}

TEST_F(SerialPortTraffic, ReceiveWithVmin0Vtime0_NeverWaits)
{
    ASSERT_EQ(port.setVminVtime(0, 0), 0);
    kit::transfer const nothing = receive();
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.data, bytes{});

    line.write({1, 2, 3});
    bytes arrived;
    EXPECT_TRUE(kit::waitUntil([&] {
        bytes const next = receive().data;
        arrived.insert(arrived.end(), next.begin(), next.end());
        return arrived.size() == 3;
    }));
    EXPECT_EQ(arrived, (bytes{1, 2, 3}));
}

TEST_F(SerialPortTraffic, ReceiveWithVmin0AndVtime_WaitsThatLongForAByte)
{
    ASSERT_EQ(port.setVminVtime(0, 2), 0);
    kit::stopwatch const watch;
    kit::transfer const nothing = receive();
    EXPECT_GE(watch.elapsed_sec(), 0.2);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.data, bytes{});
}

TEST_F(SerialPortTraffic, ReceiveWithVmin0AndVtime_ReturnsWithTheFirstByte)
{
    ASSERT_EQ(port.setVminVtime(0, 255), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    kit::stopwatch const watch;
    line.write({9});
    EXPECT_EQ(receiving.get().data, bytes{9});
    EXPECT_LT(watch.elapsed_sec(), 5.0);
}

TEST_F(SerialPortTraffic, ReceiveWithVminAndVtime0_WaitsForThatManyBytes)
{
    ASSERT_EQ(port.setVminVtime(5, 0), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    line.write({1, 2, 3, 4});
    EXPECT_FALSE(receiving.endsWithin(milliseconds(300)));
    line.write({5});
    kit::transfer const result = receiving.get();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.data, (bytes{1, 2, 3, 4, 5}));
}

TEST_F(SerialPortTraffic, ReceiveWithVminAndVtime_EndsAtAPauseAfterAByte)
{
    ASSERT_EQ(port.setVminVtime(5, 2), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    kit::stopwatch const watch;
    line.write({1, 2});
    kit::transfer const result = receiving.get();
    EXPECT_GE(watch.elapsed_sec(), 0.2);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.data, (bytes{1, 2}));
}

TEST_F(SerialPortTraffic, ReceiveWithVminAndVtime_DoesNotTimeTheWaitForTheFirstByte)
{
    ASSERT_EQ(port.setVminVtime(5, 1), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    EXPECT_FALSE(receiving.endsWithin(milliseconds(300)));
    line.write({7});
    EXPECT_EQ(receiving.get().data, bytes{7});
}

TEST_F(SerialPortTraffic, ReceiveWithVminAndVtime_StartsTheTimeAgainWithEveryByte)
{
    ASSERT_EQ(port.setVminVtime(200, 10), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    kit::stopwatch const watch;
    for (std::uint8_t each = 0; each < 4; ++each)
    {
        line.write({each});
        std::this_thread::sleep_for(milliseconds(200));
    }
    kit::transfer const result = receiving.get();
    EXPECT_EQ(result.data, (bytes{0, 1, 2, 3}));
    EXPECT_GE(watch.elapsed_sec(), 1.6);
    EXPECT_LT(watch.elapsed_sec(), 8.0) << "the unit is a tenth of a second";
}

TEST_F(SerialPortTraffic, ReceiveWithVminAndVtime_ReturnsWhenAllHaveCome)
{
    ASSERT_EQ(port.setVminVtime(5, 255), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    line.write({1, 2});
    receiving.awaitAsleep();
    kit::stopwatch const watch;
    line.write({3, 4, 5});
    EXPECT_EQ(receiving.get().data, (bytes{1, 2, 3, 4, 5}));
    EXPECT_LT(watch.elapsed_sec(), 5.0);
}

TEST_F(SerialPortTraffic, ReceiveWithLessRoomThanVmin_ReturnsWhenItIsFull)
{
    for (unsigned char const vtime : {std::uint8_t{0}, std::uint8_t{255}})
    {
        ASSERT_EQ(port.setVminVtime(10, vtime), 0);
        kit::callOnThread<kit::transfer> receiving([this] { return receive(4); });
        line.write({1, 2, 3, 4});
        bool const full = receiving.endsWithin(std::chrono::seconds(2));
        EXPECT_TRUE(full) << "vtime " << unsigned{vtime};
        if (!full)
        {
            line.write(bytes(6, 0));
        }
        EXPECT_EQ(receiving.get().data, (bytes{1, 2, 3, 4}));
        ASSERT_EQ(port.setVminVtime(0, 0), 0);
        receive();
    }
}

TEST_F(SerialPortTraffic, InterMessageGap_IsKeptBetweenMessages)
{
    ASSERT_EQ(port.setInterMsgGapBits(960), 0); // a tenth of a second at 9600 bit/s
    kit::stopwatch const watch;
    for (int each = 0; each < 4; ++each)
    {
        sendAll({1});
    }
    EXPECT_GE(watch.elapsed_sec(), 0.3);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
}

TEST_F(SerialPortTraffic, InterMessageGap_CountsBitsOfTheSpeedInForce)
{
    ASSERT_EQ(port.setInterMsgGapBits(30), 0);
    ASSERT_EQ(port.setSpeed(300U), 0);
    kit::stopwatch const slow;
    sendAll({1});
    sendAll({2});
    sendAll({3});
    EXPECT_GE(slow.elapsed_sec(), 0.2);

    ASSERT_EQ(port.setSpeed(115200U), 0);
    kit::stopwatch const quick;
    for (int each = 0; each < 50; ++each)
    {
        sendAll({1});
    }
    EXPECT_LT(quick.elapsed_sec(), 4.5) << "at the former speed it takes five seconds";
}

TEST_F(SerialPortTraffic, InterMessageGap_IsKeptBetweenMessagesOfDifferentSenders)
{
    ASSERT_EQ(port.setInterMsgGapBits(960), 0);
    kit::stopwatch const watch;
    std::vector<std::thread> senders;
    for (int each = 0; each < 4; ++each)
    {
        senders.emplace_back([this] { sendAll({1}); });
    }
    for (std::thread& sender : senders)
    {
        sender.join();
    }
    EXPECT_GE(watch.elapsed_sec(), 0.3);
}

TEST_F(SerialPortTraffic, InterMessageGapOfALongPauseAgo_IsNotWaitedFor)
{
    ASSERT_EQ(port.setSpeed(50U), 0);
    ASSERT_EQ(port.setInterMsgGapBits(1000), 0); // twenty seconds
    kit::stopwatch const watch;
    sendAll({1});
    EXPECT_LT(watch.elapsed_sec(), 10.0) << "nothing was sent before";
}

TEST_F(SerialPortTraffic, PseudoTerminalWithoutGap_IsNotPaced)
{
    ASSERT_EQ(port.setSpeed(50U), 0);
    kit::stopwatch const watch;
    for (int each = 0; each < 100; ++each)
    {
        sendAll(bytes(40, 0x55));
        EXPECT_EQ(line.read(40).size(), 40U);
    }
    EXPECT_LT(watch.elapsed_sec(), 10.0) << "a line would need 800 seconds";
}

} // namespace
