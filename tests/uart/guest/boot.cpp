// The machine, its drivers and its cables are what the other scenarios take them for.

#include "line.h"
#include "scenario.h"
#include "serialPort.h"
#include "stopwatch.h"
#include "streamLog.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <sys/utsname.h>
#include <thread>
#include <vector>

namespace uart
{
namespace
{

using bytes = std::vector<unsigned char>;

void machineIsWhatItShouldBe()
{
    utsname system{};
    uname(&system);
    note(std::string(system.sysname) + ' ' + system.release + ' ' + system.machine);
    expect(std::string(system.machine).compare(0, 3, "arm") == 0, "the machine is an ARM");
    expectEqual(sizeof(void*), std::size_t{4}, "the size of an address");
    expectEqual(sizeof(std::time_t), std::size_t{8}, "the size of a time");
}

bytes patternOf(std::size_t size)
{
    bytes pattern(size);
    for (std::size_t place = 0; place < size; ++place)
    {
        pattern[place] = static_cast<unsigned char>(place * 7 + place / 256);
    }
    return pattern;
}

bytes receive(serialPort& port, std::size_t count)
{
    bytes received;
    while (received.size() < count)
    {
        unsigned char part[256];
        unsigned size = 0;
        if (!expectEqual(port.receive(part, sizeof part, size), 0, "the result of receiving"))
        {
            break;
        }
        received.insert(received.end(), part, part + size);
    }
    return received;
}

void sendInPieces(serialPort& port, bytes const& data)
{
    constexpr std::size_t PIECE = 28;
    for (std::size_t place = 0; place < data.size(); place += PIECE)
    {
        unsigned sent = 0;
        auto const size = static_cast<unsigned>(std::min(PIECE, data.size() - place));
        expectEqual(port.send(data.data() + place, size, sent), 0, "the result of sending");
    }
}

/// Both ways at the same time, as fast as the line takes it.
void cableCarriesAndCounts(unsigned pair)
{
    constexpr unsigned SPEED = 38400;
    constexpr std::size_t SIZE = 4000;
    streamLog log(std::cout);
    line wires = line::betweenUarts(pair);
    wires.setSpeed(SPEED);
    serialPort left(wires.device(0), log);
    serialPort right(wires.device(1), log);
    std::uint64_t const before = wires.count(0).carried;
    for (serialPort* const each : {&left, &right})
    {
        expectEqual(each->setSpeed(SPEED), 0, "the result of setting the speed");
        expectEqual(each->open(), 0, "the result of opening " + each->getPort());
    }
    bytes const data = patternOf(SIZE);
    kit::stopwatch const watch;
    std::thread fromLeft([&] { sendInPieces(left, data); });
    std::thread fromRight([&] { sendInPieces(right, data); });
    std::thread toLeft([&] { expect(receive(left, SIZE) == data, "what the right sends arrives"); });
    expect(receive(right, SIZE) == data, "what the left sends arrives");
    for (std::thread* const each : {&fromLeft, &fromRight, &toLeft})
    {
        each->join();
    }
    double const ideal_sec = SIZE * 10.0 / SPEED;
    expect(watch.elapsed_sec() >= 0.98 * ideal_sec, "the line takes its time");
    figure("38400 bit/s, raw bytes both ways, use of the line", 100.0 * ideal_sec / watch.elapsed_sec(), "%");
    expectEqual(wires.count(0).carried - before, std::uint64_t{SIZE}, "the number of characters carried");
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
