// Tracked messages in bursts, on a line that spoils some, and between breaks.

#include "devices.h"
#include "exchange.h"
#include "scenario.h"
#include "stillness.h"

#include <chrono>
#include <thread>

namespace uart
{
namespace
{

/// Messages that take long on the line, given to the port at once: the last is acknowledged long after its time-out
/// would be over if that counted from the time at which the driver could have taken it.
bool burstArrivesOnce(unsigned count)
{
    constexpr unsigned DATA_WORDS = 144; // 300 bytes
    line wires = line::betweenUarts(1);
    lineSetup setup;
    setup.ackTimeout_sec = 2.0;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    ends.left.send(1, count, DATA_WORDS);
    bool const allArrived = ends.right.awaitReceived(count, 20.0);
    bool const allSettled = ends.left.awaitSettled(20.0);
    bool const isWell = allArrived && allSettled && ends.left.port.resent == 0 && ends.right.repeated() == 0;
    if (!isWell)
    {
        note("arrived " + std::to_string(ends.right.received()) + ", twice " + std::to_string(ends.right.repeated()) +
             ", sent again " + std::to_string(ends.left.port.resent));
    }
    ends.stop();
    return isWell;
}

void burst(unsigned count)
{
    expect(onAMovingMachine(0.3, [&] { return burstArrivesOnce(count); }), "every message arrives once");
}

/// Messages both ways on a line that spoils characters in one way.
void exchangeOnALineThat(void (line::*spoil)(unsigned, double), std::string const& title)
{
    line wires = line::betweenUarts(0);
    lineSetup setup;
    setup.speed = 38400;
    setup.ackTimeout_sec = 1.0;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    for (unsigned const end : {0U, 1U})
    {
        (wires.*spoil)(end, 0.002);
    }
    exchangeOnABadLine(ends, title);
    expect(wires.count(0).spoilt > 0, "the line spoils characters");
    wires.mend();
    expectExchange(ends, 1000, "when the line is good again");
    ends.stop();
}

/// An idle line's breaks are counted by the driver and cost nothing.
void breaksOnAnIdleLine()
{
    constexpr int BREAKS = 20;
    line wires = line::betweenUarts(0);
    lineSetup setup;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    expectExchange(ends, 100, "before the breaks");
    int const before = errorsOf(wires.device(1)).breaks;
    for (int times = 0; times < BREAKS; ++times)
    {
        wires.sendBreak(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ends.left.send(200 + static_cast<unsigned>(times), 1, 4);
        expect(ends.left.awaitSettled(20.0), "a message behind a break is acknowledged");
    }
    expectEqual(errorsOf(wires.device(1)).breaks - before, BREAKS, "the number of breaks that the driver has counted");
    expectEqual(ends.right.received(), 5U + BREAKS, "the number of messages received");
    expectEqual(ends.left.port.resent.load(), 0U, "the number of messages sent again");
    expectEqual(ends.right.log.lines().size(), std::size_t{0}, "the number of log lines");
    ends.stop();
}

void breaksInTheMiddleOfMessages()
{
    constexpr unsigned COUNT = 100;
    line wires = line::betweenUarts(0);
    lineSetup setup;
    setup.speed = 19200;
    setup.ackTimeout_sec = 1.0;
    wires.setSpeed(setup.speed);
    stationPair ends(wires, setup);
    ends.start();
    std::thread breaker([&] {
        for (int times = 0; times < 40; ++times)
        {
            wires.sendBreak(static_cast<unsigned>(times % 2));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    feedBoth(ends, 1, COUNT, 30.0);
    breaker.join();
    for (station* const each : {&ends.left, &ends.right})
    {
        expect(each->awaitSettled(30.0), "every message comes to an end");
        expect(each->received() >= COUNT / 2, "half of the messages arrive");
        expect(each->mostCopies() <= 2, "no message arrives more than twice");
    }
    expectExchange(ends, 1000, "when the breaks are over");
    ends.stop();
}

} // namespace

std::vector<scenario> trafficScenarios()
{
    return {
        {"burst-10", lane::secondPair, 120, [] { burst(10); }},
        {"burst-20", lane::secondPair, 180, [] { burst(20); }},
        {"line-that-loses", lane::firstPair, 180, [] { exchangeOnALineThat(&line::lose, "lost characters"); }},
        {"line-that-flips", lane::firstPair, 180, [] { exchangeOnALineThat(&line::flip, "flipped bits"); }},
        {"breaks-on-an-idle-line", lane::firstPair, 120, breaksOnAnIdleLine},
        {"breaks-in-messages", lane::firstPair, 120, breaksInTheMiddleOfMessages},
    };
}

} // namespace uart
