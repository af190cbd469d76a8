// A receive loop on a thread of its own, ended by stopping the port.
// Run it as `receiveLoop` (on a null modem of its own: takes three messages) or as `receiveLoop DEVICE` (until Enter is
// pressed).

#include "gssipPort.h"
#include "partner.h"

#include <atomic>
#include <functional>
#include <future>
#include <iostream>
#include <thread>

namespace
{

/// Takes messages from a started port from its construction to its destruction, which stops the port.
class receiveLoop
{
  public:
    receiveLoop(gssipPortInterface& portToServe, std::function<void(gssipMessage const&)> handlerOfEach)
        : port(portToServe), handle(std::move(handlerOfEach)), thread([this] { run(); })
    {}

    /// First the flag, then the stop: a loop that is not inside `getMessage` at the moment of the stop would otherwise
    /// find a port without a receiver, which returns 0 with an empty message at once, again and again.
    ~receiveLoop()
    {
        leaving = true;
        port.stop();
        thread.join();
    }

    receiveLoop(receiveLoop const&) = delete;
    receiveLoop& operator=(receiveLoop const&) = delete;

  private:
    void run()
    {
        while (!leaving)
        {
            gssipMessage message;
            int const result = port.getMessage(message, true); // -1: the port was stopped while this was waiting
            if (result == 0 && !leaving)
            {
                handle(message);
            }
        }
    }

    gssipPortInterface& port;
    std::function<void(gssipMessage const&)> handle; // on the loop's own thread
    std::atomic<bool> leaving{false};
    std::thread thread; // last: it uses all the others
};

void print(gssipMessage const& message)
{
    std::cout << "received message " << message.getId() << " with " << message.getData().size() << " data words\n";
}

} // namespace

int main(int argc, char** argv)
{
    examples::exampleLine line(argc, argv);
    monotonicTimeStamp clock;
    streamLog log(std::cerr);
    gssipPort port(line.device(), clock, &log, false);
    if (!port.start())
    {
        std::cerr << "cannot start the port on " << line.device() << '\n';
        return 1;
    }

    std::promise<void> lastCame;
    receiveLoop const loop(port, [&](gssipMessage const& message) {
        print(message);
        if (line.otherSide() != nullptr && message.getId() == 3)
        {
            lastCame.set_value();
        }
    });

    if (line.otherSide() == nullptr)
    {
        std::cin.get();
        return 0;
    }
    for (std::uint16_t id = 1; id <= 3; ++id)
    {
        line.otherSide()->port().sendMessage(gssipMessage(id, 0, id), false);
    }
    return lastCame.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready ? 0 : 1;
}
