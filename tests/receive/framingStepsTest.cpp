#include "frames.h"
#include "portOnLine.h"
#include "processState.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace
{

using kit::bytes;
using kit::operator+;

/// Calls back for every line, on the thread and at the moment it is logged.
class watchedLog : public kit::recordingLog
{
  public:
    using kit::recordingLog::log;

    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        if (onLine)
        {
            onLine();
        }
        kit::recordingLog::log(time_sec, level, text);
    }

    std::function<void()> onLine;
};

class receiverWithThreads : public kit::exposedReceive
{
  public:
    using kit::exposedReceive::exposedReceive;

    using gssipReceive::processThread;
    using gssipReceive::readBuffer;
    using gssipReceive::readThread;
    using gssipReceive::thread;
};

/// A receiver on an open line on which nothing arrives: its threads sleep, and the test calls the steps itself while
/// it holds the mutex that the processing thread would hold.
class FramingSteps : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(opened, 0); }

    void have(bytes const& buffered, gssipReceive::receiveState state)
    {
        receiver.frameBuffer = buffered;
        receiver.state = state;
        receiver.dataAvailable = true;
    }

    void expectLeft(bytes const& buffered, gssipReceive::receiveState state, bool available)
    {
        EXPECT_EQ(receiver.frameBuffer, buffered);
        EXPECT_EQ(receiver.state, state);
        EXPECT_EQ(receiver.dataAvailable, available);
    }

    gssipMessage takeOnly()
    {
        gssipMessage message;
        EXPECT_EQ(receiver.rxQueue.size(), 1U);
        receiver.rxQueue.stop();
        EXPECT_EQ(receiver(message), 0);
        return message;
    }

    std::string headerError() const { return "gssipReceive(" + at.id() + ") Header Checksum ERROR Detected"; }

    /// Lets the receiver's own threads work until they wait for more.
    void letThreadsWork()
    {
        framing.unlock();
        receiver.frameCondition.notify_one();
        EXPECT_TRUE(kit::waitUntil([this] {
            std::lock_guard<std::mutex> const lock(receiver.frameMutex);
            return !receiver.dataAvailable;
        }));
        framing.lock();
    }

    kit::portOnLine<> at;
    watchedLog log;
    int const opened = at.port.serial.open();
    receiverWithThreads receiver{at.port, &log};
    std::unique_lock<std::mutex> framing{receiver.frameMutex};
};

// What a new receiver looks like.

TEST_F(FramingSteps, Construct_BufferHolds4096ZeroBytes)
{
    EXPECT_EQ(receiver.frameBuffer, bytes(4096, 0));
}

TEST_F(FramingSteps, Construct_SearchesAStartAndHasNothingToTry)
{
    EXPECT_EQ(receiver.state, gssipReceive::SOM_STATE);
    EXPECT_FALSE(receiver.dataAvailable);
    EXPECT_FALSE(receiver.stopRead);
    EXPECT_FALSE(receiver.stopProcess);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

TEST_F(FramingSteps, Construct_ReadsUpTo4096BytesAtOnce)
{
    EXPECT_EQ(sizeof(receiver.readBuffer), 4096U);
}

TEST_F(FramingSteps, Members_StandInTheirOrder)
{
    std::vector<void const volatile*> const members{
        &receiver.state,        &receiver.readBuffer, &receiver.bytesRead,     &receiver.frameBuffer,
        &receiver.frameMutex,   &receiver.rxQueue,    &receiver.log,           &receiver.frameCondition,
        &receiver.readThread,   &receiver.stopRead,   &receiver.processThread, &receiver.stopProcess,
        &receiver.dataAvailable};
    for (std::size_t next = 1; next < members.size(); ++next)
    {
        EXPECT_LT(members[next - 1], members[next]) << next;
    }
}

TEST_F(FramingSteps, States_HaveTheirNumbers)
{
    EXPECT_EQ(static_cast<std::uint32_t>(gssipReceive::SOM_STATE), 0U);
    EXPECT_EQ(static_cast<std::uint32_t>(gssipReceive::HEADER_STATE), 1U);
    EXPECT_EQ(static_cast<std::uint32_t>(gssipReceive::DATA_STATE), 2U);
    EXPECT_EQ(sizeof(gssipReceive::receiveState), 4U);
}

TEST_F(FramingSteps, SearchStart_DropsTheInitialZerosButTheLast)
{
    receiver.dataAvailable = true;
    receiver.processSOM_STATE();
    expectLeft({0x00}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, SearchStart_InitialZerosHideNoFrameBehindThem)
{
    have(bytes(4096, 0) + kit::frame(1, 0x8800), gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft(kit::frame(1, 0x8800), gssipReceive::HEADER_STATE, true);
}

// The search for a start of message.

TEST_F(FramingSteps, SearchStart_EmptyBufferWaitsForMore)
{
    have({}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, SearchStart_OneByteStaysWhateverItIs)
{
    for (std::uint8_t const byte : bytes{0x00, 0x81, 0xFF})
    {
        have({byte}, gssipReceive::SOM_STATE);
        receiver.processSOM_STATE();
        expectLeft({byte}, gssipReceive::SOM_STATE, false);
    }
}

TEST_F(FramingSteps, SearchStart_StartInFrontIsFoundAndKept)
{
    have({0xFF, 0x81}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, SearchStart_GarbageBeforeTheStartIsDropped)
{
    have({0x01, 0x02, 0x81, 0xFF, 0x00, 0xFF, 0x81, 0x44}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81, 0x44}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, SearchStart_RunOfFFBeforeTheStartIsDroppedButTheLast)
{
    have(bytes(20, 0xFF) + bytes{0x81, 0x07}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81, 0x07}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, SearchStart_SwappedBytesAreNoStart)
{
    have({0x81, 0xFF, 0x00}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0x00}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, SearchStart_WithoutAStartLeavesTheLastByte)
{
    have({0x10, 0x20, 0x30, 0x40}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0x40}, gssipReceive::SOM_STATE, false);

    have({0x10, 0x20, 0xFF}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    expectLeft({0xFF}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, SearchStart_StartSplitOverTwoReadsIsFound)
{
    have({0x55, 0xFF}, gssipReceive::SOM_STATE);
    receiver.processSOM_STATE();
    receiver.frameBuffer.push_back(0x81);
    receiver.dataAvailable = true;
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, SearchStart_NothingAvailableLeavesTheBufferAlone)
{
    have({0x01, 0x02, 0xFF, 0x81}, gssipReceive::SOM_STATE);
    receiver.dataAvailable = false;
    receiver.processSOM_STATE();
    expectLeft({0x01, 0x02, 0xFF, 0x81}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, SearchStart_InAnotherStateDoesNothing)
{
    have({0x01, 0x02, 0x03}, gssipReceive::HEADER_STATE);
    receiver.processSOM_STATE();
    expectLeft({0x01, 0x02, 0x03}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, SearchStart_StoppedReturnsAtOnce)
{
    have({0x01, 0x02, 0xFF, 0x81}, gssipReceive::SOM_STATE);
    receiver.stopProcess = true;
    receiver.processSOM_STATE();
    expectLeft({0x01, 0x02, 0xFF, 0x81}, gssipReceive::SOM_STATE, true);
}

// The header.

TEST_F(FramingSteps, Header_NineBytesWaitForTheTenth)
{
    bytes nine = kit::frame(1, 0x8800);
    nine.pop_back();
    have(nine, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft(nine, gssipReceive::HEADER_STATE, false);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

TEST_F(FramingSteps, Header_HeaderOnlyFrameLeavesItsTenthByte)
{
    have({0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft({0xF6}, gssipReceive::SOM_STATE, true);
}

TEST_F(FramingSteps, Header_HeaderOnlyFrameBecomesAMessage)
{
    at.clock.now_sec = 12.25;
    have({0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    gssipMessage const message = takeOnly();
    EXPECT_EQ(message.getSOM(), 0x81FF);
    EXPECT_EQ(message.getId(), 1);
    EXPECT_EQ(message.getDataWordSize(), 0);
    EXPECT_EQ(message.getProtocolFlags(), 0x8800);
    EXPECT_EQ(message.getHeaderChecksum(), 0xF600);
    EXPECT_TRUE(message.getData().empty());
    EXPECT_EQ(message.getDataChecksum(), 0);
    EXPECT_EQ(message.getReceiveTimeStamp(), 12.25);
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
}

TEST_F(FramingSteps, Header_WhatFollowsAHeaderOnlyFrameStays)
{
    have(kit::frame(1, 0x8800) + kit::frame(2, 0x8400), gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft(bytes{0xF6} + kit::frame(2, 0x8400), gssipReceive::SOM_STATE, true);
    EXPECT_EQ(receiver.rxQueue.size(), 1U);
}

TEST_F(FramingSteps, Header_SearchAfterAHeaderOnlyFrameDropsItsTenthByte)
{
    have(kit::frame(1, 0x8800) + bytes{0x33}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    receiver.processSOM_STATE();
    expectLeft({0x33}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, Header_LastByteMayBeginTheNextStart)
{
    // Words 81FF 0001 0000 7E01 sum to 10001, so the checksum is FFFF; an 81 behind it makes a start of message.
    have({0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x01, 0x7E, 0xFF, 0xFF, 0x81}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft({0xFF, 0x81}, gssipReceive::SOM_STATE, true);
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81}, gssipReceive::HEADER_STATE, true);
}

TEST_F(FramingSteps, Header_SumBeyond16BitsIsCutOff)
{
    // 81FF + FFFF + 0000 + FFFF = 281FD; negated, the low 16 bits are 7E03.
    have({0xFF, 0x81, 0xFF, 0xFF, 0x00, 0x00, 0xFF, 0xFF, 0x03, 0x7E}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    EXPECT_EQ(takeOnly().getHeaderChecksum(), 0x7E03);
}

TEST_F(FramingSteps, Header_GoodHeaderWithDataGoesOnToTheData)
{
    bytes const whole = kit::frame(5, 0x4000, {1, 2, 3});
    have(whole, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft(whole, gssipReceive::DATA_STATE, true);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

TEST_F(FramingSteps, Header_GoodHeaderWithDataAndNoMoreKeepsTrying)
{
    bytes header = kit::frame(5, 0x4000, {1, 2, 3});
    header.resize(10);
    have(header, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft(header, gssipReceive::DATA_STATE, true);
}

TEST_F(FramingSteps, HeaderMismatch_DropsNineBytesAndSearchesOn)
{
    have({0xFF, 0x81, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    expectLeft({9, 10, 11}, gssipReceive::SOM_STATE, true);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

TEST_F(FramingSteps, HeaderMismatch_IsLoggedOnceWithTimeAndLevel2)
{
    at.clock.now_sec = 77.5;
    have(kit::frameWithBadHeader(5, 0x4000), gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    auto const lines = log.lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, headerError());
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].time_sec, 77.5);
}

TEST_F(FramingSteps, HeaderMismatch_IsLoggedWhenTheSearchHasBeenResumed)
{
    bool watched = false;
    log.onLine = [&] {
        watched = true;
        EXPECT_EQ(receiver.state, gssipReceive::SOM_STATE);
    };
    have({0xFF, 0x81, 2, 3, 4, 5, 6, 7, 8, 9, 10}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    EXPECT_TRUE(watched);
}

TEST_F(FramingSteps, HeaderMismatch_WhoseLineThrowsLeavesTheFrontInItsPlace)
{
    log.onLine = [] { throw std::runtime_error("no line"); };
    have({0xFF, 0x81, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, gssipReceive::HEADER_STATE);
    EXPECT_THROW(receiver.processHEADER_STATE(), std::runtime_error);
    expectLeft({9, 10, 11}, gssipReceive::SOM_STATE, true);
}

TEST_F(FramingSteps, HeaderMismatch_OneWrongBitAnywhereIsNoticed)
{
    bytes const good = kit::frame(0x1234, 0x4321);
    for (std::size_t bit = 16; bit < good.size() * 8; ++bit)
    {
        bytes damaged = good;
        damaged[bit / 8] = static_cast<std::uint8_t>(damaged[bit / 8] ^ (1U << (bit % 8)));
        have(damaged, gssipReceive::HEADER_STATE);
        receiver.processHEADER_STATE();
        expectLeft({damaged[9]}, gssipReceive::SOM_STATE, true);
    }
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
    EXPECT_EQ(log.count(headerError()), good.size() * 8 - 16);
}

TEST_F(FramingSteps, HeaderMismatch_StartInsideBytes1To8IsNotConsidered)
{
    for (std::size_t position = 1; position <= 7; ++position)
    {
        bytes rejected{0xFF, 0x81, 0, 0, 0, 0, 0, 0, 0, 0x21};
        rejected[position] = 0xFF;
        rejected[position + 1] = 0x81;
        have(rejected + bytes{0x22}, gssipReceive::HEADER_STATE);
        receiver.processHEADER_STATE();
        expectLeft({0x21, 0x22}, gssipReceive::SOM_STATE, true);
        receiver.processSOM_STATE();
        expectLeft({0x22}, gssipReceive::SOM_STATE, false);
    }
}

TEST_F(FramingSteps, HeaderMismatch_StartThatReachesIntoTheTenthByteIsLost)
{
    have({0xFF, 0x81, 0, 0, 0, 0, 0, 0, 0xFF, 0x81, 0x22}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    receiver.processSOM_STATE();
    expectLeft({0x22}, gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, HeaderMismatch_StartAtTheTenthByteIsFound)
{
    have({0xFF, 0x81, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0x81}, gssipReceive::HEADER_STATE);
    receiver.processHEADER_STATE();
    receiver.processSOM_STATE();
    expectLeft({0xFF, 0x81}, gssipReceive::HEADER_STATE, true);
}

// The data.

TEST_F(FramingSteps, Data_ThreeWordsWaitFor18Bytes)
{
    bytes const whole{0xFF, 0x81, 0x05, 0x00, 0x03, 0x00, 0x00, 0x40, 0xF9, 0x3D, // the header
                      0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0xFA, 0xFF};
    for (std::size_t have_bytes = 10; have_bytes < 18; ++have_bytes)
    {
        bytes const part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(have_bytes));
        have(part, gssipReceive::DATA_STATE);
        receiver.processDATA_STATE();
        expectLeft(part, gssipReceive::DATA_STATE, false);
    }
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
    have(whole, gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    EXPECT_EQ(receiver.rxQueue.size(), 1U);
}

TEST_F(FramingSteps, Data_DeliveredFrameLeavesItsLastByte)
{
    bytes const whole = kit::frame(5, 0x4000, {1, 2, 3});
    have(whole + bytes{0x66, 0x67}, gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    expectLeft({whole.back(), 0x66, 0x67}, gssipReceive::SOM_STATE, true);
}

TEST_F(FramingSteps, Data_FrameBecomesAMessage)
{
    at.clock.now_sec = 8.125;
    have({0xFF, 0x81, 0x05, 0x00, 0x02, 0x00, 0x00, 0x40, 0xFA, 0x3D, 0x34, 0x12, 0xCD, 0xAB, 0xFF, 0x41},
         gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    gssipMessage const message = takeOnly();
    EXPECT_EQ(message.getSOM(), 0x81FF);
    EXPECT_EQ(message.getId(), 5);
    EXPECT_EQ(message.getDataWordSize(), 2);
    EXPECT_EQ(message.getProtocolFlags(), 0x4000);
    EXPECT_EQ(message.getHeaderChecksum(), 0x3DFA);
    EXPECT_EQ(message.getData(), (std::vector<std::uint16_t>{0x1234, 0xABCD}));
    EXPECT_EQ(message.getDataChecksum(), 0x41FF);
    EXPECT_EQ(message.getReceiveTimeStamp(), 8.125);
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
}

TEST_F(FramingSteps, Data_WrongDataChecksumIsDeliveredAsReceived)
{
    bytes damaged = kit::frame(5, 0x4000, {1, 2, 3});
    damaged[16] = 0xAD;
    damaged[17] = 0xDE;
    have(damaged, gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    EXPECT_EQ(takeOnly().getDataChecksum(), 0xDEAD);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FramingSteps, Data_StoppedStillDelivers)
{
    have(kit::frame(5, 0x4000, {1}), gssipReceive::DATA_STATE);
    receiver.stopProcess = true;
    receiver.processDATA_STATE();
    EXPECT_EQ(receiver.rxQueue.size(), 1U);
}

TEST_F(FramingSteps, Data_LargestCountWaitsForAllItsBytes)
{
    bytes whole = kit::frame(9, 0, std::vector<std::uint16_t>(65535, 0x81FF));
    ASSERT_EQ(whole.size(), 131082U);
    bytes part = whole;
    part.pop_back();
    have(part, gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    expectLeft(part, gssipReceive::DATA_STATE, false);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);

    have(whole, gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    expectLeft({whole.back()}, gssipReceive::SOM_STATE, true);
    EXPECT_EQ(takeOnly().getData(), std::vector<std::uint16_t>(65535, 0x81FF));
}

TEST_F(FramingSteps, EachMessage_AsksTheTimeOnce)
{
    have(kit::frame(1, 0x8800), gssipReceive::HEADER_STATE);
    std::uint64_t const before = at.clock.asked;
    receiver.processHEADER_STATE();
    EXPECT_EQ(at.clock.asked, before + 1);

    have(kit::frame(1, 0, {1}), gssipReceive::DATA_STATE);
    receiver.processDATA_STATE();
    EXPECT_EQ(at.clock.asked, before + 2);
}

// The two thread bodies.

TEST_F(FramingSteps, Process_FramesEverythingThatIsBufferedBeforeItWaits)
{
    have(bytes{1, 2, 3} + kit::frame(1, 0x8800) + kit::frameWithBadHeader(2, 0) + kit::frame(3, 0, {7, 8}) +
             kit::frame(4, 0x8400) + bytes{0x44},
         gssipReceive::SOM_STATE);
    letThreadsWork();
    expectLeft({0x44}, gssipReceive::SOM_STATE, false);
    receiver.rxQueue.stop();
    for (unsigned const id : {1U, 3U, 4U})
    {
        gssipMessage message;
        ASSERT_EQ(receiver(message), 0);
        EXPECT_EQ(message.getId(), id);
    }
    EXPECT_EQ(log.count(headerError()), 1U);
}

TEST_F(FramingSteps, Process_WithoutNewBytesLeavesTheBufferAlone)
{
    have(kit::frame(1, 0x8800), gssipReceive::SOM_STATE);
    receiver.dataAvailable = false;
    framing.unlock();
    receiver.frameCondition.notify_one();
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to do what it must not
    framing.lock();
    expectLeft(kit::frame(1, 0x8800), gssipReceive::SOM_STATE, false);
}

TEST_F(FramingSteps, Process_UnknownStateLeavesTheBufferAlone)
{
    have({}, gssipReceive::SOM_STATE);
    letThreadsWork(); // it waits now, and does not find that it is to stop before it has begun
    have(kit::frame(1, 0x8800), static_cast<gssipReceive::receiveState>(7));
    receiver.dataAvailable = false;
    std::size_t const threads = kit::processThreads().size();
    receiver.stopProcess = true; // the thread goes through a step once more on its way out
    framing.unlock();
    receiver.frameCondition.notify_one();
    ASSERT_TRUE(kit::waitUntil([&] { return kit::processThreads().size() == threads - 1; }));
    framing.lock();
    expectLeft(kit::frame(1, 0x8800), static_cast<gssipReceive::receiveState>(7), false);
    EXPECT_EQ(receiver.rxQueue.size(), 0U);
}

TEST_F(FramingSteps, Process_StoppedReturnsAtOnceAndReleasesTheMutex)
{
    have(kit::frame(1, 0x8800), gssipReceive::SOM_STATE);
    receiver.stopProcess = true;
    framing.unlock();
    receiver.processReceiveQ();
    ASSERT_TRUE(framing.try_lock());
    expectLeft(kit::frame(1, 0x8800), gssipReceive::SOM_STATE, true);
}

TEST_F(FramingSteps, Read_StoppedReturnsAtOnce)
{
    receiver.stopRead = true;
    receiver.thread(); // a read would block here: nothing arrives
    EXPECT_EQ(receiver.frameBuffer.size(), 4096U);
}

TEST_F(FramingSteps, Read_BytesAreAppendedBehindThoseBuffered)
{
    have({0xFF, 0x81, 0x01}, gssipReceive::HEADER_STATE);
    receiver.dataAvailable = false;
    framing.unlock();
    at.line.write({0x02, 0x03});
    EXPECT_TRUE(kit::waitUntil([this] {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        return receiver.frameBuffer.size() == 5 && !receiver.dataAvailable;
    }));
    framing.lock();
    expectLeft({0xFF, 0x81, 0x01, 0x02, 0x03}, gssipReceive::HEADER_STATE, false);
}

TEST_F(FramingSteps, Read_WaitsWhileFramingIsUnderWay)
{
    bytes const untouched(4096, 0);
    at.line.write({0x02, 0x03});
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to do what it must not
    expectLeft(untouched, gssipReceive::SOM_STATE, false);
    framing.unlock();
    EXPECT_TRUE(kit::waitUntil([this] {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        return receiver.frameBuffer == bytes{0x03};
    }));
}

TEST_F(FramingSteps, Read_OfNoBytesStillLetsTheBufferBeTried)
{
    framing.unlock();
    at.port.serial.setVminVtime(0, 1); // reads return without bytes every tenth of a second
    at.port.serial.interruptReceive();
    EXPECT_TRUE(kit::waitUntil([this] {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        return receiver.frameBuffer == bytes{0x00};
    }));
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
