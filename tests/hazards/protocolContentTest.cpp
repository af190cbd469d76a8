// Whoever holds the lock sees buffers and queues in order, however the work between two holds is done.

#include "frames.h"
#include "messages.h"
#include "portOnLine.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace
{

using kit::bytes;
using kit::frame;
using kit::message;
using kit::portOnLine;
using kit::operator+;
using testing::ElementsAre;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;

/// Waits until everything has been framed, and gives what is left.
bytes leftInBuffer(portOnLine<>& rig, std::size_t expected)
{
    kit::exposedReceive& receiver = rig.receiver();
    bytes left;
    kit::waitUntil([&] {
        std::lock_guard<std::mutex> const lock(receiver.frameMutex);
        left = receiver.frameBuffer;
        return !receiver.dataAvailable && left.size() == expected;
    });
    return left;
}

gssipReceive::receiveState stateOf(portOnLine<>& rig)
{
    std::lock_guard<std::mutex> const lock(rig.receiver().frameMutex);
    return rig.receiver().state;
}

bytes firstOf(bytes const& whole, std::size_t count)
{
    return {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(count)};
}

TEST(FrameBuffer, WhileTheReceiverWaitsInAHeader_BeginsWithThatHeader)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    bytes const begun = firstOf(frame(7, 0, {1, 2}), 9);
    rig.line.write(bytes(500, 0x55) + frame(6, 0) + frame(6, 0, {3}) + bytes(77, 0xFF) + begun);
    EXPECT_EQ(leftInBuffer(rig, begun.size()), begun);
    EXPECT_EQ(stateOf(rig), gssipReceive::HEADER_STATE);
    EXPECT_TRUE(rig.waitForReceived(2));
}

TEST(FrameBuffer, WhileTheReceiverWaitsForData_BeginsWithTheFrame)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    bytes const begun = firstOf(frame(7, 0, {1, 2, 3}), 17);
    rig.line.write(kit::frameWithBadHeader(6, 0) + begun);
    EXPECT_EQ(leftInBuffer(rig, begun.size()), begun);
    EXPECT_EQ(stateOf(rig), gssipReceive::DATA_STATE);
}

TEST(FrameBuffer, AfterAFrame_HoldsItsLastByteOrNone)
{
    portOnLine<> rig;
    ASSERT_TRUE(rig.port.start());
    bytes const whole = frame(7, 0, {1});
    rig.line.write(bytes(100, 0x00) + whole);
    ASSERT_TRUE(rig.waitForReceived(1));
    EXPECT_EQ(leftInBuffer(rig, 1), bytes{whole.back()}); // one byte may still be the first half of a start
    EXPECT_EQ(stateOf(rig), gssipReceive::SOM_STATE);
}

std::vector<std::uint16_t> pendingIds(portOnLine<>& rig)
{
    std::vector<std::uint16_t> ids;
    for (gssipSendAckReqEvent const& event : rig.events())
    {
        ids.push_back(event.message.getId());
    }
    return ids;
}

TEST(PendingRequests, RegisteredInAnyOrder_StandInTheOrderOfTheirDeadlines)
{
    portOnLine<> rig;
    std::mt19937 random(20260101);
    std::vector<std::uint16_t> ids(200);
    for (std::size_t i = 0; i < ids.size(); ++i)
    {
        ids[i] = static_cast<std::uint16_t>(i);
    }
    std::vector<std::uint16_t> const inOrder = ids;
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::uint16_t const id : ids)
    {
        rig.port.setAcknowledgeTimeout_sec(1000.0 + id);
        gssipMessage request = message(id, REQUEST);
        ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
        std::vector<gssipSendAckReqEvent> const events = rig.events();
        ASSERT_TRUE(std::is_sorted(events.begin(), events.end(), eventLess));
    }
    EXPECT_EQ(pendingIds(rig), inOrder);
}

TEST(PendingRequests, ResentForANak_MoveToTheirNewPlace)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    for (std::uint16_t id = 1; id <= 3; ++id)
    {
        rig.port.setAcknowledgeTimeout_sec(1000.0 + id);
        gssipMessage request = message(id, REQUEST);
        ASSERT_EQ(rig.tracker().processSendAckRequest(request), 0);
    }
    rig.port.setAcknowledgeTimeout_sec(2000.0);
    bool handled = false;
    ASSERT_EQ(rig.tracker().processReceiveAckNak(message(1, gssipMessage::NAK_FLAG), handled), 0);
    EXPECT_THAT(pendingIds(rig), ElementsAre(2, 3, 1));
}

TEST(TransmitQueue, IdsRemovedInOnePass_LeaveTheOthersInOrder)
{
    portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    std::mt19937 random(20260102);
    std::vector<std::uint16_t> kept;
    for (int i = 0; i < 500; ++i)
    {
        auto const id = static_cast<std::uint16_t>(random() % 3);
        rig.port.sendMessage(message(id, 0, {static_cast<std::uint16_t>(i)}), i % 2 == 0);
        if (id != 1)
        {
            kept.push_back(static_cast<std::uint16_t>(i));
        }
    }
    rig.port.removeMsgIdFromTxQueue(1);
    std::vector<std::uint16_t> left;
    for (auto const& [queued, trackAck] : rig.port.txQueue)
    {
        left.push_back(queued.getData().at(0));
        EXPECT_EQ(trackAck, left.back() % 2 == 0);
        EXPECT_NE(queued.getId(), 1);
    }
    EXPECT_EQ(left, kept);
    EXPECT_EQ(rig.port.getNumberQueuedMessages(), kept.size());
}

} // namespace
