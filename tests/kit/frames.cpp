#include "frames.h"

#include <numeric>

namespace kit
{
namespace
{

void append(bytes& image, std::uint16_t word)
{
    image.push_back(static_cast<std::uint8_t>(word & 0xFFU));
    image.push_back(static_cast<std::uint8_t>(word >> 8U));
}

std::uint16_t negatedSum(std::vector<std::uint16_t> const& words)
{
    return static_cast<std::uint16_t>(0U - std::accumulate(words.begin(), words.end(), 0U));
}

bytes compose(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data, std::uint16_t headerError,
              std::uint16_t dataError)
{
    std::vector<std::uint16_t> const header{0x81FF, id, static_cast<std::uint16_t>(data.size()), flags};
    bytes image;
    for (std::uint16_t const word : header)
    {
        append(image, word);
    }
    append(image, static_cast<std::uint16_t>(negatedSum(header) + headerError));
    for (std::uint16_t const word : data)
    {
        append(image, word);
    }
    if (!data.empty())
    {
        append(image, static_cast<std::uint16_t>(negatedSum(data) + dataError));
    }
    return image;
}

} // namespace

bytes frame(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data)
{
    return compose(id, flags, data, 0, 0);
}

bytes frameWithBadHeader(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data)
{
    return compose(id, flags, data, 1, 0);
}

bytes frameWithBadData(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data)
{
    return compose(id, flags, data, 0, 1);
}

bytes operator+(bytes left, bytes const& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace kit
