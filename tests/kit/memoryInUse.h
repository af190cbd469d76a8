#ifndef KIT_MEMORYINUSE_H
#define KIT_MEMORYINUSE_H

#include <cstddef>
#include <fstream>
#include <malloc.h>
#include <unistd.h>

namespace kit
{

/// The bytes that this process has allocated and not given back, as the C library's allocator counts them.
/// A sanitizer's allocator counts none.
inline std::size_t heapInUse_bytes()
{
    struct mallinfo2 const now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

/// The bytes of this process that stand in the machine's memory.
inline std::size_t residentMemory_bytes()
{
    std::size_t pages = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace kit

#endif
