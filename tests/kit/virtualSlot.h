#ifndef KIT_VIRTUALSLOT_H
#define KIT_VIRTUALSLOT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kit
{

/// The slot that a virtual operation fills in its class's table of virtual operations, counted from 0; -1 when it is
/// not virtual. Reads the member pointer as the Itanium C++ ABI lays it out, in its ARM variant too.
template <typename Operation>
std::ptrdiff_t virtualSlot(Operation operation)
{
    struct
    {
        std::uintptr_t place;
        std::ptrdiff_t adjustment;
    } parts{};
    static_assert(sizeof(operation) == sizeof(parts), "not the member pointers of the Itanium C++ ABI");
    std::memcpy(&parts, &operation, sizeof(parts));
#if defined(__arm__) || defined(__aarch64__)
    bool const isVirtual = (parts.adjustment & 1) != 0;
    std::uintptr_t const offset = parts.place;
#else
    bool const isVirtual = (parts.place & 1U) != 0;
    std::uintptr_t const offset = parts.place - 1;
#endif
    return isVirtual ? static_cast<std::ptrdiff_t>(offset / sizeof(void*)) : -1;
}

} // namespace kit

#endif
