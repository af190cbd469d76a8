// Many ports at the same time: each sends a message to its partner, and the next when all have arrived.

#include "ends.h"

#include <atomic>
#include <memory>
#include <semaphore.h>

namespace bench
{
namespace
{

/// Released when every port has received its message.
class meeting
{
  public:
    explicit meeting(std::size_t participants) : all(participants) { sem_init(&complete, 0, 0); }

    void arrive()
    {
        if (++arrived % all == 0)
        {
            sem_post(&complete);
        }
    }

    void await()
    {
        while (sem_wait(&complete) != 0)
        {}
    }

  private:
    std::size_t const all;
    std::atomic<std::size_t> arrived{0};
    sem_t complete{};
};

template <typename End>
void receiveAt(place where, End& end, meeting& all)
{
    threadOn(where, [&] { forEachReceived(end, [&](typename End::message const&) { all.arrive(); }); }).detach();
}

template <typename Make>
figures manyEnds(options const& asked, Make const& make)
{
    auto& all = everlasting<meeting>(asked.ports);
    std::vector<decltype(make(asked))> lines;
    for (std::size_t i = 0; i < asked.ports; i += 2)
    {
        lines.push_back(make(asked));
        receiveAt(place::nearEnd, lines.back().near, all);
        receiveAt(place::farEnd, lines.back().far, all);
    }
    auto const message = lines.front().near.make(asked.bytes);
    auto const exchange = [&] {
        for (auto const& line : lines)
        {
            line.near.send(message);
            line.far.send(message);
        }
        all.await();
    };
    exchange();
    std::int64_t const before_ns = processorTime_ns();
    for (std::size_t i = 0; i < asked.count; ++i)
    {
        exchange();
    }
    auto const messages = static_cast<double>(asked.count * asked.ports);
    return {{"cpu_ns", static_cast<double>(processorTime_ns() - before_ns) / messages}};
}

} // namespace

void addManyPorts(measurements& all)
{
    all[{"manyPorts", "port"}] = [](options const& asked) { return manyEnds(asked, makePorts); };
    all[{"manyPorts", "rawK3"}] = [](options const& asked) {
        return manyEnds(asked, [](options const& each) { return makeRawK3(each, each.bytes); });
    };
}

} // namespace bench
