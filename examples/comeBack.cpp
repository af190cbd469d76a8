// Come back after the device has vanished, and start before it exists: an application thread stops and starts the port,
// with a growing pause between attempts.
// Run it as `comeBack` (with a device of its own that comes, goes and comes again) or as `comeBack DEVICE` (for ever).

#include "gssipPort.h"
#include "pluggableDevice.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{

using seconds = std::chrono::duration<double>;
constexpr seconds SHORTEST_PAUSE(0.05);
constexpr seconds LONGEST_PAUSE(2.0);

/// A port that is kept going. It is its own log sink, since a failing device shows in the log and nowhere else: as a
/// line of level 4 that has a time. The sink runs on a thread of the port, from which the port cannot be stopped: it
/// only leaves word for the keeper.
class lastingStation : private asciiLogInterface
{
  public:
    explicit lastingStation(std::string const& device)
        : port(device, clock, this, false), keeper([this] { keepGoing(); })
    {}

    ~lastingStation() override
    {
        tell([this] { leaving = true; });
        keeper.join();
    }

    struct counts
    {
        unsigned starts = 0;
        unsigned failedStarts = 0;
        unsigned messages = 0;
    };

    counts soFar()
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return happened;
    }

    /// Waits until `condition`, which is given the counts, is true; false when time runs out.
    template <typename Condition>
    bool waitUntil(Condition condition, seconds limit = seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return condition(happened); });
    }

  private:
    void keepGoing()
    {
        seconds pause = SHORTEST_PAUSE;
        while (!leaving)
        {
            if (!port.start())
            {
                std::cout << "no device; next attempt in " << pause.count() << " s\n";
                tell([this] { ++happened.failedStarts; });
                waitUntil([this](counts const&) { return leaving.load(); }, pause);
                pause = std::min(2 * pause, LONGEST_PAUSE);
                continue;
            }
            std::cout << "started\n";
            pause = SHORTEST_PAUSE;
            serveUntilItFails();
        }
    }

    void serveUntilItFails()
    {
        // A line that an earlier attempt left behind does not count. If this forgets a true one, the next is no further
        // than a second away.
        tell([this] { failed = false, ++happened.starts; });
        online = true;
        std::thread receiver([this] { receive(); });
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return failed || leaving; });
        lock.unlock();
        online = false;
        while (!port.stop()) // one whose close fails leaves the port started, and a further one succeeds
        {}
        receiver.join();
        std::cout << "stopped\n";
    }

    void receive()
    {
        while (online)
        {
            gssipMessage message;
            if (port.getMessage(message, true) == 0 && online)
            {
                std::cout << "received message " << message.getId() << '\n';
                tell([this] { ++happened.messages; });
            }
        }
    }

    template <typename Change>
    void tell(Change change)
    {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            change();
        }
        changed.notify_all();
    }

    void log(std::int32_t const&, std::string const&) override {}
    void log(double const&, std::int32_t const& level, std::string const&) override
    {
        tell([this, level] { failed = failed || level == 4; });
    }

    std::mutex mutex; ///< guards `happened` and `failed`
    std::condition_variable changed;
    counts happened;
    bool failed = false;
    std::atomic<bool> leaving{false};
    std::atomic<bool> online{false};
    monotonicTimeStamp clock;
    gssipPort port;
    std::thread keeper; // last: it uses all the others
};

/// Lets the device come and go twice, and looks whether the station follows.
bool comeAndGo(examples::pluggableDevice& device, lastingStation& station)
{
    using counts = lastingStation::counts;
    for (std::uint16_t round = 1; round <= 2; ++round)
    {
        unsigned const before = station.soFar().failedStarts;
        bool const missed = station.waitUntil([&](counts const& now) { return now.failedStarts > before; });
        device.plugIn();
        bool const started = station.waitUntil([&](counts const& now) { return now.starts == round; });
        device.otherSide().port().sendMessage(gssipMessage(round, 0, 1), false);
        bool const received = station.waitUntil([&](counts const& now) { return now.messages == round; });
        device.pullOut();
        if (!missed || !started || !received)
        {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1)
    {
        lastingStation const station(argv[1]);
        pause(); // until a signal ends the program
        return 0;
    }
    examples::pluggableDevice device;
    lastingStation station(device.path());
    return comeAndGo(device, station) ? 0 : 1;
}
