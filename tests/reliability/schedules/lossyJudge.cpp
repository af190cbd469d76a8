#include "lossyJudge.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <set>

namespace schedules
{
namespace
{

using fates = std::vector<lossyMedium::fateOfByte>;

constexpr std::size_t HEADER_BYTES = 10;
/// A header that begins with the last damaged byte ends 9 bytes behind it; nothing in its first nine is looked at.
constexpr std::size_t BOUND_BYTES = 8;

unsigned wordAt(bytes const& content, std::size_t at)
{
    return content[at] + 256U * content[at + 1];
}

bool isStart(bytes const& content, std::size_t at)
{
    return at + 1 < content.size() && content[at] == 0xFF && content[at + 1] == 0x81;
}

/// The length of the frame whose header stands there; 0 when none does.
std::size_t promisedAt(bytes const& content, std::size_t at)
{
    if (!isStart(content, at) || content.size() - at < HEADER_BYTES)
    {
        return 0;
    }
    unsigned sum = 0;
    for (std::size_t word = 0; word < HEADER_BYTES; word += 2)
    {
        sum += wordAt(content, at + word);
    }
    unsigned const count = wordAt(content, at + 4);
    return sum % 0x10000U != 0 ? 0 : count == 0 ? HEADER_BYTES : 2 * (count + 6U);
}

bytes valuesOf(fates const& arrived)
{
    bytes values;
    for (lossyMedium::fateOfByte const& each : arrived)
    {
        values.push_back(each.value);
    }
    return values;
}

/// For each byte that arrived, where the run of bytes begins that are as they were sent, up to this one; behind it,
/// when this one is not.
std::vector<std::size_t> wholeSince(fates const& arrived)
{
    std::vector<std::size_t> result;
    std::size_t since = 0;
    for (std::size_t at = 0; at < arrived.size(); ++at)
    {
        bool const follows = at == 0 ? arrived[at].origin == 0 : arrived[at].origin == arrived[at - 1].origin + 1;
        since = arrived[at].isDamaged ? at + 1 : follows ? since : at;
        result.push_back(since);
    }
    return result;
}

/// Where frames begin among the bytes that were sent, and how long they are.
std::map<std::int64_t, std::size_t> beginnings(std::vector<happening> const& frames)
{
    std::map<std::int64_t, std::size_t> result;
    std::int64_t at = 0;
    for (happening const& each : frames)
    {
        if (promisedAt(each.content, 0) == each.content.size())
        {
            result[at] = each.content.size();
        }
        at += static_cast<std::int64_t>(each.content.size());
    }
    return result;
}

/// FF 81 stands only where a frame begins.
bool isPlain(std::vector<happening> const& frames, std::map<std::int64_t, std::size_t> const& begins)
{
    bytes stream;
    for (happening const& each : frames)
    {
        stream.insert(stream.end(), each.content.begin(), each.content.end());
    }
    for (std::size_t at = 0; at < stream.size(); ++at)
    {
        if (isStart(stream, at) && begins.count(static_cast<std::int64_t>(at)) == 0)
        {
            return false;
        }
    }
    return true;
}

bool hasRightData(kit::decodedFrame const& frame)
{
    unsigned const sum = std::accumulate(frame.data.begin(), frame.data.end(), 0U);
    return frame.count == 0 || (sum + frame.dataChecksum) % 0x10000U == 0;
}

std::string at(std::size_t position, std::int64_t origin)
{
    return "byte " + std::to_string(position) + " of those that arrived, " + std::to_string(origin) + " of those sent";
}

} // namespace

std::string writtenTooOften(oneWayStory const& way)
{
    std::map<bytes, unsigned> allowed;
    for (reference::order const& each : way.orders)
    {
        bool const isRequest = each.content.size() >= HEADER_BYTES && (each.content[7] & 0x40U) != 0;
        bool const mayBeResent = each.what == reference::order::message && each.tracked && isRequest;
        allowed[each.content] += mayBeResent ? 2 : 1;
    }
    std::map<bytes, unsigned> written;
    for (happening const& each : way.frames)
    {
        auto const found = allowed.find(each.content);
        bool const isReply = each.content.size() == HEADER_BYTES && (each.content[7] & 0x8CU) > 0x80U;
        if (found != allowed.end() && !isReply && ++written[each.content] > found->second)
        {
            return "id " + std::to_string(wordAt(each.content, 2)) + " is written more than " +
                   std::to_string(found->second) + " times";
        }
    }
    return {};
}

std::string unexplained(oneWayStory const& way, lossyTally& tally)
{
    std::map<std::int64_t, std::size_t> const begins = beginnings(way.frames);
    bool const plain = isPlain(way.frames, begins);
    fates const& arrived = way.arrived;
    std::vector<std::size_t> const since = wholeSince(arrived);
    for (kit::decodedFrame const& each : way.framed)
    {
        bool const isWhole = since[each.end - 1] <= each.begin;
        auto const sent = begins.find(arrived[each.begin].origin);
        bool const isExact = isWhole && sent != begins.end() && sent->second == each.end - each.begin;
        if (!isExact && (isWhole ? plain : since[each.end - 1] == 0))
        {
            return "nobody has written what begins with " + at(each.begin, arrived[each.begin].origin);
        }
        bool const isSound = hasRightData(each);
        tally.refused += isSound ? 0U : 1U;
        tally.unnoticed += isSound && !isExact ? 1U : 0U;
    }
    return {};
}

std::string notFoundAgain(oneWayStory const& way, lossyTally& tally)
{
    std::map<std::int64_t, std::size_t> const begins = beginnings(way.frames);
    if (!isPlain(way.frames, begins))
    {
        return {};
    }
    fates const& arrived = way.arrived;
    bytes const values = valuesOf(arrived);
    std::vector<std::size_t> const since = wholeSince(arrived);
    std::set<std::size_t> received;
    for (kit::decodedFrame const& each : way.framed)
    {
        received.insert(each.begin);
    }
    std::size_t heldUntil = 0; // by headers before, from what they promise
    for (std::size_t position = 0; position < arrived.size(); ++position)
    {
        auto const sent = begins.find(arrived[position].origin);
        bool const isWhole = sent != begins.end() && position + sent->second <= arrived.size() &&
                             since[position + sent->second - 1] <= position;
        bool const isBehindTheBound = since[position] == 0 || position >= since[position] + BOUND_BYTES;
        if (isWhole && isBehindTheBound && heldUntil <= position)
        {
            ++tally.foundAgain;
            if (received.count(position) == 0)
            {
                return "not received: the undamaged frame that begins with " + at(position, arrived[position].origin);
            }
        }
        else if (isWhole)
        {
            ++tally.excused;
        }
        std::size_t const promised = promisedAt(values, position);
        heldUntil = promised == 0 ? heldUntil : std::max(heldUntil, position + promised - 1);
    }
    return {};
}

} // namespace schedules
