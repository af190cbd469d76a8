#ifndef KIT_ENTRIESIN_H
#define KIT_ENTRIESIN_H

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

namespace kit
{

/// How many entries a folder has.
inline std::size_t entriesIn(std::string const& folder)
{
    auto const entries = std::filesystem::directory_iterator(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// The threads of this process; one that has been joined may count a little longer.
inline std::size_t threadsOfProcess()
{
    return entriesIn("/proc/self/task");
}

/// The descriptors that this process holds open, and the one with which they are counted.
inline std::size_t descriptorsOfProcess()
{
    return entriesIn("/proc/self/fd");
}

} // namespace kit

#endif
