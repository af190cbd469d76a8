#include "demoStation.h"

#include <system_error>
#include <utility>

namespace examples
{

demoStation::journalLog::journalLog(std::string nameOfPlace, demoJournal& journalToFill)
    : place(std::move(nameOfPlace)), journal(journalToFill)
{}

void demoStation::journalLog::log(std::int32_t const& level, std::string const& text)
{
    journal.logged(place, level, text);
}

void demoStation::journalLog::log(double const&, std::int32_t const& level, std::string const& text)
{
    journal.logged(place, level, text);
}

demoStation::demoStation(std::string const& nameOfPlace, std::string const& device, demoJournal& journalToFill,
                         invalidMessages treatmentOfInvalid)
    : place(nameOfPlace), journal(journalToFill), treatment(treatmentOfInvalid), log(nameOfPlace, journalToFill),
      ownPort(device, clock, &log, false)
{}

demoStation::~demoStation()
{
    stop();
}

bool demoStation::start()
{
    if (!ownPort.start())
    {
        return false;
    }
    leaving = false;
    receiveThread = std::thread([this] { receiveLoop(); });
    return true;
}

bool demoStation::stop()
{
    // First the flag: on a stopped port `getMessage` returns at once, with an empty message.
    leaving = true;
    bool const stopped = ownPort.stop();
    if (receiveThread.joinable())
    {
        receiveThread.join();
    }
    return stopped;
}

void demoStation::receiveLoop()
{
    while (!leaving)
    {
        gssipMessage message;
        int const result = ownPort.getMessage(message, treatment == invalidMessages::SKIP);
        if (result != -1 && !leaving)
        {
            show(result, message);
        }
    }
}

void demoStation::show(int result, gssipMessage const& message)
{
    switch (result)
    {
    case 0:
        journal.taken(place, message, "received");
        break;
    case 1:
        journal.taken(place, message, "received, data checksum WRONG");
        break;
    default:
        journal.taken(place, message,
                      std::string("received, but no answer could be sent: ") + std::generic_category().message(result));
    }
}

} // namespace examples
