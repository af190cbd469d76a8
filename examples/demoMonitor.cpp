#include "demoMonitor.h"

#include "demoJournal.h"
#include "demoStation.h"
#include "serialPort.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <pthread.h>

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

int configure(gssipPortInterface& port, unsigned speed)
{
    return port.configurePort(speed, 8, PARITY_NONE, 1, 0, 0.2, 0.6, 3);
}

/// Receives until a signal comes, and returns it; nothing when the port cannot be started.
std::optional<int> receiveUntilSignal(std::string const& device, unsigned speed, demoJournal& journal)
{
    sigset_t const ending = blockEndingSignals();
    demoStation station("recv", device, journal, demoStation::invalidMessages::SHOW);
    if (configure(station.port(), speed) != 0 || !station.start())
    {
        return std::nullopt;
    }
    std::string settings;
    station.port().getPortConfigStr(settings);
    journal.heading("Receiving until interrupted: " + settings + "\n");
    int signal = 0;
    sigwait(&ending, &signal);
    station.stop();
    return signal;
}

class silence : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override {}
    void log(double const&, std::int32_t const&, std::string const&) override {}
};

/// A port only says that it could not be started; the device itself says why.
std::string reasonFor(std::string const& device, unsigned speed)
{
    silence log;
    serialPort serial(device, log);
    int const refused = serial.setSpeed(speed);
    int const result = refused != 0 ? refused : serial.open();
    switch (result)
    {
    case 0:
        return "it was in use a moment ago; try again";
    case EBUSY:
        return "another program is using it";
    case EINVAL:
        return "it cannot run at this speed";
    default:
        return std::strerror(result);
    }
}

} // namespace

int monitorDevice(std::string const& device, unsigned speed, std::ostream& out, std::ostream& errors)
{
    demoJournal journal(out);
    if (std::optional<int> const signal = receiveUntilSignal(device, speed, journal))
    {
        return 128 + *signal;
    }
    errors << "gssip-demo: cannot receive on " << device << " at " << speed << " bit/s: " << reasonFor(device, speed)
           << std::endl;
    return 1;
}

} // namespace examples
