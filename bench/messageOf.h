#ifndef BENCH_MESSAGEOF_H
#define BENCH_MESSAGEOF_H

#include "gssipMessage.h"

#include <cstddef>
#include <cstdint>
#include <numeric>

namespace bench
{

constexpr std::size_t HEADER_ONLY_BYTES = 10;

/// A message with right checksums that has that many bytes on the line: 10, or an even number from 14 on.
inline gssipMessage messageOf(std::size_t bytes, std::uint16_t id = 7, std::uint16_t flags = 0)
{
    std::size_t const words = bytes <= HEADER_ONLY_BYTES ? 0 : bytes / 2 - 6;
    gssipMessage message(id, flags, static_cast<std::uint16_t>(words));
    std::iota(message.getData().begin(), message.getData().end(), std::uint16_t{1});
    message.setHeaderChecksum();
    message.setDataChecksum();
    return message;
}

} // namespace bench

#endif
