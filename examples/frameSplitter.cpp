#include "frameSplitter.h"

#include <algorithm>
#include <utility>

namespace examples
{
namespace
{

constexpr std::uint8_t FILL = 0xFF; // the filler's byte is also the first of a start of message
constexpr std::uint8_t SECOND_OF_START = 0x81;
constexpr std::size_t FILLER_BYTES = 20;
constexpr std::size_t HEADER_BYTES = 10;

unsigned wordAt(bytes const& image, std::size_t offset)
{
    return image[offset] | static_cast<unsigned>(image[offset + 1]) << 8U;
}

bool headerSumsToZero(bytes const& image, std::size_t start)
{
    unsigned sum = 0;
    for (std::size_t offset = 0; offset < HEADER_BYTES; offset += 2)
    {
        sum += wordAt(image, start + offset);
    }
    return (sum & 0xFFFFU) == 0;
}

bytes part(bytes const& image, std::size_t start, std::size_t count)
{
    auto const first = image.begin() + static_cast<std::ptrdiff_t>(start);
    return bytes(first, first + static_cast<std::ptrdiff_t>(count));
}

void append(std::vector<piece>& pieces, piece next)
{
    bool const continues = next.what == piece::OTHER && !pieces.empty() && pieces.back().what == piece::OTHER;
    if (continues)
    {
        bytes& before = pieces.back().image;
        before.insert(before.end(), next.image.begin(), next.image.end());
    }
    else
    {
        pieces.push_back(std::move(next));
    }
}

} // namespace

std::uint16_t frameId(bytes const& frame)
{
    return static_cast<std::uint16_t>(wordAt(frame, 2));
}

std::uint16_t frameCount(bytes const& frame)
{
    return static_cast<std::uint16_t>(wordAt(frame, 4));
}

std::uint16_t frameFlags(bytes const& frame)
{
    return static_cast<std::uint16_t>(wordAt(frame, 6));
}

std::vector<piece> frameSplitter::split(bytes const& chunk)
{
    kept.insert(kept.end(), chunk.begin(), chunk.end());
    std::vector<piece> pieces;
    std::size_t done = 0;
    piece next;
    for (std::size_t taken = takePiece(done, next); taken != 0; taken = takePiece(done, next))
    {
        done += taken;
        append(pieces, std::move(next));
    }
    kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(done));
    return pieces;
}

/// The number of bytes from `start` on that make up the next piece; 0 while that cannot be told.
std::size_t frameSplitter::takePiece(std::size_t start, piece& next) const
{
    std::size_t const fills = leadingFills(start);
    bool const startFollows = start + fills < kept.size() && kept[start + fills] == SECOND_OF_START;
    if (fills == FILLER_BYTES && !startFollows)
    {
        next = {piece::FILLER, part(kept, start, fills)};
        return fills;
    }
    if (start + fills == kept.size()) // nothing left, or what may become a filler or a start of message
    {
        return 0;
    }
    if (fills == 1 && startFollows)
    {
        return takeFrame(start, next);
    }
    std::size_t const others = startFollows && fills > 1 ? fills - 1 : fills + 1;
    next = {piece::OTHER, part(kept, start, others)};
    return others;
}

std::size_t frameSplitter::takeFrame(std::size_t start, piece& next) const
{
    std::size_t const available = kept.size() - start;
    if (available < HEADER_BYTES)
    {
        return 0;
    }
    if (!headerSumsToZero(kept, start))
    {
        next = {piece::OTHER, part(kept, start, 1)};
        return 1;
    }
    std::size_t const words = wordAt(kept, start + 4);
    std::size_t const size = words == 0 ? HEADER_BYTES : (words + 6) * 2;
    if (available < size)
    {
        return 0;
    }
    next = {piece::FRAME, part(kept, start, size)};
    return size;
}

std::size_t frameSplitter::leadingFills(std::size_t start) const
{
    std::size_t count = 0;
    while (count < FILLER_BYTES && start + count < kept.size() && kept[start + count] == FILL)
    {
        ++count;
    }
    return count;
}

nullModem::hook frameByFrame(std::function<bytes(piece)> each)
{
    return [splitter = frameSplitter(), each = std::move(each)](bytes const& chunk) mutable {
        bytes onwards;
        for (piece& next : splitter.split(chunk))
        {
            bytes const passed = each(std::move(next));
            onwards.insert(onwards.end(), passed.begin(), passed.end());
        }
        return onwards;
    };
}

} // namespace examples
