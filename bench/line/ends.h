#ifndef BENCH_ENDS_H
#define BENCH_ENDS_H

#include "lineUnderTest.h"
#include "measurement.h"
#include "portEnd.h"
#include "process.h"
#include "rawK3.h"
#include "rawWrite.h"

#include <cstddef>

namespace bench
{

// How the two ends of a line are made for each contender. Whatever is made lives until the process ends, and its
// threads run on the processor of its end; the caller is left on that of the near end.

template <typename End>
struct pairOf
{
    End& near;
    End& far;
};

template <typename Make>
auto makeEnds(options const& asked, Make const& make)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    runOn(place::farEnd);
    auto& far = make(line, place::farEnd);
    runOn(place::nearEnd);
    auto& near = make(line, place::nearEnd);
    return pairOf<std::remove_reference_t<decltype(near)>>{near, far};
}

inline pairOf<portEnd> makePorts(options const& asked)
{
    return makeEnds(
        asked, [](lineUnderTest const& line, place end) -> portEnd& { return startedPort<portEnd>(line.nameAt(end)); });
}

/// `bytes` go from the near end to the far one, `bytesBack` the other way.
inline pairOf<rawK3> makeRawK3(options const& asked, std::size_t bytesBack)
{
    return makeEnds(asked, [&](lineUnderTest const& line, place end) -> rawK3& {
        return everlasting<rawK3>(line.descriptorAt(end), end == place::nearEnd ? bytesBack : asked.bytes,
                                  asked.transmitPriority());
    });
}

inline pairOf<rawWrite> makeRawWrite(options const& asked)
{
    return makeEnds(asked, [&](lineUnderTest const& line, place end) -> rawWrite& {
        return everlasting<rawWrite>(line.descriptorAt(end), asked.bytes);
    });
}

/// Takes one message after the other until the process ends, and calls `then` after each.
template <typename End, typename Then>
void forEachReceived(End& end, Then const& then)
{
    typename End::message received;
    while (true)
    {
        end.receive(received);
        then(received);
    }
}

} // namespace bench

#endif
