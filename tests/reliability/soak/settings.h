#ifndef SOAK_SETTINGS_H
#define SOAK_SETTINGS_H

#include <cstdint>

namespace soak
{

struct settings
{
    double length_sec = 0;
    double interval_sec = 0;      ///< from one fault to the next
    unsigned messagesPerSec = 50; ///< about so many are given to each port
    std::uint64_t seed = 1;
};

// The line and the time-outs of both ports.
constexpr unsigned SPEED = 921600;
constexpr double ACKNOWLEDGE_TIMEOUT_SEC = 0.2;
constexpr double HANDSHAKE_TIMEOUT_SEC = 0.02; ///< both ends ask for acknowledgement all the time

/// The driver is told that the line is blocked when it has taken nothing for so long.
constexpr double WRITE_TIMEOUT_SEC = 2.0;

} // namespace soak

#endif
