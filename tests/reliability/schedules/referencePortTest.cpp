#include "referencePort.h"

#include "frames.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

using namespace reference;
using kit::frame;
using kit::operator+;

constexpr std::uint16_t request = 0x4000;
constexpr std::uint16_t ack = 0x8800;
constexpr std::uint16_t nak = 0x8400;

habits plain()
{
    habits how;
    how.number = "7";
    how.times = {1000, 10};
    return how;
}

order send(std::int64_t when_ns, bytes const& content)
{
    return {when_ns, order::message, content, true, {}};
}

/// When, who, and the id of what was written.
std::vector<std::string> writtenIn(history const& seen)
{
    std::vector<std::string> lines;
    for (writing const& each : seen.written)
    {
        char const* const names[] = {"receiving", "framing", "transmitting", "clock", "application"};
        lines.push_back(std::to_string(each.when_ns) + " " + names[static_cast<int>(each.by)] + " " +
                        std::to_string(each.content.at(2)) + " " + std::to_string(each.content.size()));
    }
    return lines;
}

using lines = std::vector<std::string>;

TEST(ReferencePort, Request_IsAcknowledgedWhenItsLastByteHasCome)
{
    bytes const whole = frame(5, request, {1});
    bytes const head(whole.begin(), whole.end() - 1);
    history const seen = predict(plain(), {{100, head}, {200, {whole.back()}}}, {});
    EXPECT_EQ(writtenIn(seen), (lines{"200 receiving 5 10"}));
    ASSERT_EQ(seen.delivered.size(), 1U);
    EXPECT_EQ(seen.delivered[0].when_ns, 200);
    EXPECT_FALSE(seen.delivered[0].invalid);
    EXPECT_EQ(seen.written[0].content, frame(5, ack));
}

TEST(ReferencePort, WrongDataChecksum_IsRefusedAndLogged)
{
    history const seen = predict(plain(), {{100, kit::frameWithBadData(5, request, {1})}}, {});
    ASSERT_EQ(seen.written.size(), 1U);
    EXPECT_EQ(seen.written[0].content, frame(5, nak));
    ASSERT_EQ(seen.logged.size(), 1U);
    EXPECT_EQ(seen.logged[0].text, "Port(7) Invalid Message");
    ASSERT_EQ(seen.delivered.size(), 1U);
    EXPECT_TRUE(seen.delivered[0].invalid);
}

TEST(ReferencePort, WrongHeader_IsLoggedWithItsTenthByte)
{
    bytes const whole = kit::frameWithBadHeader(5, request);
    bytes const head(whole.begin(), whole.end() - 1);
    history const seen = predict(plain(), {{100, head}, {200, {whole.back()}}}, {});
    ASSERT_EQ(seen.logged.size(), 1U);
    EXPECT_EQ(seen.logged[0].when_ns, 200);
    EXPECT_EQ(seen.logged[0].text, "gssipReceive(7) Header Checksum ERROR Detected");
    EXPECT_TRUE(seen.written.empty());
}

TEST(ReferencePort, Unanswered_IsWrittenTwice)
{
    history const seen = predict(plain(), {}, {send(50, frame(5, request))});
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 10", "1150 clock 5 10"}));
}

TEST(ReferencePort, LongerMessage_HasLongerTime)
{
    history const seen = predict(plain(), {}, {send(50, frame(5, request, {1, 2, 3}))});
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 18", "1230 clock 5 18"}));
}

TEST(ReferencePort, Acknowledged_IsWrittenOnce)
{
    history const seen = predict(plain(), {{1149, frame(5, ack)}}, {send(50, frame(5, request))});
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 10"}));
    EXPECT_TRUE(seen.delivered.empty());
}

TEST(ReferencePort, Refused_IsResentAtOnceAndThenForgotten)
{
    history const seen =
        predict(plain(), {{100, frame(5, nak)}, {200, frame(5, nak) + frame(5, nak)}}, {send(50, frame(5, request))});
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 10", "100 receiving 5 10"}));
}

TEST(ReferencePort, RefusedBehindTheClocksCopy_IsForgotten)
{
    history const seen = predict(plain(), {{1200, frame(5, nak)}}, {send(50, frame(5, request))});
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 10", "1150 clock 5 10"}));
}

TEST(ReferencePort, TwoOfOneId_TheEarlierDeadlineIsSettled)
{
    // Longer, and so due later although it was written first.
    std::vector<order> const orders{send(50, frame(5, request, {1, 2, 3})), send(60, frame(5, request))};
    history const seen = predict(plain(), {{100, frame(5, ack)}}, orders);
    EXPECT_EQ(writtenIn(seen), (lines{"50 transmitting 5 18", "60 transmitting 5 10", "1230 clock 5 18"}));
}

TEST(ReferencePort, AnswerWithData_SettlesNothingAndIsDelivered)
{
    history const seen = predict(plain(), {{100, frame(5, ack, {1})}}, {send(50, frame(5, request))});
    EXPECT_EQ(seen.written.size(), 2U);
    EXPECT_EQ(seen.delivered.size(), 1U);
}

TEST(ReferencePort, Handshake_IsSwallowed)
{
    EXPECT_TRUE(predict(plain(), {{100, frame(5, 0x1000)}}, {}).delivered.empty());
}

TEST(ReferencePort, NotTracked_IsWrittenOnce)
{
    order given = send(50, frame(5, request));
    given.tracked = false;
    EXPECT_EQ(predict(plain(), {}, {given}).written.size(), 1U);
    EXPECT_EQ(predict(plain(), {}, {send(50, frame(5, 0))}).written.size(), 1U);
}

} // namespace
