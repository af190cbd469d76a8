#ifndef SCHEDULES_REFERENCEPORT_H
#define SCHEDULES_REFERENCEPORT_H

#include "referenceDecoder.h"
#include "referenceTracker.h"

#include <cstdint>
#include <string>
#include <vector>

/// \file
/// What a port does, told by what reaches it and when, and by what its application gives it: a second opinion, which
/// shares nothing with the library. Computing takes no time here, and neither does writing; a gate that holds messages
/// back is not in it.

namespace reference
{

/// Bytes that reach the port at the same time.
struct arrival
{
    std::int64_t when_ns = 0;
    bytes content;
};

/// What the application gives.
struct order
{
    enum kind {
        message, ///< to be written, and tracked if it is so wanted and asks for acknowledgement
        atOnce,  ///< to be written as it is: a handshake reject, the filler, raw bytes
    };

    std::int64_t when_ns = 0;
    kind what = message;
    bytes content;
    bool tracked = false;
    std::string logged; ///< the line that comes with it; empty: none
};

/// How the port has been set up, and how its application receives.
struct habits
{
    std::string number;         ///< of the port, in log lines
    bool answers = true;        ///< answers requests by itself
    bool returnsInvalid = true; ///< gives the application messages with a wrong data checksum
    trackerTimes times;
};

/// Whose doing it is. What different sources do at the same time may come in any order; what one source does has one.
enum class source { receiving, framing, transmitting, clock, application };

struct writing
{
    std::int64_t when_ns = 0;
    source by = source::receiving;
    bytes content;
};

struct delivery
{
    std::int64_t when_ns = 0;
    bool invalid = false;
    kit::decodedFrame frame;
};

struct logLine
{
    std::int64_t when_ns = 0;
    source by = source::receiving;
    std::int32_t level = 0;
    std::string text;
};

struct history
{
    std::vector<writing> written;
    std::vector<delivery> delivered;
    std::vector<logLine> logged;
    std::vector<kit::decodedFrame> framed; ///< every frame that was found, whoever got it
};

/// `arrivals` and `orders` in the order of time; no two of different kinds, and no deadline, at the same time.
history predict(habits const& how, std::vector<arrival> const& arrivals, std::vector<order> const& orders);

} // namespace reference

#endif
