#ifndef KIT_RECORDINGLOG_H
#define KIT_RECORDINGLOG_H

#include "asciiLogInterface.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace kit
{

/// One line as it was given to the log.
struct logLine
{
    std::optional<double> time_sec; ///< none: the operation without a time
    std::int32_t level = 0;
    std::string text;
};

/// Keeps every line, in order.
class recordingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& level, std::string const& text) override { keep({std::nullopt, level, text}); }
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        keep({time_sec, level, text});
    }

    std::vector<logLine> lines() const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return kept;
    }

    std::size_t count(std::string const& text) const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return countLocked(text);
    }

    /// Waits until `text` has been logged `times` times; false when that has not happened within the limit.
    bool waitFor(std::string const& text, std::size_t times = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return countLocked(text) >= times; });
    }

  private:
    void keep(logLine line)
    {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            kept.push_back(std::move(line));
        }
        changed.notify_all();
    }

    std::size_t countLocked(std::string const& text) const
    {
        std::size_t found = 0;
        for (logLine const& line : kept)
        {
            found += line.text == text ? 1U : 0U;
        }
        return found;
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<logLine> kept;
};

} // namespace kit

#endif
