#ifndef KIT_WAITUNTIL_H
#define KIT_WAITUNTIL_H

#include <chrono>
#include <thread>

namespace kit
{

/// Waits for a condition that announces itself in no other way; false when it has not come true within the limit.
template <typename Condition>
bool waitUntil(Condition const& condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace kit

#endif
