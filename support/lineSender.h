#ifndef LINESENDER_H
#define LINESENDER_H

#include "lineClock.h"
#include "sharedSettings.h"
#include "turnstile.h"
#include "wakeableDescriptor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <pthread.h>
#include <sys/types.h>

namespace gssipInternal
{

/// Writes messages to the device, one after the other and in the line's own time.
class lineSender
{
  public:
    lineSender(wakeableDescriptor& deviceToUse, sharedSettings const& settingsInForce)
        : device(deviceToUse), settings(settingsInForce)
    {}

    /// A device is about to be opened, with a line behind it or without. Nobody is inside.
    void prepare(bool deviceHasLine);

    /// See `serialPort::send`.
    int send(unsigned char const* bytes, unsigned count, unsigned& sent, std::function<void()> const& beforeFirstByte);

    /// While the device is being closed: grants the time that the line needs to a sender that is inside and to the
    /// bytes that the driver has accepted.
    void finish(int descriptor);

  private:
    int keepDistance(wakeableDescriptor::use& use);
    static int sleepUntil(wakeableDescriptor::use& use, std::int64_t time_ns);
    int writeAll(wakeableDescriptor::use& use, unsigned char const* bytes, unsigned count, unsigned& sent,
                 std::function<void()> const& beforeFirstByte);
    void noteTaken(unsigned count);
    static int afterNothingWritten(ssize_t written, wakeableDescriptor::use& use, std::int64_t& blockedSince_ns);
    static int waitForRoom(wakeableDescriptor::use& use, std::int64_t& blockedSince_ns);

    bool isIdle(unsigned queued) const;
    std::int64_t busyUntil_ns() const;
    void watch(unsigned queued);

    wakeableDescriptor& device;     // safe by itself
    sharedSettings const& settings; // safe by itself

    turnstile turns; ///< whose turn it is has the line, for the whole of a message
    lineClock line;  // changed by who has the line
    std::atomic<bool> hasLine{true};
    std::atomic<std::uint64_t> bytesTaken{0}; ///< by the driver, ever
};

} // namespace gssipInternal

#endif
