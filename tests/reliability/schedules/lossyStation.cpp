#include "lossyStation.h"

#include <chrono>
#include <cmath>

namespace schedules
{
namespace
{

constexpr double NS_PER_SEC = 1e9;
constexpr unsigned SPEED = 100'000; // ten bits take lossyMedium::CHARACTER_NS

std::int64_t ns(double time_sec)
{
    return std::llround(time_sec * NS_PER_SEC);
}

} // namespace

class lossyStation::notebook : public asciiLogInterface
{
  public:
    explicit notebook(scheduler& in) : schedule(in) {}

    void log(std::int32_t const& level, std::string const& text) override
    {
        lines.push_back({schedule.now_ns(), reference::source::receiving, level, text});
    }
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        lines.push_back({ns(time_sec), reference::source::receiving, level, text});
    }

    scheduler& schedule;
    std::vector<reference::logLine> lines;
};

lossyStation::lossyStation(scheduler& in, line::end place, endOfLine const& plan)
    : schedule(in), todo(plan), lines(std::make_unique<notebook>(in)),
      port(line::path(place), clock, lines.get(), false)
{
    port.serial.setSpeed(SPEED);
    port.setAcknowledgeTimeout_sec(static_cast<double>(todo.how.times.acknowledgement_ns) / NS_PER_SEC);
    port.setHandshakeTimeout_sec(0.0); // the gate holds nothing back
    port.setReceiveAutoAcknowledgeEnable(todo.how.answers);
}

lossyStation::~lossyStation() = default;

void lossyStation::start()
{
    if (!port.start())
    {
        schedule.fail("the port does not start");
    }
    start_ns = (schedule.now_ns() / lossyMedium::CHARACTER_NS + 1) * lossyMedium::CHARACTER_NS;
    receiver = std::thread([this] { receive(); });
    actor = std::thread([this] { act(); });
}

void lossyStation::stop()
{
    actor.join();
    leaving = true;
    if (!port.stop())
    {
        schedule.fail("the port does not stop");
    }
    receiver.join();
}

std::vector<reference::order> lossyStation::orders() const
{
    std::vector<reference::order> all;
    for (::schedules::act const& each : todo.acts)
    {
        std::vector<reference::order> const some = ordersOf(each, start_ns, std::to_string(port.portId));
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

reference::habits lossyStation::habits() const
{
    reference::habits result = todo.how;
    result.number = std::to_string(port.portId);
    return result;
}

std::vector<reference::logLine> const& lossyStation::logged() const
{
    return lines->lines;
}

void lossyStation::act()
{
    for (::schedules::act const& each : todo.acts)
    {
        std::this_thread::sleep_for(std::chrono::nanoseconds(start_ns + each.after_ns - schedule.now_ns()));
        perform(each);
    }
    allDone = true;
}

void lossyStation::perform(::schedules::act const& which)
{
    unsigned sent = 0;
    switch (which.what)
    {
    case act::send:
        port.sendMessage(which.messages.front(), which.tracked);
        break;
    case act::sendBatch:
        port.sendDtMessages(which.messages.begin(), static_cast<unsigned>(which.messages.size()));
        break;
    case act::reject:
        port.sendHandshakeReject(which.rejectedId, which.extra);
        break;
    case act::filler:
        port.sendResyncSequence();
        break;
    case act::raw:
        port.send(which.content.data(), static_cast<unsigned>(which.content.size()), sent);
        break;
    }
}

void lossyStation::receive()
{
    while (!leaving)
    {
        gssipMessage message;
        int const status = port.getMessage(message, !todo.how.returnsInvalid);
        if (status == 0 || status == 1)
        {
            if (!leaving)
            {
                deliveries.push_back({schedule.now_ns(), status == 1, kit::viewOf(message)});
            }
            if (std::abs(ns(message.getReceiveTimeStamp()) - schedule.now_ns()) > 1 && !leaving)
            {
                schedule.fail("a message has another receive time than that of its arrival");
            }
        }
        else if (!leaving)
        {
            schedule.fail("getMessage returns " + std::to_string(status));
        }
    }
}

} // namespace schedules
