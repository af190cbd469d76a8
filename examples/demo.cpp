// The demonstration: two ports exchange messages over a null modem (`gssip-demo`), or one port receives on a real
// device and prints what arrives (`gssip-demo DEVICE [SPEED]`).

#include "demoMonitor.h"
#include "demoScenario.h"
#include "gssipVersion.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <limits>
#include <string>

int main(int argc, char** argv)
{
    CLI::App program("Two GSSIP ports exchange messages over a null modem, every event on a line of its own.\n"
                     "With a device: receives there and prints what arrives until interrupted.",
                     "gssip-demo");
    program.set_version_flag("--version", gssipVersion());
    std::string device;
    unsigned speed = 115200;
    CLI::Option* const deviceOption = program.add_option("DEVICE", device, "serial device to receive on");
    program.add_option("SPEED", speed, "its speed in bit/s, 8N1")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()))
        ->capture_default_str();
    program.footer("Exit status: 0 when everything happened as it should, 1 when not (or the device cannot be used),\n"
                   "2 for a wrong command line, 128 + the signal's number when interrupted.");
    try
    {
        program.parse(argc, argv);
    }
    catch (CLI::ParseError const& error)
    {
        return program.exit(error) == 0 ? 0 : 2;
    }
    if (*deviceOption)
    {
        return examples::monitorDevice(device, speed, std::cout, std::cerr);
    }
    return examples::demoScenario(std::cout).run() ? 0 : 1;
}
