#include "lossyMedium.h"

#include <algorithm>

namespace schedules
{
namespace
{

constexpr std::size_t HEADER_BYTES = 10;
constexpr std::uint64_t LONGEST_BURST = 40;
constexpr std::int64_t LONGEST_DELAY_US = 400'000;

std::int64_t onGrid(std::int64_t time_ns)
{
    return (time_ns / lossyMedium::GRID_NS + 1) * lossyMedium::GRID_NS;
}

void store(std::vector<lossyMedium::fateOfByte>& content, std::size_t at, unsigned word)
{
    content[at].value = static_cast<std::uint8_t>(word % 256);
    content[at + 1].value = static_cast<std::uint8_t>(word / 256 % 256);
    content[at].isDamaged = true;
    content[at + 1].isDamaged = true;
}

unsigned wordAt(std::vector<lossyMedium::fateOfByte> const& content, std::size_t at)
{
    return content[at].value + 256U * content[at + 1].value;
}

} // namespace

std::vector<line::arrival> lossyMedium::carry(std::int64_t now_ns, bytes const& content)
{
    writes.push_back({now_ns, reference::source::application, content});
    std::vector<fateOfByte> sending = withOrigins(content);
    forge(sending);
    std::vector<fateOfByte> coming = damage(sending);
    if (happens(rates.repetition))
    {
        coming.insert(coming.end(), sending.begin(), sending.end());
    }
    free_ns = std::max(free_ns, onGrid(now_ns));
    if (happens(rates.delay))
    {
        free_ns += random.between(1, LONGEST_DELAY_US) * GRID_NS;
    }
    std::vector<line::arrival> result;
    for (std::size_t at = 0; at < coming.size();)
    {
        std::size_t const count = 1 + random.below(coming.size() - at);
        bytes piece;
        for (std::size_t end = at + count; at < end; ++at)
        {
            piece.push_back(coming[at].value);
        }
        free_ns += static_cast<std::int64_t>(count) * CHARACTER_NS;
        arrivals.push_back({free_ns, piece});
        result.push_back({piece, free_ns - now_ns});
    }
    bytesArrived.insert(bytesArrived.end(), coming.begin(), coming.end());
    return result;
}

bool lossyMedium::happens(double rate)
{
    constexpr double STEPS = 9007199254740992.0; // 2 to the power of 53
    return rate > 0.0 && static_cast<double>(random.next() >> 11U) / STEPS < rate;
}

std::vector<lossyMedium::fateOfByte> lossyMedium::withOrigins(bytes const& content)
{
    std::vector<fateOfByte> result;
    for (std::uint8_t const value : content)
    {
        result.push_back({value, bytesSent++, false});
    }
    return result;
}

/// The damage that a sum does not show: the id makes up for the count.
void lossyMedium::forge(std::vector<fateOfByte>& content)
{
    if (content.size() < HEADER_BYTES || !happens(rates.forgery))
    {
        return;
    }
    auto const most = static_cast<std::int64_t>(random.onceIn(8) ? 0xFFFF : 40);
    auto const more = static_cast<unsigned>(random.between(1, most));
    store(content, 2, wordAt(content, 2) + 0x10000U - more);
    store(content, 4, wordAt(content, 4) + more);
}

std::vector<lossyMedium::fateOfByte> lossyMedium::damage(std::vector<fateOfByte> const& content)
{
    std::vector<fateOfByte> result;
    for (fateOfByte const& each : content)
    {
        damageOne(each, result);
    }
    return result;
}

void lossyMedium::damageOne(fateOfByte each, std::vector<fateOfByte>& into)
{
    bool const inBurst = burstGoesOn() && random.below(10) < 3;
    std::uint64_t const kind = inBurst ? random.below(4) : 4;
    if (kind == 0 || happens(rates.loss))
    {
        return;
    }
    if (kind == 1 || happens(rates.insertion))
    {
        into.push_back(fromNowhere());
    }
    if (kind == 2 || happens(rates.flip))
    {
        flipBit(each);
    }
    into.push_back(each);
    if (kind == 3 || happens(rates.duplication))
    {
        into.push_back(each);
    }
}

bool lossyMedium::burstGoesOn()
{
    if (burstLeft > 0)
    {
        --burstLeft;
    }
    else if (happens(rates.burst))
    {
        burstLeft = static_cast<unsigned>(1 + random.below(LONGEST_BURST));
    }
    return burstLeft > 0;
}

void lossyMedium::flipBit(fateOfByte& which)
{
    which.value = static_cast<std::uint8_t>(which.value ^ (1U << random.below(8)));
    which.isDamaged = true;
}

/// FF and 81 more often than others: they are what a receiver looks for.
lossyMedium::fateOfByte lossyMedium::fromNowhere()
{
    std::uint64_t const kind = random.below(4);
    auto const any = static_cast<std::uint8_t>(random.below(256));
    return {kind == 0 ? std::uint8_t{0xFF} : kind == 1 ? std::uint8_t{0x81} : any, -1, true};
}

} // namespace schedules
