#include "faults.h"

#include "stopwatch.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <thread>

namespace soak
{
namespace
{

void last(double time_sec)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(time_sec));
}

unsigned upTo(rig& spoiled, unsigned most)
{
    return std::uniform_int_distribution<unsigned>(0, most)(spoiled.random);
}

std::size_t someSide(rig& spoiled)
{
    return upTo(spoiled, 1);
}

void mustStop(rig& spoiled, std::size_t side)
{
    if (!spoiled.at(side).stop())
    {
        throw std::runtime_error("a port does not stop");
    }
}

void mustStart(rig& spoiled, std::size_t side)
{
    if (!spoiled.at(side).start())
    {
        throw std::runtime_error("a port does not start again within ten seconds");
    }
}

effects atSide(std::size_t side, bool sendingSuffers, bool receivingSuffers)
{
    effects possible;
    possible.sendingSuffers[side] = sendingSuffers;
    possible.receivingSuffers[side] = receivingSuffers;
    return possible;
}

effects unplug(rig& spoiled, double length_sec)
{
    std::size_t const side = someSide(spoiled);
    spoiled.line.unplug(side);
    last(length_sec);
    spoiled.line.plugIn(side);
    mustStop(spoiled, side);
    mustStart(spoiled, side);
    spoiled.line.portIsBack(side);
    return atSide(side, true, true);
}

effects restart(rig& spoiled, double length_sec)
{
    std::size_t const side = someSide(spoiled);
    kit::stopwatch const watch;
    do
    {
        spoiled.line.portLeaves(side);
        mustStop(spoiled, side);
        last(upTo(spoiled, 50) * 1e-3);
        spoiled.line.discardUnread(side);
        mustStart(spoiled, side);
        spoiled.line.portIsBack(side);
        last(upTo(spoiled, 300) * 1e-3);
    } while (watch.elapsed_sec() < length_sec);
    return atSide(side, false, true);
}

effects flip(rig& spoiled, double length_sec)
{
    auto const set = [&](double share) {
        for (std::size_t side = 0; side < 2; ++side)
        {
            spoiled.line.change(side, [&](spoiledWay& way) { way.flipShare = share; });
        }
    };
    set(1e-3);
    last(length_sec);
    set(0);
    return {};
}

effects lose(rig& spoiled, double length_sec)
{
    auto const set = [&](double share) {
        for (std::size_t side = 0; side < 2; ++side)
        {
            spoiled.line.change(side, [&](spoiledWay& way) { way.lossShare = share; });
        }
    };
    set(1e-3);
    last(length_sec);
    set(0);
    return {};
}

kit::bytes noise(rig& spoiled, std::size_t count)
{
    kit::bytes all(count);
    std::generate(all.begin(), all.end(), [&] { return static_cast<std::uint8_t>(spoiled.random()); });
    return all;
}

effects disturb(rig& spoiled, double length_sec)
{
    kit::stopwatch const watch;
    while (watch.elapsed_sec() < length_sec)
    {
        std::size_t const side = someSide(spoiled);
        spoiled.line.inject(side, noise(spoiled, 1 + upTo(spoiled, 500)));
        last(0.02);
    }
    return {};
}

void setHeld(rig& spoiled, std::size_t side, bool held)
{
    spoiled.line.change(side, [held](spoiledWay& way) { way.held = held; });
}

/// Nothing is lost before a port gives up waiting for the line.
effects block(rig& spoiled, double length_sec)
{
    std::size_t const side = someSide(spoiled);
    setHeld(spoiled, side, true);
    last(length_sec);
    setHeld(spoiled, side, false);
    return atSide(side, length_sec > 0.75 * WRITE_TIMEOUT_SEC, false);
}

/// For long enough that acknowledgements come too late.
effects delay(rig& spoiled, double length_sec)
{
    kit::stopwatch const watch;
    while (watch.elapsed_sec() < length_sec)
    {
        setHeld(spoiled, 0, true);
        setHeld(spoiled, 1, true);
        last(1.5 * ACKNOWLEDGE_TIMEOUT_SEC);
        setHeld(spoiled, 0, false);
        setHeld(spoiled, 1, false);
        last(0.5 * ACKNOWLEDGE_TIMEOUT_SEC);
    }
    return {};
}

/// Starts of messages that are none, each of them a line in the log.
effects slowLogs(rig& spoiled, double length_sec)
{
    kit::bytes const falseStart{0xFF, 0x81, 1, 2, 3, 4, 5, 6, 7, 8};
    auto const set = [&](unsigned pause_ms) {
        spoiled.at(0).log.pause_ms = pause_ms;
        spoiled.at(1).log.pause_ms = pause_ms;
    };
    set(20);
    kit::stopwatch const watch;
    while (watch.elapsed_sec() < length_sec)
    {
        std::size_t const side = someSide(spoiled);
        spoiled.line.inject(side, falseStart);
        last(0.03);
    }
    set(0);
    return {};
}

} // namespace

std::vector<fault> const& allFaults()
{
    static std::vector<fault> const all{
        {"one end unplugged", unplug}, {"bytes flipped", flip},     {"stop and start", restart},
        {"burst of noise", disturb},   {"line blocked", block},     {"bytes lost", lose},
        {"bytes late", delay},         {"slow log sink", slowLogs},
    };
    return all;
}

} // namespace soak
