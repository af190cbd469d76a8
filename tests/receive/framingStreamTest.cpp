#include "callOnThread.h"
#include "frames.h"
#include "portOnLine.h"
#include "processState.h"
#include "referenceDecoder.h"

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;
using kit::bytes;
using kit::decodedFrame;
using kit::decodedStream;
using kit::operator+;

/// A receiver fed through a real tty.
class FramingStream : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(opened, 0); }

    /// What the receiver still holds, once it waits for more.
    struct rest
    {
        bytes buffered;
        std::uint32_t state;

        bool operator==(rest const& other) const { return buffered == other.buffered && state == other.state; }
    };

    bool waitsWith(rest const& expected)
    {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        return !receiver.dataAvailable && rest{receiver.frameBuffer, receiver.state} == expected;
    }

    bool comesToWaitWith(rest const& expected)
    {
        return kit::waitUntil([&] { return waitsWith(expected); });
    }

    std::vector<gssipMessage> takeMessages(std::size_t count)
    {
        EXPECT_TRUE(kit::waitUntil([&] { return receiver.rxQueue.size() >= count; }))
            << receiver.rxQueue.size() << " messages came instead of " << count;
        std::vector<gssipMessage> messages;
        while (receiver.rxQueue.size() > 0)
        {
            messages.emplace_back();
            EXPECT_EQ(receiver(messages.back()), 0);
        }
        return messages;
    }

    std::vector<decodedFrame> takeFrames(std::size_t count)
    {
        std::vector<decodedFrame> frames;
        for (gssipMessage const& message : takeMessages(count))
        {
            frames.push_back(kit::viewOf(message));
        }
        return frames;
    }

    /// Everything that the stream amounts to: frames, rejected headers, and what is left of it.
    void expectFramedLikeReference(bytes const& stream)
    {
        decodedStream const expected = kit::decode(bytes(4096, 0) + stream);
        EXPECT_TRUE(comesToWaitWith({expected.rest, expected.expected}));
        EXPECT_EQ(takeFrames(expected.frames.size()), expected.frames);
        EXPECT_EQ(log.count(headerError()), expected.headerErrors);
        EXPECT_EQ(log.lines().size(), expected.headerErrors);
    }

    std::string headerError() const { return "gssipReceive(" + at.id() + ") Header Checksum ERROR Detected"; }

    kit::portOnLine<> at;
    kit::recordingLog log;
    int const opened = at.port.serial.open();
    kit::exposedReceive receiver{at.port, &log};
};

std::uint32_t stateAfter(std::size_t bytesOfFrame)
{
    return bytesOfFrame < 2 ? gssipReceive::SOM_STATE
                            : (bytesOfFrame < 10 ? gssipReceive::HEADER_STATE : gssipReceive::DATA_STATE);
}

decodedFrame onlyFrameOf(bytes const& stream)
{
    return kit::decode(stream).frames.at(0);
}

TEST(ReferenceDecoder, Decode_StreamWorkedOutByHand)
{
    bytes const stream{0x00, 0x81,                                                 // garbage
                       0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6, // an acknowledgement
                       0xFF, 0x81, 0x02, 0x00, 0x00, 0x00, 0xFF, 0x81, 0x00, 0xFF, // rejected, ends in FF
                       0x81, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0xFD, 0x7D,       // goes on from there: one word
                       0x34, 0x12, 0x99, 0x99, 0xFF};
    decodedStream const decoded = kit::decode(stream);
    ASSERT_EQ(decoded.frames.size(), 2U);
    EXPECT_EQ(decoded.frames[0], (decodedFrame{0x81FF, 1, 0, 0x8800, 0xF600, {}, 0}));
    EXPECT_EQ(decoded.frames[1], (decodedFrame{0x81FF, 3, 1, 0, 0x7DFD, {0x1234}, 0x9999}));
    EXPECT_EQ(decoded.headerErrors, 1U);
    EXPECT_EQ(decoded.rest, bytes{0xFF});
    EXPECT_EQ(decoded.expected, decodedStream::START);
}

TEST_F(FramingStream, HeaderOnlyFrame_BecomesAMessageWithoutData)
{
    at.line.write({0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6});
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{{0x81FF, 1, 0, 0x8800, 0xF600, {}, 0}}));
    EXPECT_TRUE(comesToWaitWith({{0xF6}, gssipReceive::SOM_STATE}));
}

TEST_F(FramingStream, DataFrame_BecomesAMessageWithItsWords)
{
    at.line.write(
        {0xFF, 0x81, 0x05, 0x00, 0x03, 0x00, 0x00, 0x40, 0xF9, 0x3D, 0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0xFA, 0xFF});
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{{0x81FF, 5, 3, 0x4000, 0x3DF9, {1, 2, 3}, 0xFFFA}}));
    EXPECT_TRUE(comesToWaitWith({{0xFF}, gssipReceive::SOM_STATE}));
}

TEST_F(FramingStream, EveryByteValue_PassesTheLineUnchanged)
{
    std::vector<std::uint16_t> words;
    for (unsigned value = 0; value < 256; ++value)
    {
        words.push_back(static_cast<std::uint16_t>(value * 256 + (255 - value)));
    }
    at.line.write(kit::frame(3, 0, words));
    auto const frames = takeFrames(1);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].data, words);
}

TEST_F(FramingStream, SplitAnywhere_FrameIsFoundWhenTheRestArrives)
{
    for (bytes const& whole : {kit::frame(1, 0x8800), kit::frame(5, 0x4000, {0x81FF, 2, 3})})
    {
        for (std::size_t split = 1; split < whole.size(); ++split)
        {
            auto const middle = whole.begin() + static_cast<std::ptrdiff_t>(split);
            bytes const first(whole.begin(), middle);
            at.line.write(first);
            ASSERT_TRUE(comesToWaitWith({first, stateAfter(split)})) << "split at " << split;
            EXPECT_EQ(receiver.rxQueue.size(), 0U);
            at.line.write(bytes(middle, whole.end()));
            ASSERT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(whole)})) << "split at " << split;
            ASSERT_TRUE(comesToWaitWith({{whole.back()}, gssipReceive::SOM_STATE}));
        }
    }
}

TEST_F(FramingStream, ByteByByte_FramesAreFound)
{
    bytes const whole = kit::frame(5, 0x4000, {0x81FF, 2, 3});
    for (std::size_t sent = 1; sent < whole.size(); ++sent)
    {
        at.line.write({whole[sent - 1]});
        bytes const first(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(sent));
        ASSERT_TRUE(comesToWaitWith({first, stateAfter(sent)})) << "byte " << sent;
    }
    at.line.write({whole.back()});
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(whole)}));
}

TEST_F(FramingStream, TwoFramesInOneRead_BothComeInOrderWithoutAnotherRead)
{
    {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        receiver.frameBuffer = kit::frame(1, 0x8800) + kit::frame(2, 0, {9}) + kit::frame(3, 0x8400);
        receiver.dataAvailable = true;
    }
    receiver.frameCondition.notify_one();
    auto const messages = takeMessages(3);
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[0].getId(), 1);
    EXPECT_EQ(messages[1].getId(), 2);
    EXPECT_EQ(messages[2].getId(), 3);
}

TEST_F(FramingStream, ManyFramesBackToBack_AllComeInOrder)
{
    bytes stream;
    for (std::uint16_t id = 0; id < 300; ++id)
    {
        stream = stream + kit::frame(id, 0, std::vector<std::uint16_t>(id % 7, id));
    }
    at.line.write(stream);
    expectFramedLikeReference(stream);
}

TEST_F(FramingStream, GarbageBeforeAFrame_IsDroppedWithoutALine)
{
    bytes const stream = bytes{0x00, 0x81, 0xFF, 0x80, 0xFF, 0xFF, 0x33} + kit::frame(5, 0, {1, 2});
    at.line.write(stream);
    expectFramedLikeReference(stream);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramingStream, ResyncFiller_BetweenFramesIsDropped)
{
    bytes const stream =
        kit::frame(1, 0, {7}) + bytes(20, 0xFF) + kit::frame(2, 0, {8}) + bytes(20, 0xFF) + kit::frame(3, 0);
    at.line.write(stream);
    EXPECT_EQ(takeFrames(3).size(), 3U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramingStream, StartOfMessageInsideTheData_IsData)
{
    bytes const stream = kit::frame(1, 0, {0x81FF, 0x81FF, 0xFF00, 0x0081}) + kit::frame(2, 0);
    at.line.write(stream);
    auto const frames = takeFrames(2);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].data, (std::vector<std::uint16_t>{0x81FF, 0x81FF, 0xFF00, 0x0081}));
    EXPECT_EQ(frames[1].id, 2);
}

TEST_F(FramingStream, DamagedHeader_IsLoggedAndTheNextFrameComes)
{
    bytes const stream = kit::frameWithBadHeader(1, 0x4000) + kit::frame(2, 0, {5});
    at.line.write(stream);
    expectFramedLikeReference(stream);
    EXPECT_EQ(log.count(headerError()), 1U);
}

TEST_F(FramingStream, DamagedHeader_LineHasTimeAndLevel2)
{
    at.clock.now_sec = 321.5;
    at.line.write(kit::frameWithBadHeader(1, 0x4000));
    ASSERT_TRUE(log.waitFor(headerError()));
    EXPECT_EQ(log.lines().at(0).level, 2);
    EXPECT_EQ(log.lines().at(0).time_sec, 321.5);
}

TEST_F(FramingStream, EachDamagedHeader_IsLogged)
{
    bytes stream;
    for (std::uint16_t id = 0; id < 50; ++id)
    {
        stream = stream + kit::frameWithBadHeader(id, 0x4000);
    }
    at.line.write(stream);
    expectFramedLikeReference(stream);
    EXPECT_EQ(log.count(headerError()), 50U);
}

TEST_F(FramingStream, FrameAtTheTenthByteOfADamagedHeader_IsReceived)
{
    bytes const stream = bytes{0xFF, 0x81, 1, 2, 3, 4, 5, 6, 7} + kit::frame(2, 0);
    at.line.write(stream);
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(kit::frame(2, 0))}));
    EXPECT_EQ(log.count(headerError()), 1U);
}

TEST_F(FramingStream, FrameInsideADamagedHeader_IsLost)
{
    bytes const stream = bytes{0xFF, 0x81, 1, 2, 3, 4, 5, 6} + kit::frame(2, 0) + kit::frame(3, 0);
    at.line.write(stream);
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(kit::frame(3, 0))}));
    EXPECT_TRUE(comesToWaitWith({{kit::frame(3, 0).back()}, gssipReceive::SOM_STATE}));
}

TEST_F(FramingStream, WrongDataChecksum_IsDeliveredWithoutALine)
{
    bytes const damaged = kit::frameWithBadData(5, 0x4000, {1, 2, 3});
    at.line.write(damaged);
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(damaged)}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramingStream, LargestFrame_HoldsTheReceiverUntilItIsWhole)
{
    bytes const whole = kit::frame(9, 0, std::vector<std::uint16_t>(65535, 0x55AA));
    ASSERT_EQ(whole.size(), 131082U);
    bytes const part(whole.begin(), whole.end() - 1);
    at.line.write(part);
    ASSERT_TRUE(comesToWaitWith({part, gssipReceive::DATA_STATE}));
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
    at.line.write({whole.back()});
    EXPECT_EQ(takeFrames(1), (std::vector<decodedFrame>{onlyFrameOf(whole)}));
}

TEST_F(FramingStream, PromisedWords_SwallowTheFramesThatFollow)
{
    bytes header = kit::frame(9, 0, std::vector<std::uint16_t>(200, 0));
    header.resize(10);
    bytes const stream = header + kit::frame(1, 0x4000) + kit::frame(2, 0x4000);
    at.line.write(stream);
    EXPECT_TRUE(comesToWaitWith({stream, gssipReceive::DATA_STATE}));
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

/// A frame without some of its data's bytes, and two frames behind it.
bytes streamWithBytesLost(std::ptrdiff_t lost)
{
    bytes damaged = kit::frame(1, 0x4000, {0x1111, 0x2222, 0x3333});
    damaged.erase(damaged.begin() + 12, damaged.begin() + 12 + lost);
    return damaged + kit::frame(2, 0, {7}) + kit::frame(3, 0);
}

/// It ends with the start of the next one, which stays at the front and is found there.
TEST_F(FramingStream, ByteLostFromTheData_CostsThatMessageOnly)
{
    at.line.write(streamWithBytesLost(1));
    std::vector<gssipMessage> const messages = takeMessages(3);
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[0].getId(), 1);
    EXPECT_FALSE(messages[0].isValid());
    EXPECT_EQ(messages[1].getData(), std::vector<std::uint16_t>{7});
    EXPECT_TRUE(messages[1].isValid());
    EXPECT_EQ(messages[2].getId(), 3);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramingStream, TwoBytesLostFromTheData_CostTheNextMessageToo)
{
    at.line.write(streamWithBytesLost(2));
    std::vector<gssipMessage> const messages = takeMessages(2);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].getId(), 1);
    EXPECT_FALSE(messages[0].isValid());
    EXPECT_EQ(messages[1].getId(), 3);
}

TEST_F(FramingStream, ResyncFillerInsideAFrame_CountsAsItsBytes)
{
    bytes const whole = kit::frame(1, 0, std::vector<std::uint16_t>(12, 0x1111));
    auto const middle = whole.begin() + 12;
    at.line.write(bytes(whole.begin(), middle) + bytes(20, 0xFF) + kit::frame(2, 0) + kit::frame(3, 0));
    std::vector<gssipMessage> const messages = takeMessages(2);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].getId(), 1);
    EXPECT_EQ(messages[0].getData().at(1), 0xFFFF);
    EXPECT_FALSE(messages[0].isValid());
    EXPECT_EQ(messages[1].getId(), 3) << "the end of the frame took the beginning of the next";
}

TEST_F(FramingStream, ReceiveTime_IsThatOfTheWholeFrame)
{
    bytes const whole = kit::frame(5, 0, {1, 2, 3});
    bytes const part(whole.begin(), whole.end() - 1);
    at.clock.now_sec = 100.0;
    at.line.write(part);
    ASSERT_TRUE(comesToWaitWith({part, gssipReceive::DATA_STATE}));
    at.clock.now_sec = 200.5;
    at.line.write({whole.back()});
    EXPECT_EQ(takeMessages(1).at(0).getReceiveTimeStamp(), 200.5);

    at.clock.now_sec = 300.25;
    at.line.write(kit::frame(6, 0x4000));
    EXPECT_EQ(takeMessages(1).at(0).getReceiveTimeStamp(), 300.25);
}

TEST_F(FramingStream, Take_BlocksUntilAFrameArrives)
{
    gssipMessage message;
    auto taking = std::async(std::launch::async, [&] { return receiver(message); });
    EXPECT_EQ(taking.wait_for(20ms), std::future_status::timeout);
    at.line.write(kit::frame(8, 0));
    ASSERT_EQ(taking.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(taking.get(), 0);
    EXPECT_EQ(message.getId(), 8);
}

TEST_F(FramingStream, Take_StoppedQueueGivesMinusOneAndLeavesTheMessage)
{
    receiver.rxQueue.stop();
    gssipMessage message(7, 0, 0);
    EXPECT_EQ(receiver(message), -1);
    EXPECT_EQ(message.getId(), 7);
}

/// Line noise with frames in it, of every kind that a receiver meets.
class noisyStream
{
  public:
    explicit noisyStream(unsigned seed) : engine(seed) {}

    bytes compose(std::size_t pieces)
    {
        bytes stream;
        for (std::size_t count = 0; count < pieces; ++count)
        {
            stream = std::move(stream) + piece();
        }
        return stream;
    }

    std::size_t upTo(std::size_t largest) { return std::uniform_int_distribution<std::size_t>(0, largest)(engine); }

  private:
    std::uint16_t word() { return static_cast<std::uint16_t>(upTo(65535)); }

    std::vector<std::uint16_t> words(std::size_t count)
    {
        std::vector<std::uint16_t> result(count);
        std::generate(result.begin(), result.end(), [this] { return upTo(5) == 0 ? gssipMessage::SOM : word(); });
        return result;
    }

    bytes noise(std::size_t count)
    {
        // Half of it is made of the start's own bytes, so that starts, true and false, are frequent.
        bytes result(count);
        std::generate(result.begin(), result.end(), [this] {
            std::size_t const kind = upTo(3);
            return static_cast<std::uint8_t>(kind == 0 ? 0xFF : (kind == 1 ? 0x81 : upTo(255)));
        });
        return result;
    }

    bytes cut(bytes whole)
    {
        whole.resize(upTo(whole.size() - 1));
        return whole;
    }

    bytes piece()
    {
        switch (upTo(9))
        {
        case 0:
            return noise(1 + upTo(30));
        case 1:
            return kit::frameWithBadHeader(word(), word(), words(upTo(10)));
        case 2:
            return kit::frameWithBadData(word(), word(), words(1 + upTo(10)));
        case 3:
            return cut(kit::frame(word(), word(), words(upTo(20))));
        case 4:
            return bytes(20, 0xFF);
        case 5:
            return kit::frame(word(), word());
        default:
            return kit::frame(word(), word(), words(upTo(40)));
        }
    }

    std::mt19937 engine;
};

class RandomStream : public FramingStream
{
  protected:
    void writeInRandomPieces(bytes const& stream, noisyStream& dice)
    {
        for (auto from = stream.begin(); from != stream.end();)
        {
            std::size_t const largest = dice.upTo(3) == 0 ? 700 : 12;
            auto const left = static_cast<std::size_t>(std::distance(from, stream.end()));
            auto const next = from + static_cast<std::ptrdiff_t>(std::min(1 + dice.upTo(largest), left));
            at.line.write(bytes(from, next));
            from = next;
        }
    }
};

TEST_F(RandomStream, AnyChunks_FramedLikeTheReference)
{
    unsigned const seed = std::random_device{}();
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::cout << "seed " << seed << '\n';

    noisyStream dice(seed);
    bytes const stream = dice.compose(600);
    writeInRandomPieces(stream, dice);
    expectFramedLikeReference(stream);
}

TEST_F(RandomStream, SameSeeds_FramedLikeTheReference)
{
    bytes whole;
    for (unsigned seed = 1; seed <= 20; ++seed)
    {
        noisyStream dice(seed);
        bytes const stream = dice.compose(60);
        writeInRandomPieces(stream, dice);
        whole = whole + stream;
    }
    expectFramedLikeReference(whole);
}

// The line's failures.

class ReadError : public testing::Test
{
  protected:
    std::string readError() const { return "gssipReceive(" + at.id() + ") Error Reading Serial Port: "; }

    kit::portOnLine<> at;
    kit::recordingLog log;
};

TEST_F(ReadError, ClosedDevice_IsLoggedWithTimeAndLevel4)
{
    at.clock.now_sec = 55.5;
    kit::exposedReceive const receiver(at.port, &log);
    ASSERT_TRUE(log.waitFor(readError()));
    kit::logLine const first = log.lines().at(0);
    EXPECT_EQ(first.text, readError());
    EXPECT_EQ(first.level, 4);
    EXPECT_EQ(first.time_sec, 55.5);
}

TEST_F(ReadError, ClosedDevice_IsTriedAgain)
{
    kit::exposedReceive const receiver(at.port, &log);
    EXPECT_TRUE(log.waitFor(readError(), 3));
}

TEST_F(ReadError, ClosedDevice_AppendsNothing)
{
    kit::exposedReceive receiver(at.port, &log);
    ASSERT_TRUE(log.waitFor(readError(), 2));
    std::lock_guard<std::mutex> const lock(receiver.frameMutex);
    EXPECT_EQ(receiver.frameBuffer, bytes(4096, 0));
    EXPECT_FALSE(receiver.dataAvailable);
}

TEST_F(ReadError, UnpluggedDevice_IsLogged)
{
    ASSERT_EQ(at.port.serial.open(), 0);
    kit::exposedReceive const receiver(at.port, &log);
    at.line.hangUp();
    ASSERT_TRUE(log.waitFor(readError()));
    EXPECT_EQ(log.lines().at(0).level, 4);
}

TEST_F(ReadError, DeviceOpenedLater_IsReadThen)
{
    kit::exposedReceive receiver(at.port, &log);
    ASSERT_TRUE(log.waitFor(readError()));
    ASSERT_EQ(at.port.serial.open(), 0);
    at.line.write(kit::frame(4, 0));
    gssipMessage message;
    EXPECT_EQ(receiver(message), 0);
    EXPECT_EQ(message.getId(), 4);
}

TEST_F(ReadError, BytesBeforeTheFailure_AreKeptForTheBytesAfterIt)
{
    bytes const whole = kit::frame(4, 0, {1, 2});
    ASSERT_EQ(at.port.serial.open(), 0);
    kit::exposedReceive receiver(at.port, &log);
    at.line.write(bytes(whole.begin(), whole.begin() + 5));
    ASSERT_TRUE(kit::waitUntil([&] {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        return receiver.frameBuffer.size() == 5;
    }));
    ASSERT_EQ(at.port.serial.close(), 0);
    ASSERT_TRUE(log.waitFor(readError()));
    ASSERT_EQ(at.port.serial.open(), 0);
    at.line.write(bytes(whole.begin() + 5, whole.end()));
    gssipMessage message;
    EXPECT_EQ(receiver(message), 0);
    EXPECT_EQ(message.getData(), (std::vector<std::uint16_t>{1, 2}));
}

// The end of a receiver.

TEST(ReceiverEnd, Destroy_QuietOpenDeviceDoesNotHoldItUp)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    auto const start = std::chrono::steady_clock::now();
    {
        kit::exposedReceive const receiver(at.port, &at.log);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_TRUE(at.log.lines().empty());
}

TEST(ReceiverThreads, Construct_StartsTwoOfOrdinaryKind)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    kit::threadWatch const threads;
    std::string const ownName = kit::taskFile(getpid(), "comm");
    kit::exposedReceive const receiver(at.port, &at.log);
    auto const added = threads.added();
    ASSERT_EQ(added.size(), 2U);
    for (kit::threadState const& thread : added)
    {
        EXPECT_EQ(thread.name + "\n", ownName);
        EXPECT_EQ(sched_getscheduler(thread.id), SCHED_OTHER);
    }
}

TEST(ReceiverThreads, QuietLine_BothSleep)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    kit::threadWatch const threads;
    kit::exposedReceive const receiver(at.port, &at.log);
    for (kit::threadState const& thread : threads.added())
    {
        ASSERT_TRUE(kit::waitUntilAsleep(thread.id));
        std::string const before = kit::statusField(thread.id, "voluntary_ctxt_switches");
        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(kit::statusField(thread.id, "voluntary_ctxt_switches"), before);
    }
}

TEST(ReceiverEnd, Destroy_UntakenMessagesGoWithIt)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    {
        kit::exposedReceive receiver(at.port, &at.log);
        at.line.write(kit::frame(1, 0) + kit::frame(2, 0));
        ASSERT_TRUE(kit::waitUntil([&] { return receiver.rxQueue.size() == 2; }));
    }
    kit::exposedReceive receiver(at.port, &at.log);
    at.line.write(kit::frame(3, 0));
    gssipMessage message;
    ASSERT_EQ(receiver(message), 0);
    EXPECT_EQ(message.getId(), 3);
}

TEST(ReceiverEnd, PortStops_CallerInsideGetsMinusOne)
{
    kit::portOnLine<> at;
    ASSERT_TRUE(at.port.start());
    auto const receiver = at.port.receiver;
    gssipMessage message;
    auto taking = std::async(std::launch::async, [&] { return (*receiver)(message); });
    EXPECT_EQ(taking.wait_for(20ms), std::future_status::timeout);
    EXPECT_TRUE(at.port.stop());
    ASSERT_EQ(taking.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(taking.get(), -1);
}

TEST(ReceiverEnd, Destroy_CallerInsideGetsMinusOneAndIsWaitedFor)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    for (int round = 0; round < 30; ++round)
    {
        auto receiver = std::make_unique<kit::exposedReceive>(at.port, &at.log);
        gssipMessage message;
        kit::callOnThread<int> taking([&, inside = receiver.get()] { return (*inside)(message); });
        taking.awaitAsleep();
        receiver.reset();
        ASSERT_EQ(taking.get(), -1);
    }
}

TEST(ReceiverEnd, NullLog_LinesAreDropped)
{
    kit::portOnLine<> at;
    ASSERT_EQ(at.port.serial.open(), 0);
    kit::exposedReceive receiver(at.port, nullptr);
    EXPECT_NE(receiver.log, nullptr);
    at.line.write(kit::frameWithBadHeader(1, 0) + kit::frame(2, 0));
    gssipMessage message;
    ASSERT_EQ(receiver(message), 0);
    EXPECT_EQ(message.getId(), 2);
}

} // namespace
