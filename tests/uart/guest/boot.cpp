// The machine, its drivers and its cables are what the other scenarios take them for.

#include "line.h"
#include "scenario.h"
#include "serialPort.h"
#include "streamLog.h"

#include <ctime>
#include <iostream>
#include <sys/utsname.h>

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

void cableCarriesAndCounts(unsigned pair)
{
    streamLog log(std::cout);
    line wires = line::betweenUarts(pair);
    wires.setSpeed(9600);
    serialPort sender(wires.device(0), log);
    serialPort receiver(wires.device(1), log);
    expectEqual(sender.open(), 0, "the result of opening " + wires.device(0));
    expectEqual(receiver.open(), 0, "the result of opening " + wires.device(1));
    std::uint64_t const before = wires.count(0).carried;
    unsigned char const text[] = {0, 17, 255, 3};
    unsigned sent = 0;
    expectEqual(sender.send(text, sizeof text, sent), 0, "the result of sending");
    std::string received;
    while (received.size() < sizeof text)
    {
        unsigned char part[16];
        unsigned count = 0;
        if (!expectEqual(receiver.receive(part, sizeof part, count), 0, "the result of receiving"))
        {
            return;
        }
        received.append(reinterpret_cast<char*>(part), count);
    }
    expect(received == std::string(reinterpret_cast<char const*>(text), sizeof text), "what was sent arrives");
    expectEqual(wires.count(0).carried - before, std::uint64_t{sizeof text}, "the number of characters carried");
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
