// The wall clock: beyond 2038, and stepped while messages await their acknowledgement.

#include "exchange.h"
#include "scenario.h"
#include "waitUntil.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <system_error>
#include <thread>

namespace uart
{
namespace
{

constexpr std::time_t LAST_OF_32_BITS = 2147483647;
constexpr std::time_t YEAR_2040 = 2208988800;
constexpr std::time_t HOUR = 3600;

timespec wallClock()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

void setWallClock(std::time_t seconds, long ns = 0)
{
    timespec const time{seconds, ns};
    if (clock_settime(CLOCK_REALTIME, &time) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "clock_settime");
    }
}

/// Gives the clock back as it was, or nearly.
class clockKept
{
  public:
    clockKept() = default;
    ~clockKept()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        setWallClock(wall.tv_sec + now.tv_sec - monotonic);
    }
    clockKept(clockKept const&) = delete;
    clockKept& operator=(clockKept const&) = delete;

  private:
    timespec wall = wallClock();
    std::time_t monotonic = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec;
    }();
};

constexpr double ACK_TIMEOUT_SEC = 2.0;

lineSetup fastSetup()
{
    lineSetup setup;
    setup.speed = 38400;
    return setup;
}

/// When a message that nobody acknowledges is sent again although the clock is set meanwhile: so many seconds after it
/// was queued; 0 when it is not.
double timeOfResend_sec(stationPair& ends, line& wires, std::time_t newTime)
{
    wires.hold(1, true); // no acknowledgement comes through
    unsigned const before = ends.left.port.resent;
    double const sent_sec = ends.left.clock.getTime_sec();
    ends.left.send(500, 1, 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    setWallClock(newTime);
    bool const again = kit::waitUntil([&] { return ends.left.port.resent > before; }, std::chrono::seconds(20));
    wires.hold(1, false);
    ends.left.awaitSettled(30.0);
    return again ? ends.left.port.lastResent_sec - sent_sec : 0.0;
}

void expectResendInTime(stationPair& ends, line& wires, std::time_t newTime, std::string const& when)
{
    ends.left.port.setAcknowledgeTimeout_sec(ACK_TIMEOUT_SEC);
    double const time_sec = timeOfResend_sec(ends, wires, newTime);
    expect(time_sec >= ACK_TIMEOUT_SEC, "a message is not sent again before its time " + when);
    expect(time_sec < ACK_TIMEOUT_SEC + 8.0, "a message is sent again " + when);
    note("sent again after " + std::to_string(time_sec) + " s " + when);
    ends.left.port.setAcknowledgeTimeout_sec(ends.setup.ackTimeout_sec);
}

void worksBeyond2038()
{
    clockKept const kept;
    setWallClock(YEAR_2040);
    line wires = line::betweenUarts(0);
    wires.setSpeed(fastSetup().speed);
    stationPair ends(wires, fastSetup());
    ends.start();
    exchangeBothWays(ends, 1, 100, "38400 bit/s in 2040");
    expectResendInTime(ends, wires, YEAR_2040 + HOUR, "in 2040");
    expect(wallClock().tv_sec > YEAR_2040, "the clock stands beyond 2038");
    expectExchange(ends, 700, "in 2040");
    ends.stop();
}

void outlivesTheEndOf32Bits()
{
    clockKept const kept;
    setWallClock(LAST_OF_32_BITS - 1);
    line wires = line::betweenUarts(0);
    wires.setSpeed(fastSetup().speed);
    stationPair ends(wires, fastSetup());
    ends.start();
    setWallClock(LAST_OF_32_BITS, 500'000'000);
    exchangeBothWays(ends, 1, 100, "38400 bit/s while 32 bits run out");
    expect(kit::waitUntil([] { return wallClock().tv_sec > LAST_OF_32_BITS; }), "the clock runs past 32 bits");
    expectResendInTime(ends, wires, LAST_OF_32_BITS - 1, "when 32 bits run out");
    expectExchange(ends, 700, "behind 32 bits");
    ends.stop();
}

void outlivesSteps()
{
    clockKept const kept;
    line wires = line::betweenUarts(0);
    wires.setSpeed(fastSetup().speed);
    stationPair ends(wires, fastSetup());
    ends.start();
    expectResendInTime(ends, wires, wallClock().tv_sec + HOUR, "when the clock steps forward by an hour");
    expectResendInTime(ends, wires, wallClock().tv_sec - HOUR, "when the clock steps back by an hour");
    expectExchange(ends, 700, "after the clock was stepped");
    ends.stop();
}

/// Steps all the time while messages are exchanged: none is sent again, none waits.
void exchangesWhileTheClockSteps()
{
    clockKept const kept;
    line wires = line::betweenUarts(0);
    wires.setSpeed(fastSetup().speed);
    stationPair ends(wires, fastSetup());
    ends.start();
    std::atomic<bool> ended{false};
    std::thread stepper([&] {
        for (std::time_t step = HOUR; !ended; step = -step)
        {
            setWallClock(wallClock().tv_sec + step);
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
    });
    exchangeBothWays(ends, 1, 200, "38400 bit/s with a clock that is stepped");
    ended = true;
    stepper.join();
    ends.stop();
}

} // namespace

std::vector<scenario> clockScenarios()
{
    return {
        {"clock-beyond-2038", lane::alone, 120, worksBeyond2038},
        {"clock-at-the-end-of-32-bits", lane::alone, 120, outlivesTheEndOf32Bits},
        {"clock-stepped", lane::alone, 120, outlivesSteps},
        {"clock-stepped-in-an-exchange", lane::alone, 120, exchangesWhileTheClockSteps},
    };
}

} // namespace uart
