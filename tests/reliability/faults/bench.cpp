#include "bench.h"

#include "frames.h"
#include "messages.h"
#include "processState.h"
#include "waitUntil.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace faults
{
namespace
{

constexpr double PATIENCE_SEC = 10.0;
/// A fault may have cost what is waited for. Then there is nothing to be waited for, and thousands of cases to come.
constexpr double PATIENCE_WITH_FAULTS_SEC = 0.02;
constexpr double PATIENCE_AFTER_A_LOSS_SEC = 0.002;

constexpr std::int32_t LEVEL_READ_ERROR = 4;

std::size_t occurrences(kit::bytes const& in, kit::bytes const& wanted)
{
    std::size_t times = 0;
    for (auto at = in.begin(); (at = std::search(at, in.end(), wanted.begin(), wanted.end())) != in.end(); ++at)
    {
        ++times;
    }
    return times;
}

} // namespace

std::size_t countingLog::failedReads() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return failedReads_sec.size();
}

std::size_t countingLog::mostFailedReadsInASecond() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    std::size_t most = 0;
    for (auto first = failedReads_sec.begin(); first != failedReads_sec.end(); ++first)
    {
        auto const end = std::lower_bound(first, failedReads_sec.end(), *first + 1.0);
        most = std::max(most, static_cast<std::size_t>(end - first));
    }
    return most;
}

void countingLog::keep(std::int32_t level, std::string const& text)
{
    kit::applicationCode const outside;
    if (level == LEVEL_READ_ERROR && text.find("Error Reading Serial Port") != std::string::npos)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        failedReads_sec.push_back(clock.elapsed_sec());
    }
}

bench::bench(kit::faultPlan& planInForce, bool mayCost, bool memory)
    : plan(planInForce), faultsMayCost(mayCost), memoryMayFail(memory)
{
    plugIn();
}

bench::~bench()
{
    leaving = true;
    destroyPort();
}

void bench::require(bool isSo, std::string const& what)
{
    if (!isSo)
    {
        kit::applicationCode const outside;
        std::lock_guard<std::mutex> const lock(mutex);
        found.push_back(what);
    }
}

std::vector<std::string> bench::problems() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return found;
}

void bench::makePort(std::string const& device)
{
    call("construction", [&] {
        port = std::make_unique<kit::exposedPort>(device, clock, &log, false);
        return true;
    });
}

void bench::makeStartedPort()
{
    makePort();
    port->configurePort(115200, 8, PARITY_NONE, 1, 0, 10.0, 10.0, 5);
    start();
}

/// The application leaves the port first.
void bench::destroyPort()
{
    if (receiver.joinable())
    {
        leaving = true;
        receiver.join();
    }
    call("destruction", [&] {
        port.reset();
        return true;
    });
}

bool bench::start()
{
    bool const isStarted = call("start", [&] { return port->start(); }).value_or(false);
    require(isStarted == port->started, "start returns whether the port is started");
    require(!isStarted || stopHasFailed || port->serial.isOpen(), "the device of a started port is open");
    return isStarted;
}

bool bench::stop()
{
    std::optional<bool> const isStopped = call("stop", [&] { return port->stop(); });
    require(isStopped == !port->started, "stop returns whether the port is stopped");
    stopHasFailed = isStopped == false;
    return isStopped.value_or(false);
}

unsigned bench::queued() const
{
    return port->getNumberQueuedMessages();
}

void bench::shutGate()
{
    constexpr std::uint16_t PASSES = 0x6001;
    port->setHandshakeTimeout_sec(-1.0);
    awaitTransmitThreadAsleep(); // a thread that sleeps on an empty queue has the gate behind it
    port->resetPortReady();
    port->sendMessage(kit::message(PASSES), false);
    require(awaitOnLine(kit::frame(PASSES, 0)), "the first message passes the gate");
}

void bench::awaitTransmitThreadAsleep()
{
    for (kit::threadState const& thread : kit::processThreads())
    {
        require(thread.name != "GP TX" || kit::waitUntilAsleep(thread.id), "the transmit thread sleeps");
    }
}

void bench::plugIn()
{
    line = std::make_unique<kit::pseudoTerminal>();
    fcntl(line->masterDescriptor(), F_SETFL, O_NONBLOCK);
    std::filesystem::remove(deviceLink());
    std::filesystem::create_symlink(line->name(), deviceLink());
}

void bench::unplug()
{
    line->hangUp();
    std::filesystem::remove(deviceLink());
}

/// A port that does not read must not hold up the test.
void bench::feed(kit::bytes const& arriving)
{
    int const descriptor = line->masterDescriptor();
    std::size_t written = 0;
    await([&] {
        ssize_t const count = ::write(descriptor, arriving.data() + written, arriving.size() - written);
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
        return written == arriving.size();
    });
}

void bench::listen(std::chrono::milliseconds limit)
{
    pollfd waiting{line->masterDescriptor(), POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(limit.count())) <= 0)
    {
        return;
    }
    std::array<std::uint8_t, 4096> chunk{};
    ssize_t const count = ::read(line->masterDescriptor(), chunk.data(), chunk.size());
    if (count > 0)
    {
        heard.insert(heard.end(), chunk.begin(), chunk.begin() + count);
    }
    else
    {
        usleep(500); // nobody has the device open
    }
}

bool bench::awaitOnLine(kit::bytes const& wanted, int times)
{
    return await([&] {
        listen(std::chrono::milliseconds(1));
        return timesHeard(wanted) >= static_cast<std::size_t>(times);
    });
}

std::size_t bench::timesHeard(kit::bytes const& wanted) const
{
    return occurrences(heard, wanted);
}

double bench::patience_sec() const
{
    if (patient || !faultsMayCost)
    {
        return problems().empty() ? PATIENCE_SEC : PATIENCE_AFTER_A_LOSS_SEC;
    }
    return gaveUp ? PATIENCE_AFTER_A_LOSS_SEC : PATIENCE_WITH_FAULTS_SEC;
}

void bench::startReceiving()
{
    if (!receiver.joinable())
    {
        receiver = std::thread([this] { receive(); });
    }
}

void bench::receive()
{
    gssipMessage message;
    while (!leaving)
    {
        std::optional<int> status;
        try
        {
            kit::libraryCode const inside;
            status = port->getMessage(message, true);
        }
        catch (std::bad_alloc const&)
        {
            require(memoryMayFail, "getMessage throws bad_alloc");
        }
        if (status == 0 && message.getId() != 0)
        {
            std::lock_guard<std::mutex> const lock(mutex);
            received.push_back(message.getId());
        }
        else
        {
            std::this_thread::sleep_for(std::chrono::microseconds(100)); // without a receiver it returns at once
        }
    }
}

std::size_t bench::timesReceived(std::uint16_t id) const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return static_cast<std::size_t>(std::count(received.begin(), received.end(), id));
}

bool bench::awaitReceived(std::uint16_t id, std::size_t times)
{
    return await([&] { return timesReceived(id) >= times; });
}

} // namespace faults
