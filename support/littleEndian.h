#ifndef LITTLEENDIAN_H
#define LITTLEENDIAN_H

#include <cstddef>
#include <cstdint>
#include <cstring>

/// \file
/// 16-bit words as they stand on the line, least significant byte first.

namespace gssipInternal
{

inline std::uint16_t loadWord(std::uint8_t const* bytes) noexcept
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8U);
}

inline void loadWords(std::uint8_t const* bytes, std::uint16_t* words, std::size_t count) noexcept
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (count != 0) // memcpy takes no null pointer, not even for nothing
    {
        std::memcpy(words, bytes, count * sizeof *words);
    }
#else
    for (std::size_t i = 0; i < count; ++i)
    {
        words[i] = loadWord(bytes + 2 * i);
    }
#endif
}

inline void storeWord(std::uint16_t word, std::uint8_t* bytes) noexcept
{
    bytes[0] = static_cast<std::uint8_t>(word & 0xFFU);
    bytes[1] = static_cast<std::uint8_t>(word >> 8U);
}

inline void storeWords(std::uint16_t const* words, std::uint8_t* bytes, std::size_t count) noexcept
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (count != 0)
    {
        std::memcpy(bytes, words, count * sizeof *words);
    }
#else
    for (std::size_t i = 0; i < count; ++i)
    {
        storeWord(words[i], bytes + 2 * i);
    }
#endif
}

} // namespace gssipInternal

#endif
