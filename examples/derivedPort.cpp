// A derived port: counts what had to be sent again, for whoever watches the quality of a line.
// Run it as `derivedPort` (on a null modem of its own that loses the first message) or as `derivedPort DEVICE`.

#include "gssipPort.h"
#include "partner.h"

#include <atomic>
#include <iostream>
#include <thread>

namespace
{

class countingPort : public gssipPort
{
  public:
    using gssipPort::gssipPort;

    /// A derived port stops itself here. In the destructor of the base it would be too late: the threads of the port
    /// would still be running while what they call here has gone.
    ~countingPort() override { stop(); }

    countingPort(countingPort const&) = delete;
    countingPort& operator=(countingPort const&) = delete;

    /// Called by the port for each message that was not acknowledged in time or that the other side refused, on a
    /// thread of the port that meanwhile keeps every other acknowledgement waiting: it must be quick.
    int resendMessage(gssipMessage& message) override
    {
        ++resends;
        return gssipPort::resendMessage(message);
    }

    std::atomic<unsigned> resends{0};
};

/// Loses what comes first.
examples::nullModem::hook loseFirst()
{
    return [first = true](examples::bytes const& chunk) mutable {
        bool const lost = first;
        first = false;
        return lost ? examples::bytes() : chunk;
    };
}

bool sendThree(countingPort& port, examples::exampleLine& line)
{
    for (std::uint16_t id = 1; id <= 3; ++id)
    {
        port.sendMessage(gssipMessage(id, gssipMessage::ACK_REQ_FLAG, 0), true);
    }
    if (line.otherSide() == nullptr)
    {
        std::this_thread::sleep_for(std::chrono::seconds(3)); // long enough for every attempt
        return true;
    }
    // Under load an acknowledgement may be late, and more than the lost one is sent again.
    return line.otherSide()->waitFor(3).size() >= 3 && port.resends >= 1;
}

} // namespace

int main(int argc, char** argv)
{
    examples::exampleLine line(argc, argv);
    monotonicTimeStamp clock;
    streamLog log(std::cerr);
    countingPort port(line.device(), clock, &log, false);
    if (line.modem() != nullptr)
    {
        line.modem()->setHook(examples::nullModem::A_TO_B, loseFirst());
    }
    if (!port.start())
    {
        std::cerr << "cannot start the port on " << line.device() << '\n';
        return 1;
    }
    std::atomic<bool> leaving{false};
    std::thread receiver([&] { // acknowledgements are taken in here
        gssipMessage message;
        while (!leaving && port.getMessage(message, true) != -1)
        {}
    });

    bool const asItShould = sendThree(port, line);
    std::cout << "3 messages sent, " << port.resends << " of them twice\n";

    leaving = true;
    port.stop();
    receiver.join();
    return asItShould ? 0 : 1;
}
