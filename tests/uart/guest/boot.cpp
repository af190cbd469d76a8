// The machine, its drivers and its cables are what the other scenarios take them for.

#include "devices.h"
#include "scenario.h"
#include "stopwatch.h"

#include <algorithm>
#include <ctime>
#include <sys/utsname.h>
#include <thread>

namespace uart
{
namespace
{

void machineIsWhatItShouldBe()
{
    utsname system{};
    uname(&system);
    note(std::string(system.sysname) + ' ' + system.release + ' ' + system.machine);
    expect(std::string(system.machine).compare(0, 3, "arm") == 0, "the machine is an ARM");
    expectEqual(sizeof(void*), std::size_t{4}, "the size of an address");
    expectEqual(sizeof(std::time_t), std::size_t{8}, "the size of a time");
}

void sendInPieces(serialPort& port, bytes const& data)
{
    constexpr std::size_t PIECE = 28;
    for (std::size_t place = 0; place < data.size(); place += PIECE)
    {
        auto const begin = data.begin() + static_cast<std::ptrdiff_t>(place);
        auto const size = static_cast<std::ptrdiff_t>(std::min(PIECE, data.size() - place));
        expectEqual(sendAll(port, {begin, begin + size}).status, 0, "the result of sending");
    }
}

/// Both ways at the same time, as fast as the line takes it.
void cableCarriesAndCounts(unsigned pair)
{
    constexpr unsigned SPEED = 38400;
    constexpr std::size_t SIZE = 4000;
    line wires = line::betweenUarts(pair);
    wires.setSpeed(SPEED);
    device left(wires.device(0), SPEED);
    device right(wires.device(1), SPEED);
    std::uint64_t const before = wires.count(0).carried;
    bytes const data = patternOf(SIZE);
    kit::stopwatch const watch;
    std::thread fromLeft([&] { sendInPieces(left.port, data); });
    std::thread fromRight([&] { sendInPieces(right.port, data); });
    std::thread toLeft([&] { expect(receiveAll(left.port, SIZE) == data, "what the right sends arrives"); });
    expect(receiveAll(right.port, SIZE) == data, "what the left sends arrives");
    for (std::thread* const each : {&fromLeft, &fromRight, &toLeft})
    {
        each->join();
    }
    double const ideal_sec = SIZE * 10.0 / SPEED;
    figure("38400 bit/s, raw bytes both ways, use of the line", 100.0 * ideal_sec / watch.elapsed_sec(), "%");
    expectEqual(wires.count(0).carried - before, std::uint64_t{SIZE}, "the number of characters carried");
    // In one piece, which the driver takes at once: nothing but the line decides how long that takes.
    kit::stopwatch const whole;
    expectEqual(sendAll(left.port, data).status, 0, "the result of sending");
    receiveAll(right.port, SIZE);
    expect(whole.elapsed_sec() >= 0.98 * ideal_sec, "the line takes its time");
}

} // namespace

std::vector<scenario> bootScenarios()
{
    return {
        {"machine", lane::firstPair, 10, machineIsWhatItShouldBe},
        {"cable-first-pair", lane::firstPair, 10, [] { cableCarriesAndCounts(0); }},
        {"cable-second-pair", lane::secondPair, 10, [] { cableCarriesAndCounts(1); }},
    };
}

} // namespace uart
