#include "station.h"

#include <chrono>

namespace schedules
{

using namespace std::chrono_literals;

namespace
{

constexpr auto LOOK = 20ms;
constexpr auto BETWEEN_OPENINGS = 1s;
constexpr auto LONGEST_UNTIL_QUIET = 40s;

} // namespace

station::station(scheduler& scheduleOf, line& lineToUse, line::end placeOnLine, asciiLogInterface* log)
    : schedule(scheduleOf), cable(lineToUse), here(placeOnLine), port(line::path(placeOnLine), clock, log, false),
      book(scheduleOf, port), gate(scheduleOf, port)
{
    std::string const side = placeOnLine == line::LEFT ? "left " : "right ";
    schedule.nameObject(&port.txMutex, side + "txMutex");
    schedule.nameObject(&port.txCond, side + "txCond");
    schedule.nameObject(&port.sendMutex, side + "sendMutex");
    schedule.nameObject(&port.readyMutex, side + "readyMutex");
    schedule.nameObject(&port.readyCond, side + "readyCond");
    auto& tracker = kit::exposedSendAckReq::of(port.sendAckReq);
    schedule.nameObject(&tracker.eventQMutex, side + "eventQMutex");
    schedule.nameObject(&tracker.eventQCond, side + "eventQCond");
}

station::~station()
{
    stopListening();
}

gssipMessage station::newMessage(std::uint16_t flags)
{
    gssipMessage message;
    message.setId(++lastId);
    message.setProtocolFlags(flags);
    message.setData(contentOf(message.getId()));
    return message;
}

std::vector<std::uint16_t> station::contentOf(std::uint16_t id)
{
    std::vector<std::uint16_t> content(id % 4);
    for (std::uint16_t& word : content)
    {
        word = static_cast<std::uint16_t>(id * 257U);
    }
    return content;
}

void station::start()
{
    if (!port.start())
    {
        schedule.fail("start has failed");
    }
}

void station::stop()
{
    if (!port.stop())
    {
        schedule.fail("stop has failed");
    }
}

void station::listen()
{
    leaving = false;
    listener = std::thread([this] {
        schedule.nameThread(here == line::LEFT ? "left listener" : "right listener");
        takeMessages();
    });
}

void station::takeMessages()
{
    gssipMessage message;
    while (!leaving)
    {
        int const status = port.getMessage(message, true);
        if (status == 0 && message.getId() != 0)
        {
            check(message);
            deliveredIds.push_back(message.getId());
        }
        else if (!leaving) // the port is not started
        {
            std::this_thread::sleep_for(1ms);
        }
    }
}

void station::check(gssipMessage const& message)
{
    if (!message.isValid() || message.getData() != contentOf(message.getId()))
    {
        schedule.fail("message " + std::to_string(message.getId()) + " has been delivered with other content");
    }
}

/// The port must have been stopped.
void station::stopListening()
{
    leaving = true;
    if (listener.joinable())
    {
        listener.join();
    }
}

void station::openGate()
{
    port.setHandshakeTimeout_sec(HANDSHAKE_SEC);
    port.signalPortReady();
}

/// Looks past the locks: nothing changes between two steps.
bool station::isQuiet()
{
    auto& tracker = kit::exposedSendAckReq::of(port.sendAckReq);
    auto& receiver = static_cast<kit::exposedReceive&>(*port.receiver);
    auto const sleepsOn = [this](pthread_cond_t* condition) {
        return schedule.anyoneWaits(waiting::condition, condition);
    };
    return port.txQueue.empty() && sleepsOn(&port.txCond) && tracker.eventQ.empty() && sleepsOn(&tracker.eventQCond) &&
           !receiver.dataAvailable && sleepsOn(receiver.frameCondition.native_handle()) &&
           sleepsOn(receiver.rxQueue.queueCondition.native_handle());
}

void awaitQuiet(scheduler& schedule, station& one, station& other)
{
    constexpr unsigned BOTH_READERS = 2;
    auto const end = std::chrono::steady_clock::now() + LONGEST_UNTIL_QUIET;
    auto nextOpening = std::chrono::steady_clock::now();
    while (!one.isQuiet() || !other.isQuiet() || !one.wire().isIdle() || schedule.waitingForFiles() != BOTH_READERS)
    {
        if (std::chrono::steady_clock::now() > end)
        {
            schedule.fail("messages are still under way after a long time");
        }
        if (std::chrono::steady_clock::now() >= nextOpening)
        {
            one.openGate();
            other.openGate();
            nextOpening += BETWEEN_OPENINGS;
        }
        std::this_thread::sleep_for(LOOK);
    }
}

} // namespace schedules
