// One message at a time: there and back, one way, and until it has been acknowledged.

#include "roundTrip.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace bench
{
namespace
{

/// Nothing is on its way for so long between two messages that go one way.
constexpr std::chrono::microseconds PAUSE(200);

template <typename End>
figures oneWay(pairOf<End> ends, typename End::message const& message, std::size_t count)
{
    auto& arrival_ns = everlasting<std::atomic<std::int64_t>>(0);
    threadOn(place::farEnd, [ends, &arrival_ns] {
        forEachReceived(ends.far, [&](typename End::message const&) { arrival_ns = now_ns(); });
    }).detach();
    return timeEach(count, [&] {
        arrival_ns = 0;
        std::int64_t const start_ns = now_ns();
        ends.near.send(message);
        do // both ends sleep between two messages
        {
            std::this_thread::sleep_for(PAUSE);
        } while (arrival_ns == 0);
        return arrival_ns - start_ns;
    });
}

/// Counts exchanges in which the thread that takes the acknowledgement sends the next message, and times each.
class exchanges
{
  public:
    exchanges(std::size_t countToTime, std::function<void()> sendNext)
        : count(countToTime), sendOne(std::move(sendNext))
    {
        times_ns.reserve(count);
    }

    void start() { next(); }

    /// An acknowledgement has come.
    void next()
    {
        std::int64_t const time_ns = now_ns();
        if (seen == WARM_UP)
        {
            processorBefore_ns = processorTime_ns();
        }
        else if (seen > WARM_UP)
        {
            times_ns.push_back(time_ns - sent_ns);
        }
        if (seen++ == WARM_UP + count)
        {
            processor_ns = processorTime_ns() - processorBefore_ns;
            finished.set_value();
            return;
        }
        sent_ns = now_ns();
        sendOne();
    }

    figures result()
    {
        finished.get_future().wait();
        return figuresOf(times_ns, processor_ns);
    }

  private:
    std::size_t const count;
    std::function<void()> const sendOne;
    std::size_t seen = 0;
    std::int64_t sent_ns = 0;
    std::int64_t processorBefore_ns = 0;
    std::int64_t processor_ns = 0;
    std::vector<std::int64_t> times_ns;
    std::promise<void> finished;
};

figures acknowledgedByPort(options const& asked)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    gssipMessage const message = messageOf(asked.bytes, 7, gssipMessage::ACK_REQ_FLAG);
    confirmedPort* near = nullptr;
    auto& timed = everlasting<exchanges>(asked.count, [&] { near->send(message); });

    runOn(place::farEnd);
    auto& far = startedPort<portEnd>(line.nameAt(place::farEnd));
    runOn(place::nearEnd);
    near = &startedPort<confirmedPort>(line.nameAt(place::nearEnd), [&timed] { timed.next(); });
    threadOn(place::farEnd, [&far] { forEachReceived(far, [](gssipMessage const&) {}); }).detach();
    threadOn(place::nearEnd, [near] { forEachReceived(*near, [](gssipMessage const&) {}); }).detach();
    timed.start();
    return timed.result();
}

figures acknowledgedByRawK3(options const& asked)
{
    pairOf<rawK3> const ends = makeRawK3(asked, HEADER_ONLY_BYTES);
    rawK3::message const message = rawK3::make(asked.bytes);
    auto& timed = everlasting<exchanges>(asked.count, [&] { ends.near.send(message); });
    threadOn(place::farEnd, [ends] {
        rawK3::message const reply = rawK3::make(HEADER_ONLY_BYTES);
        forEachReceived(ends.far, [&](rawK3::message const&) { ends.far.reply(reply); });
    }).detach();
    threadOn(place::nearEnd, [ends, &timed] {
        forEachReceived(ends.near, [&](rawK3::message const&) { timed.next(); });
    }).detach();
    timed.start();
    return timed.result();
}

template <typename Make>
measurement roundTripOf(Make const& make)
{
    return [make](options const& asked) {
        auto const ends = make(asked);
        return roundTrip(ends, ends.near.make(asked.bytes), asked.count);
    };
}

template <typename Make>
measurement oneWayOf(Make const& make)
{
    return [make](options const& asked) {
        auto const ends = make(asked);
        return oneWay(ends, ends.near.make(asked.bytes), asked.count);
    };
}

} // namespace

void addRoundTrips(measurements& all)
{
    auto const ports = [](options const& asked) { return makePorts(asked); };
    auto const k3 = [](options const& asked) { return makeRawK3(asked, asked.bytes); };
    auto const write = [](options const& asked) { return makeRawWrite(asked); };

    all[{"roundTrip", "port"}] = roundTripOf(ports);
    all[{"roundTrip", "rawK3"}] = roundTripOf(k3);
    all[{"roundTrip", "rawWrite"}] = roundTripOf(write);
    all[{"oneWay", "port"}] = oneWayOf(ports);
    all[{"oneWay", "rawK3"}] = oneWayOf(k3);
    all[{"oneWay", "rawWrite"}] = oneWayOf(write);
    all[{"acknowledgement", "port"}] = acknowledgedByPort;
    all[{"acknowledgement", "rawK3"}] = acknowledgedByRawK3;
    all[{"trackedRoundTrip", "port"}] = [](options const& asked) {
        return roundTrip(makePorts(asked), messageOf(asked.bytes, 7, gssipMessage::ACK_REQ_FLAG), asked.count);
    };
}

} // namespace bench
