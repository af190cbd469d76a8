#ifndef SOAK_FRAMERECORD_H
#define SOAK_FRAMERECORD_H

#include "gssipMessage.h"
#include "referenceDecoder.h"

#include <cstdint>
#include <numeric>
#include <vector>

namespace soak
{

/// What identifies a message in the books: two that differ in anything but their times have different records.
struct frameRecord
{
    std::uint16_t id = 0;
    std::uint16_t flags = 0;
    std::uint64_t content = 0; ///< a hash of the data

    bool operator==(frameRecord const& other) const
    {
        return id == other.id && flags == other.flags && content == other.content;
    }
};

using frameRecords = std::vector<frameRecord>;

inline std::uint64_t hashOf(std::vector<std::uint16_t> const& words)
{
    auto const mix = [](std::uint64_t hash, std::uint16_t word) { return (hash ^ word) * 0x100000001B3U; };
    return std::accumulate(words.begin(), words.end(), std::uint64_t{0xCBF29CE484222325U} + words.size(), mix);
}

inline frameRecord recordOf(gssipMessage const& message)
{
    return {message.getId(), message.getProtocolFlags(), hashOf(message.getData())};
}

inline frameRecord recordOf(kit::decodedFrame const& frame)
{
    return {frame.id, frame.flags, hashOf(frame.data)};
}

/// Whether its data sum to what they should.
inline bool hasRightData(kit::decodedFrame const& frame)
{
    unsigned const sum = std::accumulate(frame.data.begin(), frame.data.end(), unsigned{frame.dataChecksum});
    return frame.data.empty() || sum % 65536 == 0;
}

inline bool isReply(std::uint16_t flags)
{
    return (flags & gssipMessage::REPLY_FLAG) != 0;
}

/// What `getMessage` keeps for itself.
inline bool isKeptByThePort(std::uint16_t flags, bool hasData)
{
    constexpr unsigned ANSWER = gssipMessage::ACK_FLAG | gssipMessage::NAK_FLAG;
    return (!hasData && (flags & ANSWER) != 0) || (flags & gssipMessage::HANDSHAKE_FLAG) != 0;
}

} // namespace soak

#endif
