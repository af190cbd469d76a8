#include "operations.h"

#include "frames.h"
#include "messages.h"

using kit::exposedPort;
using kit::frame;
using kit::message;

namespace
{

constexpr std::uint16_t REJECT = 0x9200;
constexpr std::uint16_t REJECT_WITH_EXTRA = 0x9300;

std::string unless(bool isSo, char const* expectation)
{
    return isSo ? "" : std::string("not so: ") + expectation;
}

std::string zero(std::int64_t result)
{
    return unless(result == 0, "the result is 0");
}

std::vector<gssipMessage> pair(std::uint16_t id)
{
    return {message(id), message(static_cast<std::uint16_t>(id + 1), 0, {7})};
}

std::vector<kit::bytes> frames(std::uint16_t id)
{
    return {frame(id, 0), frame(static_cast<std::uint16_t>(id + 1), 0, {7})};
}

std::string configurationText(exposedPort& port)
{
    std::string text;
    int const status = port.getPortConfigStr(text);
    return unless(status == 0 && text.find(port.getPort()) == 0 && text.find("\nackTo(") != std::string::npos,
                  "the text shows device and time-outs");
}

std::string gap(exposedPort& port)
{
    double set = 0.0;
    double effective = 0.0;
    int const status = port.getReceiveInterCharacterGap_sec(set, &effective);
    return unless(status == 0 && effective >= 0.1, "the gap is a tenth of a second at least");
}

std::string setGap(exposedPort& port)
{
    int const status = port.setReceiveInterCharacterGap_sec(0.3);
    double set = 0.0;
    double effective = 0.0;
    port.getReceiveInterCharacterGap_sec(set, &effective);
    return unless(status == 0 && set == 0.3 && effective > 0.29 && effective < 0.31, "the gap is the one set");
}

std::string setTimeouts(exposedPort& port)
{
    double const ack_sec = port.getAcknowledgeTimeout_sec();
    double const handshake_sec = port.getHandshakeTimeout_sec();
    port.setAcknowledgeTimeout_sec(ack_sec);
    port.setHandshakeTimeout_sec(handshake_sec);
    return unless(port.getAcknowledgeTimeout_sec() == ack_sec && port.getHandshakeTimeout_sec() == handshake_sec,
                  "the time-outs are the ones set");
}

std::string autoAcknowledge(exposedPort& port)
{
    port.setReceiveAutoAcknowledgeEnable(true);
    return unless(port.getReceiveAutoAcknowledgeEnable(), "messages are acknowledged");
}

std::string removeFromQueue(exposedPort& port)
{
    port.removeMsgIdFromTxQueue(65536 + 1);
    return {};
}

std::string clearQueue(exposedPort& port)
{
    port.clearTransmitQueue();
    return unless(port.getNumberQueuedMessages() == 0, "the queue is empty");
}

std::string serviceQueue(exposedPort& port)
{
    bool const hadMany = port.getNumberQueuedMessages() > 100;
    return unless(port.serviceTransmitQueue() == hadMany, "a long queue is discarded, and no other");
}

std::string raw(exposedPort& port)
{
    std::uint8_t const bytes[] = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
    unsigned sent = 0;
    int const status = port.send(bytes, sizeof bytes, sent);
    return unless(status == 0 && sent == sizeof bytes, "all bytes are sent");
}

std::string resend(exposedPort& port)
{
    gssipMessage again = message(310, 0, {5});
    int const status = port.resendMessage(again);
    return unless(status == 0 && again.isValid(), "it is written with its checksums");
}

std::string several(exposedPort& port)
{
    std::vector<gssipMessage> const messages = pair(322);
    return zero(port.sendDtMessages(messages.begin(), 2));
}

} // namespace

std::vector<operation> const& everyOperation()
{
    std::vector<kit::bytes> const none;
    static std::vector<operation> const all{
        {"getPortConfigStr", configurationText, none, false, true},
        {"getReceiveInterCharacterGap_sec", gap, none, false, true},
        {"setReceiveInterCharacterGap_sec", setGap, none, false, true},
        {"timeouts", setTimeouts, none, false, true},
        {"receiveAutoAcknowledge", autoAcknowledge, none, false, true},
        {"getNumberQueuedMessages",
         [](exposedPort& port) { return unless(port.getNumberQueuedMessages() <= 102, "a count"); }, none, false, true},
        {"getNumberRxQueuedMessages",
         [](exposedPort& port) { return unless(port.getNumberRxQueuedMessages() <= 2, "a count"); }, none, false, true},
        {"getPort", [](exposedPort& port) { return unless(port.getPort() == port.serial.getPort(), "the device"); },
         none, false, true},
        {"removeMsgIdFromTxQueue", removeFromQueue, none, false, true},
        {"clearTransmitQueue", clearQueue, none, false, true},
        {"serviceTransmitQueue", serviceQueue, none, false, true},
        {"configurePort",
         [](exposedPort& port) { return zero(port.configurePort(115200, 8, PARITY_NONE, 1, 0, 0.01, 0.02, 5)); }, none,
         false, true},
        {"start", [](exposedPort& port) { return unless(port.start(), "it is started"); }, none, false, false},
        {"sendMessage",
         [](exposedPort& port) { return zero(port.sendMessage(message(300), false)); },
         {frame(300, 0)},
         true,
         true},
        {"sendMessages", [](exposedPort& port) { return zero(port.sendMessages(pair(302), false)); }, frames(302), true,
         true},
        {"sendDtMessages", several, frames(322), true, true},
        {"sendHandshakeReject",
         [](exposedPort& port) { return zero(port.sendHandshakeReject(304, false)); },
         {frame(304, REJECT)},
         false,
         false},
        {"sendHandshakeRejectWithExtra",
         [](exposedPort& port) { return zero(port.sendHandshakeReject(305, true)); },
         {frame(305, REJECT_WITH_EXTRA)},
         false,
         false},
        {"sendResyncSequence",
         [](exposedPort& port) { return zero(port.sendResyncSequence()); },
         {kit::bytes(20, 0xFF)},
         false,
         false},
        {"resendMessage", resend, {frame(310, 0, {5})}, false, false},
        {"send", raw, {{0xA1, 0xA2, 0xA3, 0xA4, 0xA5}}, false, false},
    };
    return all;
}
