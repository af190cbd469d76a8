// The gate lets through whom it has called, even when it is shut again before they have looked.

#include "callOnThread.h"
#include "frames.h"
#include "messages.h"
#include "ordinaryUser.h"
#include "portOnLine.h"
#include "processState.h"
#include "stopwatch.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace
{

using kit::callOnThread;
using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::operator+;
using kit::portOnLine;

constexpr std::uint16_t REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr double WITHOUT_LIMIT = -1.0;

/// An ACK opens the gate, and the request behind it, taken by the same call, shuts it: both before the transmit thread,
/// which waits without limit, has got the lock back.
TEST(GatePass, AckAndRequestInOneCall_LetTheTransmitThreadThroughOnce)
{
    portOnLine<> rig;
    kit::threadWatch const watch;
    rig.port.setHandshakeTimeout_sec(WITHOUT_LIMIT);
    rig.port.setReceiveAutoAcknowledgeEnable(false);
    ASSERT_TRUE(rig.port.start());
    pid_t const transmitThread = watch.idOf("GP TX");
    for (int round = 0; round < 50; ++round)
    {
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread)); // on its queue, at first with the gate open
        rig.port.resetPortReady();
        rig.port.sendMessage(message(1), false);
        ASSERT_EQ(rig.line.read(10), frame(1, 0));
        rig.port.sendMessage(message(2), false);
        ASSERT_TRUE(kit::waitUntilAsleep(transmitThread)); // in the gate

        rig.line.write(frame(9, ACK) + frame(3, REQUEST));
        ASSERT_TRUE(rig.waitForReceived(2));
        gssipMessage received;
        ASSERT_EQ(rig.port.getMessage(received, true), 0);
        ASSERT_EQ(received.getId(), 3);
        ASSERT_EQ(rig.line.read(10), frame(2, 0));
        ASSERT_FALSE(rig.gateIsOpen());
        rig.port.signalPortReady();
    }
}

/// The waiter is woken, but whoever has woken it shuts the gate before it can look.
TEST(GatePass, OpenedAndShutAtOnce_LetsTheWaiterThroughOnce)
{
    portOnLine<> rig;
    for (int round = 0; round < 50; ++round)
    {
        callOnThread<int> waiting([&] { return rig.port.waitForPortReady(WITHOUT_LIMIT); });
        waiting.awaitAsleep();
        ASSERT_EQ(rig.port.signalPortReady(), 0);
        rig.port.resetPortReady(); // waits for nobody
        ASSERT_FALSE(rig.gateIsOpen());
        ASSERT_EQ(waiting.get(), 0);
    }
    EXPECT_EQ(rig.port.waitForPortReady(0.02), ETIMEDOUT); // the pass has died with its wait
}

// --- Round trips between two ports

/// Carries bytes both ways between the far ends of two lines.
class nullModemCable
{
  public:
    nullModemCable(kit::pseudoTerminal& one, kit::pseudoTerminal& other)
        : ends{one.masterDescriptor(), other.masterDescriptor()}, thread([this] { carry(); })
    {}
    ~nullModemCable()
    {
        done = true;
        thread.join();
    }
    nullModemCable(nullModemCable const&) = delete;
    nullModemCable& operator=(nullModemCable const&) = delete;

  private:
    void carry()
    {
        while (!done)
        {
            pollfd ready[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
            ::poll(ready, 2, 20);
            for (int from = 0; from < 2; ++from)
            {
                char bytes[512];
                ssize_t const count = (ready[from].revents & POLLIN) != 0 ? ::read(ends[from], bytes, sizeof bytes) : 0;
                if (count > 0 && ::write(ends[1 - from], bytes, static_cast<std::size_t>(count)) != count)
                {
                    return;
                }
            }
        }
    }

    int const ends[2];
    std::atomic<bool> done{false};
    std::thread thread;
};

/// Answers every request with one of its own, until the port is stopped.
int answerAll(exposedPort& port)
{
    gssipMessage received;
    int answered = 0;
    while (port.getMessage(received, true) == 0 && received.getId() != 0)
    {
        port.sendMessage(message(static_cast<std::uint16_t>(received.getId() + 1000), REQUEST), true);
        ++answered;
    }
    return answered;
}

constexpr double HANDSHAKE_SEC = 0.3;
constexpr double STALL_SEC = 0.25;
constexpr int ROUND_TRIPS = 1000;
constexpr int MOST_STALLS = ROUND_TRIPS * 2 / 100;

/// The number of round trips that took the time-out of the gate, or nearly; stops counting when they are too many.
std::string faultOfRoundTrips()
{
    portOnLine<> near;
    portOnLine<> far;
    for (exposedPort* port : {&near.port, &far.port})
    {
        port->setHandshakeTimeout_sec(HANDSHAKE_SEC);
        port->setAcknowledgeTimeout_sec(5.0);
        if (!port->start())
        {
            return "no port";
        }
    }
    nullModemCable const cable(near.line, far.line);
    callOnThread<int> answering([&] { return answerAll(far.port); });
    int stalls = 0;
    for (int trip = 1; trip <= ROUND_TRIPS && stalls <= MOST_STALLS; ++trip)
    {
        kit::stopwatch const watch;
        gssipMessage received;
        near.port.sendMessage(message(static_cast<std::uint16_t>(trip), REQUEST), true);
        if (near.port.getMessage(received, true) != 0 || received.getId() != trip + 1000)
        {
            return "a message is missing";
        }
        stalls += watch.elapsed_sec() > STALL_SEC ? 1 : 0;
    }
    far.port.stop();
    answering.get();
    return stalls <= MOST_STALLS ? "" : std::to_string(stalls) + " stalls";
}

TEST(RoundTripsOfAnOrdinaryUser, AcknowledgedBothWays_DoNotStallInTheGate)
{
    EXPECT_EQ(kit::asOrdinaryUser(faultOfRoundTrips,
                                  []() -> std::string {
                                      rlimit const none{0, 0};
                                      return setrlimit(RLIMIT_RTPRIO, &none) == 0 ? "" : "no limit";
                                  }),
              "");
}

} // namespace
