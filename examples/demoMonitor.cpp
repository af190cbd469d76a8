#include "demoMonitor.h"

#include "demoJournal.h"
#include "demoStation.h"
#include "serialPort.h"

#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <system_error>

namespace examples
{
namespace
{

/// Blocks the signals that end the program, for this thread and for all that it will create.
sigset_t blockEndingSignals()
{
    sigset_t ending;
    sigemptyset(&ending);
    for (int const each : {SIGINT, SIGTERM, SIGHUP})
    {
        sigaddset(&ending, each);
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return ending;
}

class silence : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override {}
    void log(double const&, std::int32_t const&, std::string const&) override {}
};

/// Why the device cannot be used; empty when it can. A port would only say that it could not be started.
std::string obstacle(std::string const& device, unsigned speed)
{
    silence log;
    serialPort serial(device, log);
    int const refused = serial.setSpeed(speed);
    int const result = refused != 0 ? refused : serial.open();
    switch (result)
    {
    case 0:
        return "";
    case EBUSY:
        return "another program is using it";
    case EINVAL:
        return "it cannot run at this speed";
    default:
        return std::generic_category().message(result);
    }
}

bool startAt(demoStation& station, unsigned speed)
{
    return station.port().configurePort(speed, 8, PARITY_NONE, 1, 0, 0.2, 0.6, 3) == 0 && station.start();
}

void introduce(gssipPortInterface& port, demoJournal& journal)
{
    std::string settings;
    port.getPortConfigStr(settings);
    journal.note(settings);
    journal.note("Receiving until interrupted.\n");
    journal.columnTitles();
}

} // namespace

int monitorDevice(std::string const& device, unsigned speed, std::ostream& out, std::ostream& errors)
{
    sigset_t const ending = blockEndingSignals();
    std::string problem = obstacle(device, speed);
    demoJournal journal(out);
    demoStation station("", device, journal, demoStation::invalidMessages::SHOW);
    if (problem.empty() && !startAt(station, speed))
    {
        problem = "the port did not start";
    }
    if (!problem.empty())
    {
        errors << "gssip-demo: cannot receive on " << device << " at " << speed << " bit/s: " << problem << std::endl;
        return 1;
    }
    introduce(station.port(), journal);
    int signal = 0;
    sigwait(&ending, &signal);
    station.stop();
    return 128 + signal;
}

} // namespace examples
