#ifndef STARTWORDSEARCH_H
#define STARTWORDSEARCH_H

#include <cstddef>
#include <cstdint>

namespace gssipInternal
{

constexpr std::uint8_t START_LOW_BYTE = 0xFF;
constexpr std::uint8_t START_HIGH_BYTE = 0x81;

inline bool isStartWord(std::uint8_t const* bytes) noexcept
{
    return bytes[0] == START_LOW_BYTE && bytes[1] == START_HIGH_BYTE;
}

/// How many of the bytes stand before the first start-of-message word. Without one all but the last, which may be its
/// first half. There is at least one byte.
///
/// Looks at every byte in the same way, in blocks that compile to vector instructions: noise cannot slow it down. But
/// first where the next word is as a rule, behind the last byte of the message before.
inline std::size_t bytesBeforeStartWord(std::uint8_t const* bytes, std::size_t count) noexcept
{
    constexpr std::size_t BLOCK = 64;
    if (count > 2 && isStartWord(bytes + 1))
    {
        return 1; // nothing starts before it: the byte at 1 is its FF, not the 81 of another
    }
    std::size_t place = 0;
    for (unsigned found = 0; place + BLOCK < count; place += BLOCK)
    {
        for (std::size_t i = 0; i < BLOCK; ++i)
        {
            found |= static_cast<unsigned>(bytes[place + i] == START_LOW_BYTE) &
                     static_cast<unsigned>(bytes[place + i + 1] == START_HIGH_BYTE);
        }
        if (found != 0)
        {
            break;
        }
    }
    while (place + 1 < count && !isStartWord(bytes + place))
    {
        ++place;
    }
    return place;
}

} // namespace gssipInternal

#endif
