#include "lossyExchange.h"

#include "line.h"
#include "lossyStation.h"
#include "lossyTraffic.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <thread>

namespace schedules
{
namespace
{

using namespace std::chrono_literals;

// Longer than any message is pending.
constexpr std::int64_t SILENCE_NS = 2'000'000'000;

bytes asBytes(std::string const& text)
{
    return {text.begin(), text.end()};
}

bytes asBytes(std::int32_t level, std::string const& text)
{
    return asBytes("log " + std::to_string(level) + " " + text + "; ");
}

bytes asBytes(reference::delivery const& delivered)
{
    std::ostringstream out;
    out << (delivered.invalid ? "invalid " : "delivered ") << delivered.frame << "; ";
    return asBytes(out.str());
}

unsigned number(reference::source by)
{
    return static_cast<unsigned>(by);
}

std::vector<happening> happeningsOf(std::vector<reference::writing> const& written)
{
    std::vector<happening> result;
    for (reference::writing const& each : written)
    {
        result.push_back({each.when_ns, number(each.by), each.content});
    }
    return result;
}

std::vector<happening> happeningsOf(std::vector<reference::delivery> const& delivered)
{
    std::vector<happening> result;
    for (reference::delivery const& each : delivered)
    {
        result.push_back({each.when_ns, 0, asBytes(each)});
    }
    return result;
}

std::vector<happening> happeningsOf(std::vector<reference::logLine> const& logged)
{
    std::vector<happening> result;
    for (reference::logLine const& each : logged)
    {
        result.push_back({each.when_ns, number(each.by), asBytes(each.level, each.text)});
    }
    return result;
}

/// One end, with what it has written and what has reached it.
struct judgedEnd
{
    char const* name;
    lossyStation const& station;
    lossyMedium const& out;
    lossyMedium const& in;
    reference::history expected;
    std::vector<happening> frames; ///< as they were written
};

void failAt(scheduler& schedule, judgedEnd const& end, char const* what, std::string const& difference)
{
    if (!difference.empty())
    {
        schedule.fail(std::string(end.name) + ", " + what + ": " + difference);
    }
}

/// Code and model agree: bytes, messages and lines, with their times.
void judgeAgreement(scheduler& schedule, judgedEnd& end)
{
    std::vector<happening> ignored;
    failAt(schedule, end, "written",
           disagreement(happeningsOf(end.expected.written), happeningsOf(end.out.sent()), end.frames));
    failAt(schedule, end, "delivered",
           disagreement(happeningsOf(end.expected.delivered), happeningsOf(end.station.delivered()), ignored));
    failAt(schedule, end, "logged",
           disagreement(happeningsOf(end.expected.logged), happeningsOf(end.station.logged()), ignored));
}

/// What holds whatever the model says.
void judgeWay(scheduler& schedule, judgedEnd const& writer, judgedEnd const& receiver, lossyTally& tally)
{
    std::vector<reference::order> const orders = writer.station.orders();
    oneWayStory const way{writer.out.fates(), writer.frames, orders, receiver.expected.framed};
    failAt(schedule, writer, "written too often", writtenTooOften(way));
    failAt(schedule, receiver, "received", unexplained(way, tally));
    failAt(schedule, receiver, "way back", notFoundAgain(way, tally));
}

void count(judgedEnd const& end, lossyTally& tally)
{
    auto const isByClock = [](reference::writing const& each) { return each.by == reference::source::clock; };
    tally.framesWritten += end.frames.size();
    tally.secondCopies +=
        static_cast<std::uint64_t>(std::count_if(end.expected.written.begin(), end.expected.written.end(), isByClock));
    tally.delivered += end.expected.delivered.size();
    tally.bytesArrived += end.in.fates().size();
    std::int64_t last = -1;
    for (lossyMedium::fateOfByte const& each : end.in.fates())
    {
        tally.bytesDamaged += each.isDamaged || each.origin != last + 1 ? 1U : 0U;
        last = each.origin < 0 ? last : each.origin;
    }
    for (reference::logLine const& each : end.expected.logged)
    {
        tally.headersRejected += each.by == reference::source::framing ? 1U : 0U;
    }
}

void awaitSilence(scheduler& schedule, std::array<lossyStation, 2> const& stations,
                  std::array<lossyMedium, 2> const& media)
{
    std::size_t seen = 0;
    std::int64_t since_ns = schedule.now_ns();
    while (schedule.now_ns() < since_ns + SILENCE_NS)
    {
        std::this_thread::sleep_for(100ms);
        std::size_t const now = media[0].sent().size() + media[1].sent().size();
        bool const isBusy = now != seen || !stations[0].hasActed() || !stations[1].hasActed() ||
                            !media[0].isIdleAt(schedule.now_ns()) || !media[1].isIdleAt(schedule.now_ns());
        since_ns = isBusy ? schedule.now_ns() : since_ns;
        seen = now;
    }
}

} // namespace

void exchangeOverLossyLine(scheduler& schedule, lossyTally& tally)
{
    dice& chance = schedule.chance();
    lossyScenario const scenario = drawScenario(chance);
    std::array<lossyMedium, 2> media{lossyMedium(scenario.ends[0].faults, chance),
                                     lossyMedium(scenario.ends[1].faults, chance)};
    line wire(schedule, {});
    wire.carryBy([&](line::end from, bytes const& content) { return media[from].carry(schedule.now_ns(), content); });
    std::array<lossyStation, 2> stations{
        {{schedule, line::LEFT, scenario.ends[0]}, {schedule, line::RIGHT, scenario.ends[1]}}};
    stations[0].start();
    stations[1].start();
    awaitSilence(schedule, stations, media);
    stations[0].stop();
    stations[1].stop();

    judgedEnd left{"left",
                   stations[0],
                   media[0],
                   media[1],
                   reference::predict(stations[0].habits(), media[1].arrived(), stations[0].orders()),
                   {}};
    judgedEnd right{"right",
                    stations[1],
                    media[1],
                    media[0],
                    reference::predict(stations[1].habits(), media[0].arrived(), stations[1].orders()),
                    {}};
    judgeAgreement(schedule, left);
    judgeAgreement(schedule, right);
    judgeWay(schedule, left, right, tally);
    judgeWay(schedule, right, left, tally);
    count(left, tally);
    count(right, tally);
}

} // namespace schedules
