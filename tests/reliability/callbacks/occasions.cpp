#include "occasions.h"

#include "frames.h"
#include "messages.h"

#include <cerrno>
#include <ostream>
#include <string>
#include <unistd.h>

using kit::frame;
using kit::message;
using kit::operator+;

namespace
{

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;

void sendMessage(callbackRig& rig)
{
    rig.port.exposedPort::sendMessage(message(1), false);
}

void sendRequest(callbackRig& rig)
{
    rig.port.exposedPort::setAcknowledgeTimeout_sec(0.01);
    rig.port.exposedPort::sendMessage(message(1, REQUEST), true);
}

void receive(callbackRig& rig)
{
    rig.line.write(frame(1, 0, {1}));
}

void receiveBadHeader(callbackRig& rig)
{
    rig.line.write(kit::frameWithBadHeader(1, 0));
}

void failToRead(callbackRig& rig)
{
    rig.system.failsNext = true;
    rig.line.write(frame(1, 0));
}

void takeAfter(callbackRig& rig, kit::bytes const& received)
{
    rig.line.write(received + frame(2, 0));
    gssipMessage taken;
    rig.port.getMessage(taken, true);
}

void takeRequest(callbackRig& rig)
{
    rig.line.write(frame(1, REQUEST));
    gssipMessage taken;
    rig.port.getMessage(taken, true);
}

void takeInvalid(callbackRig& rig)
{
    takeAfter(rig, kit::frameWithBadData(1, 0, {1}));
}

void takeRefusal(callbackRig& rig)
{
    rig.port.exposedPort::setAcknowledgeTimeout_sec(3600.0);
    gssipMessage request = message(1, REQUEST);
    rig.tracker().processSendAckRequest(request);
    takeAfter(rig, frame(1, NAK));
}

void registerRequest(callbackRig& rig)
{
    gssipMessage request = message(1, REQUEST);
    rig.tracker().processSendAckRequest(request);
}

void resend(callbackRig& rig)
{
    gssipMessage again = message(1);
    rig.port.exposedPort::resendMessage(again);
}

void reject(callbackRig& rig)
{
    rig.port.sendHandshakeReject(1, true);
}

void configure(callbackRig& rig)
{
    rig.port.configurePort(115200, 8, PARITY_NONE, 1, 0, 0.2, 0.02, 5);
}

void askForConfiguration(callbackRig& rig)
{
    std::string text;
    rig.port.getPortConfigStr(text);
}

void sendSeveral(callbackRig& rig)
{
    rig.port.sendMessages({message(1), message(2)}, false);
}

/// Fills the queue of the shut gate, so that the service has something to discard.
void service(callbackRig& rig)
{
    rig.port.exposedPort::setHandshakeTimeout_sec(10.0);
    rig.port.resetPortReady();
    for (std::uint16_t id = 0; id <= 101; ++id)
    {
        rig.port.exposedPort::sendMessage(message(id), false);
    }
    rig.port.serviceTransmitQueue();
}

} // namespace

ssize_t failingRead::read(int descriptor, void* bytes, std::size_t capacity)
{
    if (pthread_equal(pthread_self(), testThread) == 0 && ::isatty(descriptor) == 1 && failsNext.exchange(false))
    {
        errno = EIO;
        return -1;
    }
    return systemCalls::read(descriptor, bytes, capacity);
}

void PrintTo(occasion const& each, std::ostream* out)
{
    *out << each.name;
}

bool isOnOwnThread(occasion const& each)
{
    std::string const place = each.place;
    return place.substr(place.find('@')) != "@application";
}

std::vector<occasion> const& everyOccasion()
{
    static std::vector<occasion> const all{
        {"StampOfAMessageSent", "clock@GP TX", sendMessage, false},
        {"TimeoutAtTheRegistration", "timeout@GP TX", sendRequest, false},
        {"ClockAtTheDeadline", "clock@gssipSendAckReq", sendRequest, false},
        {"Resend", "resend@gssipSendAckReq", sendRequest, false},
        {"TimeoutAfterTheResend", "timeout@gssipSendAckReq", sendRequest, false},
        {"StampOfAMessageReceived", "clock@receiver", receive, false},
        {"ClockAtABadHeader", "clock@receiver", receiveBadHeader, false},
        {"LogOfABadHeader", "log@receiver", receiveBadHeader, false},
        {"ClockAtAFailedRead", "clock@receiver", failToRead, false},
        {"LogOfAFailedRead", "log@receiver", failToRead, false},
        {"AutoAcknowledgeOfAMessageTaken", "autoAcknowledge@application", takeRequest, true},
        {"StampOfAnAcknowledgement", "clock@application", takeRequest, true},
        {"ClockAtAnInvalidMessage", "clock@application", takeInvalid, true},
        {"LogOfAnInvalidMessage", "log@application", takeInvalid, true},
        {"ResendForANak", "resend@application", takeRefusal, false},
        {"TimeoutAtARegistration", "timeout@application", registerRequest, true},
        {"StampOfAResend", "clock@application", resend, true},
        {"StampOfAReject", "clock@application", reject, true},
        {"LogOfAReject", "log@application", reject, true},
        {"SetTimeoutOfAConfiguration", "setTimeout@application", configure, true},
        {"SetHandshakeTimeoutOfAConfiguration", "setHandshakeTimeout@application", configure, true},
        {"SetGapOfAConfiguration", "setGap@application", configure, true},
        {"GapOfTheConfigurationText", "gap@application", askForConfiguration, true},
        {"TimeoutOfTheConfigurationText", "timeout@application", askForConfiguration, true},
        {"HandshakeTimeoutOfTheConfigurationText", "handshakeTimeout@application", askForConfiguration, true},
        {"SendMessageOfSeveral", "sendMessage@application", sendSeveral, true},
        {"QueuedOfTheService", "queued@application", service, true, true},
        {"ClearOfTheService", "clear@application", service, true, true},
    };
    return all;
}
