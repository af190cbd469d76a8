#include "wire.h"

#include <algorithm>
#include <termios.h>

namespace soak
{
namespace
{

constexpr std::size_t HEADER_BYTES = 10;
constexpr std::size_t MOST_BACKLOG_BYTES = std::size_t{512} * 1024;

std::size_t other(std::size_t side)
{
    return 1 - side;
}

} // namespace

std::vector<kit::decodedFrame> streamDecoder::add(std::uint8_t const* data, std::size_t count)
{
    rest.insert(rest.end(), data, data + count);
    kit::decodedStream decoded = kit::decode(rest);
    rest = std::move(decoded.rest);
    return std::move(decoded.frames);
}

std::size_t streamDecoder::missing() const
{
    if (rest.size() < 2)
    {
        return 0;
    }
    if (rest.size() < HEADER_BYTES)
    {
        return HEADER_BYTES - rest.size();
    }
    std::size_t const words = rest[4] + std::size_t{256} * rest[5];
    return 2 * (words + 6) - rest.size();
}

void spoiledWay::taken(kit::bytes& chunk)
{
    seen.bytes += chunk.size();
    for (kit::decodedFrame const& frame : before.add(chunk.data(), chunk.size()))
    {
        if (!hasRightData(frame))
        {
            ++seen.torn;
        }
        else if (!isReply(frame.flags))
        {
            seen.written.push_back(recordOf(frame));
        }
    }
    for (std::uint8_t& byte : chunk)
    {
        if (happens(flipShare))
        {
            byte = static_cast<std::uint8_t>(byte ^ (1U << (random() % 8)));
        }
    }
    chunk.erase(std::remove_if(chunk.begin(), chunk.end(), [this](std::uint8_t) { return happens(lossShare); }),
                chunk.end());
    if (droppedAtEnd)
    {
        chunk.clear();
    }
}

void spoiledWay::given(std::uint8_t const* data, std::size_t count)
{
    for (kit::decodedFrame const& frame : behind.add(data, count))
    {
        if (!hasRightData(frame))
        {
            ++seen.damaged;
        }
        else if (!isKeptByThePort(frame.flags, frame.count != 0))
        {
            seen.deliverable.push_back(recordOf(frame));
        }
    }
}

wire::wire(std::uint64_t seed)
{
    ways[0] = std::make_unique<spoiledWay>(seed + 1);
    ways[1] = std::make_unique<spoiledWay>(seed + 2);
    for (auto const& way : ways)
    {
        way->backlog.reserve(MOST_BACKLOG_BYTES); // at once, so that it does not grow while memory is watched
    }
    relay = std::make_unique<kit::lineRelay>(std::vector<kit::oneWay*>{ways[0].get(), ways[1].get()});
    plugIn(0);
    plugIn(1);
}

void wire::plugIn(std::size_t side)
{
    std::lock_guard<std::mutex> const lock(relay->mutex);
    int const farEnd = ends[side].plugIn().masterDescriptor();
    kit::lineRelay::prepare(farEnd);
    ways[side]->from = farEnd;
    ways[side]->before.reset();
    ways[other(side)]->to = farEnd;
}

void wire::unplug(std::size_t side)
{
    std::lock_guard<std::mutex> const lock(relay->mutex);
    ways[side]->from = -1;
    ways[other(side)]->to = -1;
    ways[other(side)]->droppedAtEnd = true;
    ends[side].unplug();
}

void wire::portLeaves(std::size_t side)
{
    change(other(side), [](spoiledWay& way) {
        way.droppedAtEnd = true;
        way.backlog.clear();
    });
}

void wire::discardUnread(std::size_t side)
{
    change(side, [](spoiledWay const& way) { tcflush(way.from, TCOFLUSH); });
}

void wire::portIsBack(std::size_t side)
{
    change(other(side), [](spoiledWay& way) {
        way.backlog.clear();
        way.behind.reset();
        way.droppedAtEnd = false;
    });
}

spoiledWay::books wire::takeBooks(std::size_t fromSide)
{
    spoiledWay::books taken;
    change(fromSide, [&](spoiledWay& way) { std::swap(taken, way.seen); });
    return taken;
}

void wire::inject(std::size_t toSide, kit::bytes const& noise)
{
    change(other(toSide), [&](spoiledWay& way) {
        if (!way.droppedAtEnd)
        {
            way.backlog.insert(way.backlog.end(), noise.begin(), noise.end());
        }
    });
}

bool wire::isQuiet()
{
    std::lock_guard<std::mutex> const lock(relay->mutex);
    return ways[0]->backlog.empty() && ways[1]->backlog.empty();
}

std::uint64_t wire::bytesTaken()
{
    std::lock_guard<std::mutex> const lock(relay->mutex);
    return ways[0]->seen.bytes + ways[1]->seen.bytes;
}

std::size_t wire::deliverable(std::size_t fromSide)
{
    std::lock_guard<std::mutex> const lock(relay->mutex);
    return ways[fromSide]->seen.deliverable.size();
}

bool wire::completeHalfFrames()
{
    constexpr std::uint8_t FILLER = 0xFF;
    std::lock_guard<std::mutex> const lock(relay->mutex);
    bool found = false;
    for (auto const& way : ways)
    {
        std::size_t const missing = way->behind.missing();
        way->backlog.insert(way->backlog.end(), missing, FILLER);
        way->before.reset();
        found = found || missing != 0;
    }
    return found;
}

} // namespace soak
