#ifndef UART_DEVICES_H
#define UART_DEVICES_H

#include "discardingLog.h"
#include "line.h"
#include "serialPort.h"

#include <cstddef>
#include <string>
#include <vector>

namespace uart
{

using bytes = std::vector<unsigned char>;

/// Bytes that differ from their neighbours, and from those a buffer's length away.
bytes patternOf(std::size_t size);

/// What one call has given.
struct transfer
{
    int status = 0;
    bytes data;         ///< what was received
    unsigned count = 0; ///< how many bytes were sent or received
};

/// One `receive`, of at most so many bytes.
transfer receiveOnce(serialPort& port, unsigned capacity = 256);
/// Receives until so many bytes have come or a call fails, which is an expectation that is not met.
bytes receiveAll(serialPort& port, std::size_t count);
transfer sendAll(serialPort& port, bytes const& data);

/// A device with a log that drops every line.
struct device
{
    explicit device(std::string const& name) : port(name, log) {}
    /// Set and opened; a failure is an expectation that is not met.
    device(std::string const& name, unsigned speed);

    discardingLog log;
    serialPort port;
};

/// What a device holds, as anybody sees it who opens it.
struct heldSettings
{
    unsigned speed;
    unsigned framing;  ///< of the c_cflag: size, parity and stop bits
    unsigned baudBase; ///< the driver's clock, 0 when it does not tell
    bool isLowLatency;
};

heldSettings settingsOf(std::string const& deviceName);

/// The framing flags that stand for these settings.
unsigned framingOf(unsigned dataBits, PARITY_TYPE parity, unsigned stopBits);

/// Breaks, parity errors and the like, as the driver has counted them since the machine was started.
struct lineErrors
{
    int breaks;
    int parity;
    int framing;
    int overrun;
};

lineErrors errorsOf(std::string const& deviceName);

/// Ends what everybody has open of this device, as when it is pulled out.
void hangUp(std::string const& deviceName);

} // namespace uart

#endif
