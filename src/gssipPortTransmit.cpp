// The transmit side of gssipPort: queue, gate, transmit thread, the one writer of frames, and control transmissions.

#include "gssipPortState.h"
#include "gssipReceive.h"
#include "portThread.h"
#include "steadyWait.h"
#include "timeFunctions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <utility>

using gssipInternal::fairSentry;

namespace
{

constexpr unsigned MOST_QUEUED = 100;

/// Memory for frames up to this length is kept from one to the next.
constexpr std::size_t MOST_BYTES_KEPT = 4096;

constexpr std::int32_t LEVEL_REJECT = 2;

constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;
constexpr std::uint16_t REJECT = gssipMessage::REPLY_FLAG | gssipMessage::HANDSHAKE_FLAG | gssipMessage::REJECT_FLAG;
constexpr std::uint16_t REJECT_WITH_EXTRA = REJECT | gssipMessage::REJECT_EXTRA_FLAG;
constexpr std::uint16_t NO_DATA = 0;

constexpr std::array<std::uint8_t, 20> RESYNC_SEQUENCE{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                                       0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

} // namespace

/// The tracker's knowledge of the message that is being written; ends with the writing, however that ends.
class gssipPort::announced
{
  public:
    announced(gssipSendAckReq& trackerToTell, gssipMessage const& message) : tracker(trackerToTell)
    {
        tracker.announce(message);
    }
    ~announced() { tracker.endAnnouncement(); }
    announced(announced const&) = delete;
    announced& operator=(announced const&) = delete;

  private:
    gssipSendAckReq& tracker;
};

unsigned gssipPort::sendMessage(gssipMessage const& message, bool trackAck)
{
    if (serial.isOpen())
    {
        {
            queueAccess const access(*this);
            txQueue.emplace_back(message, trackAck);
        }
        pthread_cond_signal(&txCond);
    }
    return 0;
}

unsigned gssipPort::sendDtMessages(std::vector<gssipMessage>::const_iterator first, unsigned count)
{
    if (serial.isOpen())
    {
        {
            queueAccess const access(*this);
            appendTracked(first, count);
        }
        pthread_cond_signal(&txCond);
    }
    return 0;
}

/// All or nothing.
void gssipPort::appendTracked(std::vector<gssipMessage>::const_iterator first, unsigned count)
{
    std::size_t const before = txQueue.size();
    try
    {
        for (unsigned i = 0; i < count; ++i)
        {
            txQueue.emplace_back(first[static_cast<std::ptrdiff_t>(i)], true);
        }
    }
    catch (...)
    {
        txQueue.erase(txQueue.begin() + static_cast<std::ptrdiff_t>(before), txQueue.end());
        throw;
    }
}

void gssipPort::removeMsgIdFromTxQueue(unsigned const& id)
{
    queueAccess const access(*this);
    auto const kept = std::remove_if(txQueue.begin(), txQueue.end(), [&](std::tuple<gssipMessage, bool> const& entry) {
        return std::get<0>(entry).getId() == id;
    });
    txQueue.erase(kept, txQueue.end());
}

unsigned gssipPort::getNumberQueuedMessages()
{
    if (pthread_mutex_trylock(&txMutex) == 0) // a derived class may have changed the queue
    {
        own->queued = static_cast<unsigned>(txQueue.size());
        pthread_mutex_unlock(&txMutex);
    }
    return own->queued;
}

void gssipPort::clearTransmitQueue()
{
    queueAccess const access(*this);
    txQueue.clear();
}

bool gssipPort::serviceTransmitQueue()
{
    if (getNumberQueuedMessages() <= MOST_QUEUED)
    {
        return false;
    }
    clearTransmitQueue();
    return true;
}

int gssipPort::resendMessage(gssipMessage& message)
{
    return _gssipSend(message);
}

int gssipPort::_gssipSend(gssipMessage& message)
{
    return writeFrame(message, nullptr);
}

int gssipPort::writeFrame(gssipMessage& message, std::function<void()> const& beforeFirstByte)
{
    message.setHeaderChecksum();
    message.setDataChecksum();
    int const status = writeImage(message, beforeFirstByte);
    message.setSendTimeStamp(timeStamp.getTime_sec());
    return status;
}

int gssipPort::writeImage(gssipMessage const& message, std::function<void()> const& beforeFirstByte)
{
    fairSentry const turn(own->writers, sendMutex);
    std::vector<std::uint8_t>& image = own->image;
    message.getHeaderAndDataUint8(image);
    unsigned sent = 0;
    int const status = serial.send(image.data(), static_cast<unsigned>(image.size()), sent, beforeFirstByte);
    if (image.size() > MOST_BYTES_KEPT)
    {
        std::vector<std::uint8_t>().swap(image);
    }
    return status;
}

/// Writes a message that is to be tracked, and registers it. Its acknowledgement may come at any moment from the first
/// byte on, before there is an event that it could match.
int gssipPort::writeTracked(gssipMessage& message, bool& offered)
{
    announced const announcement(sendAckReq, message);
    std::shared_ptr<gssipReceive> const source = currentReceiver();
    auto const onItsWay = [&] {
        offered = true;
        sendAckReq.announcedIsOnItsWay(source == nullptr ? 0 : source->rxQueue.pushed());
    };
    int const status = writeFrame(message, std::ref(onItsWay));
    return status == 0 ? sendAckReq.registerMessage(message, true) : status;
}

int gssipPort::writeUntracked(gssipMessage& message, bool& offered)
{
    return writeFrame(message, [&offered] { offered = true; });
}

void* gssipPort::callTransmitThread(void* port)
{
    static_cast<gssipPort*>(port)->transmitThread();
    return nullptr;
}

int gssipPort::transmitThread()
{
    gssipInternal::portThread const mark(*this);
    txRunning.set();
    own->transmit.announceRunning();
    gssipMessage message;
    int status = 0;
    while (txRunning.isSet() && !own->transmit.stopRequested())
    {
        try
        {
            status = transmitNext(message, status);
        }
        catch (...) // from a call-back, or for want of memory: costs this message
        {}
    }
    return status;
}

/// One cycle: the gate first, then the queue. A thread that sleeps on an empty queue has the gate behind it.
int gssipPort::transmitNext(gssipMessage& message, int previousStatus)
{
    message.clear();
    waitForPortReady(handshakeTimeout_sec); // when its time runs out the message goes all the same
    bool trackAck = false;
    if (!takeFromQueue(message, trackAck))
    {
        return previousStatus;
    }
    bool offered = false; // to the device
    int const status =
        trackAck && message.isAckReqFlagSet() ? writeTracked(message, offered) : writeUntracked(message, offered);
    if (!offered && own->transmit.stopRequested())
    {
        putBack(message, trackAck);
    }
    return status;
}

/// The port was stopped between the taking and the writing: the message is still one of those that wait.
void gssipPort::putBack(gssipMessage& message, bool trackAck)
{
    queueAccess const access(*this);
    txQueue.emplace_front(std::move(message), trackAck);
}

/// Waits at most once: then the cycle starts anew, with the request to stop and with the gate.
bool gssipPort::takeFromQueue(gssipMessage& message, bool& trackAck)
{
    queueAccess const access(*this);
    if (!mayTake() && !own->transmit.stopRequested())
    {
        pthread_cond_wait(&txCond, &txMutex);
    }
    if (!mayTake())
    {
        return false;
    }
    std::tie(message, trackAck) = std::move(txQueue.front());
    txQueue.pop_front();
    return true;
}

/// While the device is closed or the port is being stopped, what is queued stays queued.
bool gssipPort::mayTake() const
{
    return !txQueue.empty() && serial.isOpen() && !own->transmit.stopRequested();
}

void gssipPort::resetPortReady()
{
    sentry const lock(readyMutex);
    portReady = false;
}

int gssipPort::signalPortReady()
{
    sentry const lock(readyMutex);
    portReady = true;
    ++own->timesOpened; // the pass of a thread that waits now, good even when the gate is shut before it has looked
    return pthread_cond_signal(&readyCond);
}

int gssipPort::waitForPortReady(double const& timeout_sec)
{
    sentry const lock(readyMutex);
    std::uint32_t const openedBefore = own->timesOpened;
    auto const mayPass = [&] { return portReady || own->timesOpened != openedBefore || own->transmit.stopRequested(); };
    int status = 0;
    while (status == 0 && !mayPass())
    {
        status = timeout_sec < 0 ? pthread_cond_wait(&readyCond, &readyMutex) : waitForGate(timeout_sec);
    }
    return mayPass() ? 0 : status;
}

int gssipPort::waitForGate(double timeout_sec)
{
    timespec deadline{};
    std::int64_t offset_ns = 0;
    int status = 0;
    do // once, unless the wall clock is stepped in the middle
    {
        offset_ns = gssipInternal::wallOffset_ns();
        status = doubleToTimespec(timeout_sec, deadline);
    } while (gssipInternal::stepBetween_ns(offset_ns, gssipInternal::wallOffset_ns()) != 0);
    return status == 0 ? gssipInternal::waitUntilWall(readyCond, readyMutex, deadline, offset_ns) : status;
}

unsigned gssipPort::sendAcknowledgement(gssipMessage const& received)
{
    if (!received.isAckReqFlagSet())
    {
        return 0;
    }
    gssipMessage reply(received.getId(), received.isValid() ? ACK : NAK, NO_DATA);
    return static_cast<unsigned>(_gssipSend(reply));
}

int gssipPort::sendHandshakeReject(unsigned id, bool extra)
{
    gssipMessage reject(static_cast<std::uint16_t>(id & 0xFFFFU), extra ? REJECT_WITH_EXTRA : REJECT, NO_DATA);
    int const status = _gssipSend(reject);
    signalPortReady();
    if (extra)
    {
        double const now_sec = timeStamp.getTime_sec();
        std::array<char, 64> text{};
        std::snprintf(text.data(), text.size(), "port(%u) reject %u", portId, id);
        log->log(now_sec, LEVEL_REJECT, text.data());
    }
    return status;
}

int gssipPort::sendResyncSequence()
{
    fairSentry const turn(own->writers, sendMutex);
    unsigned sent = 0;
    return serial.send(RESYNC_SEQUENCE.data(), static_cast<unsigned>(RESYNC_SEQUENCE.size()), sent);
}
