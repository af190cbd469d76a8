#ifndef KIT_SERIALPORTONLINE_H
#define KIT_SERIALPORTONLINE_H

#include "pseudoTerminal.h"
#include "recordingLog.h"
#include "serialPort.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace kit
{

/// What a `send` or a `receive` gave.
struct transfer
{
    int status = -1;
    unsigned count = 0xDEAD;
    bytes data; ///< what was received
};

/// A serial device on a line of its own, not open yet, and its two data operations in a convenient form.
struct serialPortOnLine
{
    pseudoTerminal line;
    recordingLog log;
    serialPort port{line.name(), log};

    transfer send(bytes const& data)
    {
        transfer result;
        result.status = port.send(data.data(), static_cast<unsigned>(data.size()), result.count);
        return result;
    }

    transfer receive(unsigned capacity = 4096)
    {
        transfer result;
        result.data.assign(capacity, 0xEE);
        result.status = port.receive(result.data.data(), capacity, result.count);
        result.data.resize(std::min(result.count, capacity));
        return result;
    }

    /// Receives until that many bytes have come, or a call fails or ends with none.
    bytes receiveAll(std::size_t count)
    {
        bytes all;
        while (all.size() < count)
        {
            transfer const next = receive();
            if (next.status != 0 || next.data.empty())
            {
                break;
            }
            all.insert(all.end(), next.data.begin(), next.data.end());
        }
        return all;
    }
};

inline bytes everyByteValue()
{
    bytes all(256);
    for (std::size_t value = 0; value < all.size(); ++value)
    {
        all[value] = static_cast<std::uint8_t>(value);
    }
    return all;
}

/// Bytes among which a lost, doubled or moved one is noticed.
inline bytes patternOf(std::size_t count)
{
    bytes pattern(count);
    for (std::size_t place = 0; place < count; ++place)
    {
        pattern[place] = static_cast<std::uint8_t>(place * 31 + place / 251);
    }
    return pattern;
}

} // namespace kit

#endif
