// Starting and stopping: with a line that stands, again and again, with threads as they ought to be, by anybody.

#include "devices.h"
#include "exchange.h"
#include "memory.h"
#include "ordinaryUser.h"
#include "processState.h"
#include "scenario.h"
#include "stopwatch.h"

#include <cerrno>
#include <fstream>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace uart
{
namespace
{

void stopsOnALineThatIsHeld()
{
    constexpr unsigned COUNT = 6;
    line wires = line::betweenUarts(1);
    lineSetup setup;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    wires.hold(0, true);
    ends.left.send(1, COUNT, 144);
    expect(kit::waitUntil([&] { return ends.left.port.getNumberQueuedMessages() < COUNT; }), "the port begins to send");
    kit::stopwatch const stopping;
    expect(ends.left.stop(), "the port stops");
    double const time_sec = stopping.elapsed_sec();
    expect(time_sec >= 0.9, "a line that stands gets a second at stop");
    expect(time_sec < 10.0, "a line that stands does not hold up stop");
    figure("stop on a held line, 8250", time_sec, "s");
    kit::stopwatch const starting;
    expect(ends.left.start(), "the port starts again at once");
    expect(starting.elapsed_sec() < 5.0, "the driver does not hold up start");
    wires.hold(0, false);
    expect(ends.right.awaitReceived(COUNT - 2, 30.0), "what was still queued goes out when the line is let go");
    expect(ends.left.awaitSettled(30.0), "and is acknowledged");
    expectExchange(ends, 100, "when the line is let go");
    ends.stop();
}

void startsAndStopsAgainAndAgain(lineMaker make, std::string const& driver, unsigned cycles)
{
    unsigned const warmUp = cycles / 5;
    line wires = make();
    lineSetup setup;
    setup.speed = 115200;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    std::size_t const filesBefore = kit::openFiles().size();
    double memoryBefore_kB = 0.0;
    kit::stopwatch const watch;
    for (unsigned cycle = 0; cycle < cycles && ends.start(); ++cycle)
    {
        ends.left.forget();
        ends.left.port.sendMessage(numberedMessage(7, 4), true);
        expect(ends.left.awaitSettled(20.0), "a message is acknowledged in cycle " + std::to_string(cycle));
        ends.stop();
        if (cycle == warmUp)
        {
            memoryBefore_kB = memory_kB("Private_Dirty");
        }
    }
    figure(driver + ", start, message and stop of two ports", 1000.0 * watch.elapsed_sec() / cycles, "ms");
    expectEqual(ends.right.received(), 1U, "the number of different messages");
    expectEqual(kit::openFiles().size(), filesBefore, "the number of open files");
    expectEqual(kit::processThreads().size(), std::size_t{1}, "the number of threads");
    double const growth_kB = memory_kB("Private_Dirty") - memoryBefore_kB;
    figure(driver + ", growth of private memory in the last " + std::to_string(cycles - warmUp) + " of them", growth_kB,
           "kB");
    expect(growth_kB < 512, "memory does not grow");
}

struct scheduling
{
    int policy;
    int priority;
};

/// How the one thread of that name that a port has started is scheduled.
std::string expectScheduling(kit::threadWatch const& threads, std::string const& name, scheduling expected)
{
    pid_t const id = threads.idOf(name);
    if (id == 0)
    {
        return "there is no thread " + name + "; ";
    }
    sched_param parameters{};
    int const policy = sched_getscheduler(id);
    sched_getparam(id, &parameters);
    bool const isSo = policy == expected.policy && parameters.sched_priority == expected.priority;
    return isSo ? ""
                : name + " has policy " + std::to_string(policy) + " and priority " +
                      std::to_string(parameters.sched_priority) + "; ";
}

/// What is wrong with a port that is started, in this process, on a line to another port.
std::string faultOfScheduling(scheduling transmit, scheduling track)
{
    line wires = line::betweenUarts(1);
    lineSetup setup;
    setup.speed = 115200;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    kit::threadWatch const threads;
    if (!ends.left.start())
    {
        return "the port does not start";
    }
    std::string const fault =
        expectScheduling(threads, "GP TX", transmit) + expectScheduling(threads, "gssipSendAckReq", track);
    std::size_t const count = threads.added().size();
    ends.right.start();
    ends.left.send(1, 5, 4);
    bool const settled = ends.left.awaitSettled(20.0);
    ends.stop();
    return fault + (count == 5 ? "" : std::to_string(count) + " threads instead of four and the receiver's; ") +
           (settled ? "" : "messages are not acknowledged; ");
}

std::string allowRealTime(unsigned highest)
{
    rlimit const limit{highest, highest};
    return setrlimit(RLIMIT_RTPRIO, &limit) == 0 ? "" : "the limit cannot be set";
}

void schedulesItsThreads()
{
    for (char const* const name : {"/dev/ttyS2", "/dev/ttyS3", "/dev/ttyS4"})
    {
        ::chmod(name, 0666);
    }
    scheduling const none{SCHED_OTHER, 0};
    scheduling const first{SCHED_RR, 51};
    scheduling const second{SCHED_RR, 50};
    std::string const ofRoot = kit::inOwnProcess([&] { return faultOfScheduling(first, second); });
    expect(ofRoot.empty(), "root has real-time threads; " + ofRoot);
    std::string const ofAnybody = kit::asOrdinaryUser([&] { return faultOfScheduling(none, none); });
    expect(ofAnybody.empty(), "an ordinary user has ordinary threads; " + ofAnybody);
    std::string const permitted =
        kit::asOrdinaryUser([&] { return faultOfScheduling(first, second); }, [] { return allowRealTime(60); });
    expect(permitted.empty(), "an ordinary user with the right has real-time threads; " + permitted);
}

void tellDriver(std::string const& file)
{
    std::ofstream stream("/sys/bus/pci/drivers/serial/" + file);
    stream << "0000:00:01.0" << std::flush;
    expect(stream.good(), "the driver of the card does as it is told: " + file);
}

/// The card loses its driver, as when it is pulled out, and gets it back.
void comesBackWithItsDriver()
{
    line wires = line::betweenUarts(0);
    lineSetup setup;
    setup.speed = 19200;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    expectExchange(ends, 100, "at first");
    tellDriver("unbind");
    for (station* const each : {&ends.left, &ends.right})
    {
        expect(kit::waitUntil([&] { return !each->log.lines().empty(); }), "the loss of the device is logged");
        kit::stopwatch const stopping;
        expect(each->stop(), "a port without its device stops");
        expect(stopping.elapsed_sec() < 5.0, "it stops at once");
        expect(!each->start(), "a port does not start without its device");
    }
    tellDriver("bind");
    for (station* const each : {&ends.left, &ends.right})
    {
        expect(kit::waitUntil([&] { return each->start(); }), "a port starts when its device is back");
    }
    expectExchange(ends, 200, "when the devices are back");
    ends.stop();
}

} // namespace

std::vector<scenario> lifeScenarios()
{
    return {
        {"stop-on-a-held-line", lane::secondPair, 120, stopsOnALineThatIsHeld},
        {"start-and-stop", lane::secondPair, 180, [] { startsAndStopsAgainAndAgain(secondPair, "8250", 100); }},
        {"usb-start-and-stop", lane::usb, 180, [] { startsAndStopsAgainAndAgain(line::betweenAdapters, "USB", 50); }},
        {"driver-unbound", lane::alone, 120, comesBackWithItsDriver},
        {"scheduling-and-rights", lane::secondPair, 120, schedulesItsThreads},
    };
}

} // namespace uart
