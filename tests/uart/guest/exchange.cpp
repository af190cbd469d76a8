// Two ports that exchange tracked messages, at many speeds.

#include "exchange.h"

#include "scenario.h"
#include "stopwatch.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace uart
{
namespace
{

constexpr unsigned DATA_WORDS = 4;
/// An application that has more messages than this on their way waits: the other side can fall no further behind.
constexpr std::size_t MOST_OUTSTANDING = 8;

/// Sends what may be sent by now; how many that were.
unsigned feed(station& from, unsigned first, unsigned count)
{
    std::size_t const outstanding = from.outstanding();
    auto const room = static_cast<unsigned>(outstanding < MOST_OUTSTANDING ? MOST_OUTSTANDING - outstanding : 0);
    unsigned const now = std::min(room, count);
    from.send(first, now, DATA_WORDS);
    return now;
}

void expectEachOnce(station& from, station& to, unsigned count, std::string const& which)
{
    expectEqual(to.received(), count, "the number of messages " + which);
    expectEqual(to.repeated(), 0U, "the number of them delivered twice");
    expectEqual(to.disordered(), 0U, "the number of them out of order");
    expectEqual(from.port.resent.load(), 0U, "the number of messages sent again " + which);
}

void expectNoFault(station const& end)
{
    auto const lines = end.log.lines();
    expectEqual(lines.size(), std::size_t{0}, "the number of log lines");
    if (!lines.empty())
    {
        note("the first: " + lines.front().text);
    }
}

} // namespace

stationPair::stationPair(line const& wires, lineSetup const& wanted)
    : setup(wanted), left(wires.device(0)), right(wires.device(1))
{
    expectEqual(left.configure(setup), 0, "the result of configuring");
    expectEqual(right.configure(setup), 0, "the result of configuring");
}

bool stationPair::start()
{
    return expect(left.start(), "the left port starts") && expect(right.start(), "the right port starts");
}

void stationPair::stop()
{
    expect(left.stop(), "the left port stops");
    expect(right.stop(), "the right port stops");
}

bool feedBoth(stationPair& ends, unsigned first, unsigned count, double patience_sec)
{
    unsigned fromLeft = 0;
    unsigned fromRight = 0;
    for (kit::stopwatch sinceProgress; fromLeft < count || fromRight < count;)
    {
        unsigned const left = feed(ends.left, first + fromLeft, count - fromLeft);
        unsigned const right = feed(ends.right, first + fromRight, count - fromRight);
        fromLeft += left;
        fromRight += right;
        if (left + right > 0)
        {
            sinceProgress = {};
        }
        if (sinceProgress.elapsed_sec() > patience_sec)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void exchangeBothWays(stationPair& ends, unsigned first, unsigned count, std::string const& title)
{
    kit::stopwatch const watch;
    double const patience_sec = 10.0 + 2.0 * ends.setup.ackTimeout_sec;
    expect(feedBoth(ends, first, count, patience_sec), "the line moves on");
    ends.right.awaitReceived(count, patience_sec);
    ends.left.awaitReceived(count, patience_sec);
    expect(ends.left.awaitSettled(patience_sec), "every message from the left is acknowledged");
    expect(ends.right.awaitSettled(patience_sec), "every message from the right is acknowledged");
    double const time_sec = watch.elapsed_sec();
    expectEachOnce(ends.left, ends.right, count, "from left to right");
    expectEachOnce(ends.right, ends.left, count, "from right to left");
    // What each direction carries: its messages, and the acknowledgements of the other's.
    double const bytes = count * (numberedMessage(1, DATA_WORDS).getSizeBytes() + gssipMessage().getSizeBytes());
    figure(title + ", messages each way", count / time_sec, "1/s");
    figure(title + ", use of the line", 100.0 * bytes * ends.setup.byteTime_sec() / time_sec, "%");
}

void exchangeOnABadLine(stationPair& ends, std::string const& title)
{
    constexpr double PATIENCE_SEC = 30.0;
    // 4 of 100 messages of 20 bytes are hit, and 4 of 100 of those once more when they are sent again: 1.6 of 1000 do
    // not arrive, or a few more, and never as many as this. Without resending it would be about 39.
    constexpr unsigned MOST_LOST = 2 * MESSAGES_ON_A_BAD_LINE * 15 / 1000;
    expect(feedBoth(ends, 1, MESSAGES_ON_A_BAD_LINE, PATIENCE_SEC), "the line moves on");
    // Both ends before anything is counted: what one has not settled the other has yet to receive.
    expect(ends.left.awaitSettled(PATIENCE_SEC), "every message from the left comes to an end");
    expect(ends.right.awaitSettled(PATIENCE_SEC), "every message from the right comes to an end");
    for (station const* const each : {&ends.left, &ends.right})
    {
        expect(each->mostCopies() <= 2, "no message arrives more than twice");
        expect(each->spoilt() <= 2, "the checksums let next to nothing through");
    }
    unsigned const arrived = ends.left.received() + ends.right.received();
    note(title + ": of " + std::to_string(2 * MESSAGES_ON_A_BAD_LINE) + " messages " + std::to_string(arrived) +
         " arrived, " + std::to_string(ends.left.repeated() + ends.right.repeated()) + " of them twice, " +
         std::to_string(ends.left.spoilt() + ends.right.spoilt()) + " with a wrong content, " +
         std::to_string(ends.left.port.resent + ends.right.port.resent) + " were sent again");
    expect(arrived + MOST_LOST >= 2 * MESSAGES_ON_A_BAD_LINE,
           "resending brings what is lost, but for " + std::to_string(MOST_LOST) + " messages at most");
}

void expectExchange(stationPair& ends, unsigned first, std::string const& when)
{
    constexpr unsigned COUNT = 5;
    ends.left.forget();
    ends.right.forget();
    ends.left.send(first, COUNT, DATA_WORDS);
    ends.right.send(first, COUNT, DATA_WORDS);
    double const patience_sec = 10.0 + 2.0 * ends.setup.ackTimeout_sec;
    expect(ends.right.awaitReceived(COUNT, patience_sec), "messages arrive on the right " + when);
    expect(ends.left.awaitReceived(COUNT, patience_sec), "messages arrive on the left " + when);
    expect(ends.left.awaitSettled(patience_sec), "messages from the left are acknowledged " + when);
    expect(ends.right.awaitSettled(patience_sec), "messages from the right are acknowledged " + when);
}

namespace
{

void exchangeOnUarts(unsigned pair, unsigned speed, unsigned count)
{
    line wires = line::betweenUarts(pair);
    wires.setSpeed(speed);
    lineSetup setup;
    setup.speed = speed;
    // An acknowledgement waits for the message that is on its way; the rest is for a machine that stands still.
    setup.ackTimeout_sec = 5.0 + 200.0 * setup.byteTime_sec();
    // Behind a message of the other side's the next one waits for an acknowledgement, or for so long.
    setup.handshakeTimeout_sec = 0.02 + 60.0 * setup.byteTime_sec();
    stationPair ends(wires, setup);
    if (ends.start())
    {
        exchangeBothWays(ends, 1, count, std::to_string(speed) + " bit/s");
        expectNoFault(ends.left);
        expectNoFault(ends.right);
        ends.stop();
    }
}

} // namespace

std::vector<scenario> exchangeScenarios()
{
    auto const at = [](lane where, unsigned pair, unsigned speed, unsigned count) {
        return scenario{"exchange-" + std::to_string(speed), where, 240, [=] { exchangeOnUarts(pair, speed, count); }};
    };
    return {
        at(lane::secondPair, 1, 1200, 100), at(lane::secondPair, 1, 2400, 100), at(lane::secondPair, 1, 9600, 200),
        at(lane::firstPair, 0, 19200, 500), at(lane::firstPair, 0, 57600, 500), at(lane::firstPair, 0, 115200, 2000),
    };
}

} // namespace uart
