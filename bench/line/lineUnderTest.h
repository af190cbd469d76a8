#ifndef BENCH_LINEUNDERTEST_H
#define BENCH_LINEUNDERTEST_H

#include "process.h"

#include <array>
#include <string>

namespace bench
{

/// What joins the two ends of a line.
enum class joint {
    hook, ///< one pseudo-terminal, whose two sides are the ends: nothing in between that costs time
    relay ///< two pseudo-terminals, and a thread for each direction that passes the bytes on
};

/// A line with two ends, each of which can be opened once by name or used by descriptor.
///
/// Failures of the machine throw `std::system_error`. Never destroyed before the end of the process.
class lineUnderTest
{
  public:
    explicit lineUnderTest(joint kind);
    lineUnderTest(lineUnderTest const&) = delete;
    lineUnderTest& operator=(lineUnderTest const&) = delete;

    std::string const& nameAt(place end) const { return names[index(end)]; }
    int descriptorAt(place end) const { return descriptors[index(end)]; }

  private:
    static std::size_t index(place end) { return end == place::nearEnd ? 0 : 1; }

    std::array<std::string, 2> names;
    std::array<int, 2> descriptors{};
};

} // namespace bench

#endif
