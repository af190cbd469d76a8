#include "referencePort.h"

#include <algorithm>
#include <numeric>

namespace reference
{
namespace
{

constexpr std::uint16_t requestFlag = 0x4000;
constexpr std::uint16_t handshakeFlag = 0x1000;
constexpr std::uint16_t ackFlag = 0x0800;
constexpr std::uint16_t nakFlag = 0x0400;
constexpr std::size_t lastOfHeader = 9;

std::uint16_t negated(unsigned sum)
{
    return static_cast<std::uint16_t>(0x10000U - sum % 0x10000U);
}

bytes replyTo(std::uint16_t id, std::uint16_t flags)
{
    std::uint16_t const words[] = {0x81FF, id, 0, flags, negated(0x81FFU + id + flags)};
    bytes image;
    for (std::uint16_t const word : words)
    {
        image.push_back(static_cast<std::uint8_t>(word % 256));
        image.push_back(static_cast<std::uint8_t>(word / 256));
    }
    return image;
}

bool asksForAcknowledgement(bytes const& frame)
{
    return (frame[7] & (requestFlag >> 8U)) != 0;
}

bool isSound(kit::decodedFrame const& frame)
{
    unsigned const sum = std::accumulate(frame.data.begin(), frame.data.end(), 0U);
    return frame.count == 0 || (sum + frame.dataChecksum) % 0x10000U == 0;
}

/// Something that the receiver finds, with the position of the byte that brings it to light.
struct event
{
    std::size_t shownBy = 0;
    kit::decodedFrame const* frame = nullptr; ///< null: a rejected header
};

class prediction
{
  public:
    prediction(habits const& given, std::vector<arrival> const& arrivals) : how(given), pending(given.times)
    {
        for (arrival const& each : arrivals)
        {
            stream.insert(stream.end(), each.content.begin(), each.content.end());
            arrived_ns.insert(arrived_ns.end(), each.content.size(), each.when_ns);
        }
        decoded = kit::decode(stream);
        listEvents();
    }

    history run(std::vector<order> const& orders)
    {
        auto nextOrder = orders.begin();
        auto nextEvent = events.begin();
        for (;;)
        {
            std::int64_t const order_ns = nextOrder == orders.end() ? never_ns : nextOrder->when_ns;
            std::int64_t const event_ns = nextEvent == events.end() ? never_ns : arrived_ns[nextEvent->shownBy];
            std::int64_t const deadline_ns = pending.nextDeadline_ns();
            std::int64_t const next_ns = std::min({order_ns, event_ns, deadline_ns});
            if (next_ns == never_ns)
            {
                result.framed = decoded.frames;
                return std::move(result);
            }
            if (next_ns == deadline_ns)
            {
                write(next_ns, source::clock, pending.expire());
            }
            else if (next_ns == order_ns)
            {
                obey(*nextOrder++);
            }
            else
            {
                receive(next_ns, *nextEvent++);
            }
        }
    }

  private:
    void listEvents()
    {
        for (kit::decodedFrame const& each : decoded.frames)
        {
            events.push_back({each.end - 1, &each});
        }
        for (std::size_t const begin : decoded.headerErrorsAt)
        {
            events.push_back({begin + lastOfHeader, nullptr});
        }
        std::sort(events.begin(), events.end(),
                  [](event const& one, event const& other) { return one.shownBy < other.shownBy; });
    }

    void write(std::int64_t when_ns, source by, bytes const& content)
    {
        if (!content.empty())
        {
            result.written.push_back({when_ns, by, content});
        }
    }

    void obey(order const& given)
    {
        bool const isMessage = given.what == order::message;
        write(given.when_ns, isMessage ? source::transmitting : source::application, given.content);
        if (isMessage && given.tracked && asksForAcknowledgement(given.content))
        {
            pending.written(given.when_ns, given.content);
        }
        if (!given.logged.empty())
        {
            result.logged.push_back({given.when_ns, source::application, 2, given.logged});
        }
    }

    void receive(std::int64_t when_ns, event const& found)
    {
        if (found.frame == nullptr)
        {
            std::string const text = "gssipReceive(" + how.number + ") Header Checksum ERROR Detected";
            result.logged.push_back({when_ns, source::framing, 2, text});
            return;
        }
        kit::decodedFrame const& frame = *found.frame;
        bool const sound = isSound(frame);
        if (how.answers && (frame.flags & requestFlag) != 0)
        {
            write(when_ns, source::receiving, replyTo(frame.id, sound ? 0x8800 : 0x8400));
        }
        if (sound)
        {
            takeSound(when_ns, frame);
        }
        else
        {
            takeUnsound(when_ns, frame);
        }
    }

    void takeSound(std::int64_t when_ns, kit::decodedFrame const& frame)
    {
        bool const isAck = (frame.flags & ackFlag) != 0;
        bool const isNak = (frame.flags & nakFlag) != 0;
        if (frame.count == 0 && isAck)
        {
            pending.acknowledged(frame.id);
        }
        else if (frame.count == 0 && isNak)
        {
            write(when_ns, source::receiving, pending.refused(when_ns, frame.id));
        }
        else if ((frame.flags & handshakeFlag) == 0)
        {
            result.delivered.push_back({when_ns, false, frame});
        }
    }

    void takeUnsound(std::int64_t when_ns, kit::decodedFrame const& frame)
    {
        result.logged.push_back({when_ns, source::receiving, 2, "Port(" + how.number + ") Invalid Message"});
        if (how.returnsInvalid)
        {
            result.delivered.push_back({when_ns, true, frame});
        }
    }

    habits how;
    bytes stream;
    std::vector<std::int64_t> arrived_ns; ///< of each byte
    kit::decodedStream decoded;
    std::vector<event> events;
    tracker pending;
    history result;
};

} // namespace

history predict(habits const& how, std::vector<arrival> const& arrivals, std::vector<order> const& orders)
{
    return prediction(how, arrivals).run(orders);
}

} // namespace reference
