#include "portRun.h"

#include "fault.h"
#include "sentry.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <mutex>
#include <set>
#include <tuple>

namespace fuzz
{
namespace
{

constexpr double LONG_SEC = 1000.0;
constexpr double SHORT_SEC = 0.001;
constexpr double SENTINEL_TIME_SEC = -1234.5;
constexpr std::chrono::seconds PATIENCE{25};

/// Lets getMessage return when nothing else does; no message from the line has its time.
gssipMessage sentinel()
{
    gssipMessage message(0xFFFF, gssipMessage::REPLY_FLAG, 0);
    message.setReceiveTimeStamp(SENTINEL_TIME_SEC);
    return message;
}

bool isSentinel(gssipMessage const& message)
{
    return message.getReceiveTimeStamp() == SENTINEL_TIME_SEC;
}

bool has(kit::decodedFrame const& frame, std::uint16_t flag)
{
    return (frame.flags & flag) != 0;
}

bool isValid(kit::decodedFrame const& frame)
{
    unsigned sum = frame.dataChecksum;
    for (std::uint16_t const word : frame.data)
    {
        sum += word;
    }
    return frame.count == 0 || sum % 65536 == 0;
}

kit::decodedStream decodeSinceStart(kit::bytes const& stream)
{
    kit::bytes all(4096, 0); // which a new receiver has in its buffer; no byte that follows can make a start of them
    all.insert(all.end(), stream.begin(), stream.end());
    return kit::decode(stream.empty() ? kit::bytes{} : all);
}

} // namespace

portRun::portRun(runTraits const& ofRun) : traits(ofRun)
{
    line.plug();
    port.configurePort(4000000, 8, PARITY_NONE, 1, 0, traits.hasLongTimeouts ? LONG_SEC : SHORT_SEC, SHORT_SEC, 5);
    if (!traits.isSettled)
    {
        application = std::thread(&portRun::receiveAlways, this);
    }
}

portRun::~portRun()
{
    leaving = true;
    port.stop();
    while (application.joinable())
    {
        // A start that failed leaves a receiver that no stop ends.
        if (std::shared_ptr<gssipReceive> const left = std::atomic_load(&port.receiver); left != nullptr)
        {
            static_cast<kit::exposedReceive&>(*left).rxQueue.push(sentinel());
        }
        application.join();
    }
}

void portRun::start()
{
    bool const wasStarted = port.started;
    bool const started = port.start();
    if (wasStarted)
    {
        require(started, "a port that is started says that it is not");
        return;
    }
    require(started == line.isPlugged(), "a start succeeds without a device, or fails with one");
    isConnected = started;
    wasDisturbed = wasDisturbed || !started;
    headerErrors += decodeSinceStart(stream).headerErrors;
    stream.clear();
    taken = 0;
    openGate();
    forgetPending();
}

void portRun::stop()
{
    if (traits.isSettled)
    {
        await([this] { return hasReceivedAll(); }, "framing has not come to where the decoder is");
    }
    excuseWhatMayBeLost();
    readLine();
    bool const wasStarted = port.started;
    require(port.stop(), "a port does not stop");
    require(!port.started, "a stopped port says that it is started");
    if (wasStarted)
    {
        require(!port.serial.isOpen() && port.receiver == nullptr, "a stopped port keeps its device or its receiver");
        openGate();
        isConnected = false;
    }
    if (traits.isSettled)
    {
        await([this] { return isTransmitQuiet(); }, "a message that was queued is nowhere after a stop");
    }
}

/// The new event thread begins with an empty queue.
void portRun::forgetPending()
{
    for (ledger::entry& entry : messages)
    {
        entry.isSettled = entry.isSettled || entry.writes != 0;
    }
}

gssipMessage portRun::enterQueued(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data,
                                  bool trackAck)
{
    return messages.enter(port.serial.isOpen() ? ledger::kind::queued : ledger::kind::dropped, id, flags, data,
                          trackAck);
}

void portRun::sendMessage(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data, bool trackAck)
{
    if (!messages.isFull())
    {
        require(port.sendMessage(enterQueued(id, flags, data, trackAck), trackAck) == 0, "sendMessage fails");
    }
}

void portRun::sendMessages(std::size_t number, std::uint16_t id, std::uint16_t flags, bool trackAck)
{
    std::vector<gssipMessage> list;
    while (list.size() < number && !messages.isFull())
    {
        list.push_back(enterQueued(id, flags, {}, trackAck));
    }
    require(port.sendMessages(list, trackAck) == 0, "sendMessages fails");
}

void portRun::sendDtMessages(std::size_t number, std::uint16_t id, std::uint16_t flags)
{
    std::vector<gssipMessage> list;
    while (list.size() < number && !messages.isFull())
    {
        list.push_back(enterQueued(id, flags, {}, true));
    }
    require(port.sendDtMessages(list.cbegin(), static_cast<unsigned>(list.size())) == 0, "sendDtMessages fails");
}

/// What the caller's thread has written must come over the line, and in that order.
void portRun::tell(sentItem const& item, int status)
{
    require((status == 0) == lineWorks(), "a write succeeds without a line, or fails with one");
    if (status == 0)
    {
        expected.push_back(item);
    }
}

void portRun::resendMessage(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data)
{
    if (!messages.isFull())
    {
        gssipMessage message = messages.enter(ledger::kind::direct, id, flags, data, false);
        ++messages.of(message).writesAsked;
        int const status = port.resendMessage(message);
        require((status == 0) == lineWorks(), "a resend succeeds without a line, or fails with one");
        require(message.isValid() && message.getSendTimeStamp() == clock.now_sec, "a written message is not complete");
        messages.of(message).mayBeGone = status != 0;
    }
}

void portRun::sendRaw(kit::bytes const& content)
{
    sentItem const item = rawItem(content);
    unsigned sent = 0;
    int const status = port.send(item.image.data(), static_cast<unsigned>(item.image.size()), sent);
    require(status != 0 || sent == item.image.size(), "raw bytes are counted wrong");
    tell(item, status);
}

void portRun::sendResyncSequence()
{
    tell(fillerItem(), port.sendResyncSequence());
}

void portRun::sendHandshakeReject(unsigned id, bool extra)
{
    auto const flags = static_cast<std::uint16_t>(extra ? 0x9300 : 0x9200);
    tell(frameItem(static_cast<std::uint16_t>(id % 65536), flags), port.sendHandshakeReject(id, extra));
    rejectLines += extra ? 1U : 0U;
    openGate();
}

void portRun::removeMsgIdFromTxQueue(unsigned id)
{
    for (gssipMessage const& message : queued())
    {
        messages.of(message).mayBeGone = messages.of(message).mayBeGone || message.getId() == id;
    }
    port.removeMsgIdFromTxQueue(id);
    for (gssipMessage const& message : queued())
    {
        require(message.getId() != id, "a removed message is still in the queue");
    }
}

void portRun::clearTransmitQueue()
{
    for (gssipMessage const& message : queued())
    {
        messages.of(message).mayBeGone = true;
    }
    port.clearTransmitQueue();
    require(queued().empty(), "a cleared queue is not empty");
}

void portRun::serviceTransmitQueue()
{
    std::vector<gssipMessage> const before = queued();
    bool const cleared = port.serviceTransmitQueue();
    require(!cleared || before.size() > 100, "a short queue was discarded");
    require(!cleared || queued().empty(), "a discarded queue is not empty");
    if (cleared)
    {
        for (gssipMessage const& message : before)
        {
            messages.of(message).mayBeGone = true;
        }
    }
}

void portRun::setAutoAcknowledge(bool enable)
{
    port.setReceiveAutoAcknowledgeEnable(enable);
    require(port.getReceiveAutoAcknowledgeEnable() == enable, "automatic acknowledgement is not as it was set");
}

void portRun::setHandshakeTimeout(double timeout_sec)
{
    longWaitMayLast = longWaitMayLast || isGateShutForLong();
    port.setHandshakeTimeout_sec(timeout_sec);
    passedShutGate = MAY_PASS; // a wait that has begun ends as it began
}

void portRun::setReceiveGap(double gap_sec)
{
    require(port.setReceiveInterCharacterGap_sec(gap_sec) == 0 || !lineWorks(), "a receive gap is refused");
    double gap = 0;
    double effective = 0;
    require(port.getReceiveInterCharacterGap_sec(gap, &effective) == 0, "the receive gap cannot be read");
    if (lineWorks())
    {
        double const tenths = std::isnan(gap_sec) ? 1.0 : std::clamp(std::ceil(gap_sec / 0.1), 1.0, 255.0);
        require(std::abs(effective - tenths * 0.1) < 1e-9, "the device keeps another receive gap");
    }
}

void portRun::configure(unsigned speed, unsigned dataBits, PARITY_TYPE parity, unsigned stopBits)
{
    bool const isPossible = speed != 0 && dataBits >= 5 && dataBits <= 8 && parity >= PARITY_NONE &&
                            parity <= PARITY_SPACE && stopBits >= 1 && stopBits <= 2;
    int const status = port.configurePort(speed, dataBits, parity, stopBits, 0, port.getAcknowledgeTimeout_sec(),
                                          port.getHandshakeTimeout_sec(), 5);
    require(status != 0 || isPossible, "an impossible setting is taken");
    require(status == 0 || !isPossible || port.serial.isOpen(), "a possible setting is refused");
    std::string text;
    require(port.getPortConfigStr(text) == 0 && text.find(line.name()) == 0, "the configuration text is wrong");
}

void portRun::plug()
{
    unplug();
    line.plug();
}

void portRun::unplug()
{
    settle(); // what is under way arrives, or else nobody knows how much of it did
    line.unplug();
    splitter.forget();
    isConnected = false;
    wasDisturbed = true;
}

/// Only to an open device: what becomes of bytes before that is not the port's business.
void portRun::write(kit::bytes const& data)
{
    if (lineWorks())
    {
        kit::bytes left = data;
        while (!left.empty())
        {
            auto const written = static_cast<std::ptrdiff_t>(line.write(left));
            stream.insert(stream.end(), left.begin(), left.begin() + written);
            left.erase(left.begin(), left.begin() + written);
            readLine();
            std::this_thread::yield();
        }
    }
}

void portRun::readLine()
{
    splitter.feed(line.read());
    while (std::optional<sentItem> const item = splitter.next())
    {
        if (item->what == sentItem::kind::frame && (item->flags & 0xFFU) != 0)
        {
            messages.saw(*item);
        }
        else
        {
            seen.push_back(*item);
        }
    }
}

std::vector<gssipMessage> portRun::queued() const
{
    sentry const lock(port.txMutex);
    std::vector<gssipMessage> copies;
    for (auto const& entry : port.txQueue)
    {
        copies.push_back(std::get<gssipMessage>(entry));
    }
    return copies;
}

std::vector<gssipSendAckReqEvent> portRun::pending() const
{
    sentry const lock(tracker().eventQMutex);
    return {tracker().eventQ.begin(), tracker().eventQ.end()};
}

bool portRun::gateIsOpen() const
{
    sentry const lock(port.readyMutex);
    return port.portReady;
}

std::uint16_t portRun::idOfPending() const
{
    std::vector<gssipSendAckReqEvent> const events = pending();
    return events.empty() ? std::uint16_t{0} : events.front().message.getId();
}

void portRun::await(std::function<bool()> const& condition, char const* what)
{
    auto const deadline = std::chrono::steady_clock::now() + PATIENCE;
    for (unsigned looks = 0; !condition(); ++looks)
    {
        require(std::chrono::steady_clock::now() < deadline, what);
        if (looks < 20)
        {
            std::this_thread::yield();
        }
        else
        {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        readLine();
    }
}

void portRun::settle()
{
    excuseWhatMayBeLost();
    readLine();
    if (!traits.isSettled)
    {
        return;
    }
    await([this] { return hasReceivedAll(); }, "framing has not come to where the decoder is");
    await([this] { return isTransmitQuiet(); }, "a message that was queued is nowhere");
    await([this] { return seen.size() >= expected.size(); },
          "an answer, or something sent at once, is not on the line");
    require(seen == expected, "answers and what was sent at once are on the line in another way");
    await([this] { return isPendingAsExpected(); }, "what awaits acknowledgement is not what should");
    require(gateIsOpen() == gateOpen, "the gate is open when it should be shut, or shut when it should be open");
    checkGate();
    checkTracker();
    checkLog();
}

void portRun::openGate()
{
    gateOpen = true;
    longWaitMayLast = false;
    passedShutGate = MAY_PASS;
}

/// A shut gate without a time limit lets nobody pass; one may have been behind it when it was shut.
void portRun::checkGate()
{
    std::size_t const passed = messages.passedQueue();
    if (!isGateShutForLong())
    {
        passedShutGate = MAY_PASS;
    }
    else if (passedShutGate == MAY_PASS)
    {
        passedShutGate = passed;
    }
    require(passedShutGate == MAY_PASS || passed <= passedShutGate + 1, "messages pass a gate that is shut");
}

bool portRun::isGateShutForLong() const
{
    double const handshake_sec = port.getHandshakeTimeout_sec();
    return !gateOpen && (handshake_sec < 0 || handshake_sec > 1);
}

/// Without a line, what is taken from the queue is lost.
void portRun::excuseWhatMayBeLost()
{
    if (port.serial.isOpen() && !isConnected)
    {
        for (ledger::entry& entry : messages)
        {
            entry.mayBeGone = entry.mayBeGone || entry.writes == 0;
        }
    }
}

bool portRun::hasReceivedAll() const
{
    kit::exposedReceive* const framing = receiver();
    if (framing == nullptr)
    {
        return true;
    }
    kit::decodedStream const decoded = decodeSinceStart(stream);
    std::lock_guard<std::mutex> const lock(framing->frameMutex);
    if (log.count(headerErrorText()) < headerErrors + decoded.headerErrors)
    {
        return false;
    }
    bool const isUntouched = stream.empty(); // the zeros of a new receiver wait for the first byte
    return framing->rxQueue.size() == decoded.frames.size() - taken &&
           (isUntouched || (!framing->dataAvailable && framing->frameBuffer == decoded.rest &&
                            static_cast<std::uint32_t>(framing->state) == decoded.expected));
}

/// Nothing is on its way between queue and line, and nothing moves before the gate opens.
bool portRun::isTransmitQuiet()
{
    std::vector<gssipMessage> const inQueue = queued();
    readLine();
    bool const mayMove = port.serial.isOpen() && !inQueue.empty() && !isGateShutForLong() && !longWaitMayLast;
    return !mayMove && std::all_of(messages.begin(), messages.end(),
                                   [&](ledger::entry const& entry) { return isAccountedFor(entry, inQueue); });
}

bool portRun::isAccountedFor(ledger::entry const& entry, std::vector<gssipMessage> const& inQueue) const
{
    auto const isIt = [&](gssipMessage const& message) { return message.getProtocolFlags() == entry.item.flags; };
    switch (entry.how)
    {
    case ledger::kind::direct:
        return entry.writes == entry.writesAsked || entry.mayBeGone;
    case ledger::kind::queued:
        return entry.writes != 0 || entry.mayBeGone || std::any_of(inQueue.begin(), inQueue.end(), isIt);
    case ledger::kind::dropped:
        break;
    }
    return true;
}

/// With long time-outs it is known what is pending. With short ones all goes away, unless nobody resends any more.
bool portRun::isPendingAsExpected()
{
    std::set<std::uint16_t> keys;
    for (gssipSendAckReqEvent const& event : pending())
    {
        keys.insert(event.message.getProtocolFlags());
    }
    readLine();
    if (!traits.hasLongTimeouts)
    {
        return keys.empty() || !port.started;
    }
    return std::all_of(messages.begin(), messages.end(), [&](ledger::entry const& entry) {
        bool const isPending = keys.count(entry.item.flags) != 0;
        bool const shouldBe = entry.isTracked && entry.writes != 0 && !entry.isSettled;
        bool const isRight = isPending == shouldBe && entry.writes <= 1 + entry.writesAsked &&
                             (entry.writes == 0 || entry.mayBeGone || entry.writes == 1 + entry.writesAsked);
        return !entry.isTracked || entry.isLoose || isRight || !port.started;
    });
}

/// What holds at any moment.
void portRun::checkTracker() const
{
    sentry const lock(tracker().eventQMutex);
    require(std::is_sorted(tracker().eventQ.begin(), tracker().eventQ.end(), eventLess),
            "the earliest deadline does not come first");
    for (gssipSendAckReqEvent const& event : tracker().eventQ)
    {
        require(event.message.isAckReqFlagSet(), "a message awaits acknowledgement that requests none");
        require(event.retransmitCount <= 1, "an event outlives its second time-out");
        require(event.eventId < tracker().nextEventId, "an event has a number that was not given");
    }
}

void portRun::checkLog() const
{
    std::string const id = std::to_string(port.portId);
    std::size_t const errors = headerErrors + decodeSinceStart(stream).headerErrors;
    std::size_t headersSeen = 0;
    std::size_t invalidSeen = 0;
    std::size_t rejectsSeen = 0;
    for (kit::logLine const& logged : log.lines())
    {
        bool const isFault = logged.level == 2;
        if (isFault && logged.text == headerErrorText())
        {
            ++headersSeen;
        }
        else if (isFault && logged.text == "Port(" + id + ") Invalid Message")
        {
            ++invalidSeen;
        }
        else if (isFault && logged.text.find("port(" + id + ") reject ") == 0)
        {
            ++rejectsSeen;
        }
        else
        {
            bool const isRead =
                logged.level == 4 && logged.text == "gssipReceive(" + id + ") Error Reading Serial Port: ";
            require(isRead && wasDisturbed, "a log line that nothing explains");
        }
    }
    require(headersSeen == errors, "rejected headers and their log lines differ in number");
    require(invalidSeen == invalidLines, "invalid messages and their log lines differ in number");
    require(rejectsSeen == rejectLines, "rejects and their log lines differ in number");
}

void portRun::getMessage(bool waitOnInvalid)
{
    if (traits.isSettled)
    {
        settle();
        checkReceived(waitOnInvalid);
        settle();
    }
}

void portRun::checkReceived(bool waitOnInvalid)
{
    gssipMessage message(7, 7, 7);
    if (receiver() == nullptr)
    {
        require(port.getMessage(message, waitOnInvalid) == 0 && message.getId() == 0 && message.getData().empty(),
                "getMessage without a receiver does not return at once with nothing");
        return;
    }
    kit::decodedFrame last;
    int status = 0;
    expectation const outcome = expectMessages(waitOnInvalid, last, status);
    if (outcome == expectation::nothing)
    {
        receiver()->rxQueue.push(sentinel());
    }
    int const result = port.getMessage(message, waitOnInvalid);
    require(isSentinel(message) == (outcome == expectation::nothing), "getMessage returns too much or too little");
    if (outcome != expectation::nothing)
    {
        require(kit::viewOf(message) == last, "getMessage returns another message");
    }
    require(result == (outcome == expectation::invalid ? 1 : status), "getMessage has another result");
}

/// Goes through what has been received as getMessage will.
portRun::expectation portRun::expectMessages(bool waitOnInvalid, kit::decodedFrame& last, int& status)
{
    std::vector<kit::decodedFrame> const frames = decodeSinceStart(stream).frames;
    bool handled = true;
    while (taken < frames.size())
    {
        last = frames[taken++];
        expectAnswer(last, isValid(last), status);
        if (!isValid(last))
        {
            ++invalidLines;
            if (!waitOnInvalid)
            {
                openGate();
                return expectation::invalid;
            }
        }
        else if (expectMessage(last, status, handled))
        {
            gateOpen = !has(last, gssipMessage::ACK_REQ_FLAG) && gateOpen;
            return expectation::delivered;
        }
        if (status != 0)
        {
            return expectation::failed;
        }
    }
    return expectation::nothing;
}

void portRun::expectAnswer(kit::decodedFrame const& frame, bool isValid, int& status)
{
    if (!port.getReceiveAutoAcknowledgeEnable() || !has(frame, gssipMessage::ACK_REQ_FLAG))
    {
        return;
    }
    if (lineWorks())
    {
        expected.push_back(frameItem(frame.id, isValid ? 0x8800 : 0x8400));
    }
    else
    {
        status = port.serial.isOpen() ? EIO : EBADF;
    }
}

/// Of a valid message: true when it is the application's.
bool portRun::expectMessage(kit::decodedFrame const& frame, int& status, bool& handled)
{
    if (status == 0)
    {
        handled = (has(frame, gssipMessage::ACK_FLAG) || has(frame, gssipMessage::NAK_FLAG)) && frame.count == 0;
        if (handled)
        {
            expectTracked(frame);
        }
    }
    bool const isKept = handled || has(frame, gssipMessage::HANDSHAKE_FLAG);
    if (isKept)
    {
        openGate();
    }
    handled = isKept;
    return !isKept && status == 0;
}

bool portRun::isQueued(std::uint16_t id) const
{
    std::vector<gssipMessage> const inQueue = queued();
    return std::any_of(inQueue.begin(), inQueue.end(), [&](gssipMessage const& each) { return each.getId() == id; });
}

/// An ACK settles the matching event that is due first; a NAK resends it, or drops it when it has been resent.
void portRun::expectTracked(kit::decodedFrame const& answer)
{
    std::vector<ledger::entry*> matching;
    for (gssipSendAckReqEvent const& event : pending())
    {
        ledger::entry& entry = messages.of(event.message);
        if (event.message.getId() == answer.id && !entry.isSettled)
        {
            matching.push_back(&entry);
        }
    }
    bool const isAck = has(answer, gssipMessage::ACK_FLAG);
    // What leaves the queue meanwhile may be answered too; and of several, a NAK changes which is due first.
    if (!traits.hasLongTimeouts || isQueued(answer.id) || (!isAck && matching.size() > 1))
    {
        for (ledger::entry& entry : messages)
        {
            entry.isLoose = entry.isLoose || entry.item.id == answer.id;
        }
    }
    if (matching.empty())
    {
        return;
    }
    ledger::entry& first = *matching.front();
    if (!isAck && first.writesAsked == 0)
    {
        first.writesAsked = 1;
        first.mayBeGone = first.mayBeGone || !lineWorks();
    }
    else
    {
        first.isSettled = true;
    }
}

void portRun::receiveAlways()
{
    gssipMessage message;
    while (!leaving)
    {
        port.getMessage(message, (message.getId() & 1U) != 0);
        if (std::atomic_load(&port.receiver) == nullptr)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
}

void portRun::finish()
{
    settle();
    stop();
    std::vector<gssipMessage> const inQueue = queued();
    require(port.getNumberQueuedMessages() == inQueue.size(), "the queue's length is wrong");
    await(
        [&] {
            return std::all_of(messages.begin(), messages.end(),
                               [&](ledger::entry const& entry) { return isAccountedFor(entry, inQueue); });
        },
        "a message is neither written nor queued");
    require(splitter.isBetweenItems() || wasDisturbed, "half a message is on the line");
}

} // namespace fuzz
