#ifndef SOAK_ACCOUNTS_H
#define SOAK_ACCOUNTS_H

#include "station.h"
#include "wire.h"

#include <array>
#include <cstdint>
#include <string>

namespace soak
{

/// What a fault may have cost, by side.
struct effects
{
    std::array<bool, 2> sendingSuffers{};   ///< messages can be lost on their way from that port to the line
    std::array<bool, 2> receivingSuffers{}; ///< messages can be lost on their way from the line to that application
};

/// What has become of the messages of one side.
struct wayTotals
{
    std::uint64_t given = 0;
    std::uint64_t written = 0; ///< first copies
    std::uint64_t resent = 0;
    std::uint64_t unwritten = 0;   ///< the line was gone, or blocked for too long
    std::uint64_t deliverable = 0; ///< came undamaged to the other port, and are meant for the application
    std::uint64_t delivered = 0;
    std::uint64_t undelivered = 0; ///< the port was stopped, or its line was gone
    std::uint64_t damaged = 0;     ///< came with a wrong data checksum
    std::uint64_t unanswered = 0;
};

/// Compares what was given with what was written, and what came with what was delivered, for the messages of one side.
/// Adds to the totals; tells what does not add up, or nothing.
std::string settle(std::size_t side, effects const& allowed, spoiledWay::books const& line, frameRecords const& given,
                   station::books const& receiver, wayTotals& totals);

} // namespace soak

#endif
