#ifndef ASCIILOGINTERFACE_H
#define ASCIILOGINTERFACE_H

#include "gssipExport.h"

#include <cstdint>
#include <string>

/// The application's sink for log lines.
///
/// The port keeps a pointer, so the object must outlive the port. Level 2 tells of faults in received messages and of
/// a handshake reject that was sent with its extra bit, level 4 of a failed serial read and of failures to make or to
/// take down the acknowledgement tracker.
///
/// Both operations are called from the port's own threads and from threads of the application, also at the same time:
/// they must be safe for concurrent calls. Framing of received bytes is held up while a line of the receiver is being
/// written: be quick. An exception thrown on a thread of the port costs the line and nothing else.
///
/// The order of the virtual operations is part of the binary interface: the two operations fill slots 0 and 1.
class GSSIP_EXPORT asciiLogInterface
{
  public:
    /// Takes one line that has no time.
    virtual void log(std::int32_t const& level, std::string const& text) = 0;

    /// Takes one line; `time_sec` comes from the port's time-stamp source, read just before the call.
    virtual void log(double const& time_sec, std::int32_t const& level, std::string const& text) = 0;

    virtual ~asciiLogInterface() = default;
};

#endif
