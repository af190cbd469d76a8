#ifndef UART_MEMORY_H
#define UART_MEMORY_H

#include <fstream>
#include <string>

namespace uart
{

/// Kilobytes of this process, by the name that the system gives them ("Rss", "Private_Dirty"), counted page by page:
/// the quicker counts elsewhere lag behind.
inline double memory_kB(std::string const& name)
{
    std::ifstream pages("/proc/self/smaps_rollup");
    std::string word;
    double value = 0.0;
    while (pages >> word)
    {
        if (word == name + ':')
        {
            pages >> value;
            break;
        }
    }
    return value;
}

} // namespace uart

#endif
