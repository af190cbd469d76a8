// What becomes of messages.

#include "frames.h"
#include "messages.h"
#include "pretendedUart.h"
#include "scenarios.h"
#include "sentry.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

namespace faults
{
namespace
{

using kit::frame;
using kit::message;
using kit::operator+;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;
constexpr std::uint16_t HANDSHAKE = gssipMessage::HANDSHAKE_FLAG;
constexpr std::uint16_t REJECT =
    gssipMessage::REPLY_FLAG | HANDSHAKE | gssipMessage::REJECT_FLAG | gssipMessage::REJECT_EXTRA_FLAG;

/// A real line, whose driver offers low latency.
class uart : public kit::pretendedUart
{
  public:
    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        if (request == TIOCGSERIAL || request == TIOCSSERIAL)
        {
            return 0;
        }
        return systemCalls::ioctl(descriptor, request, argument);
    }
};

bool send(bench& at, gssipMessage const& one, bool trackAck)
{
    return at.call("sendMessage", [&] { return at.port->sendMessage(one, trackAck); }).has_value();
}

void sendUntracked(bench& at, gssipMessage one)
{
    bool const isQueued = send(at, one, false);
    one.setHeaderChecksum();
    one.setDataChecksum();
    if (isQueued)
    {
        at.sent.push_back(one.getHeaderAndDataUint8());
    }
}

std::size_t pending(bench& at)
{
    kit::exposedSendAckReq& tracker = kit::exposedSendAckReq::of(at.port->sendAckReq);
    sentry const lock(tracker.eventQMutex);
    return tracker.eventQ.size();
}

void expectNothingPending(bench& at)
{
    at.expect(at.await([&] { return pending(at) == 0; }), "nothing is pending in the end");
}

void startWithReceiver(bench& at)
{
    at.makeStartedPort();
    at.startReceiving();
}

/// An operation that may run out of memory: then it has left the queue as it was.
template <typename Call>
void callOnQueue(bench& at, char const* what, Call const& operation)
{
    unsigned const before = at.queued();
    if (!at.call(what, operation))
    {
        at.require(at.queued() == before, std::string(what) + " leaves the queue when memory runs out");
    }
}

} // namespace

void sendUntracked(bench& at)
{
    at.makeStartedPort();
    at.arm();
    sendUntracked(at, message(1));
    sendUntracked(at, message(2, 0, {1}));
    sendUntracked(at, message(3, REQUEST, {1, 2, 3}));
    at.expect(at.awaitOnLine(frame(1, 0) + frame(2, 0, {1}) + frame(3, REQUEST, {1, 2, 3})), "all is sent, in order");
}

void queueBehindTheGate(bench& at)
{
    at.makeStartedPort();
    at.shutGate();
    std::vector<gssipMessage> const batch{message(1, 0, {1}), message(2, 0, {2}), message(3, 0, {3})};
    at.arm();
    callOnQueue(at, "sendMessage", [&] { return at.port->sendMessage(batch[0], false); });
    unsigned const before = at.queued();
    at.call("sendMessages", [&] { return at.port->sendMessages(batch, false); });
    at.require(at.queued() <= before + batch.size(), "sendMessages queues no message twice");
    callOnQueue(at, "sendDtMessages", [&] { return at.port->sendDtMessages(batch.begin(), 3); });
    at.expect(at.queued() == 7, "all is queued");
    at.call("removeMsgIdFromTxQueue", [&] { return at.port->removeMsgIdFromTxQueue(1), true; });
    at.expect(at.queued() == 4, "one id is removed");
    at.call("serviceTransmitQueue", [&] { return at.port->serviceTransmitQueue(); });
    at.call("signalPortReady", [&] { return at.port->signalPortReady(); });
    at.expect(at.awaitOnLine(frame(2, 0, {2}) + frame(3, 0, {3}) + frame(2, 0, {2}) + frame(3, 0, {3})),
              "what is left is sent when the gate opens");
    at.call("clearTransmitQueue", [&] { return at.port->clearTransmitQueue(), true; });
    at.require(at.queued() == 0, "the queue is empty when it has been cleared");
}

void trackedAndAcknowledged(bench& at)
{
    startWithReceiver(at);
    at.arm();
    send(at, message(5, REQUEST, {1}), true);
    at.expect(at.awaitOnLine(frame(5, REQUEST, {1})), "the message is sent");
    at.feed(frame(5, ACK));
    expectNothingPending(at);
    at.expect(at.timesHeard(frame(5, REQUEST, {1})) == 1, "what was acknowledged is not sent again");
}

void trackedAndRefused(bench& at)
{
    startWithReceiver(at);
    at.arm();
    send(at, message(5, REQUEST, {1}), true);
    at.expect(at.awaitOnLine(frame(5, REQUEST, {1})), "the message is sent");
    at.feed(frame(5, NAK));
    at.expect(at.awaitOnLine(frame(5, REQUEST, {1}), 2), "the message is sent again");
    at.feed(frame(5, NAK));
    expectNothingPending(at);
    at.require(at.timesHeard(frame(5, REQUEST, {1})) <= 2, "nothing is sent more than twice");
}

void trackedAndNeverAnswered(bench& at)
{
    at.makeStartedPort();
    at.port->setAcknowledgeTimeout_sec(0.005);
    at.arm();
    send(at, message(5, REQUEST, {1}), true);
    send(at, message(6, REQUEST), true);
    at.expect(at.awaitOnLine(frame(5, REQUEST, {1}), 2), "the first message is sent again");
    at.expect(at.awaitOnLine(frame(6, REQUEST), 2), "the second message is sent again");
    expectNothingPending(at);
    at.listen(std::chrono::milliseconds(0));
    at.require(at.timesHeard(frame(5, REQUEST, {1})) <= 2, "nothing is sent more than twice");
}

void receive(bench& at)
{
    startWithReceiver(at);
    at.arm();
    at.feed(frame(1, 0, {1, 2}) + frame(2, 0));
    at.expect(at.awaitReceived(2), "plain messages are received");
    at.feed(frame(3, REQUEST, {3}));
    at.expect(at.awaitOnLine(frame(3, ACK)), "a request is acknowledged");
    at.feed(kit::frameWithBadData(4, REQUEST, {4}));
    at.expect(at.awaitOnLine(frame(4, NAK)), "a damaged request is refused");
    at.feed(kit::frameWithBadHeader(5, 0) + kit::bytes(20, 0xFF) + frame(6, HANDSHAKE) + frame(7, 0, {7}));
    at.expect(at.awaitReceived(7), "what follows damage and a handshake is received");
    at.expect(at.timesReceived(1) == 1 && at.timesReceived(3) == 1, "each is received once");
    at.require(at.timesReceived(4) + at.timesReceived(5) + at.timesReceived(6) == 0, "what is no message is kept back");
    at.require(at.timesReceived(1) <= 1 && at.timesReceived(7) <= 1, "nothing is received twice");
}

void controlTransmissions(bench& at)
{
    at.makeStartedPort();
    kit::bytes const raw{1, 2, 3, 4, 5};
    gssipMessage again = message(8, 0, {8});
    unsigned sent = 0;
    at.arm();
    auto const succeeds = [&](char const* what, auto const& operation) {
        at.expect(at.call(what, operation).value_or(-1) == 0, std::string(what) + " returns 0");
    };
    succeeds("sendHandshakeReject", [&] { return at.port->sendHandshakeReject(7, true); });
    succeeds("sendResyncSequence", [&] { return at.port->sendResyncSequence(); });
    succeeds("resendMessage", [&] { return at.port->resendMessage(again); });
    succeeds("send", [&] { return at.port->send(raw.data(), 5, sent); });
    at.expect(sent == raw.size(), "all raw bytes are sent");
    at.require(sent <= raw.size(), "no more is sent than there is");
    at.expect(at.awaitOnLine(frame(7, REJECT) + kit::bytes(20, 0xFF) + frame(8, 0, {8}) + raw),
              "all is sent, in order");
}

void bigMessages(bench& at)
{
    std::vector<std::uint16_t> words(4000);
    for (std::size_t place = 0; place < words.size(); ++place)
    {
        words[place] = static_cast<std::uint16_t>(place * 7 + 1);
    }
    startWithReceiver(at);
    at.arm();
    sendUntracked(at, message(5, 0, words));
    at.expect(at.awaitOnLine(frame(5, 0, words)), "a message longer than the driver's room is sent whole");
    at.longestFrame = frame(6, 0, words).size();
    at.feed(frame(6, 0, words));
    at.expect(at.awaitReceived(6), "a message longer than one read is received");
}

void pacedLine(bench& at)
{
    uart device;
    kit::systemBehindFaults const system(device);
    at.makePort();
    at.port->configurePort(460800, 8, PARITY_NONE, 1, 20, 10.0, 10.0, 5);
    at.arm();
    at.expect(at.start(), "start returns true");
    sendUntracked(at, message(1, 0, {1}));
    sendUntracked(at, message(2, 0, {2}));
    at.expect(at.awaitOnLine(frame(1, 0, {1}) + frame(2, 0, {2})), "all is sent, in order");
    at.call("sendResyncSequence", [&] { return at.port->sendResyncSequence(); });
    at.expect(at.stop(), "stop returns true while the line is busy");
}

} // namespace faults
