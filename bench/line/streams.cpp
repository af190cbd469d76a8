// As many messages as the line takes: plain, tracked, long ones, and ready frames into a receiver.

#include "stream.h"

#include <atomic>
#include <deque>

namespace bench
{
namespace
{

/// Writes acknowledgements at the far end so that as many messages as asked for are always without one.
class lateAcknowledgements
{
  public:
    lateAcknowledgements(portEnd& portToUse, options const& asked) : port(portToUse), lag(asked.lag), left(asked.count)
    {
        port.setReceiveAutoAcknowledgeEnable(false);
    }

    void received(gssipMessage const& message)
    {
        waiting.push_back(message.getId());
        --left;
        while (waiting.size() > lag || (left == 0 && !waiting.empty()))
        {
            gssipMessage acknowledgement(waiting.front(), gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG, 0);
            waiting.pop_front();
            port.resendMessage(acknowledgement); // on this thread and past the queue, as the port itself does it
        }
    }

  private:
    portEnd& port;
    std::size_t const lag;
    std::size_t left;
    std::deque<std::uint16_t> waiting;
};

figures trackedStreamOfPort(options const& asked)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    auto& acknowledged = everlasting<arrivals>(asked.count);
    runOn(place::farEnd);
    auto& far = startedPort<portEnd>(line.nameAt(place::farEnd));
    runOn(place::nearEnd);
    auto& near = startedPort<confirmedPort>(line.nameAt(place::nearEnd), [&] { acknowledged.one(); });

    threadOn(place::nearEnd, [&near] { forEachReceived(near, [](gssipMessage const&) {}); }).detach();
    if (asked.lag == 0)
    {
        threadOn(place::farEnd, [&far] { forEachReceived(far, [](gssipMessage const&) {}); }).detach();
    }
    else
    {
        auto& late = everlasting<lateAcknowledgements>(far, asked);
        threadOn(place::farEnd, [&far, &late] {
            forEachReceived(far, [&](gssipMessage const& received) { late.received(received); });
        }).detach();
    }
    gssipMessage message = messageOf(asked.bytes, 0, gssipMessage::ACK_REQ_FLAG);
    return timeStream(
        asked.count,
        [&](std::size_t i) {
            message.setId(static_cast<std::uint16_t>(i));
            near.send(message);
        },
        [&] { acknowledged.await(); });
}

figures repliedStreamOfRawK3(options const& asked)
{
    pairOf<rawK3> const ends = makeRawK3(asked, HEADER_ONLY_BYTES);
    auto& replies = everlasting<arrivals>(asked.count);
    threadOn(place::farEnd, [ends] {
        rawK3::message const reply = rawK3::make(HEADER_ONLY_BYTES);
        forEachReceived(ends.far, [&](rawK3::message const&) { ends.far.reply(reply); });
    }).detach();
    threadOn(place::nearEnd, [ends, &replies] {
        forEachReceived(ends.near, [&](rawK3::message const&) { replies.one(); });
    }).detach();
    rawK3::message const message = rawK3::make(asked.bytes);
    return timeStream(
        asked.count, [&](std::size_t) { ends.near.send(message); }, [&] { replies.await(); });
}

/// The frames of so many messages, as they stand on a line.
std::vector<std::uint8_t> readyFrames(options const& asked)
{
    std::vector<std::uint8_t> const frame = messageOf(asked.bytes).getHeaderAndDataUint8();
    std::vector<std::uint8_t> frames;
    frames.reserve(asked.count * frame.size());
    for (std::size_t i = 0; i < asked.count; ++i)
    {
        frames.insert(frames.end(), frame.begin(), frame.end());
    }
    return frames;
}

/// Into the far end, which is one of these; the near one is written to directly.
template <typename End>
figures burst(lineUnderTest const& line, End& receiver, options const& asked)
{
    std::vector<std::uint8_t> const frames = readyFrames(asked);
    auto& received = everlasting<arrivals>(asked.count);
    threadOn(place::farEnd, [&receiver, &received] {
        forEachReceived(receiver, [&](typename End::message const&) { received.one(); });
    }).detach();
    std::int64_t const processorBefore_ns = processorTime_ns();
    std::int64_t const start_ns = now_ns();
    writeAll(line.descriptorAt(place::nearEnd), frames.data(), frames.size());
    received.await();
    return streamFigures(asked.count, now_ns() - start_ns, processorTime_ns() - processorBefore_ns);
}

figures burstIntoPort(options const& asked)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    runOn(place::farEnd);
    auto& receiver = startedPort<portEnd>(line.nameAt(place::farEnd));
    runOn(place::nearEnd);
    return burst(line, receiver, asked);
}

figures burstIntoRawK3(options const& asked)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    runOn(place::farEnd);
    auto& receiver = everlasting<rawK3>(line.descriptorAt(place::farEnd), asked.bytes, asked.transmitPriority());
    runOn(place::nearEnd);
    return burst(line, receiver, asked);
}

constexpr std::size_t LOT = 50;

/// Lots of messages; the next when all of one have arrived. `sendLot` takes a port and the messages.
template <typename SendLot>
figures lots(options const& asked, SendLot const& sendLot)
{
    pairOf<portEnd> const ends = makePorts(asked);
    auto& arrived = everlasting<std::atomic<std::size_t>>(0);
    auto& complete = everlasting<std::promise<void>*>(nullptr);
    threadOn(place::farEnd, [ends, &arrived, &complete] {
        forEachReceived(ends.far, [&](gssipMessage const&) {
            if (++arrived % LOT == 0)
            {
                complete->set_value();
            }
        });
    }).detach();
    std::vector<gssipMessage> const lot(LOT, messageOf(asked.bytes));
    return timeStream(
        asked.count,
        [&](std::size_t) {
            complete = &everlasting<std::promise<void>>();
            sendLot(ends.near, lot);
            complete->get_future().wait();
        },
        [] {});
}

figures lotsOneByOne(options const& asked)
{
    return lots(asked, [](portEnd& port, std::vector<gssipMessage> const& lot) { port.sendMessages(lot, true); });
}

figures lotsAtOnce(options const& asked)
{
    return lots(asked, [](portEnd& port, std::vector<gssipMessage> const& lot) {
        port.sendDtMessages(lot.begin(), static_cast<unsigned>(lot.size()));
    });
}

} // namespace

void addStreams(measurements& all)
{
    all[{"stream", "port"}] = [](options const& asked) {
        return stream(makePorts(asked), portEnd::make(asked.bytes), asked.count);
    };
    all[{"stream", "rawK3"}] = [](options const& asked) {
        return stream(makeRawK3(asked, asked.bytes), rawK3::make(asked.bytes), asked.count);
    };
    all[{"stream", "rawWrite"}] = [](options const& asked) {
        return stream(makeRawWrite(asked), rawWrite::make(asked.bytes), asked.count);
    };
    all[{"trackedStream", "port"}] = trackedStreamOfPort;
    all[{"trackedStream", "rawK3"}] = repliedStreamOfRawK3;
    all[{"lots", "oneByOne"}] = lotsOneByOne;
    all[{"lots", "atOnce"}] = lotsAtOnce;
    all[{"burst", "port"}] = burstIntoPort;
    all[{"burst", "rawK3"}] = burstIntoRawK3;
}

} // namespace bench
