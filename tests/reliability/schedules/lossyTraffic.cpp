#include "lossyTraffic.h"

#include "frames.h"
#include "messages.h"

#include <algorithm>
#include <cmath>

namespace schedules
{
namespace
{

constexpr std::uint16_t REQUEST = 0x4000;
constexpr std::int64_t ACTS_END_US = 1'500'000;

// Nothing happens at the same time as something else by chance: bytes arrive at whole microseconds, applications act
// 200 ns later, and deadlines lie 300 ns behind the one or the other. And no two acts of one end are a whole number of
// characters apart, so that deadlines of messages of different lengths never coincide.
constexpr std::int64_t ACT_PHASE_NS = 200;
constexpr std::int64_t DEADLINE_PHASE_NS = 300;
constexpr std::int64_t SLOTS = lossyMedium::CHARACTER_NS / lossyMedium::GRID_NS;

/// Draws the traffic of one end.
class trafficDraw
{
  public:
    trafficDraw(dice& random, bool plain) : chance(random), isPlain(plain) {}

    std::vector<act> draw()
    {
        std::vector<act> acts;
        auto const count = static_cast<std::int64_t>(5 + chance.below(30));
        std::int64_t const firstSlot = chance.between(0, SLOTS - 1);
        for (std::int64_t number = 0; number < count; ++number)
        {
            act next = drawAct();
            std::int64_t const character = chance.between(10, ACTS_END_US / SLOTS);
            std::int64_t const slot = (firstSlot + number) % SLOTS;
            next.after_ns = character * lossyMedium::CHARACTER_NS + slot * lossyMedium::GRID_NS + ACT_PHASE_NS;
            acts.push_back(std::move(next));
        }
        std::sort(acts.begin(), acts.end(),
                  [](act const& one, act const& other) { return one.after_ns < other.after_ns; });
        return acts;
    }

  private:
    act drawAct()
    {
        act result;
        std::uint64_t const kind = chance.below(20);
        if (kind < 14)
        {
            result.messages.push_back(drawMessage());
            result.tracked = !chance.onceIn(6);
        }
        else if (kind < 16)
        {
            result.what = act::sendBatch;
            result.tracked = true;
            result.messages = drawBatch();
        }
        else if (kind < 17)
        {
            drawReject(result);
        }
        else if (kind < 18 || isPlain)
        {
            result.what = act::filler;
        }
        else
        {
            result.what = act::raw;
            result.content = drawNoise();
        }
        return result;
    }

    std::vector<gssipMessage> drawBatch()
    {
        std::vector<gssipMessage> batch;
        for (std::uint64_t left = chance.below(4); left > 0; --left)
        {
            batch.push_back(drawMessage());
        }
        return batch;
    }

    void drawReject(act& result)
    {
        result.what = act::reject;
        result.extra = chance.onceIn(2);
        do
        {
            result.rejectedId = static_cast<unsigned>(chance.next());
        } while (isPlain &&
                 !isClean(kit::frame(static_cast<std::uint16_t>(result.rejectedId), result.extra ? 0x9300 : 0x9200)));
    }

    gssipMessage drawMessage()
    {
        for (;;)
        {
            std::uint16_t const id = drawId();
            std::uint16_t const flags = drawFlags();
            std::vector<std::uint16_t> const data = drawData();
            if (!isPlain || (isClean(kit::frame(id, flags, data)) && isClean(kit::frame(id, 0x8800)) &&
                             isClean(kit::frame(id, 0x8400))))
            {
                return kit::message(id, flags, data);
            }
        }
    }

    /// Few ids, so that some are pending more than once.
    std::uint16_t drawId() { return static_cast<std::uint16_t>(chance.onceIn(10) ? chance.next() : chance.below(6)); }

    std::uint16_t drawFlags()
    {
        std::uint64_t const kind = chance.below(20);
        if (kind < 13)
        {
            return REQUEST;
        }
        return kind < 17 ? std::uint16_t{0} : static_cast<std::uint16_t>(chance.next() & 0xFF00U);
    }

    std::vector<std::uint16_t> drawData()
    {
        std::size_t const longest = chance.onceIn(12) ? 400 : 20;
        std::vector<std::uint16_t> data(chance.onceIn(4) ? 0 : chance.below(longest + 1));
        for (std::uint16_t& word : data)
        {
            word = drawWord();
        }
        return data;
    }

    std::uint16_t drawWord()
    {
        if (!isPlain && chance.onceIn(20))
        {
            return 0x81FF;
        }
        auto const word = static_cast<std::uint16_t>(chance.next());
        return isPlain ? static_cast<std::uint16_t>(word & 0x7F7FU) : word;
    }

    bytes drawNoise()
    {
        bytes noise(1 + chance.below(30));
        for (std::uint8_t& byte : noise)
        {
            byte = static_cast<std::uint8_t>(chance.next());
        }
        if (chance.onceIn(2))
        {
            noise.insert(noise.begin(), {0xFF, 0x81});
        }
        return noise;
    }

    /// Byte 81 stands at the start alone.
    static bool isClean(bytes const& frame) { return std::count(frame.begin(), frame.end(), 0x81) == 1; }

    dice& chance;
    bool isPlain;
};

/// 1e-5 to 1e-2, as many small ones as large ones, or none.
double drawRate(dice& chance)
{
    constexpr double RESOLUTION = 1000.0;
    double const exponent = 2.0 + 3.0 * static_cast<double>(chance.below(1000)) / RESOLUTION;
    return chance.onceIn(3) ? 0.0 : std::pow(10.0, -exponent);
}

lineFaults drawFaults(dice& chance)
{
    constexpr double FRAME = 20.0; // what is counted by frames is this much rarer than what is counted by bytes
    lineFaults faults;
    faults.loss = drawRate(chance);
    faults.flip = drawRate(chance);
    faults.duplication = drawRate(chance);
    faults.insertion = drawRate(chance);
    faults.burst = drawRate(chance) / 2;
    faults.delay = drawRate(chance) * FRAME;
    faults.repetition = drawRate(chance) * FRAME;
    faults.forgery = drawRate(chance) * FRAME / 4;
    return faults;
}

reference::habits drawHabits(dice& chance)
{
    reference::habits how;
    how.answers = !chance.onceIn(10);
    how.returnsInvalid = chance.onceIn(2);
    how.times.character_ns = lossyMedium::CHARACTER_NS;
    how.times.acknowledgement_ns = chance.between(20'000, 500'000) * lossyMedium::GRID_NS + DEADLINE_PHASE_NS;
    return how;
}

} // namespace

lossyScenario drawScenario(dice& chance)
{
    lossyScenario scenario;
    scenario.isPlain = chance.onceIn(2);
    for (endOfLine& each : scenario.ends)
    {
        each.how = drawHabits(chance);
        each.acts = trafficDraw(chance, scenario.isPlain).draw();
        each.faults = drawFaults(chance);
    }
    return scenario;
}

std::vector<reference::order> ordersOf(act const& which, std::int64_t start_ns, std::string const& portNumber)
{
    using reference::order;
    std::int64_t const when_ns = start_ns + which.after_ns;
    auto const rejectedId = static_cast<std::uint16_t>(which.rejectedId & 0xFFFFU);
    switch (which.what)
    {
    case act::reject: {
        std::string const line = "port(" + portNumber + ") reject " + std::to_string(which.rejectedId);
        return {{when_ns, order::atOnce, kit::frame(rejectedId, which.extra ? 0x9300 : 0x9200), false,
                 which.extra ? line : std::string{}}};
    }
    case act::filler:
        return {{when_ns, order::atOnce, bytes(20, 0xFF), false, {}}};
    case act::raw:
        return {{when_ns, order::atOnce, which.content, false, {}}};
    default:
        break;
    }
    std::vector<order> orders;
    for (gssipMessage const& each : which.messages)
    {
        bytes const image = kit::frame(each.getId(), each.getProtocolFlags(), each.getData());
        orders.push_back({when_ns, order::message, image, which.tracked, {}});
    }
    return orders;
}

} // namespace schedules
