#ifndef EXAMPLES_DEMOJOURNAL_H
#define EXAMPLES_DEMOJOURNAL_H

#include "demoPrinting.h"
#include "frameSplitter.h"
#include "gssipMessage.h"
#include "nullModem.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace examples
{

/// Something that was seen on the line.
struct sighting
{
    nullModem::direction way = nullModem::A_TO_B;
    piece what;
    double time_sec = 0.0;
};

/// Everything that happens in the demonstration: each event is printed as it comes, and kept to be judged by.
///
/// All operations may be called from any thread.
class demoJournal
{
  public:
    explicit demoJournal(std::ostream& stream) : printer(stream) {}

    void columnTitles() { printer.columnTitles(); }
    void heading(std::string const& text);
    void note(std::string const& text) { printer.plain(text); }
    void line(nullModem::direction way, piece const& seen, std::string const& fate);
    void taken(std::string const& place, gssipMessage const& message, std::string const& remark);
    void logged(std::string const& place, std::int32_t level, std::string const& text);

    /// Prints whether something was as expected, and remembers it.
    void expect(bool asExpected, std::string const& what);

    /// Prints how many expectations there were, and returns whether all were met.
    bool summary();

    /// Waits until `condition`, which may ask this journal, is true. False when that takes too long.
    bool waitUntil(std::function<bool()> const& condition,
                   std::chrono::duration<double> limit = std::chrono::seconds(5));

    // What has been seen so far.
    std::vector<sighting> frames(nullModem::direction way, std::uint16_t id, std::uint16_t flags) const;
    std::size_t fillers(nullModem::direction way) const;
    std::size_t timesTaken(std::string const& place, std::uint16_t id) const;
    std::size_t timesLogged(std::string const& place, std::string const& part) const; ///< lines that contain `part`

  private:
    struct takenMessage
    {
        std::string place;
        std::uint16_t id = 0;
    };
    struct logLine
    {
        std::string place;
        std::string text;
    };

    eventPrinter printer; // safe by itself

    /// Guards what follows. Recursive, since a condition that is waited for asks the journal.
    mutable std::recursive_mutex mutex;
    std::condition_variable_any changed;
    std::vector<sighting> sightings;
    std::vector<takenMessage> takenMessages;
    std::vector<logLine> logLines;
    unsigned met = 0;
    unsigned notMet = 0;
};

} // namespace examples

#endif
