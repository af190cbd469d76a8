#ifndef SHAREDSETTINGS_H
#define SHAREDSETTINGS_H

#include "lineSettings.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace gssipInternal
{

/// The line's settings in force, for every thread.
class sharedSettings
{
  public:
    lineSettings now() const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return settings;
    }

    // What every message needs to know, without the lock.
    double byteTime_sec() const noexcept { return times.byte_sec; }
    std::int64_t byteTime_ns() const noexcept { return times.byte_ns; }
    std::int64_t gap_ns() const noexcept { return times.gap_ns; }

    /// Replaces the settings by what `edit` makes of them, if `apply` (called with the new ones) returns 0; else the
    /// settings stay, and its result is returned.
    template <typename Edit, typename Apply>
    int change(Edit const& edit, Apply const& apply)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        lineSettings wanted = settings;
        edit(wanted);
        int const status = apply(wanted);
        if (status == 0)
        {
            settings = wanted;
            times.follow(wanted);
        }
        return status;
    }

  private:
    struct lineTimes
    {
        explicit lineTimes(lineSettings const& initial) { follow(initial); }

        void follow(lineSettings const& changed) noexcept
        {
            byte_sec = changed.byteTime_sec();
            byte_ns = changed.byteTime_ns();
            gap_ns = changed.gap_ns();
        }

        std::atomic<double> byte_sec{};
        std::atomic<std::int64_t> byte_ns{};
        std::atomic<std::int64_t> gap_ns{};
    };

    mutable std::mutex mutex; ///< guards `settings`; never held while bytes are read or written
    lineSettings settings;
    lineTimes times{settings}; ///< of `settings`, and changed with them
};

} // namespace gssipInternal

#endif
