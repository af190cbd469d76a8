#ifndef BENCH_FRAMES_H
#define BENCH_FRAMES_H

#include "gssipMessage.h"

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

namespace bench
{

/// A message with right checksums that has that many bytes on the line: 10, or an even number from 14 on.
inline gssipMessage messageOf(std::size_t bytes, std::uint16_t id = 7, std::uint16_t flags = 0)
{
    gssipMessage message(id, flags, static_cast<std::uint16_t>(bytes <= 10 ? 0 : bytes / 2 - 6));
    std::iota(message.getData().begin(), message.getData().end(), std::uint16_t{1});
    message.setHeaderChecksum();
    message.setDataChecksum();
    return message;
}

/// As many copies as fit into that many bytes, at least one.
inline std::vector<std::uint8_t> repeated(std::vector<std::uint8_t> const& piece, std::size_t bytes)
{
    std::vector<std::uint8_t> all;
    do
    {
        all.insert(all.end(), piece.begin(), piece.end());
    } while (all.size() + piece.size() <= bytes);
    return all;
}

} // namespace bench

#endif
