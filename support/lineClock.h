#ifndef LINECLOCK_H
#define LINECLOCK_H

#include "monotonicTime.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace gssipInternal
{

/// Knows when the last character given to the driver will have left the line.
///
/// It is computed, since no driver tells: their counts read zero 16 to 128 characters too early. Times are nanoseconds
/// of the monotonic clock. One thread at a time may change it, any may ask.
class lineClock
{
  public:
    /// The line is idle.
    void reset() noexcept { end_ns = 0; }

    /// The driver took so many characters, each of which needs `byteTime_ns` on the line (0: there is no line).
    void took(std::int64_t now_ns, unsigned characters, std::int64_t byteTime_ns) noexcept
    {
        end_ns.store(std::max(endOfLine_ns(), now_ns) + characters * byteTime_ns, std::memory_order_relaxed);
    }

    /// The driver still holds so many characters: the end cannot be nearer than they take. A line that is a little
    /// slower than computed would otherwise fall behind by more with every message.
    void holds(std::int64_t now_ns, unsigned characters, std::int64_t byteTime_ns) noexcept
    {
        end_ns.store(std::max(endOfLine_ns(), now_ns + characters * byteTime_ns), std::memory_order_relaxed);
    }

    std::int64_t endOfLine_ns() const noexcept { return end_ns.load(std::memory_order_relaxed); }

    /// The earliest time to hand over the next message: the gap after the end, or without a gap just before the end, so
    /// that the line does not pause.
    std::int64_t earliestNext_ns(std::int64_t gap_ns) const noexcept
    {
        return endOfLine_ns() + (gap_ns > 0 ? gap_ns : -LEAD_NS);
    }

  private:
    static constexpr std::int64_t LEAD_NS = 2 * NS_PER_MS;

    std::atomic<std::int64_t> end_ns{0};
};

} // namespace gssipInternal

#endif
