// What a port costs and how quick it is on this machine. Emulation makes every figure worse than on a real one, so only
// the counts are expected to be something.

#include "discardingLog.h"
#include "exchange.h"
#include "memory.h"
#include "processState.h"
#include "scenario.h"
#include "stopwatch.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>

namespace uart
{
namespace
{

double medianOf(std::vector<double> values)
{
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double shareOf(std::vector<double> values, double share)
{
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

lineSetup setupFor(unsigned speed)
{
    lineSetup setup;
    setup.speed = speed;
    return setup;
}

/// From `sendMessage` until the acknowledgement has settled the message, and how much later than its last bit a message
/// comes out of `getMessage` on the other side.
void roundTrips(line& wires, std::string const& driver, unsigned speed, unsigned count)
{
    wires.setSpeed(speed);
    stationPair ends(wires, setupFor(speed));
    ends.start();
    double const messageTime_sec = numberedMessage(1, 4).getSizeBytes() * ends.setup.byteTime_sec();
    double const replyTime_sec = gssipMessage().getSizeBytes() * ends.setup.byteTime_sec();
    std::vector<double> trips_sec;
    std::vector<double> late_sec;
    for (unsigned number = 1; number <= count; ++number)
    {
        double const sent_sec = ends.left.clock.getTime_sec();
        ends.left.send(number, 1, 4);
        expect(ends.right.awaitReceived(number, 20.0), "a message arrives");
        expect(ends.left.awaitSettled(20.0, std::chrono::microseconds(200)), "a message is acknowledged");
        trips_sec.push_back(ends.left.clock.getTime_sec() - sent_sec);
        late_sec.push_back(ends.right.newestArrival_sec() - sent_sec - messageTime_sec);
    }
    ends.stop();
    std::string const title = driver + ", " + std::to_string(speed) + " bit/s, ";
    figure(title + "message of 20 bytes and its acknowledgement, of which the line takes",
           1000.0 * (messageTime_sec + replyTime_sec), "ms");
    figure(title + "message and acknowledgement, median", 1000.0 * medianOf(trips_sec), "ms");
    figure(title + "message after its last bit, median", 1000.0 * medianOf(late_sec), "ms");
    figure(title + "message after its last bit, 95 of 100 within", 1000.0 * shareOf(late_sec, 0.95), "ms");
}

void throughput(line& wires, std::string const& driver, unsigned speed)
{
    constexpr unsigned COUNT = 100;
    wires.setSpeed(speed);
    stationPair ends(wires, setupFor(speed));
    ends.start();
    kit::stopwatch const watch;
    for (unsigned number = 1; number <= COUNT; ++number)
    {
        ends.left.port.sendMessage(numberedMessage(number, 100, 0), false);
    }
    expect(ends.right.awaitReceived(COUNT, 20.0), "every message arrives");
    double const bytes = COUNT * numberedMessage(1, 100).getSizeBytes();
    double const time_sec = watch.elapsed_sec();
    ends.stop();
    figure(driver + ", " + std::to_string(speed) + " bit/s, messages of 212 bytes one way", bytes / time_sec,
           "bytes/s");
    figure(driver + ", " + std::to_string(speed) + " bit/s, of what the line can carry",
           100.0 * bytes * ends.setup.byteTime_sec() / time_sec, "%");
}

std::uint64_t switchesOf(std::vector<kit::threadState> const& threads)
{
    std::uint64_t sum = 0;
    for (kit::threadState const& each : threads)
    {
        for (char const* const kind : {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"})
        {
            sum += std::stoull(kit::statusField(each.id, kind));
        }
    }
    return sum;
}

/// Of one port that is started and has nothing to do.
void idle(line const& wires, std::string const& driver)
{
    discardingLog log;
    monotonicTimeStamp clock;
    double const before_kB = memory_kB("Rss");
    double const ownBefore_kB = memory_kB("Private_Dirty");
    kit::threadWatch const threads;
    gssipPort port(wires.device(0), clock, &log, false);
    expect(port.start(), "the port starts");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    figure(driver + ", resident memory of the process with a started port", memory_kB("Rss"), "kB");
    figure(driver + ", more than before", memory_kB("Rss") - before_kB, "kB");
    figure(driver + ", more private memory than before", memory_kB("Private_Dirty") - ownBefore_kB, "kB");
    std::uint64_t const switches = switchesOf(threads.added());
    std::this_thread::sleep_for(std::chrono::seconds(5));
    std::uint64_t const more = switchesOf(threads.added()) - switches;
    figure(driver + ", context switches of an idle port in 5 s", static_cast<double>(more), "");
    expect(more <= 4, "an idle port sleeps");
    expectEqual(threads.added().size(), std::size_t{4}, "the number of threads");
    kit::stopwatch const stopping;
    expect(port.stop(), "the port stops");
    figure(driver + ", stop of a quiet port", 1000.0 * stopping.elapsed_sec(), "ms");
}

void figuresOf(line wires, std::string const& driver, std::vector<unsigned> const& speeds)
{
    idle(wires, driver);
    for (unsigned const speed : speeds)
    {
        roundTrips(wires, driver, speed, 100);
    }
    throughput(wires, driver, speeds.back());
}

} // namespace

std::vector<scenario> figureScenarios()
{
    return {
        {"figures-8250", lane::alone, 180,
         [] {
             figuresOf(firstPair(), "8250", {9600, 115200});
         }},
        {"figures-usb", lane::alone, 180,
         [] {
             figuresOf(line::betweenAdapters(), "USB", {9600, 115200});
         }},
    };
}

} // namespace uart
