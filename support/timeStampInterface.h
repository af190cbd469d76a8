#ifndef TIMESTAMPINTERFACE_H
#define TIMESTAMPINTERFACE_H

#include "gssipExport.h"

/// The application's clock: it stamps sent and received messages and timed log lines.
///
/// The port keeps a reference, so the object must outlive the port. The order of the virtual operations is part of
/// the binary interface: the destructor fills slots 0 and 1, the clock is slot 2.
class GSSIP_EXPORT timeStampInterface
{
  public:
    virtual ~timeStampInterface() = default;

    /// The present time in seconds, from any epoch.
    ///
    /// Called from every thread of the port and from the application's own, also at the same time: it must be safe
    /// for concurrent calls, and quick. It must not step: the age of a message that waits for its acknowledgement is
    /// the difference of two of these times. An exception thrown on a thread of the port costs the message at hand.
    virtual double getTime_sec() = 0;
};

#endif
