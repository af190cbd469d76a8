#include "lossyJudge.h"

#include "frames.h"
#include "referenceDecoder.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

namespace
{

using namespace schedules;
using kit::frame;
using kit::operator+;
using testing::HasSubstr;
using testing::StartsWith;

// Agreement.

constexpr std::int64_t SOON_NS = 1000;

happening at(std::int64_t when_ns, unsigned by, bytes const& content)
{
    return {when_ns, by, content};
}

std::string differenceOf(std::vector<happening> const& expected, std::vector<happening> const& observed)
{
    std::vector<happening> order;
    return disagreement(expected, observed, order);
}

TEST(Agreement, SameAtTheSameTimes_Agrees)
{
    EXPECT_EQ(differenceOf({at(1, 0, {1, 2}), at(SOON_NS, 0, {3})}, {at(1, 9, {1, 2}), at(SOON_NS, 9, {3})}), "");
    EXPECT_EQ(differenceOf({}, {}), "");
}

TEST(Agreement, ObservedInPieces_Agrees)
{
    EXPECT_EQ(differenceOf({at(1, 0, {1, 2, 3})}, {at(1, 9, {1}), at(1, 9, {2, 3})}), "");
}

TEST(Agreement, SourcesInAnyOrder_AgreeAndTellTheirs)
{
    std::vector<happening> order;
    std::vector<happening> const expected{at(1, 0, {1, 1}), at(1, 0, {2}), at(1, 1, {1, 3})};
    EXPECT_EQ(disagreement(expected, {at(1, 9, {1, 1, 1, 3, 2})}, order), "");
    ASSERT_EQ(order.size(), 3U);
    EXPECT_EQ(order[1].content, (bytes{1, 3}));
    EXPECT_EQ(order[2].content, (bytes{2}));
}

TEST(Agreement, OneSourceInAnotherOrder_Differs)
{
    EXPECT_NE(differenceOf({at(1, 0, {1}), at(1, 0, {2})}, {at(1, 9, {2, 1})}), "");
}

TEST(Agreement, OneCutByAnother_Differs)
{
    EXPECT_NE(differenceOf({at(1, 0, {1, 2}), at(1, 1, {3})}, {at(1, 9, {1, 3, 2})}), "");
}

TEST(Agreement, OtherBytes_DifferAndAreShown)
{
    EXPECT_EQ(differenceOf({at(1, 0, {0xFF, 0x81})}, {at(1, 9, {0xFF, 0x80})}),
              "at 0.000000001 s was to come:\n    FF 81 \n  and came:\n    FF 80 ");
}

TEST(Agreement, TooMuchTooLittleAndTooLate_Differ)
{
    EXPECT_THAT(differenceOf({at(1, 0, {1})}, {}), HasSubstr("and came:\n    nothing"));
    EXPECT_THAT(differenceOf({}, {at(1, 9, {1})}), HasSubstr("was to come:\n    nothing"));
    EXPECT_NE(differenceOf({at(1, 0, {1})}, {at(1, 9, {1, 1})}), "");
    EXPECT_NE(differenceOf({at(1, 0, {1})}, {at(1 + SOON_NS, 9, {1})}), "");
}

// What holds whatever a model says.

/// Frames on their way, and what a receiver finds in what arrives.
class LossyJudge : public testing::Test
{
  protected:
    void write(bytes const& content)
    {
        frames.push_back({0, 0, content});
        for (std::uint8_t const value : content)
        {
            arrived.push_back({value, sent++, false});
        }
    }
    void lose(std::size_t count) { arrived.resize(arrived.size() - count); }
    void insert(std::uint8_t value) { arrived.push_back({value, -1, true}); }
    void damage(std::size_t fromTheEnd)
    {
        lossyMedium::fateOfByte& which = arrived[arrived.size() - fromTheEnd];
        which.value = static_cast<std::uint8_t>(which.value ^ 0x10U);
        which.isDamaged = true;
    }
    void receive()
    {
        bytes stream;
        for (lossyMedium::fateOfByte const& each : arrived)
        {
            stream.push_back(each.value);
        }
        framed = kit::decode(stream).frames;
    }
    oneWayStory story() const { return {arrived, frames, orders, framed}; }

    std::vector<lossyMedium::fateOfByte> arrived;
    std::vector<happening> frames;
    std::vector<reference::order> orders;
    std::vector<kit::decodedFrame> framed;
    std::int64_t sent = 0;
    lossyTally tally;
    bytes const request = frame(7, 0x4000, {1});
};

TEST_F(LossyJudge, TrackedRequest_MayBeWrittenTwice)
{
    orders.push_back({0, reference::order::message, request, true, {}});
    write(request);
    write(request);
    EXPECT_EQ(writtenTooOften(story()), "");
    write(request);
    EXPECT_EQ(writtenTooOften(story()), "id 7 is written more than 2 times");
}

TEST_F(LossyJudge, OtherMessages_MayBeWrittenOnce)
{
    orders.push_back({0, reference::order::message, request, false, {}});
    orders.push_back({0, reference::order::message, frame(8, 0), true, {}});
    write(request);
    write(frame(8, 0));
    EXPECT_EQ(writtenTooOften(story()), "");
    write(frame(8, 0));
    EXPECT_EQ(writtenTooOften(story()), "id 8 is written more than 1 times");
}

TEST_F(LossyJudge, FrameThatNobodyWrote_IsNoticed)
{
    write(request);
    write(request);
    receive();
    EXPECT_EQ(unexplained(story(), tally), "");
    framed[1].begin -= 2;
    EXPECT_THAT(unexplained(story(), tally), StartsWith("nobody has written what begins with byte 12 "));
}

TEST_F(LossyJudge, FrameInsideDamage_IsExplained)
{
    write(request);
    damage(1);
    receive();
    EXPECT_EQ(unexplained(story(), tally), "");
    EXPECT_EQ(tally.refused, 1U);
    EXPECT_EQ(tally.unnoticed, 0U);
}

TEST_F(LossyJudge, UndamagedFrames_MustBeReceived)
{
    write(request);
    write(request);
    receive();
    EXPECT_EQ(notFoundAgain(story(), tally), "");
    EXPECT_EQ(tally.foundAgain, 2U);
    framed.pop_back();
    EXPECT_THAT(notFoundAgain(story(), tally),
                StartsWith("not received: the undamaged frame that begins with byte 14 "));
}

TEST_F(LossyJudge, FrameEightBytesBehindDamage_MustBeReceived)
{
    insert(0xFF);
    write({0x81, 1, 2, 3, 4, 5, 6, 7});
    write(request);
    receive();
    EXPECT_EQ(framed.size(), 1U);
    EXPECT_EQ(notFoundAgain(story(), tally), "");
    EXPECT_EQ(tally.foundAgain, 1U);
    framed.clear();
    EXPECT_NE(notFoundAgain(story(), tally), "");
}

TEST_F(LossyJudge, FrameSevenBytesBehindDamage_MayBeLost)
{
    insert(0xFF);
    write({0x81, 1, 2, 3, 4, 5, 6});
    write(request);
    receive();
    EXPECT_TRUE(framed.empty());
    EXPECT_EQ(notFoundAgain(story(), tally), "");
    EXPECT_EQ(tally.excused, 1U);
}

TEST_F(LossyJudge, FramesHeldByAPromise_MayBeLost)
{
    bytes const promise = frame(1, 0, std::vector<std::uint16_t>(20, 0));
    write(promise);
    lose(30);
    write(request);
    write(request);
    receive();
    EXPECT_TRUE(framed.empty());
    EXPECT_EQ(notFoundAgain(story(), tally), "");
    EXPECT_EQ(tally.excused, 2U);
}

} // namespace
