#include "station.h"

#include "sentry.h"
#include "waitUntil.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace soak
{
namespace
{

constexpr std::chrono::milliseconds TICK{20};
constexpr unsigned MOST_QUEUED = 200;
constexpr int STOPPED = -1;
constexpr int DAMAGED = 1;

/// An empty message is what a port that is not started returns.
bool isNone(gssipMessage const& message)
{
    return message.getId() == 0 && message.isHeaderMessage();
}

} // namespace

station::station(std::string const& device, settings const& toUse, std::uint64_t seed)
    : chosen(toUse), port(device, clock, &log, false), random(seed)
{
    port.configurePort(SPEED, 8, PARITY_NONE, 1, 0, ACKNOWLEDGE_TIMEOUT_SEC, HANDSHAKE_TIMEOUT_SEC, 5);
    sender = std::thread([this] { sendWhileTalking(); });
    receiver = std::thread([this] { receiveAll(); });
}

station::~station()
{
    {
        std::lock_guard<std::mutex> const lock(sending);
        leaving = true;
    }
    changed.notify_all();
    leavingReceiver = true;
    port.stop();
    sender.join();
    receiver.join();
}

void station::talk()
{
    {
        std::lock_guard<std::mutex> const lock(sending);
        talking = true;
    }
    changed.notify_all();
}

void station::fallSilent()
{
    std::lock_guard<std::mutex> const lock(sending);
    talking = false;
}

bool station::stop()
{
    std::lock_guard<std::mutex> const lock(sending);
    giveBurst();
    started = false;
    return port.stop();
}

bool station::start()
{
    {
        std::lock_guard<std::mutex> const lock(sending);
        started = kit::waitUntil([this] { return port.start(); });
        if (!started)
        {
            return false;
        }
    }
    changed.notify_all();
    return true;
}

station::books station::takeBooks()
{
    books taken;
    {
        std::lock_guard<std::mutex> const lock(receiving);
        std::swap(taken, received);
    }
    std::lock_guard<std::mutex> const lock(sending);
    std::swap(taken.given, given);
    return taken;
}

std::size_t station::delivered() const
{
    std::lock_guard<std::mutex> const lock(receiving);
    return received.delivered.size();
}

bool station::isAtRest()
{
    auto& tracker = kit::exposedSendAckReq::of(port.sendAckReq);
    sentry const lock(tracker.eventQMutex);
    return port.getNumberQueuedMessages() == 0 && tracker.eventQ.empty();
}

void station::sendWhileTalking()
{
    std::unique_lock<std::mutex> lock(sending);
    while (!leaving)
    {
        changed.wait(lock, [this] { return (talking && started) || leaving; });
        giveOneTick(lock);
    }
}

void station::giveOneTick(std::unique_lock<std::mutex>& lock)
{
    double const wanted = chosen.messagesPerSec * std::chrono::duration<double>(TICK).count();
    auto const messages = static_cast<unsigned>(wanted) + (upTo(999) < 1000 * (wanted - static_cast<unsigned>(wanted)));
    for (unsigned each = 0; each < messages && talking && started && port.getNumberQueuedMessages() < MOST_QUEUED;
         ++each)
    {
        giveOne();
    }
    changed.wait_for(lock, TICK, [this] { return leaving; });
}

void station::giveOne()
{
    unsigned const kind = upTo(999);
    gssipMessage message;
    if (kind < 5)
    {
        return giveBurst();
    }
    if (kind < 10)
    {
        port.sendResyncSequence();
        return;
    }
    if (kind < 30)
    {
        message = nextMessage(upTo(1) != 0 ? gssipMessage::ACK_REQ_FLAG : 0, 1000 + upTo(3000));
    }
    else if (kind < 130)
    {
        message = nextMessage(gssipMessage::HANDSHAKE_FLAG, 0);
    }
    else
    {
        message = nextMessage(kind < 430 ? gssipMessage::ACK_REQ_FLAG : 0, upTo(30));
    }
    port.sendMessage(message, true);
}

void station::giveBurst()
{
    std::vector<gssipMessage> messages;
    for (unsigned count = 20 + upTo(40); messages.size() < count;)
    {
        messages.push_back(nextMessage(0, upTo(10)));
    }
    port.sendDtMessages(messages.begin(), static_cast<unsigned>(messages.size()));
}

gssipMessage station::nextMessage(std::uint16_t flags, unsigned words)
{
    std::vector<std::uint16_t> data(words);
    std::generate(data.begin(), data.end(), [this] { return static_cast<std::uint16_t>(random()); });
    gssipMessage message(nextId, flags, 0);
    message.setData(data);
    nextId = static_cast<std::uint16_t>(nextId == 0xFFFF ? 1 : nextId + 1);
    given.push_back(recordOf(message));
    return message;
}

void station::receiveAll()
{
    gssipMessage message;
    while (!leavingReceiver)
    {
        int const status = port.getMessage(message, false);
        if (status == STOPPED || isNone(message))
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        else
        {
            keepReceived(status, message);
        }
    }
}

void station::keepReceived(int status, gssipMessage const& message)
{
    std::lock_guard<std::mutex> const lock(receiving);
    if (status == DAMAGED)
    {
        ++received.damaged;
    }
    else if (!isKeptByThePort(message.getProtocolFlags(), !message.isHeaderMessage()))
    {
        received.delivered.push_back(recordOf(message));
        received.unanswered += status != 0 ? 1U : 0U;
    }
}

} // namespace soak
