#ifndef KIT_AWAITONLINE_H
#define KIT_AWAITONLINE_H

#include "pseudoTerminal.h"

#include <algorithm>

namespace kit
{

/// Reads what the device sends until `wanted` has come that many times, whatever comes in between.
inline bool awaitOnLine(pseudoTerminal& line, bytes const& wanted, int times = 1)
{
    bytes tail;
    while (times > 0)
    {
        bytes const next = line.read(1);
        if (next.empty())
        {
            return false;
        }
        tail.push_back(next.front());
        if (tail.size() >= wanted.size() && std::equal(wanted.rbegin(), wanted.rend(), tail.rbegin()))
        {
            --times;
            tail.clear();
        }
    }
    return true;
}

} // namespace kit

#endif
