#include "frameSplitter.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <vector>

namespace
{

using examples::bytes;
using examples::frameSplitter;
using examples::piece;
using testing::ElementsAre;
using testing::IsEmpty;

bytes const headerOnly{0xFF, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x88, 0x00, 0xF6};
bytes const withData{0xFF, 0x81, 0x02, 0x00, 0x01, 0x00, 0x00, 0x40, 0xFE, 0x3D, 0x34, 0x12, 0xCC, 0xED};
bytes const filler(20, 0xFF);

bytes joined(std::vector<bytes> const& parts)
{
    bytes whole;
    for (bytes const& part : parts)
    {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

MATCHER_P2(Piece, kind, image, "")
{
    return arg.what == kind && arg.image == bytes(image);
}

TEST(FrameSplitter, Split_HeaderOnlyFrame)
{
    EXPECT_THAT(frameSplitter().split(headerOnly), ElementsAre(Piece(piece::FRAME, headerOnly)));
}

TEST(FrameSplitter, Split_FramesFillerAndNoiseTogether)
{
    bytes const noise{0x00, 0x81, 0xFF, 0x55};
    EXPECT_THAT(frameSplitter().split(joined({noise, withData, filler, headerOnly})),
                ElementsAre(Piece(piece::OTHER, noise), Piece(piece::FRAME, withData), Piece(piece::FILLER, filler),
                            Piece(piece::FRAME, headerOnly)));
}

TEST(FrameSplitter, Split_AtEveryPosition_FindsTheSameFrames)
{
    bytes const stream = joined({headerOnly, withData, headerOnly});
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
    {
        frameSplitter splitter;
        auto const middle = stream.begin() + static_cast<std::ptrdiff_t>(cut);
        std::vector<piece> found = splitter.split(bytes(stream.begin(), middle));
        for (piece& next : splitter.split(bytes(middle, stream.end())))
        {
            found.push_back(next);
        }
        EXPECT_THAT(found, ElementsAre(Piece(piece::FRAME, headerOnly), Piece(piece::FRAME, withData),
                                       Piece(piece::FRAME, headerOnly)))
            << "cut at " << cut;
    }
}

TEST(FrameSplitter, Split_WrongHeaderChecksum_IsNoFrame)
{
    bytes wrong = headerOnly;
    wrong.back() ^= 0x01U;
    EXPECT_THAT(frameSplitter().split(joined({wrong, withData})),
                ElementsAre(Piece(piece::OTHER, wrong), Piece(piece::FRAME, withData)));
}

TEST(FrameSplitter, Split_UnfinishedFrame_WaitsForTheRest)
{
    frameSplitter splitter;
    EXPECT_THAT(splitter.split(bytes(withData.begin(), withData.end() - 1)), IsEmpty());
    EXPECT_THAT(splitter.split(bytes(withData.end() - 1, withData.end())), ElementsAre(Piece(piece::FRAME, withData)));
}

TEST(FrameSplitter, Split_NoiseThatEndsLikeAStart_BelongsToTheFrame)
{
    for (std::size_t fills = 1; fills < 20; ++fills)
    {
        bytes const noise(fills, 0xFF);
        EXPECT_THAT(frameSplitter().split(joined({noise, headerOnly})),
                    ElementsAre(Piece(piece::OTHER, noise), Piece(piece::FRAME, headerOnly)));
    }
}

TEST(FrameSplitter, FrameFields_AreReadLowByteFirst)
{
    EXPECT_EQ(examples::frameId(withData), 0x0002);
    EXPECT_EQ(examples::frameCount(withData), 1);
    EXPECT_EQ(examples::frameFlags(withData), 0x4000);
}

} // namespace
