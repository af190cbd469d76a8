#ifndef STREAMLOG_H
#define STREAMLOG_H

#include "asciiLogInterface.h"
#include "monotonicTimeStamp.h"

#include <iomanip>
#include <locale>
#include <mutex>
#include <ostream>
#include <sstream>

/// A ready-made log sink: one line "time level text" a call, on a `std::ostream`.
///
/// The time is printed in seconds with six decimals; a line that has none gets the monotonic clock's. Lines of several
/// threads never mix, as long as nobody else writes to the stream. Each line is flushed. The stream must outlive the
/// object. Blocks as long as the stream does.
class streamLog : public asciiLogInterface
{
  public:
    /// Writes to that stream from now on.
    explicit streamLog(std::ostream& stream) : out(stream) {}

    void log(std::int32_t const& level, std::string const& text) override
    {
        log(monotonicTimeStamp().getTime_sec(), level, text);
    }

    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        std::ostringstream line;
        line.imbue(std::locale::classic()); // the same line whatever the application's locale
        line << std::fixed << std::setprecision(6) << time_sec << ' ' << level << ' ' << text << '\n';
        std::lock_guard<std::mutex> const lock(outMutex);
        out << line.str() << std::flush;
    }

  private:
    std::mutex outMutex; ///< guards `out`; nothing else is locked while it is held
    std::ostream& out;
};

#endif
