// The serial device on real drivers: opening, taking, settings, reading, closing, hanging up.

#include "callOnThread.h"
#include "devices.h"
#include "ordinaryUser.h"
#include "scenario.h"
#include "stopwatch.h"
#include "waitUntil.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace uart
{
namespace
{

using kit::callOnThread;
using kit::stopwatch;

/// More than a machine that is busy needs for anything that ought to happen at once.
constexpr double AT_ONCE_SEC = 5.0;

void refusesWhatIsNoDevice()
{
    expectEqual(device("/dev/ttyS77").port.open(), ENOENT, "the result of opening what does not exist");
    expectEqual(device("/dev/null").port.open(), ENOTTY, "the result of opening what is no terminal");
}

int openAsProgram(std::string const& name)
{
    int const descriptor = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    int const status = descriptor < 0 ? errno : 0;
    ::close(descriptor);
    return status;
}

std::string resultForOrdinaryUser(std::string const& name)
{
    return kit::asOrdinaryUser([&] { return std::to_string(openAsProgram(name)); });
}

int lockAsProgram(std::string const& name)
{
    int const descriptor = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    int const status = flock(descriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
    ::close(descriptor);
    return status;
}

void takesTheDevice(lineMaker make)
{
    line const wires = make();
    std::string const name = wires.device(0);
    ::chmod(name.c_str(), 0666);
    {
        device const taken(name, 9600);
        expectEqual(device(name).port.open(), EBUSY, "the result of a second open");
        expectEqual(lockAsProgram(name), EWOULDBLOCK, "the result for root who asks for the lock");
        expect(resultForOrdinaryUser(name) == std::to_string(EBUSY), "an ordinary user is kept out");
    }
    expect(resultForOrdinaryUser(name) == "0", "an ordinary user can open the device when it has been closed");
    expectEqual(device(name).port.open(), 0, "the result of opening it again");
}

void isFreeAfterItsProgramWasKilled(lineMaker make)
{
    std::string const name = make().device(0);
    int ends[2];
    expectEqual(::pipe(ends), 0, "the result of making a pipe");
    pid_t const holder = fork();
    if (holder == 0)
    {
        device const taken(name, 9600);
        char const ready = 'r';
        static_cast<void>(::write(ends[1], &ready, 1) == 1 && ::pause() != 0);
        _exit(1);
    }
    char ready = 0;
    expectEqual(::read(ends[0], &ready, 1), ssize_t{1}, "the number of programs that are ready");
    expectEqual(device(name).port.open(), EBUSY, "the result of opening what another program holds");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    expectEqual(device(name).port.open(), 0, "the result of opening what a killed program has held");
}

void expectHeld(std::string const& name, unsigned speed, char const* when)
{
    expectEqual(settingsOf(name).speed, speed, std::string("the speed ") + when);
}

/// The clock of these ports is 115200 Hz: the driver takes higher speeds and silently keeps the one before.
void setsSpeeds()
{
    line const wires = line::betweenUarts(0);
    device end(wires.device(0), 9600);
    expectEqual(settingsOf(wires.device(0)).baudBase, 115200U, "the clock of the driver");
    for (unsigned const speed : {50U, 300U, 1200U, 5000U, 12345U, 19200U, 31250U, 38400U, 57600U, 115200U})
    {
        expectEqual(end.port.setSpeed(speed), 0, "the result of setting " + std::to_string(speed));
        expectHeld(wires.device(0), speed, "that was asked for");
    }
    end.port.setSpeed(9600);
    for (unsigned const speed : {0U, 230400U, 250000U, 4000000U})
    {
        expectEqual(end.port.setSpeed(speed), EINVAL, "the result of setting " + std::to_string(speed));
        expectHeld(wires.device(0), 9600, "after one was refused");
    }
    end.port.close();
    expectEqual(end.port.setSpeed(230400), 0, "the result of setting a speed before open");
    expectEqual(end.port.open(), EINVAL, "the result of opening with a speed that cannot be");
    expect(!end.port.isOpen(), "the device is closed then");
}

/// The adapters make characters of 7 and 8 bits only.
void setsFraming(lineMaker make, unsigned fewestBits)
{
    line const wires = make();
    device end(wires.device(0), 9600);
    for (unsigned dataBits = fewestBits; dataBits <= 8; ++dataBits)
    {
        for (PARITY_TYPE const parity : {PARITY_NONE, PARITY_ODD, PARITY_EVEN, PARITY_MARK, PARITY_SPACE})
        {
            for (unsigned const stopBits : {1U, 2U})
            {
                std::string const what =
                    std::to_string(dataBits) + ' ' + std::to_string(parity) + ' ' + std::to_string(stopBits);
                expectEqual(end.port.setDataBits(dataBits) | end.port.setParity(parity) |
                                end.port.setStopBits(stopBits),
                            0, "the result of setting " + what);
                expectEqual(settingsOf(wires.device(0)).framing, framingOf(dataBits, parity, stopBits),
                            "what the driver holds of " + what);
            }
        }
    }
}

struct ends
{
    explicit ends(line& wires, unsigned speed = 9600) : left(wires.device(0), speed), right(wires.device(1), speed)
    {
        wires.setSpeed(speed);
    }
    device left;
    device right;
};

void carriesLongData(lineMaker make)
{
    line wires = make();
    ends both(wires, 115200);
    bytes const data = patternOf(20000); // five times what the driver takes at once
    callOnThread<transfer> sender([&] { return sendAll(both.left.port, data); });
    expect(receiveAll(both.right.port, data.size()) == data, "all arrives");
    transfer const sent = sender.get();
    expectEqual(sent.status, 0, "the result of sending");
    expectEqual(sent.count, static_cast<unsigned>(data.size()), "the number of bytes sent");
}

void returnsAsVminAndVtimeSay(lineMaker make)
{
    line wires = make();
    ends both(wires);
    both.right.port.setVminVtime(1, 255);
    sendAll(both.left.port, {1});
    stopwatch first;
    expectEqual(receiveOnce(both.right.port).count, 1U, "the number of bytes received with VMIN 1");
    expect(first.elapsed_sec() < AT_ONCE_SEC, "the first byte is delivered at once with VMIN 1");

    both.right.port.setVminVtime(0, 3);
    stopwatch nothing;
    expectEqual(receiveOnce(both.right.port).count, 0U, "the number of bytes received with VMIN 0");
    expect(nothing.elapsed_sec() >= 0.3, "VTIME is waited for with VMIN 0");

    both.right.port.setVminVtime(5, 0);
    sendAll(both.left.port, {1, 2, 3});
    callOnThread<transfer> five([&] { return receiveOnce(both.right.port); });
    expect(!five.endsWithin(std::chrono::milliseconds(500)), "fewer bytes than VMIN are waited for");
    sendAll(both.left.port, {4, 5});
    expectEqual(five.get().count, 5U, "the number of bytes received with VMIN 5");

    both.right.port.setVminVtime(20, 2);
    sendAll(both.left.port, bytes(10, 0x55));
    stopwatch gap;
    expectEqual(receiveOnce(both.right.port).count, 10U, "the number of bytes received before a gap");
    expect(gap.elapsed_sec() >= 0.2, "VTIME is waited for behind the last byte");
}

void keepsALineThatIsHeld()
{
    line wires = line::betweenUarts(0);
    ends both(wires);
    wires.hold(0, true);
    stopwatch blocked;
    transfer const sent = sendAll(both.left.port, patternOf(10000));
    expectEqual(sent.status, ETIMEDOUT, "the result of sending on a line that stands");
    expect(sent.count >= 4000 && sent.count < 10000, "what the driver has taken is told");
    expect(blocked.elapsed_sec() >= 2.0, "a line may stand for 2 s");

    stopwatch closing;
    expectEqual(both.left.port.close(), 0, "the result of closing");
    expect(closing.elapsed_sec() >= 0.9, "a line that stands gets a second at close");
    expect(closing.elapsed_sec() < 10.0, "a line that stands does not hold up close");
    figure("close of a held line, 8250", closing.elapsed_sec(), "s");
    stopwatch opening;
    expectEqual(both.left.port.open(), 0, "the result of opening again");
    expect(opening.elapsed_sec() < AT_ONCE_SEC, "the device can be opened again at once");

    wires.hold(0, false);
    both.right.port.setVminVtime(0, 10);
    while (receiveOnce(both.right.port).count != 0)
    {
        // what was in the hardware when the line was held
    }
    sendAll(both.left.port, {1, 2, 3});
    expect(receiveAll(both.right.port, 3) == bytes{1, 2, 3}, "the line works when it is let go");
}

void closesWhenTheLineIsDone(lineMaker make, std::string const& driver)
{
    line wires = make();
    ends both(wires);
    bytes const data = patternOf(500);
    stopwatch watch;
    sendAll(both.left.port, data);
    callOnThread<bytes> receiver([&] { return receiveAll(both.right.port, data.size()); });
    expectEqual(both.left.port.close(), 0, "the result of closing");
    expect(watch.elapsed_sec() >= 500 * 10.0 / 9600 - 0.03, "close gives the bytes on their way the line's time");
    expect(receiver.get() == data, "all arrives");
    stopwatch quiet;
    expectEqual(both.right.port.close(), 0, "the result of closing");
    expect(quiet.elapsed_sec() < AT_ONCE_SEC, "a quiet device closes at once");
    figure("close of a quiet device, " + driver, 1000.0 * quiet.elapsed_sec(), "ms");
}

void wakesItsReader(lineMaker make)
{
    line wires = make();
    ends both(wires);
    callOnThread<transfer> receiver([&] { return receiveOnce(both.left.port); });
    receiver.awaitAsleep();
    expectEqual(both.left.port.close(), 0, "the result of closing");
    transfer const nothing = receiver.get();
    expectEqual(nothing.status, 0, "the result of a receive that close has ended");
    expectEqual(nothing.count, 0U, "the number of its bytes");
}

void noticesAHangUp(lineMaker make)
{
    line wires = make();
    ends both(wires);
    callOnThread<transfer> receiver([&] { return receiveOnce(both.left.port); });
    receiver.awaitAsleep();
    hangUp(wires.device(0));
    expectEqual(receiver.get().status, EIO, "the result of a receive that a hang-up has ended");
    expectEqual(sendAll(both.left.port, {1}).status, EIO, "the result of sending after a hang-up");
    expect(both.left.port.isOpen(), "the device counts as open");
    stopwatch closing;
    both.left.port.close();
    expect(closing.elapsed_sec() < AT_ONCE_SEC, "it is closed at once");
    expectEqual(both.left.port.open(), 0, "the result of opening it again");
    sendAll(both.left.port, {1, 2, 3});
    expect(receiveAll(both.right.port, 3) == bytes{1, 2, 3}, "it works again");
}

/// The driver of the adapters delivers a break as a byte 00 whatever it is told.
void readsOfABreak(lineMaker make, bytes const& expected)
{
    line wires = make();
    ends both(wires);
    both.right.port.setVminVtime(0, 5);
    int const before = errorsOf(wires.device(1)).breaks;
    wires.sendBreak(1);
    expect(kit::waitUntil([&] { return errorsOf(wires.device(1)).breaks > before; }), "the driver counts the break");
    expect(receiveOnce(both.right.port).data == expected, "a break reads as it should");
    sendAll(both.left.port, {1, 2, 3});
    expect(receiveAll(both.right.port, 3) == bytes{1, 2, 3}, "what comes behind a break is read");
}

void asksForLowLatency(lineMaker make)
{
    line const wires = make();
    device const end(wires.device(0), 9600);
    expect(settingsOf(wires.device(0)).isLowLatency, "the driver is asked for low latency");
}

} // namespace

std::vector<scenario> deviceScenarios()
{
    auto const here = lane::firstPair;
    std::vector<scenario> all{
        {"device-refuses-what-is-none", here, 30, refusesWhatIsNoDevice},
        {"device-speeds", here, 60, setsSpeeds},
        {"device-held-line", here, 90, keepsALineThatIsHeld},
    };
    auto const addFor = [&all](lane where, std::string const& prefix, std::string const& driver, lineMaker make,
                               unsigned fewestBits) {
        all.push_back({prefix + "-is-taken", where, 60, [=] { takesTheDevice(make); }});
        all.push_back({prefix + "-of-a-killed-program", where, 60, [=] { isFreeAfterItsProgramWasKilled(make); }});
        all.push_back({prefix + "-framing", where, 60, [=] { setsFraming(make, fewestBits); }});
        all.push_back({prefix + "-long-data", where, 60, [=] { carriesLongData(make); }});
        all.push_back({prefix + "-vmin-vtime", where, 60, [=] { returnsAsVminAndVtimeSay(make); }});
        all.push_back({prefix + "-close", where, 60, [=] { closesWhenTheLineIsDone(make, driver); }});
        all.push_back({prefix + "-reader-at-close", where, 60, [=] { wakesItsReader(make); }});
        all.push_back({prefix + "-hang-up", where, 60, [=] { noticesAHangUp(make); }});
    };
    all.push_back({"device-break", here, 60, [] { readsOfABreak(firstPair, {}); }});
    all.push_back({"usb-device-break", lane::usb, 60, [] { readsOfABreak(line::betweenAdapters, {0}); }});
    all.push_back({"usb-device-latency", lane::usb, 60, [] { asksForLowLatency(line::betweenAdapters); }});
    addFor(here, "device", "8250", firstPair, 5);
    addFor(lane::usb, "usb-device", "USB", line::betweenAdapters, 7);
    return all;
}

} // namespace uart
