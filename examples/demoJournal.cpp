#include "demoJournal.h"

#include "monotonicTimeStamp.h"

#include <algorithm>

namespace examples
{
namespace
{

std::string arrow(nullModem::direction way)
{
    return way == nullModem::A_TO_B ? "A --> B" : "A <-- B";
}

std::size_t counted(std::ptrdiff_t number)
{
    return static_cast<std::size_t>(number);
}

} // namespace

void demoJournal::heading(std::string const& text)
{
    printer.plain("\n" + text);
}

void demoJournal::line(nullModem::direction way, piece const& seen, std::string const& fate)
{
    eventLine text{arrow(way), "", "", seen.image, fate};
    if (seen.what == piece::FRAME)
    {
        text.id = idText(frameId(seen.image));
        text.flags = flagsInWords(frameFlags(seen.image));
    }
    printer.event(text);
    {
        std::lock_guard<std::recursive_mutex> const lock(mutex);
        sightings.push_back({way, seen, monotonicTimeStamp().getTime_sec()});
    }
    changed.notify_all();
}

void demoJournal::taken(std::string const& place, gssipMessage const& message, std::string const& remark)
{
    printer.event({place, idText(message.getId()), flagsInWords(message.getProtocolFlags()),
                   message.getHeaderAndDataUint8(), remark});
    {
        std::lock_guard<std::recursive_mutex> const lock(mutex);
        takenMessages.push_back({place, message.getId()});
    }
    changed.notify_all();
}

void demoJournal::logged(std::string const& place, std::int32_t level, std::string const& text)
{
    printer.event({place, "", "", {}, "logs at level " + std::to_string(level) + ": " + text});
    {
        std::lock_guard<std::recursive_mutex> const lock(mutex);
        logLines.push_back({place, text});
    }
    changed.notify_all();
}

void demoJournal::expect(bool asExpected, std::string const& what)
{
    printer.plain((asExpected ? "              as expected: " : "          NOT as expected: ") + what);
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    ++(asExpected ? met : notMet);
}

bool demoJournal::summary()
{
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    std::size_t const frameCount = counted(std::count_if(
        sightings.begin(), sightings.end(), [](sighting const& each) { return each.what.what == piece::FRAME; }));
    printer.plain("\nSummary: " + std::to_string(frameCount) + " frames on the line, " +
                  std::to_string(takenMessages.size()) + " messages received, " + std::to_string(logLines.size()) +
                  " lines logged");
    printer.plain("         " + std::to_string(met) + " as expected, " + std::to_string(notMet) + " NOT as expected");
    return notMet == 0;
}

bool demoJournal::waitUntil(std::function<bool()> const& condition, std::chrono::duration<double> limit)
{
    std::unique_lock<std::recursive_mutex> lock(mutex);
    return changed.wait_for(lock, limit, condition);
}

std::vector<sighting> demoJournal::frames(nullModem::direction way, std::uint16_t id, std::uint16_t flags) const
{
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    std::vector<sighting> found;
    std::copy_if(sightings.begin(), sightings.end(), std::back_inserter(found), [&](sighting const& each) {
        return each.way == way && each.what.what == piece::FRAME && frameId(each.what.image) == id &&
               frameFlags(each.what.image) == flags;
    });
    return found;
}

std::size_t demoJournal::fillers(nullModem::direction way) const
{
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    return counted(std::count_if(sightings.begin(), sightings.end(), [&](sighting const& each) {
        return each.way == way && each.what.what == piece::FILLER;
    }));
}

std::size_t demoJournal::timesTaken(std::string const& place, std::uint16_t id) const
{
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    return counted(std::count_if(takenMessages.begin(), takenMessages.end(),
                                 [&](takenMessage const& each) { return each.place == place && each.id == id; }));
}

std::size_t demoJournal::timesLogged(std::string const& place, std::string const& part) const
{
    std::lock_guard<std::recursive_mutex> const lock(mutex);
    return counted(std::count_if(logLines.begin(), logLines.end(), [&](logLine const& each) {
        return each.place == place && each.text.find(part) != std::string::npos;
    }));
}

} // namespace examples
