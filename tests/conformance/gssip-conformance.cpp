// Plays test vectors: at this library's own port on a pseudo-terminal, or at any implementation at the far end of a
// serial line.

#include "deviceSubject.h"
#include "gssipVersion.h"
#include "portSubject.h"
#include "runner.h"
#include "vectorReader.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

using namespace conformance;

struct options
{
    std::vector<std::string> files;
    std::string device;
    std::string application;
    std::string only;
    lineFraming line;
    std::string framing = "8N1";
    double patience_sec = 10.0;
    bool list = false;
};

/// Data bits, parity and stop bits as in 8N1; an empty string when it is well formed, what is wrong otherwise.
std::string readFraming(std::string const& text, lineFraming& line)
{
    static std::map<char, PARITY_TYPE> const parities{
        {'N', PARITY_NONE}, {'O', PARITY_ODD}, {'E', PARITY_EVEN}, {'M', PARITY_MARK}, {'S', PARITY_SPACE}};
    if (text.size() != 3 || text[0] < '5' || text[0] > '8' || parities.count(text[1]) == 0 ||
        (text[2] != '1' && text[2] != '2'))
    {
        return "'" + text + "' is not like 8N1: data bits 5 to 8, parity N O E M or S, stop bits 1 or 2";
    }
    line.dataBits = static_cast<unsigned>(text[0] - '0');
    line.parity = parities.at(text[1]);
    line.stopBits = static_cast<unsigned>(text[2] - '0');
    return {};
}

void describe(CLI::App& program, options& chosen)
{
    program.set_version_flag("--version", gssipVersion());
    program.add_option("FILE", chosen.files, "files of vectors, in the format that README.md describes")->required();
    program.add_option("--device", chosen.device,
                       "play at what is connected to this serial device, and judge by what the line shows");
    program.add_option("--speed", chosen.line.speed, "the device's speed in bit/s")
        ->check(CLI::Range(1U, std::numeric_limits<unsigned>::max()))
        ->capture_default_str();
    program.add_option("--framing", chosen.framing, "its data bits, parity and stop bits")
        ->check([&chosen](std::string const& text) { return readFraming(text, chosen.line); })
        ->capture_default_str();
    program.add_option("--application", chosen.application,
                       "command that makes the application at the far end do what a vector asks for: it is run with "
                       "the statement behind it; without it such vectors are skipped");
    program.add_option("--only", chosen.only, "play only vectors whose name contains this");
    program.add_option("--patience", chosen.patience_sec, "seconds that an expected reaction may take")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    program.add_flag("--list", chosen.list, "print the names of the vectors and play none");
    program.footer("Exit status: 0 when no vector failed, 1 when one did (or nothing answers at the device), 2 for a "
                   "wrong command line,\na file that is no file of vectors, or a device that cannot be used.");
}

std::vector<vectorFile> readAll(std::vector<std::string> const& paths)
{
    std::vector<vectorFile> files;
    files.reserve(paths.size());
    for (std::string const& path : paths)
    {
        files.push_back(readVectors(path));
    }
    return files;
}

int playAtPort(std::vector<vectorFile> const& files, options const& chosen)
{
    portSubject port;
    return playFiles(files, chosen.only, port, duration(chosen.patience_sec), std::cout).failed == 0 ? 0 : 1;
}

int playAtDevice(std::vector<vectorFile> const& files, options const& chosen)
{
    deviceSubject device(chosen.device, chosen.line, chosen.application);
    std::string const obstacle = whyNoExchange(device, duration(chosen.patience_sec));
    if (!obstacle.empty())
    {
        std::cerr << chosen.device << ": a request is not answered as it should be, nothing is played: " << obstacle
                  << '\n';
        return 1;
    }
    return playFiles(files, chosen.only, device, duration(chosen.patience_sec), std::cout).failed == 0 ? 0 : 1;
}

int run(options const& chosen)
try
{
    std::vector<vectorFile> const files = readAll(chosen.files);
    if (chosen.list)
    {
        listFiles(files, chosen.only, std::cout);
        return 0;
    }
    return chosen.device.empty() ? playAtPort(files, chosen) : playAtDevice(files, chosen);
}
catch (std::exception const& error)
{
    std::cerr << error.what() << '\n';
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App program("Plays test vectors of the protocol: bytes that go to a port, and the exact reaction to them.\n"
                     "Without a device: at this library's own port, on a pseudo-terminal.",
                     "gssip-conformance");
    options chosen;
    describe(program, chosen);
    try
    {
        program.parse(argc, argv);
    }
    catch (CLI::ParseError const& error)
    {
        return program.exit(error) == 0 ? 0 : 2;
    }
    return run(chosen);
}
