#include "gssipMessage.h"

#include "allocations.h"
#include "frames.h"
#include "virtualSlot.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <new>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

using kit::bytes;
using words = std::vector<std::uint16_t>;

bytes const emptyImage{0xFF, 0x81, 0, 0, 0, 0, 0, 0, 0, 0};

/// Everything that a message holds.
struct contents
{
    explicit contents(gssipMessage const& message)
        : image(message.getHeaderAndDataUint8()), data(message.getData()), dataChecksum(message.getDataChecksum()),
          sendTime_sec(message.getSendTimeStamp()), receiveTime_sec(message.getReceiveTimeStamp())
    {}

    bool operator==(contents const& other) const
    {
        return image == other.image && data == other.data && dataChecksum == other.dataChecksum &&
               sendTime_sec == other.sendTime_sec && receiveTime_sec == other.receiveTime_sec;
    }

    bytes image;
    words data;
    std::uint16_t dataChecksum;
    double sendTime_sec;
    double receiveTime_sec;
};

gssipMessage messageWith(std::uint16_t id, std::uint16_t flags, words const& data)
{
    gssipMessage message(id, flags, 0);
    EXPECT_TRUE(message.setData(data));
    message.setHeaderChecksum();
    message.setDataChecksum();
    return message;
}

gssipMessage fullMessage()
{
    gssipMessage message = messageWith(0x1234, 0x4000, {0x0102, 0xFFFF});
    message.setSendTimeStamp(12.5);
    message.setReceiveTimeStamp(-3.25);
    return message;
}

bytes const fullImage{0xFF, 0x81, 0x34, 0x12, 0x02, 0x00, 0x00, 0x40, 0xCB, 0x2B, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFE};

TEST(MessageConstruction, Default_IsAnEmptyHeaderOnlyMessage)
{
    gssipMessage const message;

    EXPECT_EQ(message.getSOM(), 0x81FF);
    EXPECT_EQ(message.getId(), 0);
    EXPECT_EQ(message.getDataWordSize(), 0);
    EXPECT_EQ(message.getProtocolFlags(), 0);
    EXPECT_EQ(message.getHeaderChecksum(), 0);
    EXPECT_EQ(message.getDataChecksum(), 0);
    EXPECT_TRUE(message.getData().empty());
    EXPECT_TRUE(message.isHeaderMessage());
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
    EXPECT_EQ(message.getReceiveTimeStamp(), 0.0);
    EXPECT_EQ(message.getHeaderAndDataUint8(), emptyImage);
}

TEST(MessageConstruction, ThreeValuesWithCountZero_IsHeaderOnly)
{
    gssipMessage const message(0x0102, 0x8800, 0);

    EXPECT_EQ(message.getSOM(), 0x81FF);
    EXPECT_EQ(message.getId(), 0x0102);
    EXPECT_EQ(message.getProtocolFlags(), 0x8800);
    EXPECT_EQ(message.getDataWordSize(), 0);
    EXPECT_TRUE(message.getData().empty());
    EXPECT_TRUE(message.isHeaderMessage());
    EXPECT_EQ(message.getSizeBytes(), 10U);
    EXPECT_EQ(message.getSendTimeStamp(), 0.0);
    EXPECT_EQ(message.getReceiveTimeStamp(), 0.0);
}

TEST(MessageConstruction, ThreeValuesWithCount_HoldsThatManyZeroWords)
{
    gssipMessage const message(7, 0x4000, 3);

    EXPECT_EQ(message.getDataWordSize(), 3);
    EXPECT_EQ(message.getData(), (words{0, 0, 0}));
    EXPECT_FALSE(message.isHeaderMessage());
}

TEST(MessageConstruction, ThreeValues_IsValidAsItIs)
{
    EXPECT_TRUE(gssipMessage(1, 0x8800, 0).isValid());
    EXPECT_TRUE(gssipMessage(1, 0x4000, 5).isValid());
}

TEST(MessageWireFormat, HeaderOnlyAcknowledgement_IsTheseTenBytes)
{
    gssipMessage message(1, 0x8800, 0);
    message.setHeaderChecksum();
    message.setDataChecksum();

    EXPECT_EQ(message.getHeaderAndDataUint8(), (bytes{0xFF, 0x81, 0x01, 0, 0, 0, 0, 0x88, 0, 0xF6}));
    EXPECT_EQ(message.getSizeBytes(), 10U);
}

TEST(MessageWireFormat, MessageWithData_IsLeastSignificantByteFirstWithChecksumAtTheEnd)
{
    EXPECT_EQ(fullMessage().getHeaderAndDataUint8(), fullImage);
    EXPECT_EQ(fullMessage().getSizeBytes(), 16U);
}

TEST(MessageWireFormat, DocumentedExamples_AreTheseBytes)
{
    bytes const request{0xFF, 0x81, 0x07, 0x00, 0x03, 0x00, 0x00, 0x40, 0xF7,
                        0x3D, 0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0xFA, 0xFF};
    EXPECT_EQ(messageWith(7, gssipMessage::ACK_REQ_FLAG, {1, 2, 3}).getHeaderAndDataUint8(), request);
    bytes const acknowledgement{0xFF, 0x81, 0x07, 0x00, 0x00, 0x00, 0x00, 0x88, 0xFA, 0xF5};
    EXPECT_EQ(messageWith(7, 0x8800, {}).getHeaderAndDataUint8(), acknowledgement);
}

TEST(MessageWireFormat, ChecksumsAsStored_AreSentRightOrWrong)
{
    gssipMessage message = fullMessage();
    message.setHeaderChecksum(0xABCD);
    message.setDataChecksum(0x0E0F);

    bytes expected = fullImage;
    expected[8] = 0xCD;
    expected[9] = 0xAB;
    expected[14] = 0x0F;
    expected[15] = 0x0E;
    EXPECT_EQ(message.getHeaderAndDataUint8(), expected);
}

TEST(MessageWireFormat, StartOfMessageAsStored_IsSent)
{
    gssipMessage message;
    message.setSOM(0x1122);

    EXPECT_EQ(message.getHeaderAndDataUint8(), (bytes{0x22, 0x11, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(MessageWireFormat, LongestMessage_Is131082Bytes)
{
    words data(65535);
    for (std::size_t place = 0; place < data.size(); ++place)
    {
        data[place] = static_cast<std::uint16_t>(place * 7 + 3);
    }
    gssipMessage const message = messageWith(0xFFFF, 0xFFFF, data);

    EXPECT_EQ(message.getSizeBytes(), 131082U);
    EXPECT_EQ(message.getHeaderAndDataUint8(), kit::frame(0xFFFF, 0xFFFF, data));
}

TEST(MessageWireFormat, DataWordsBeyondTheCount_AreLeftOut)
{
    gssipMessage message(1, 0, 0);
    message.getData() = {0x1111, 0x2222, 0x3333};
    message.setDataWordSize(2, false);
    message.setHeaderChecksum();
    message.setDataChecksum();

    EXPECT_EQ(message.getHeaderAndDataUint8(), kit::frame(1, 0, {0x1111, 0x2222}));
    EXPECT_EQ(message.getSizeBytes(), 16U);
}

TEST(MessageWireFormat, DataWordsWithCountZero_AreLeftOutWithTheirChecksum)
{
    gssipMessage message(1, 0, 0);
    message.getData() = {0x1111};
    message.setHeaderChecksum();
    message.setDataChecksum(0x7777);

    EXPECT_EQ(message.getHeaderAndDataUint8(), kit::frame(1, 0));
    EXPECT_EQ(message.getSizeBytes(), 10U);
}

TEST(MessageWireFormat, MissingDataWords_AreSentAsZero)
{
    gssipMessage message(1, 0, 0);
    message.getData() = {0x1111};
    message.setDataWordSize(3, false);
    message.setHeaderChecksum();
    message.setDataChecksum();

    EXPECT_EQ(message.getHeaderAndDataUint8(), kit::frame(1, 0, {0x1111, 0, 0}));
    EXPECT_EQ(message.getSizeBytes(), 18U);
}

TEST(MessageWireFormat, EveryCountUpToTwenty_GivesSizeOfTheImage)
{
    for (std::uint16_t count = 0; count <= 20; ++count)
    {
        gssipMessage const message(1, 0, count);
        std::size_t const expected = count == 0 ? 10U : (count + 6U) * 2U;
        EXPECT_EQ(message.getSizeBytes(), expected);
        EXPECT_EQ(message.getHeaderAndDataUint8().size(), expected);
    }
}

TEST(MessageImage, VectorThatIsLargeEnough_IsFilledWithoutAllocating)
{
    gssipMessage const message = fullMessage();
    bytes image(1000, 0xEE);
    std::uint8_t const* const place = image.data();
    std::size_t const made = kit::allocationsMade();
    message.getHeaderAndDataUint8(image);
    EXPECT_EQ(kit::allocationsMade(), made);
    EXPECT_EQ(image.data(), place);
    EXPECT_EQ(image, fullImage);
}

TEST(MessageSetters, EachHeaderWord_IsReadBackAndSentAtItsPlace)
{
    gssipMessage message;
    message.setSOM(0x0102);
    message.setId(0x0304);
    message.setDataWordSize(0x0000, false);
    message.setProtocolFlags(0x0506);
    message.setHeaderChecksum(0x0708);

    EXPECT_EQ(message.getSOM(), 0x0102);
    EXPECT_EQ(message.getId(), 0x0304);
    EXPECT_EQ(message.getDataWordSize(), 0);
    EXPECT_EQ(message.getProtocolFlags(), 0x0506);
    EXPECT_EQ(message.getHeaderChecksum(), 0x0708);
    EXPECT_EQ(message.getHeaderAndDataUint8(), (bytes{2, 1, 4, 3, 0, 0, 6, 5, 8, 7}));
}

TEST(MessageSetters, CountWord_IsSentAtItsPlace)
{
    gssipMessage message;
    message.setDataWordSize(0x0201, false);

    EXPECT_EQ(message.getDataWordSize(), 0x0201);
    bytes const image = message.getHeaderAndDataUint8();
    EXPECT_EQ(image[4], 0x01);
    EXPECT_EQ(image[5], 0x02);
}

TEST(MessageSetters, DataChecksum_IsReadBack)
{
    gssipMessage message;
    message.setDataChecksum(0x1234);

    EXPECT_EQ(message.getDataChecksum(), 0x1234);
}

TEST(MessageSetters, TimeStamps_AreKeptApart)
{
    gssipMessage message;
    message.setSendTimeStamp(1.5);
    message.setReceiveTimeStamp(2.5);

    EXPECT_EQ(message.getSendTimeStamp(), 1.5);
    EXPECT_EQ(message.getReceiveTimeStamp(), 2.5);
}

TEST(MessageData, Reference_ChangesTheMessage)
{
    gssipMessage message(1, 0, 1);
    message.getData().at(0) = 0xBEEF;

    gssipMessage const& asConst = message;
    EXPECT_EQ(asConst.getData(), words{0xBEEF});
}

TEST(MessageData, SetDataWordSizeWithResize_BringsTheWordsToTheCount)
{
    gssipMessage message = messageWith(1, 0, {5, 6, 7});

    message.setDataWordSize(5, true);
    EXPECT_EQ(message.getDataWordSize(), 5);
    EXPECT_EQ(message.getData(), (words{5, 6, 7, 0, 0}));

    message.setDataWordSize(2, true);
    EXPECT_EQ(message.getDataWordSize(), 2);
    EXPECT_EQ(message.getData(), (words{5, 6}));

    message.setDataWordSize(0, true);
    EXPECT_TRUE(message.getData().empty());
}

TEST(MessageData, SetDataWordSizeWithResize_ClearsWordsThatComeBack)
{
    gssipMessage message = messageWith(1, 0, {5, 6, 7});
    message.setDataWordSize(1, true);
    message.setDataWordSize(3, true);

    EXPECT_EQ(message.getData(), (words{5, 0, 0}));
}

TEST(MessageData, SetDataWordSizeWithoutResize_LeavesTheWords)
{
    gssipMessage message = messageWith(1, 0, {5, 6, 7});

    message.setDataWordSize(9, false);
    EXPECT_EQ(message.getDataWordSize(), 9);
    EXPECT_EQ(message.getData(), (words{5, 6, 7}));

    message.setDataWordSize(1, false);
    EXPECT_EQ(message.getDataWordSize(), 1);
    EXPECT_EQ(message.getData(), (words{5, 6, 7}));
}

TEST(MessageData, SetData_SetsWordsAndCountTogether)
{
    gssipMessage message;

    EXPECT_TRUE(message.setData({1, 2, 3}));
    EXPECT_EQ(message.getData(), (words{1, 2, 3}));
    EXPECT_EQ(message.getDataWordSize(), 3);

    EXPECT_TRUE(message.setData({}));
    EXPECT_TRUE(message.getData().empty());
    EXPECT_EQ(message.getDataWordSize(), 0);
}

TEST(MessageData, SetDataWithAsManyWordsAsTheCountHolds_IsTaken)
{
    gssipMessage message;

    EXPECT_TRUE(message.setData(words(65535, 0x5A5A)));
    EXPECT_EQ(message.getDataWordSize(), 65535);
    EXPECT_EQ(message.getData().size(), 65535U);
}

TEST(MessageData, SetDataWithOneWordTooMany_ChangesNothing)
{
    gssipMessage message = fullMessage();
    contents const before(message);

    EXPECT_FALSE(message.setData(words(65536, 0x5A5A)));
    EXPECT_TRUE(contents(message) == before);
}

TEST(MessageData, SetDataFromTheMessagesOwnWords_KeepsThem)
{
    gssipMessage message = messageWith(1, 0, {1, 2, 3});
    message.setDataWordSize(1, false);

    EXPECT_TRUE(message.setData(message.getData()));
    EXPECT_EQ(message.getData(), (words{1, 2, 3}));
    EXPECT_EQ(message.getDataWordSize(), 3);
}

TEST(MessageFlags, Bits_HaveTheseValues)
{
    EXPECT_EQ(std::uint16_t{gssipMessage::SOM}, 0x81FF);
    EXPECT_EQ(std::uint16_t{gssipMessage::REPLY_FLAG}, 0x8000);
    EXPECT_EQ(std::uint16_t{gssipMessage::ACK_REQ_FLAG}, 0x4000);
    EXPECT_EQ(std::uint16_t{gssipMessage::HANDSHAKE_FLAG}, 0x1000);
    EXPECT_EQ(std::uint16_t{gssipMessage::ACK_FLAG}, 0x0800);
    EXPECT_EQ(std::uint16_t{gssipMessage::NAK_FLAG}, 0x0400);
    EXPECT_EQ(std::uint16_t{gssipMessage::REJECT_FLAG}, 0x0200);
    EXPECT_EQ(std::uint16_t{gssipMessage::REJECT_EXTRA_FLAG}, 0x0100);
}

TEST(MessageFlags, EachQuery_LooksAtItsBitOnly)
{
    for (unsigned bit = 1; bit <= 0x8000; bit <<= 1U)
    {
        auto const alone = static_cast<std::uint16_t>(bit);
        auto const others = static_cast<std::uint16_t>(~bit);
        gssipMessage const only(1, alone, 0);
        gssipMessage const allButOne(1, others, 0);

        EXPECT_EQ(only.isAckReqFlagSet(), alone == 0x4000);
        EXPECT_EQ(only.isHandshakeFlagSet(), alone == 0x1000);
        EXPECT_EQ(only.isAckMsgFlagSet(), alone == 0x0800);
        EXPECT_EQ(only.isNakMsgFlagSet(), alone == 0x0400);

        EXPECT_EQ(allButOne.isAckReqFlagSet(), alone != 0x4000);
        EXPECT_EQ(allButOne.isHandshakeFlagSet(), alone != 0x1000);
        EXPECT_EQ(allButOne.isAckMsgFlagSet(), alone != 0x0800);
        EXPECT_EQ(allButOne.isNakMsgFlagSet(), alone != 0x0400);
    }
}

TEST(MessageFlags, RepliesWholeWords_AreToldApart)
{
    EXPECT_TRUE(gssipMessage(1, 0x8800, 0).isAckMsgFlagSet());
    EXPECT_FALSE(gssipMessage(1, 0x8800, 0).isNakMsgFlagSet());
    EXPECT_TRUE(gssipMessage(1, 0x8400, 0).isNakMsgFlagSet());
    EXPECT_FALSE(gssipMessage(1, 0x8400, 0).isAckMsgFlagSet());
    for (std::uint16_t const reject : {std::uint16_t{0x9200}, std::uint16_t{0x9300}})
    {
        gssipMessage const message(1, reject, 0);
        EXPECT_TRUE(message.isHandshakeFlagSet());
        EXPECT_FALSE(message.isAckMsgFlagSet());
        EXPECT_FALSE(message.isNakMsgFlagSet());
        EXPECT_FALSE(message.isAckReqFlagSet());
    }
}

TEST(MessageHeaderOnly, IsTold_ByTheCountAlone)
{
    gssipMessage message;
    message.getData() = {1};
    EXPECT_TRUE(message.isHeaderMessage());

    message.getData().clear();
    message.setDataWordSize(1, false);
    EXPECT_FALSE(message.isHeaderMessage());
}

TEST(MessageChecksum, HeaderExample_IsF600)
{
    gssipMessage message;
    message.setId(1);
    message.setProtocolFlags(0x8800);
    message.setHeaderChecksum();

    EXPECT_EQ(message.getHeaderChecksum(), 0xF600);
}

TEST(MessageChecksum, Header_MakesFiveWordsSumToZero)
{
    gssipMessage message(0xFFFF, 0xFFFF, 0);
    message.setDataWordSize(0xFFFF, false);
    message.setHeaderChecksum();

    unsigned const sum = 0x81FFU + 0xFFFFU + 0xFFFFU + 0xFFFFU + message.getHeaderChecksum();
    EXPECT_EQ(sum & 0xFFFFU, 0U);
}

TEST(MessageChecksum, HeaderWithAForeignStartOfMessage_CountsItAsItStands)
{
    gssipMessage message;
    message.setSOM(0x0001);
    message.setHeaderChecksum();

    EXPECT_EQ(message.getHeaderChecksum(), 0xFFFF);
}

TEST(MessageChecksum, Data_IsTheNegatedSum)
{
    EXPECT_EQ(messageWith(1, 0, {1}).getDataChecksum(), 0xFFFF);
    EXPECT_EQ(messageWith(1, 0, {0}).getDataChecksum(), 0);
    EXPECT_EQ(messageWith(1, 0, {0x8000, 0x8000}).getDataChecksum(), 0);
    EXPECT_EQ(messageWith(1, 0, {0x0102, 0xFFFF}).getDataChecksum(), 0xFEFF);
    EXPECT_EQ(messageWith(1, 0, words(65535, 0xFFFF)).getDataChecksum(), 0xFFFF);
}

TEST(MessageChecksum, DataOfAHeaderOnlyMessage_IsZero)
{
    gssipMessage message;
    message.setDataChecksum(0x1234);
    message.setDataChecksum();
    EXPECT_EQ(message.getDataChecksum(), 0);

    message.getData() = {0x1111};
    message.setDataChecksum();
    EXPECT_EQ(message.getDataChecksum(), 0);
}

TEST(MessageChecksum, Data_CountsTheWordsSentOnly)
{
    gssipMessage message(1, 0, 0);
    message.getData() = {1, 2, 4};
    message.setDataWordSize(2, false);
    message.setDataChecksum();
    EXPECT_EQ(message.getDataChecksum(), 0xFFFD);

    message.setDataWordSize(7, false);
    message.setDataChecksum();
    EXPECT_EQ(message.getDataChecksum(), 0xFFF9);
}

TEST(MessageChecksum, Header_LeavesTheDataChecksumAndViceVersa)
{
    gssipMessage message = fullMessage();
    message.setHeaderChecksum(1);
    message.setDataChecksum(2);
    message.setHeaderChecksum();
    EXPECT_EQ(message.getDataChecksum(), 2);

    message.setHeaderChecksum(1);
    message.setDataChecksum();
    EXPECT_EQ(message.getHeaderChecksum(), 1);
}

TEST(MessageValidity, RightMessages_AreValid)
{
    EXPECT_TRUE(messageWith(1, 0x4000, {}).isValid());
    EXPECT_TRUE(messageWith(1, 0x4000, {9}).isValid());
    EXPECT_TRUE(messageWith(1, 0x4000, words(65535, 0x1234)).isValid());
}

TEST(MessageValidity, EmptyMessage_IsNot)
{
    EXPECT_FALSE(gssipMessage().isValid());
}

TEST(MessageValidity, WrongStartOfMessage_IsNot)
{
    gssipMessage message = fullMessage();
    message.setSOM(0x81FE);
    message.setHeaderChecksum();

    EXPECT_FALSE(message.isValid());
}

TEST(MessageValidity, WrongHeaderChecksum_IsNot)
{
    gssipMessage message = fullMessage();
    message.setHeaderChecksum(static_cast<std::uint16_t>(message.getHeaderChecksum() + 1));

    EXPECT_FALSE(message.isValid());
}

TEST(MessageValidity, FewerWordsThanTheCount_IsNot)
{
    gssipMessage message = messageWith(1, 0, {1, 2});
    message.setDataWordSize(3, false);
    message.setHeaderChecksum();
    message.setDataChecksum();

    EXPECT_FALSE(message.isValid());
}

TEST(MessageValidity, MoreWordsThanTheCount_IsNot)
{
    gssipMessage message = messageWith(1, 0, {1, 2});
    message.setDataWordSize(1, false);
    message.setHeaderChecksum();
    message.setDataChecksum();
    EXPECT_FALSE(message.isValid());

    message.setDataWordSize(0, false);
    message.setHeaderChecksum();
    message.setDataChecksum();
    EXPECT_FALSE(message.isValid());
}

TEST(MessageValidity, WrongDataChecksum_IsNot)
{
    gssipMessage message = fullMessage();
    message.setDataChecksum(static_cast<std::uint16_t>(message.getDataChecksum() ^ 0x8000U));

    EXPECT_FALSE(message.isValid());
}

TEST(MessageValidity, DataChecksumOfAHeaderOnlyMessage_DoesNotMatter)
{
    gssipMessage message = messageWith(1, 0, {});
    message.setDataChecksum(0x4321);

    EXPECT_TRUE(message.isValid());
}

TEST(MessageClear, FullMessage_BecomesAnEmptyOne)
{
    gssipMessage message = fullMessage();
    message.setSOM(0x1111);
    message.clear();

    EXPECT_TRUE(contents(message) == contents(gssipMessage()));
    EXPECT_EQ(message.getHeaderAndDataUint8(), emptyImage);
}

TEST(MessageClear, Memory_IsKeptForLaterUse)
{
    gssipMessage message = messageWith(1, 0, words(1000, 5));
    std::uint16_t const* const place = message.getData().data();
    message.clear();
    std::size_t const made = kit::allocationsMade();
    message.setId(2);
    message.setDataWordSize(1000, true);
    EXPECT_EQ(kit::allocationsMade(), made);
    EXPECT_EQ(message.getData().data(), place);
}

TEST(MessageCopy, Construction_TakesAllMembers)
{
    gssipMessage const source = fullMessage();
    gssipMessage const copy(source);

    EXPECT_TRUE(contents(copy) == contents(source));
    EXPECT_EQ(copy.getSendTimeStamp(), 12.5);
    EXPECT_EQ(copy.getReceiveTimeStamp(), -3.25);
}

TEST(MessageCopy, Assignment_ReplacesAllMembers)
{
    gssipMessage const source = fullMessage();
    gssipMessage copy = messageWith(9, 0x0100, {7, 7, 7, 7});
    copy = source;

    EXPECT_TRUE(contents(copy) == contents(source));
}

TEST(MessageCopy, SourceChangedClearedOrDestroyed_KeepsItsData)
{
    auto source = std::make_unique<gssipMessage>(fullMessage());
    contents const original(*source);
    gssipMessage const constructed(*source);
    gssipMessage assigned;
    assigned = *source;

    source->getData().at(0) = 0;
    source->setId(0);
    EXPECT_TRUE(contents(constructed) == original);
    EXPECT_TRUE(contents(assigned) == original);

    source->clear();
    EXPECT_TRUE(contents(constructed) == original);
    EXPECT_TRUE(contents(assigned) == original);

    source.reset();
    EXPECT_TRUE(contents(constructed) == original);
    EXPECT_TRUE(contents(assigned) == original);
}

TEST(MessageCopy, AssignmentToItself_ChangesNothing)
{
    gssipMessage message = fullMessage();
    contents const before(message);
    gssipMessage const& same = message;
    message = same;

    EXPECT_TRUE(contents(message) == before);
}

TEST(MessageMove, Operations_PromiseNotToThrow)
{
    static_assert(std::is_nothrow_move_constructible_v<gssipMessage>);
    static_assert(std::is_nothrow_move_assignable_v<gssipMessage>);
    SUCCEED();
}

TEST(MessageMove, Construction_TakesTheContentsWithoutAllocating)
{
    gssipMessage source = fullMessage();
    contents const before(source);
    std::uint16_t const* const place = source.getData().data();

    std::size_t const made = kit::allocationsMade();
    gssipMessage const target(std::move(source));
    EXPECT_EQ(kit::allocationsMade(), made);

    EXPECT_EQ(target.getData().data(), place);
    EXPECT_TRUE(contents(target) == before);
}

TEST(MessageMove, Assignment_TakesTheContentsWithoutAllocating)
{
    gssipMessage source = fullMessage();
    contents const before(source);
    std::uint16_t const* const place = source.getData().data();
    gssipMessage target = messageWith(9, 0x0100, {7, 7, 7, 7});

    std::size_t const made = kit::allocationsMade();
    target = std::move(source);
    EXPECT_EQ(kit::allocationsMade(), made);

    EXPECT_EQ(target.getData().data(), place);
    EXPECT_TRUE(contents(target) == before);
}

TEST(MessageMove, GrowingVector_MovesItsMessages)
{
    std::vector<gssipMessage> messages;
    messages.push_back(fullMessage());
    std::uint16_t const* const place = messages.front().getData().data();
    messages.reserve(messages.capacity() + 1);

    EXPECT_EQ(messages.front().getData().data(), place);
}

// The uses below of a message that was moved from are what it promises.
// NOLINTBEGIN(bugprone-use-after-move)

TEST(MessageMove, Source_IsLeftEmpty)
{
    gssipMessage source = fullMessage();
    gssipMessage const target(std::move(source));
    EXPECT_EQ(source.getHeaderAndDataUint8(), emptyImage);
    EXPECT_TRUE(source.getData().empty());
    gssipMessage assigned;
    source = fullMessage();
    assigned = std::move(source);
    EXPECT_EQ(source.getHeaderAndDataUint8(), emptyImage);
    EXPECT_TRUE(source.getData().empty());
}

TEST(MessageMove, SourceCleared_IsAnEmptyMessageAgain)
{
    gssipMessage source = fullMessage();
    gssipMessage const target(std::move(source));
    std::size_t const made = kit::allocationsMade();
    source.clear();
    EXPECT_EQ(kit::allocationsMade(), made);

    EXPECT_TRUE(contents(source) == contents(gssipMessage()));
    source.setId(5);
    source.setHeaderChecksum();
    EXPECT_EQ(source.getHeaderAndDataUint8(), kit::frame(5, 0));
}

TEST(MessageMove, SourceAssigned_HoldsTheNewContents)
{
    gssipMessage source = fullMessage();
    gssipMessage const target(std::move(source));

    source = target;
    EXPECT_TRUE(contents(source) == contents(target));

    gssipMessage const elsewhere(std::move(source));
    source = messageWith(3, 0, {4});
    EXPECT_EQ(source.getHeaderAndDataUint8(), kit::frame(3, 0, {4}));
}

TEST(MessageMove, SourceDestroyed_LeavesTheTargetAlone)
{
    auto source = std::make_unique<gssipMessage>(fullMessage());
    contents const before(*source);
    gssipMessage const target(std::move(*source));
    source.reset();

    EXPECT_TRUE(contents(target) == before);
}

TEST(MessageMove, EmptyMessages_CanBeMovedToo)
{
    gssipMessage source;
    gssipMessage target(std::move(source));
    EXPECT_EQ(target.getHeaderAndDataUint8(), emptyImage);

    target = gssipMessage();
    EXPECT_EQ(target.getHeaderAndDataUint8(), emptyImage);
}

// NOLINTEND(bugprone-use-after-move)

/// Lets each allocation of the operation fail in turn; each time the message must be what it was before.
void expectUnchangedByFailedAllocations(gssipMessage const& initial,
                                        std::function<void(gssipMessage&)> const& operation)
{
    contents const before(initial);
    for (std::size_t successes = 0;; ++successes)
    {
        gssipMessage message(initial);
        message.getData().shrink_to_fit();
        bool failed = false;
        {
            kit::oneFailingAllocation const failure(successes);
            try
            {
                operation(message);
            }
            catch (std::bad_alloc const&)
            {
                failed = true;
            }
        }
        if (!failed)
        {
            EXPECT_GT(successes, 0U) << "the operation did not allocate";
            return;
        }
        EXPECT_TRUE(contents(message) == before) << "when allocation " << successes << " fails";
    }
}

TEST(MessageMemoryExhausted, SetData_LeavesTheMessageAsItWas)
{
    words const more(1000, 1);
    expectUnchangedByFailedAllocations(fullMessage(), [&](gssipMessage& message) { message.setData(more); });
}

TEST(MessageMemoryExhausted, SetDataOnAnEmptyMessage_LeavesItEmpty)
{
    words const more(1000, 1);
    expectUnchangedByFailedAllocations(gssipMessage(), [&](gssipMessage& message) { message.setData(more); });
}

TEST(MessageMemoryExhausted, SetDataWordSize_LeavesTheMessageAsItWas)
{
    expectUnchangedByFailedAllocations(fullMessage(),
                                       [](gssipMessage& message) { message.setDataWordSize(1000, true); });
}

TEST(MessageMemoryExhausted, SetDataWordSizeOnAnEmptyMessage_LeavesItEmpty)
{
    expectUnchangedByFailedAllocations(gssipMessage(),
                                       [](gssipMessage& message) { message.setDataWordSize(1000, true); });
}

TEST(MessageMemoryExhausted, Assignment_LeavesTheTargetAsItWas)
{
    gssipMessage const source = messageWith(77, 0x0100, words(1000, 1));
    expectUnchangedByFailedAllocations(fullMessage(), [&](gssipMessage& message) { message = source; });
}

TEST(MessageMemoryExhausted, AssignmentToAnEmptyMessage_LeavesItEmpty)
{
    gssipMessage const source = messageWith(77, 0x0100, words(1000, 1));
    expectUnchangedByFailedAllocations(gssipMessage(), [&](gssipMessage& message) { message = source; });
}

TEST(MessageMemoryExhausted, Image_LeavesTheMessageAsItWas)
{
    expectUnchangedByFailedAllocations(
        fullMessage(), [](gssipMessage& message) { static_cast<void>(message.getHeaderAndDataUint8()); });
}

/// A message that judges itself otherwise and tells of its end.
class derivedMessage : public gssipMessage
{
  public:
    derivedMessage(bool verdict, bool& destroyedFlag) : ownVerdict(verdict), destroyed(destroyedFlag) {}
    ~derivedMessage() override { destroyed = true; }
    bool isValid() const override { return ownVerdict; }

  private:
    bool ownVerdict;
    bool& destroyed;
};

TEST(MessageBinaryInterface, IsValid_StandsBehindTheDestructorsTwoEntries)
{
    static_assert(std::has_virtual_destructor_v<gssipMessage>);
    EXPECT_EQ(kit::virtualSlot(&gssipMessage::isValid), 2);
    EXPECT_EQ(kit::virtualSlot(&gssipMessage::clear), -1);
}

TEST(MessageBinaryInterface, DerivedClass_IsReachedThroughTheBase)
{
    bool destroyed = false;
    std::unique_ptr<gssipMessage> message = std::make_unique<derivedMessage>(true, destroyed);
    EXPECT_TRUE(message->isValid());

    message.reset();
    EXPECT_TRUE(destroyed);
}

TEST(MessageBinaryInterface, Members_AreTwoVectorsAWordAndTwoDoubles)
{
    struct sameMembers
    {
        void* table;
        std::vector<std::uint16_t> first;
        std::vector<std::uint16_t> second;
        std::uint16_t word;
        double oneTime;
        double otherTime;
    };
    static_assert(sizeof(gssipMessage) == sizeof(sameMembers));
    static_assert(alignof(gssipMessage) == alignof(sameMembers));
    SUCCEED();
}

TEST(MessageRandom, RoundTrips_MatchTheFrameComposedByHand)
{
    auto const seed = std::random_device{}();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    std::uniform_int_distribution<unsigned> anyWord(0, 0xFFFF);
    std::uniform_int_distribution<std::size_t> anyCount(0, 300);
    auto const word = [&] { return static_cast<std::uint16_t>(anyWord(random)); };

    gssipMessage message;
    for (int round = 0; round < 500; ++round)
    {
        std::uint16_t const id = word();
        std::uint16_t const flags = word();
        words data(anyCount(random));
        for (std::uint16_t& next : data)
        {
            next = word();
        }

        message.clear();
        message.setId(id);
        message.setProtocolFlags(flags);
        message.setDataWordSize(static_cast<std::uint16_t>(data.size()), true);
        message.getData() = data;
        message.setHeaderChecksum();
        message.setDataChecksum();

        ASSERT_EQ(message.getHeaderAndDataUint8(), kit::frame(id, flags, data)) << "round " << round;
        ASSERT_EQ(message.getSizeBytes(), kit::frame(id, flags, data).size()) << "round " << round;
        ASSERT_TRUE(message.isValid()) << "round " << round;
        ASSERT_TRUE(gssipMessage(message).isValid()) << "round " << round;
    }
}

TEST(MessageRandom, OneBitFlipped_IsNeverValid)
{
    auto const seed = std::random_device{}();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    std::uniform_int_distribution<std::size_t> anyPlace(0, 19);
    std::uniform_int_distribution<unsigned> anyBit(0, 15);

    for (int round = 0; round < 500; ++round)
    {
        gssipMessage message = messageWith(0x4711, 0x4000, words(20, 0xA55A));
        std::uint16_t& hit = message.getData().at(anyPlace(random));
        hit = static_cast<std::uint16_t>(hit ^ (1U << anyBit(random)));

        ASSERT_FALSE(message.isValid()) << "round " << round;
    }
}

} // namespace
