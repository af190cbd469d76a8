#ifndef SHAREDSETTINGS_H
#define SHAREDSETTINGS_H

#include "lineSettings.h"

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
        }
        return status;
    }

  private:
    mutable std::mutex mutex; ///< guards `settings`; never held while bytes are read or written
    lineSettings settings;
};

} // namespace gssipInternal

#endif
