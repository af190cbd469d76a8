#ifndef GSSIPSENDACKREQEVENT_H
#define GSSIPSENDACKREQEVENT_H

#include "gssipMessage.h"

#include <cstdint>
#include <ctime>

/// One sent message whose acknowledgement is awaited.
struct gssipSendAckReqEvent
{
    gssipMessage message;              ///< as it was sent, with its time stamps
    timespec absTimeout{};             ///< the deadline, on CLOCK_REALTIME; without meaning until it has been computed
    std::uint32_t eventId = 0;         ///< given when the event is queued; counts up, wraps at 2^32
    std::uint32_t retransmitCount = 0; ///< 0: sent once, 1: resent, 2: given up
};

/// The order of pending events: by deadline, then by id. Strict and total while the ids differ.
inline bool eventLess(gssipSendAckReqEvent const& a, gssipSendAckReqEvent const& b)
{
    if (a.absTimeout.tv_sec != b.absTimeout.tv_sec)
    {
        return a.absTimeout.tv_sec < b.absTimeout.tv_sec;
    }
    if (a.absTimeout.tv_nsec != b.absTimeout.tv_nsec)
    {
        return a.absTimeout.tv_nsec < b.absTimeout.tv_nsec;
    }
    return a.eventId < b.eventId;
}

#endif
