#include "partner.h"

#include <iostream>
#include <stdexcept>

namespace examples
{

partner::partner(std::string const& device) : log(std::cerr), ownPort(device, clock, &log, false)
{
    if (!ownPort.start())
    {
        throw std::runtime_error("cannot start a port on " + device);
    }
    receiveThread = std::thread([this] { receiveLoop(); });
}

partner::~partner()
{
    leaving = true;
    ownPort.stop();
    receiveThread.join();
}

void partner::receiveLoop()
{
    while (!leaving)
    {
        gssipMessage message;
        int const result = ownPort.getMessage(message, true);
        if (result == 0 && !leaving)
        {
            keep(message);
        }
    }
}

void partner::keep(gssipMessage const& message)
{
    {
        std::lock_guard<std::mutex> const lock(takenMutex);
        taken.push_back(message);
    }
    somethingTaken.notify_all();
}

std::vector<gssipMessage> partner::waitFor(std::size_t count, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(takenMutex);
    somethingTaken.wait_for(lock, limit, [&] { return taken.size() >= count; });
    return taken;
}

exampleLine::exampleLine(int argumentCount, char** arguments)
{
    if (argumentCount > 1)
    {
        deviceName = arguments[1];
        return;
    }
    cable = std::make_unique<nullModem>();
    far = std::make_unique<partner>(cable->deviceB());
    deviceName = cable->deviceA();
}

} // namespace examples
