#include "startWordSearch.h"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <vector>

namespace
{

using gssipInternal::bytesBeforeStartWord;

constexpr std::size_t LONGEST = 200; // some blocks of the search, and what is left of one

/// Byte by byte.
std::size_t expectedIn(std::vector<std::uint8_t> const& bytes)
{
    std::size_t place = 0;
    while (place + 1 < bytes.size() && !(bytes[place] == 0xFF && bytes[place + 1] == 0x81))
    {
        ++place;
    }
    return place;
}

TEST(StartWordSearch, StartAtAnyPlaceOfAnyLength_IsFound)
{
    for (std::size_t length = 2; length <= LONGEST; ++length)
    {
        for (std::size_t place = 0; place + 1 < length; ++place)
        {
            std::vector<std::uint8_t> bytes(length, 0x55);
            bytes[place] = 0xFF;
            bytes[place + 1] = 0x81;
            ASSERT_EQ(bytesBeforeStartWord(bytes.data(), length), place) << "of " << length;
        }
    }
}

TEST(StartWordSearch, HalvesOfStartsAtAnyPlace_AreNone)
{
    for (std::size_t length = 1; length <= LONGEST; ++length)
    {
        for (std::uint8_t const half : {std::uint8_t{0xFF}, std::uint8_t{0x81}})
        {
            std::vector<std::uint8_t> const bytes(length, half);
            ASSERT_EQ(bytesBeforeStartWord(bytes.data(), length), length - 1);
        }
    }
}

/// Of few values, so that starts and their halves are everywhere.
TEST(StartWordSearch, RandomBytes_AreSearchedAsByteByByte)
{
    constexpr std::uint8_t values[] = {0xFF, 0x81, 0x00, 0x7F, 0xFE};
    for (unsigned seed = 0; seed < 20'000; ++seed)
    {
        std::mt19937 random(seed);
        std::size_t const variety = 3 + seed % 60; // the more, the rarer a start
        std::vector<std::uint8_t> bytes(1 + random() % LONGEST);
        for (std::uint8_t& each : bytes)
        {
            std::size_t const choice = random() % variety;
            each = choice < std::size(values) ? values[choice] : 0x33;
        }
        ASSERT_EQ(bytesBeforeStartWord(bytes.data(), bytes.size()), expectedIn(bytes)) << "seed " << seed;
    }
}

} // namespace
