#include "portPrograms.h"

#include "judge.h"
#include "line.h"
#include "station.h"

#include <array>
#include <chrono>
#include <iterator>
#include <list>
#include <memory>
#include <thread>

namespace schedules
{
namespace
{

using namespace std::chrono_literals;

constexpr std::int64_t NS_PER_SEC = 1'000'000'000;
constexpr unsigned BITS_PER_CHARACTER = 10;

liberties drawLiberties(dice& chance)
{
    liberties allowed;
    allowed.idleWakes = chance.onceIn(3) ? static_cast<unsigned>(chance.below(20)) : 0;
    allowed.shortTransfers = chance.onceIn(3) ? static_cast<unsigned>(chance.below(20)) : 0;
    allowed.realTimeRefused = chance.onceIn(2);
    allowed.clocksAreSteps = chance.onceIn(4);
    allowed.atomicsAreSteps = !chance.onceIn(4);
    return allowed;
}

/// Besides, time may pass although somebody could go on: what has a time-out may run out of time.
liberties drawSlowMachine(dice& chance)
{
    liberties allowed = drawLiberties(chance);
    allowed.earlyTimes = chance.onceIn(2) ? static_cast<unsigned>(1 + chance.below(15)) : 0;
    return allowed;
}

unsigned speedOf(lineTraits const& traits)
{
    return traits.characterTime_ns == 0
               ? 115200
               : static_cast<unsigned>(BITS_PER_CHARACTER * NS_PER_SEC / traits.characterTime_ns);
}

lineTraits drawLine(dice& chance)
{
    constexpr std::array<std::int64_t, 3> SPEEDS{9600, 115200, 1'000'000};
    lineTraits traits;
    traits.isPseudoTerminal = chance.onceIn(2);
    if (!traits.isPseudoTerminal)
    {
        traits.characterTime_ns = BITS_PER_CHARACTER * NS_PER_SEC / SPEEDS[chance.below(SPEEDS.size())];
    }
    return traits;
}

/// Threads of the application, joined at the end of the scope at the latest.
class cast
{
  public:
    explicit cast(scheduler& scheduleOf) : schedule(scheduleOf) {}
    ~cast() { join(); }
    cast(cast const&) = delete;
    cast& operator=(cast const&) = delete;

    template <typename Act>
    void add(char const* name, Act act)
    {
        actors.emplace_back([this, name, act] {
            schedule.nameThread(name);
            act();
        });
    }

    void join()
    {
        for (std::thread& actor : actors)
        {
            actor.join();
        }
        actors.clear();
    }

  private:
    scheduler& schedule;
    std::list<std::thread> actors;
};

/// Two stations on a line.
struct scene
{
    explicit scene(scheduler& scheduleOf) : scene(scheduleOf, drawLine(scheduleOf.chance())) {}
    scene(scheduler& scheduleOf, lineTraits const& traits)
        : schedule(scheduleOf), wire(schedule, traits), left(schedule, wire, line::LEFT),
          right(schedule, wire, line::RIGHT)
    {
        for (station* each : {&left, &right})
        {
            double const handshake_sec = schedule.chance().onceIn(3) ? -1.0 : HANDSHAKE_SEC;
            if (each->port.configurePort(speedOf(traits), 8, PARITY_NONE, 1, 0, 0.2, handshake_sec, 5) != 0)
            {
                schedule.fail("configurePort has failed");
            }
        }
    }
    scene(scene const&) = delete;
    scene& operator=(scene const&) = delete;

    station& any() { return schedule.chance().onceIn(2) ? left : right; }

    void begin()
    {
        left.start();
        right.start();
        left.listen();
        right.listen();
        expectThreads(8 + 2);
    }

    /// Both ports are started; everything that is under way ends, and the accounts must be right.
    void judge(circumstances const& under)
    {
        awaitQuiet(schedule, left, right);
        expectThreads(8 + 2);
        for (station* each : {&left, &right})
        {
            judgeSent(schedule, *each, under);
            judgeReceived(schedule, *each, under);
        }
    }

    void end()
    {
        for (station* each : {&left, &right})
        {
            each->stop();
            each->stopListening();
        }
        expectThreads(0);
    }

    /// Besides the first.
    void expectThreads(unsigned count)
    {
        if (schedule.livingThreads() != count + 1)
        {
            schedule.fail(std::to_string(schedule.livingThreads() - 1) + " threads instead of " +
                          std::to_string(count));
        }
    }

    scheduler& schedule;
    line wire;
    station left;
    station right;
};

std::uint16_t drawFlags(dice& chance)
{
    return chance.onceIn(2) ? gssipMessage::ACK_REQ_FLAG : std::uint16_t{0};
}

std::vector<gssipMessage> someMessages(station& sender, dice& chance)
{
    std::vector<gssipMessage> messages;
    for (std::uint64_t left = 1 + chance.below(3); left > 0; --left)
    {
        messages.push_back(sender.newMessage(drawFlags(chance)));
    }
    return messages;
}

void send(station& sender, dice& chance)
{
    switch (chance.below(4))
    {
    case 0: {
        std::vector<gssipMessage> const messages = someMessages(sender, chance);
        sender.port.sendMessages(messages, chance.onceIn(2));
        break;
    }
    case 1: {
        std::vector<gssipMessage> const messages = someMessages(sender, chance);
        sender.port.sendDtMessages(messages.begin(), static_cast<unsigned>(messages.size()));
        break;
    }
    default:
        sender.port.sendMessage(sender.newMessage(drawFlags(chance)), !chance.onceIn(3));
        break;
    }
}

void pause(dice& chance)
{
    if (chance.onceIn(2))
    {
        std::this_thread::sleep_for(std::chrono::microseconds(chance.below(300'000)));
    }
}

void sendSome(station& sender, dice& chance)
{
    for (std::uint64_t left = 1 + chance.below(3); left > 0; --left)
    {
        send(sender, chance);
        pause(chance);
    }
}

/// What does not move messages: settings, questions, and what goes past the queue.
void control(station& which, dice& chance)
{
    kit::exposedPort& port = which.port;
    unsigned sent = 0;
    std::array<std::uint8_t, 3> const raw{0x00, 0x55, 0x00};
    std::string text;
    double gap_sec = 0;
    switch (chance.below(10))
    {
    case 0:
        port.sendHandshakeReject(static_cast<unsigned>(chance.below(70'000)), chance.onceIn(2));
        break;
    case 1:
        port.sendResyncSequence();
        break;
    case 2:
        port.send(raw.data(), static_cast<unsigned>(raw.size()), sent);
        break;
    case 3:
        port.getPortConfigStr(text);
        break;
    case 4:
        port.getReceiveInterCharacterGap_sec(gap_sec, &gap_sec);
        break;
    case 5:
        port.setReceiveInterCharacterGap_sec(0.2);
        break;
    case 6:
        port.getNumberQueuedMessages();
        port.getNumberRxQueuedMessages();
        break;
    case 7:
        port.resetPortReady();
        break;
    case 8:
        port.signalPortReady();
        break;
    default:
        port.setAcknowledgeTimeout_sec(port.getAcknowledgeTimeout_sec());
        port.setHandshakeTimeout_sec(port.getHandshakeTimeout_sec());
        break;
    }
}

void controlSome(station& which, dice& chance)
{
    for (std::uint64_t left = 1 + chance.below(5); left > 0; --left)
    {
        control(which, chance);
        pause(chance);
    }
}

void remove(station& which, dice& chance)
{
    switch (chance.below(4))
    {
    case 0:
        which.port.clearTransmitQueue();
        break;
    case 1:
        which.port.serviceTransmitQueue();
        break;
    default:
        which.port.removeMsgIdFromTxQueue(static_cast<unsigned>(1 + chance.below(6)));
        break;
    }
}

void exchangeUnder(scheduler& schedule, circumstances const& under)
{
    scene scene(schedule);
    scene.begin();
    cast cast(schedule);
    for (std::uint64_t senders = 1 + schedule.chance().below(3); senders > 0; --senders)
    {
        cast.add("sender", [&] { sendSome(scene.any(), schedule.chance()); });
    }
    cast.join();
    scene.judge(under);
    scene.end();
}

/// Messages both ways on a perfect line: each is written once and delivered once.
void exchange(scheduler& schedule)
{
    exchangeUnder(schedule, {});
}

/// The same where any thread may be so slow that an acknowledgement comes too late.
void slowExchange(scheduler& schedule)
{
    exchangeUnder(schedule, {true, false});
}

/// The same while everything else that a port offers is called, and the wall clock is stepped.
void controls(scheduler& schedule)
{
    scene scene(schedule);
    scene.begin();
    cast cast(schedule);
    cast.add("sender", [&] { sendSome(scene.any(), schedule.chance()); });
    cast.add("controller", [&] { controlSome(scene.any(), schedule.chance()); });
    cast.add("controller", [&] { controlSome(scene.any(), schedule.chance()); });
    if (schedule.chance().onceIn(2))
    {
        cast.add("clock", [&] {
            pause(schedule.chance());
            schedule.stepWallClock(schedule.chance().between(-2, 2) * 3600 * NS_PER_SEC);
        });
    }
    cast.join();
    scene.judge({});
    scene.end();
}

/// Messages are removed from the queue before a gate that is shut again and again.
void removal(scheduler& schedule)
{
    scene scene(schedule);
    scene.begin();
    cast cast(schedule);
    cast.add("gate", [&] {
        for (int i = 0; i < 4; ++i)
        {
            scene.left.port.resetPortReady();
            pause(schedule.chance());
            scene.left.port.signalPortReady(); // who waits there now passes, although the gate is shut at once
        }
    });
    for (int i = 0; i < 2; ++i)
    {
        cast.add("sender", [&] { sendSome(scene.left, schedule.chance()); });
    }
    cast.add("remover", [&] {
        for (int i = 0; i < 4; ++i)
        {
            remove(scene.left, schedule.chance());
            pause(schedule.chance());
        }
    });
    cast.join();
    scene.judge({});
    scene.end();
}

void restart(station& which, dice& chance)
{
    for (std::uint64_t left = 1 + chance.below(2); left > 0; --left)
    {
        pause(chance);
        which.port.stop();
        pause(chance);
        which.port.start();
    }
}

void shutGate(station& which, dice& chance)
{
    for (int i = 0; i < 6; ++i)
    {
        which.port.resetPortReady();
        pause(chance);
    }
}

/// Threads stop and start ports that others use, also two threads the same port.
void restarts(scheduler& schedule)
{
    scene scene(schedule);
    scene.begin();
    cast cast(schedule);
    for (int i = 0; i < 2; ++i)
    {
        cast.add("restarter", [&] { restart(scene.any(), schedule.chance()); });
        cast.add("sender", [&] { sendSome(scene.any(), schedule.chance()); });
    }
    cast.add("controller", [&] { controlSome(scene.any(), schedule.chance()); });
    if (schedule.chance().onceIn(2))
    {
        cast.add("gate", [&] { shutGate(scene.any(), schedule.chance()); });
    }
    cast.join();
    scene.left.start();
    scene.right.start();
    scene.judge({true, false});
    scene.end();
}

/// Starts fail for want of the device or of a thread, or only one of the threads; sooner or later one succeeds, or the
/// port is destroyed without.
void failedStarts(scheduler& schedule)
{
    dice& chance = schedule.chance();
    scene scene(schedule);
    bool const hasDevice = chance.onceIn(2);
    if (!hasDevice)
    {
        scene.wire.unplug(line::LEFT);
    }
    scene.right.start();
    scene.right.listen();
    cast cast(schedule);
    cast.add("sender", [&] { sendSome(scene.left, schedule.chance()); });
    cast.add("reader", [&] {
        gssipMessage message;
        scene.right.port.getNumberRxQueuedMessages();
        scene.left.port.getNumberRxQueuedMessages();
        scene.left.port.getNumberQueuedMessages();
    });
    cast.add("starter", [&] {
        schedule.failCreation(static_cast<unsigned>(chance.below(8)));
        scene.left.port.start();
        pause(schedule.chance());
        scene.left.port.stop();
        schedule.failCreation(static_cast<unsigned>(chance.below(8)));
        scene.left.port.start();
    });
    cast.join();
    schedule.failCreation(0);
    scene.wire.plugIn(line::LEFT);
    if (chance.onceIn(3)) // destroyed as it is
    {
        scene.right.stop();
        scene.right.stopListening();
        return;
    }
    scene.left.start();
    scene.left.listen();
    scene.judge({true, false});
    scene.end();
}

/// The device vanishes in use, and comes back.
void hangUps(scheduler& schedule)
{
    scene scene(schedule);
    scene.begin();
    cast cast(schedule);
    cast.add("sender", [&] { sendSome(scene.left, schedule.chance()); });
    cast.add("sender", [&] { sendSome(scene.right, schedule.chance()); });
    cast.add("hand", [&] {
        pause(schedule.chance());
        scene.wire.unplug(line::LEFT);
        pause(schedule.chance());
        scene.wire.plugIn(line::LEFT);
    });
    cast.add("controller", [&] { controlSome(scene.left, schedule.chance()); });
    cast.join();
    scene.left.stop();
    scene.left.start();
    scene.judge({false, false});
    scene.left.port.sendMessage(scene.left.newMessage(gssipMessage::ACK_REQ_FLAG), true);
    std::uint16_t const last = std::prev(scene.left.account().entered().end())->first;
    awaitQuiet(schedule, scene.left, scene.right);
    if (scene.right.delivered().empty() || scene.right.delivered().back() != last)
    {
        schedule.fail("the port does not work after the device has come back");
    }
    scene.end();
}

/// Ports that are destroyed as soon as they have been made, started, used or stopped.
void shortLives(scheduler& schedule)
{
    dice& chance = schedule.chance();
    line wire(schedule, drawLine(chance));
    for (std::uint64_t left = 1 + chance.below(3); left > 0; --left)
    {
        auto port = std::make_unique<station>(schedule, wire, line::LEFT);
        if (chance.onceIn(6))
        {
            wire.unplug(line::LEFT);
        }
        bool const isStarted = !chance.onceIn(6) && port->port.start();
        if (!chance.onceIn(3))
        {
            sendSome(*port, chance);
        }
        if (isStarted && chance.onceIn(3))
        {
            port->listen();
            pause(chance);
            port->port.stop();
        }
        wire.plugIn(line::LEFT);
    }
    if (schedule.livingThreads() != 1)
    {
        schedule.fail("threads are left");
    }
}

/// A line that stands still for a while or for ever, with a stop in between.
void blockedLine(scheduler& schedule)
{
    dice& chance = schedule.chance();
    lineTraits traits = drawLine(chance);
    traits.ring = static_cast<unsigned>(1 + chance.below(64));
    traits.hardware = static_cast<unsigned>(chance.below(17));
    traits.flushDrops = !chance.onceIn(3);
    scene scene(schedule, traits);
    scene.begin();
    cast cast(schedule);
    bool const isFree = chance.onceIn(2);
    cast.add("line", [&] {
        scene.wire.hold(line::LEFT);
        pause(schedule.chance());
        if (isFree)
        {
            scene.wire.letFlow(line::LEFT);
        }
    });
    cast.add("sender", [&] { sendSome(scene.left, schedule.chance()); });
    cast.add("sender", [&] { sendSome(scene.right, schedule.chance()); });
    cast.add("controller", [&] { controlSome(scene.left, schedule.chance()); });
    pause(chance);
    auto const machineTime_ns = [&] { return schedule.now_ns() - schedule.early_ns(); };
    std::int64_t const before_ns = machineTime_ns();
    scene.left.stop();
    if (machineTime_ns() - before_ns > 2 * NS_PER_SEC + NS_PER_SEC / 10)
    {
        schedule.fail("stop took too long");
    }
    cast.join();
    scene.wire.letFlow(line::LEFT);
    for (int tries = 0; !scene.left.port.start(); ++tries) // while the system is still closing the device
    {
        if (tries == 350)
        {
            schedule.fail("start has failed");
        }
        std::this_thread::sleep_for(100ms);
    }
    awaitQuiet(schedule, scene.left, scene.right);
    scene.end();
}

/// A log that calls the port back, also to stop and to start it, while the line brings what has to be logged.
class meddlingLog : public asciiLogInterface
{
  public:
    explicit meddlingLog(scheduler& scheduleOf) : schedule(scheduleOf) {}

    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override { meddle(); }
    void log(double const& /*time_sec*/, std::int32_t const& /*level*/, std::string const& /*text*/) override
    {
        meddle();
    }

    std::atomic<station*> target{nullptr};

  private:
    void meddle()
    {
        station* const which = target;
        if (which == nullptr)
        {
            return;
        }
        switch (schedule.chance().below(6))
        {
        case 0:
            which->port.stop();
            break;
        case 1:
            which->port.start();
            break;
        case 2:
            which->port.sendMessage(which->newMessage(0), true);
            break;
        case 3:
            which->port.sendHandshakeReject(1, false);
            break;
        case 4:
            which->port.getNumberRxQueuedMessages();
            break;
        default:
            throw std::runtime_error("of a log");
        }
    }

    scheduler& schedule;
};

bytes damagedFrame(dice& chance)
{
    bytes frame{0xFF, 0x81, 7, 0, 1, 0, 0, 0x40, 0, 0, 1, 0, 0, 0};
    if (!chance.onceIn(2)) // the data alone are wrong
    {
        unsigned const sum = 0x81FF + 7 + 1 + 0x4000;
        frame[8] = static_cast<std::uint8_t>((0x10000 - sum) & 0xFFU);
        frame[9] = static_cast<std::uint8_t>((0x10000 - sum) >> 8U & 0xFFU);
    }
    return frame;
}

/// Receives by hand: an exception of the log comes out of `getMessage`.
void receiveFrom(station& which, std::atomic<bool> const& leaving)
{
    gssipMessage message;
    while (!leaving)
    {
        try
        {
            which.port.getMessage(message, false);
        }
        catch (std::runtime_error const&)
        {}
        std::this_thread::sleep_for(1ms);
    }
}

void callBacks(scheduler& schedule)
{
    dice& chance = schedule.chance();
    line wire(schedule, drawLine(chance));
    meddlingLog log(schedule);
    station port(schedule, wire, line::RIGHT, &log);
    std::atomic<bool> leaving{false};
    port.start();
    log.target = &port;
    std::thread receiver([&] {
        schedule.nameThread("receiver");
        receiveFrom(port, leaving);
    });
    cast cast(schedule);
    cast.add("line", [&] {
        for (int i = 0; i < 4; ++i)
        {
            wire.inject(line::LEFT, damagedFrame(schedule.chance()));
            pause(schedule.chance());
        }
    });
    cast.add("sender", [&] { sendSome(port, schedule.chance()); });
    cast.add("restarter", [&] { restart(port, schedule.chance()); });
    cast.join();
    log.target = nullptr;
    leaving = true;
    port.stop();
    receiver.join();
    port.stop();
}

} // namespace

std::vector<portProgram> const& portPrograms()
{
    static std::vector<portProgram> const all{
        {"exchange", 1500, drawLiberties, exchange},           {"controls", 1500, drawLiberties, controls},
        {"slowExchange", 1500, drawSlowMachine, slowExchange}, {"removal", 1500, drawLiberties, removal},
        {"restarts", 3000, drawSlowMachine, restarts},         {"failedStarts", 2000, drawSlowMachine, failedStarts},
        {"hangUps", 2000, drawSlowMachine, hangUps},           {"shortLives", 1000, drawSlowMachine, shortLives},
        {"blockedLine", 2000, drawSlowMachine, blockedLine},   {"callBacks", 2000, drawSlowMachine, callBacks},
    };
    return all;
}

} // namespace schedules
