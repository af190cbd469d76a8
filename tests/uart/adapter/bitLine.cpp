#include "bitLine.h"

#include <algorithm>
#include <ctime>

namespace adapter
{
namespace
{

/// The parity bit of a character, which is there unless there is no parity.
bool parityBit(unsigned value, unsigned dataBits, parity check)
{
    bool isOdd = false;
    for (unsigned bit = 0; bit < dataBits; ++bit)
    {
        isOdd ^= ((value >> bit) & 1U) != 0;
    }
    switch (check)
    {
    case parity::odd:
        return !isOdd;
    case parity::even:
        return isOdd;
    case parity::mark:
        return true;
    case parity::space:
    case parity::none:
        break;
    }
    return false;
}

} // namespace

std::int64_t now_ns()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t format::characterTime_ns() const
{
    return bit_ns * (1 + dataBits + (check == parity::none ? 0 : 1) + stopBits);
}

void bitLine::send(unsigned char value, std::int64_t earliest_ns)
{
    drawn_ns = std::max(drawn_ns, earliest_ns);
    ++carried;
    bool const isLost = happens(lossShare);
    bool const isFlipped = happens(flipShare);
    spoilt += isLost || isFlipped ? 1U : 0U;
    if (isLost)
    {
        draw(true, sender.characterTime_ns());
        return;
    }
    bool const check = parityBit(value, sender.dataBits, sender.check);
    unsigned const turned =
        isFlipped ? 1U << std::uniform_int_distribution<unsigned>(0, sender.dataBits - 1)(dice) : 0U;
    draw(false, sender.bit_ns);
    for (unsigned bit = 0; bit < sender.dataBits; ++bit)
    {
        draw((((value ^ turned) >> bit) & 1U) != 0, sender.bit_ns);
    }
    if (sender.check != parity::none)
    {
        draw(check, sender.bit_ns);
    }
    draw(true, sender.bit_ns * sender.stopBits);
}

void bitLine::sendBreak(std::int64_t earliest_ns, std::int64_t length_ns)
{
    drawn_ns = std::max(drawn_ns, earliest_ns);
    draw(false, length_ns);
    draw(true, sender.bit_ns * 2);
}

std::optional<character> bitLine::receive(std::int64_t time_ns)
{
    std::int64_t const start_ns = nextStart_ns();
    std::int64_t const bits = 1 + receiver.dataBits + (receiver.check == parity::none ? 0 : 1);
    if (start_ns == NEVER_NS || start_ns + bits * receiver.bit_ns + receiver.bit_ns / 2 > time_ns)
    {
        return std::nullopt;
    }
    character const result = sample(start_ns);
    sampled_ns = result.time_ns;
    forgetUntil(sampled_ns);
    return result;
}

void bitLine::mend()
{
    held = false;
    lossShare = 0.0;
    flipShare = 0.0;
}

void bitLine::draw(bool level, std::int64_t length_ns)
{
    if (level != lastLevel)
    {
        edges.push_back({drawn_ns, level});
        lastLevel = level;
    }
    drawn_ns += length_ns;
}

bool bitLine::levelAt(std::int64_t time_ns) const
{
    bool level = edges.empty() ? lastLevel : !edges.front().level;
    for (edge const& each : edges)
    {
        if (each.time_ns > time_ns)
        {
            break;
        }
        level = each.level;
    }
    return level;
}

/// A line that is low where the receiver has stopped, as after a break, must have risen before.
std::int64_t bitLine::nextStart_ns() const
{
    for (edge const& each : edges)
    {
        if (each.time_ns >= sampled_ns && !each.level)
        {
            return each.time_ns;
        }
    }
    return NEVER_NS;
}

character bitLine::sample(std::int64_t start_ns) const
{
    std::int64_t time_ns = start_ns + receiver.bit_ns / 2;
    unsigned value = 0;
    bool isLow = true;
    for (unsigned bit = 0; bit < receiver.dataBits; ++bit)
    {
        time_ns += receiver.bit_ns;
        bool const level = levelAt(time_ns);
        value |= level ? 1U << bit : 0U;
        isLow = isLow && !level;
    }
    character result;
    result.value = static_cast<unsigned char>(value);
    if (receiver.check != parity::none)
    {
        time_ns += receiver.bit_ns;
        bool const level = levelAt(time_ns);
        result.hasParityError = level != parityBit(value, receiver.dataBits, receiver.check);
        isLow = isLow && !level;
    }
    time_ns += receiver.bit_ns;
    bool const hasStopBit = levelAt(time_ns);
    result.isBreak = isLow && !hasStopBit;
    result.hasFramingError = !hasStopBit;
    result.time_ns = time_ns;
    return result;
}

void bitLine::forgetUntil(std::int64_t time_ns)
{
    while (!edges.empty() && edges.front().time_ns <= time_ns)
    {
        edges.pop_front();
    }
}

bool bitLine::happens(double share)
{
    return share > 0.0 && std::uniform_real_distribution<double>()(dice) < share;
}

} // namespace adapter
