#ifndef BENCH_STREAM_H
#define BENCH_STREAM_H

#include "ends.h"

#include <cstddef>
#include <cstdint>
#include <future>

namespace bench
{

inline figures streamFigures(std::size_t count, std::int64_t time_ns, std::int64_t processor_ns)
{
    auto const messages = static_cast<double>(count);
    return {{"rate_per_sec", messages * 1e9 / static_cast<double>(time_ns)},
            {"cpu_ns", static_cast<double>(processor_ns) / messages}};
}

/// Lets `send` go on until `awaitEnd` returns.
template <typename Send, typename AwaitEnd>
figures timeStream(std::size_t count, Send const& send, AwaitEnd const& awaitEnd)
{
    std::int64_t const processorBefore_ns = processorTime_ns();
    std::int64_t const start_ns = now_ns();
    for (std::size_t i = 0; i < count; ++i)
    {
        send(i);
    }
    awaitEnd();
    return streamFigures(count, now_ns() - start_ns, processorTime_ns() - processorBefore_ns);
}

/// Tells when so many have come.
class arrivals
{
  public:
    explicit arrivals(std::size_t countToExpect) : expected(countToExpect) {}

    void one()
    {
        if (++seen == expected)
        {
            all.set_value();
        }
    }

    void await() { all.get_future().wait(); }

  private:
    std::size_t const expected;
    std::size_t seen = 0;
    std::promise<void> all;
};

template <typename End>
figures stream(pairOf<End> ends, typename End::message const& message, std::size_t count)
{
    auto& received = everlasting<arrivals>(count);
    threadOn(place::farEnd, [ends, &received] {
        forEachReceived(ends.far, [&](typename End::message const&) { received.one(); });
    }).detach();
    return timeStream(
        count, [&](std::size_t) { ends.near.send(message); }, [&] { received.await(); });
}

} // namespace bench

#endif
