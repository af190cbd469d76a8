// USB adapters: what only they do. Parity and framing errors, wrong speeds, lost characters, and being pulled out.

#include "devices.h"
#include "exchange.h"
#include "scenario.h"
#include "stopwatch.h"
#include "waitUntil.h"

#include <cerrno>
#include <chrono>
#include <thread>
#include <unistd.h>

namespace uart
{
namespace
{

lineSetup setupFor(unsigned speed)
{
    lineSetup setup;
    setup.speed = speed;
    setup.handshakeTimeout_sec = 0.05 + 60.0 * setup.byteTime_sec();
    return setup;
}

void adapterCarries()
{
    line wires = line::betweenAdapters();
    device left(wires.device(0), 9600);
    device right(wires.device(1), 9600);
    bytes const data = patternOf(300);
    kit::stopwatch const watch;
    expectEqual(sendAll(left.port, data).status, 0, "the result of sending");
    expect(receiveAll(right.port, data.size()) == data, "all arrives");
    expect(watch.elapsed_sec() >= 300 * 10.0 / 9600, "the line takes its time");
}

void exchange(unsigned speed, unsigned count)
{
    line wires = line::betweenAdapters();
    stationPair ends(wires, setupFor(speed));
    if (ends.start())
    {
        exchangeBothWays(ends, 1, count, "USB, " + std::to_string(speed) + " bit/s");
        ends.stop();
    }
}

void setsSpeeds()
{
    line const wires = line::betweenAdapters();
    device end(wires.device(0), 9600);
    for (unsigned const speed : {300U, 1200U, 12345U, 31250U, 100000U, 250000U, 921600U, 3000000U})
    {
        expectEqual(end.port.setSpeed(speed), 0, "the result of setting " + std::to_string(speed));
        expectEqual(settingsOf(wires.device(0)).speed, speed, "the speed held");
    }
    end.port.setSpeed(19200);
    for (unsigned const speed : {0U, 4000000U})
    {
        expectEqual(end.port.setSpeed(speed), EINVAL, "the result of setting " + std::to_string(speed));
        expectEqual(settingsOf(wires.device(0)).speed, 19200U, "the speed after one was refused");
    }
}

/// What the other end reads of some bytes, until nothing has come for half a second.
bytes readsOf(serialPort& from, serialPort& to, bytes const& data)
{
    to.setVminVtime(0, 5);
    sendAll(from, data);
    bytes all;
    for (transfer part = receiveOnce(to); part.count != 0; part = receiveOnce(to))
    {
        all.insert(all.end(), part.data.begin(), part.data.end());
    }
    return all;
}

/// What this rig makes of ends that are set differently; not the library's doing.
void lineIsAsRealOnesAre()
{
    line wires = line::betweenAdapters();
    device left(wires.device(0), 9600);
    device right(wires.device(1), 9600);
    bytes const data{0x55, 0x00, 0xFF, 0x81};
    expect(readsOf(left.port, right.port, data) == data, "equal settings carry the bytes");

    lineErrors const before = errorsOf(wires.device(1));
    left.port.setParity(PARITY_EVEN);
    right.port.setParity(PARITY_ODD);
    expect(readsOf(left.port, right.port, data) == data, "the wrong parity leaves the bytes as they are");
    expect(errorsOf(wires.device(1)).parity > before.parity, "the driver counts parity errors");

    left.port.setParity(PARITY_NONE);
    right.port.setParity(PARITY_NONE);
    right.port.setSpeed(4800);
    expect(readsOf(left.port, right.port, data) != data, "the wrong speed spoils the bytes");
    right.port.setSpeed(9800);
    expect(readsOf(left.port, right.port, data) == data, "a speed that is 2 of 100 off carries them");
    right.port.setSpeed(19200);
    readsOf(left.port, right.port, {1, 1, 1});
    expect(errorsOf(wires.device(1)).framing > before.framing, "the driver counts framing errors");
}

/// The settings that the line was made for, in a port that stays started.
void setRight(stationPair& ends)
{
    for (station* const each : {&ends.left, &ends.right})
    {
        expectEqual(each->configure(ends.setup), 0, "the result of configuring");
    }
}

/// Among spoilt bytes there may be a header whose checksum happens to be right. The receiver then waits for all that it
/// promises, 128 KiB at most. That is sent here, so that whatever comes behind it has to arrive.
void sendWhatIsPromised(stationPair& ends, station& from, station& to)
{
    constexpr std::size_t ORDINARY_MESSAGE = 20; // the next message makes up for it, and is sent again
    constexpr int TIMES = 10;                    // an adapter may lose some of it
    std::size_t promised = to.promised();
    if (promised <= ORDINARY_MESSAGE)
    {
        return;
    }
    note("a header that nobody has sent promises " + std::to_string(promised) + " bytes more");
    ends.left.configure(setupFor(115200));
    ends.right.configure(setupFor(115200));
    for (int times = 0; promised > 0 && times < TIMES; ++times)
    {
        bytes const filling(promised, 0xFF);
        unsigned sent = 0;
        from.port.send(filling.data(), static_cast<unsigned>(filling.size()), sent);
        kit::waitUntil([&] { return to.promised() == 0; }, std::chrono::seconds(1));
        promised = to.promised();
    }
    expectEqual(promised, std::size_t{0}, "what is missing of a message when all has come");
    setRight(ends);
}

/// Exchanges while the right end is set in a way that the left does not know; what the checksums let through is
/// counted. Gives how many messages arrived.
unsigned messagesThrough(stationPair& ends, lineSetup const& wrong, std::string const& what)
{
    constexpr unsigned COUNT = 60;
    ends.left.forget();
    ends.right.forget();
    ends.right.configure(wrong);
    ends.left.port.setAcknowledgeTimeout_sec(0.3);
    ends.right.port.setAcknowledgeTimeout_sec(0.3);
    ends.left.send(1, COUNT, 4);
    ends.right.send(1, COUNT, 4);
    expect(ends.left.awaitSettled(60.0), "every message of the left comes to an end");
    expect(ends.right.awaitSettled(60.0), "every message of the right comes to an end");
    unsigned const arrived = ends.left.received() + ends.right.received();
    unsigned const spoilt = ends.left.spoilt() + ends.right.spoilt();
    expect(ends.left.mostCopies() <= 2 && ends.right.mostCopies() <= 2, "no message arrives more than twice");
    note(what + ": of " + std::to_string(2 * COUNT) + " messages " + std::to_string(arrived) + " arrived, " +
         std::to_string(spoilt) + " with a wrong content that the checksums let through");
    expect(spoilt <= 2, "the checksums let next to nothing through");
    setRight(ends);
    sendWhatIsPromised(ends, ends.left, ends.right);
    sendWhatIsPromised(ends, ends.right, ends.left);
    return arrived;
}

void recoversFromWrongSettings()
{
    line wires = line::betweenAdapters();
    stationPair ends(wires, setupFor(19200));
    ends.start();
    expectExchange(ends, 500, "at first");
    for (unsigned const speed : {9600U, 38400U, 18000U, 115200U})
    {
        expectEqual(messagesThrough(ends, setupFor(speed), std::to_string(speed) + " instead of 19200 bit/s"), 0U,
                    "the number of messages that arrive at a wrong speed");
        expectExchange(ends, 500, "when the right speed is back");
    }
    lineSetup odd = setupFor(19200);
    odd.parity = PARITY_ODD;
    messagesThrough(ends, odd, "odd parity instead of none");
    expectExchange(ends, 500, "when the right parity is back");
    ends.stop();
}

/// Both ends look for parity, and for different ones: the bytes are right, and the checksums judge.
void ignoresParityErrors()
{
    line wires = line::betweenAdapters();
    lineSetup even = setupFor(9600);
    even.parity = PARITY_EVEN;
    lineSetup odd = even;
    odd.parity = PARITY_ODD;
    stationPair ends(wires, even);
    ends.start();
    expectEqual(messagesThrough(ends, odd, "odd parity instead of even"), 120U, "the number of messages that arrive");
    expect(errorsOf(wires.device(1)).parity > 0, "the driver counts parity errors");
    expectExchange(ends, 500, "when the parities agree");
    ends.stop();
}

/// This driver delivers a break as a byte 00, whatever it is told. Between messages that is noise.
void breaksCostNothing()
{
    line wires = line::betweenAdapters();
    stationPair ends(wires, setupFor(19200));
    ends.start();
    int const before = errorsOf(wires.device(1)).breaks;
    for (unsigned number = 1; number <= 10; ++number)
    {
        wires.sendBreak(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        ends.left.send(number, 1, 4);
        expect(ends.left.awaitSettled(20.0), "a message behind a break is acknowledged");
    }
    expectEqual(errorsOf(wires.device(1)).breaks - before, 10, "the number of breaks that the driver has counted");
    expectEqual(ends.right.received(), 10U, "the number of messages received");
    expectEqual(ends.left.port.resent.load(), 0U, "the number of messages sent again");
    ends.stop();
}

void exchangesOnABadLine()
{
    line wires = line::betweenAdapters();
    lineSetup setup = setupFor(38400);
    setup.ackTimeout_sec = 0.5;
    stationPair ends(wires, setup);
    ends.start();
    for (unsigned const end : {0U, 1U})
    {
        wires.flip(end, 0.001);
        wires.lose(end, 0.001);
    }
    exchangeOnABadLine(ends, "lost characters and flipped bits");
    expect(wires.count(0).spoilt > 0, "the line spoils characters");
    wires.mend();
    expectExchange(ends, 1000, "when the line is good again");
    ends.stop();
}

/// A program that does not read: what the adapter has no room for is lost, and then everything is as before.
void recoversFromAnOverrun()
{
    line wires = line::betweenAdapters();
    device left(wires.device(0), 115200);
    {
        device right(wires.device(1), 115200);
        int const before = errorsOf(wires.device(1)).overrun;
        bytes const data = patternOf(20000);
        expect(readsOf(left.port, right.port, data).size() < data.size(), "some characters are lost");
        expect(errorsOf(wires.device(1)).overrun > before, "the driver counts lost characters");
        expect(readsOf(left.port, right.port, {1, 2, 3}) == bytes{1, 2, 3}, "what comes later is read");
    }
    left.port.close();
    stationPair ends(wires, setupFor(115200));
    ends.start();
    expectExchange(ends, 1, "after an overrun");
    ends.stop();
}

/// TCFLSH drops nothing here, and so the library leaves the close to a thread of its own.
void closesALineThatIsHeld()
{
    line wires = line::betweenAdapters();
    device left(wires.device(0), 9600);
    wires.hold(0, true);
    expectEqual(sendAll(left.port, patternOf(3000)).status, 0, "the result of sending to the driver");
    kit::stopwatch const closing;
    expectEqual(left.port.close(), 0, "the result of closing");
    double const time_sec = closing.elapsed_sec();
    expect(time_sec >= 0.9, "a line that stands gets a second at close");
    expect(time_sec < 10.0, "a line that stands does not hold up close");
    figure("close of a held line, USB", time_sec, "s");
    expectEqual(left.port.open(), EBUSY, "the result of opening while the driver is still closing");
    wires.hold(0, false);
    expect(kit::waitUntil([&] { return left.port.open() == 0; }, std::chrono::seconds(30)),
           "the device can be opened when the line has been let go");
}

void stopsOnALineThatIsHeld()
{
    line wires = line::betweenAdapters();
    stationPair ends(wires, setupFor(9600));
    ends.start();
    wires.hold(0, true);
    ends.left.send(1, 6, 300);
    expect(kit::waitUntil([&] { return ends.left.port.getNumberQueuedMessages() < 6; }), "the port begins to send");
    kit::stopwatch const stopping;
    expect(ends.left.stop(), "the port stops");
    double const time_sec = stopping.elapsed_sec();
    expect(time_sec >= 0.9, "a line that stands gets a second at stop");
    expect(time_sec < 10.0, "a line that stands does not hold up stop");
    figure("stop on a held line, USB", time_sec, "s");
    wires.hold(0, false);
    expect(kit::waitUntil([&] { return ends.left.start(); }, std::chrono::seconds(30)),
           "the port starts when the line has been let go");
    expect(ends.left.awaitSettled(60.0), "what was queued is sent and acknowledged");
    expectExchange(ends, 100, "when the line is let go");
    ends.stop();
}

bool isThere(line const& wires, unsigned end)
{
    return access(wires.device(end).c_str(), F_OK) == 0;
}

double processorTime_sec()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void comesBackWhenItIsPluggedInAgain()
{
    line wires = line::betweenAdapters();
    stationPair ends(wires, setupFor(19200));
    ends.start();
    expectExchange(ends, 100, "at first");
    for (int times = 0; times < 3; ++times)
    {
        std::string const which = " (" + std::to_string(times + 1) + ')';
        std::size_t const linesBefore = ends.left.log.lines().size();
        wires.pull(0);
        expect(kit::waitUntil([&] { return ends.left.log.lines().size() > linesBefore; }),
               "the loss of the adapter is logged" + which);
        ends.left.port.sendMessage(numberedMessage(9, 4), true);
        double const cpuBefore_sec = processorTime_sec();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        expect(processorTime_sec() - cpuBefore_sec < 0.5,
               "a port without its device leaves the processor alone" + which);
        expect(ends.left.log.lines().size() - linesBefore <= 40, "it does not flood the log" + which);
        kit::stopwatch const stopping;
        expect(ends.left.stop(), "it stops" + which);
        expect(stopping.elapsed_sec() < 5.0, "it stops at once" + which);
        expect(!ends.left.port.start(), "it does not start without its device" + which);
        wires.plug(0);
        expect(kit::waitUntil([&] { return isThere(wires, 0); }), "the adapter is there again" + which);
        kit::stopwatch const starting;
        expect(kit::waitUntil([&] { return ends.left.start(); }), "the port starts again" + which);
        expectExchange(ends, 200, "when it is plugged in again" + which);
    }
    ends.stop();
}

} // namespace

std::vector<scenario> usbScenarios()
{
    auto const here = lane::usb;
    return {
        {"usb-carries", here, 60, adapterCarries},
        {"usb-line", here, 90, lineIsAsRealOnesAre},
        {"usb-speeds", here, 60, setsSpeeds},
        {"usb-exchange-9600", here, 180, [] { exchange(9600, 100); }},
        {"usb-exchange-115200", here, 240, [] { exchange(115200, 2000); }},
        {"usb-wrong-settings", here, 240, recoversFromWrongSettings},
        {"usb-parity-errors", here, 120, ignoresParityErrors},
        {"usb-breaks", here, 120, breaksCostNothing},
        {"usb-bad-line", here, 180, exchangesOnABadLine},
        {"usb-overrun", here, 120, recoversFromAnOverrun},
        {"usb-close-of-a-held-line", here, 120, closesALineThatIsHeld},
        {"usb-stop-on-a-held-line", here, 180, stopsOnALineThatIsHeld},
        {"usb-unplugged", here, 180, comesBackWhenItIsPluggedInAgain},
    };
}

} // namespace uart
