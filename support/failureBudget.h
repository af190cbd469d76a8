#ifndef FAILUREBUDGET_H
#define FAILUREBUDGET_H

#include "monotonicTime.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace gssipInternal
{

/// Decides how long a failure is held back before it is reported, so that a device that is gone costs next to nothing.
///
/// The first failure is reported at once, each further one after a pause that doubles from 10 ms to 1 s while nothing
/// succeeds. Besides, no more than ten are reported in any second, which a success in between does not change.
/// Not safe for concurrent calls.
class failureBudget
{
  public:
    /// How long to hold back a failure that happened now.
    std::int64_t pauseBefore_ns(std::int64_t now_ns) const noexcept
    {
        std::int64_t const oldest_ns = reports[next];
        return std::max({pause_ns, oldest_ns + WINDOW_NS - now_ns, std::int64_t{0}});
    }

    /// A failure is reported now. One that is held back and then not reported costs nothing of the budget.
    void reported(std::int64_t now_ns) noexcept
    {
        pause_ns = std::clamp(2 * pause_ns, FIRST_PAUSE_NS, NS_PER_SEC);
        reports[next] = now_ns;
        next = (next + 1) % reports.size();
    }

    /// Something succeeded: the next failure is a first one again, within the budget.
    void succeeded() noexcept { pause_ns = 0; }

  private:
    static constexpr std::int64_t FIRST_PAUSE_NS = 10 * NS_PER_MS;
    /// More than a second, so that one report that comes late does not leave room for an eleventh.
    static constexpr std::int64_t WINDOW_NS = 1100 * NS_PER_MS;
    static constexpr std::int64_t LONG_AGO_NS = -WINDOW_NS;

    std::int64_t pause_ns = 0;
    std::size_t next = 0;
    std::array<std::int64_t, 10> reports{LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS,
                                         LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS, LONG_AGO_NS};
};

} // namespace gssipInternal

#endif
