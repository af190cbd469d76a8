// What becomes of a port while it is made, started, stopped and destroyed.

#include "frames.h"
#include "messages.h"
#include "scenarios.h"

#include <sys/ioctl.h>

namespace faults
{
namespace
{

using kit::frame;
using kit::message;

/// A device that has gone, with bytes that its driver does not let go of: closing it could block.
class keepingAdapter : public kit::systemCalls
{
  public:
    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        int const result = systemCalls::ioctl(descriptor, request, argument);
        if (result == 0 && request == TIOCOUTQ)
        {
            *static_cast<int*>(argument) = 100;
        }
        return result;
    }

    int poll(pollfd* descriptors, nfds_t /*count*/, int /*limit_ms*/) override
    {
        descriptors->revents = POLLHUP;
        return 1;
    }
};

int configure(bench& at)
{
    return at.call("configurePort", [&] { return at.port->configurePort(19200, 7, PARITY_EVEN, 2, 2, 0.1, 0.2, 5); })
        .value_or(-1);
}

} // namespace

void construct(bench& at)
{
    at.arm();
    at.makePort();
    if (at.hasPort())
    {
        at.expect(configure(at) == 0, "configurePort returns 0");
        std::string text;
        int const status = at.call("getPortConfigStr", [&] { return at.port->getPortConfigStr(text); }).value_or(-1);
        at.expect(status == 0 && text.find(" 19200 7E2 ") != std::string::npos, "the settings are told: " + text);
        at.call("getPort", [&] { return at.port->getPort(); });
        at.call("sendMessage", [&] { return at.port->sendMessage(message(1), true); });
        at.destroyPort();
    }
    at.makePort();
}

void start(bench& at)
{
    at.makePort();
    at.arm();
    at.expect(at.start(), "start returns true");
    at.expect(at.start(), "start of a started port returns true");
}

void restart(bench& at)
{
    at.makeStartedPort();
    at.arm();
    at.expect(at.stop(), "stop returns true");
    at.expect(at.start(), "start returns true");
    configure(at);
    at.expect(at.stop(), "the second stop returns true");
    at.expect(at.start(), "the second start returns true");
}

void startWithoutDevice(bench& at)
{
    at.unplug();
    at.makePort();
    at.arm();
    at.expect(!at.start(), "start returns false without a device");
    at.startReceiving();
    at.require(at.stop() || at.port->started, "stop of a port that is not started returns true");
    at.plugIn();
    at.expect(at.start(), "start returns true when the device has come");
}

void stopWithFullQueue(bench& at)
{
    at.makeStartedPort();
    at.shutGate();
    for (std::uint16_t id = 1; id <= 3; ++id)
    {
        at.port->sendMessage(message(id, 0, {id}), false);
        at.leftQueued.push_back(frame(id, 0, {id}));
    }
    at.arm();
    at.expect(at.stop(), "stop returns true");
    at.require(at.queued() == 3, "what was queued stays queued");
}

void stopWithWaitingReceiver(bench& at)
{
    at.makeStartedPort();
    at.startReceiving();
    at.feed(frame(1, 0));
    at.bePatient();
    at.require(at.awaitReceived(1), "the receiving application is there");
    at.arm();
    at.expect(at.stop(), "stop returns true");
}

void stopOfAnAdapterThatKeepsItsBytes(bench& at)
{
    keepingAdapter adapter;
    kit::systemBehindFaults const system(adapter);
    at.makeStartedPort();
    at.startMayBeRefusedFirst = true;
    at.arm();
    at.expect(at.stop(), "stop returns true");
}

void destroyStarted(bench& at)
{
    at.makeStartedPort();
    at.arm();
    at.destroyPort();
    at.makePort();
}

void destroyAfterAFailedStart(bench& at)
{
    at.unplug();
    at.makePort();
    at.start();
    at.plugIn();
    at.arm();
    at.destroyPort();
    at.makePort();
}

void deviceVanishes(bench& at)
{
    at.makeStartedPort();
    at.startReceiving();
    at.arm();
    at.unplug();
    at.lineIsDead = true;
    at.expect(at.await([&] { return at.log.failedReads() > 1; }), "failed reads are logged");
    at.call("sendMessage", [&] { return at.port->sendMessage(message(1), true); });
    gssipMessage again = message(2);
    int const status = at.call("resendMessage", [&] { return at.port->resendMessage(again); }).value_or(-1);
    at.require(status != 0, "a message that cannot be written is an error");
    at.expect(at.stop(), "stop returns true");
    at.expect(!at.start(), "start returns false without the device");
    at.plugIn();
}

void leftAlone(bench& at)
{
    constexpr int TIMES = 30;
    at.makeStartedPort();
    at.startReceiving();
    at.arm();
    for (std::uint16_t id = 1; id <= TIMES; ++id)
    {
        at.feed(frame(id, 0)); // so that reading goes on where it succeeds
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    at.expect(at.awaitReceived(TIMES), "all is received");
    at.expect(at.log.failedReads() == 0, "no failed read is logged");
}

} // namespace faults
