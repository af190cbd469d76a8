#include "demoScenario.h"

#include "gssipMessage.h"
#include "monotonicTimeStamp.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

namespace examples
{
namespace
{

constexpr std::uint16_t ACK_REQUEST = gssipMessage::ACK_REQ_FLAG;
constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t NAK = gssipMessage::REPLY_FLAG | gssipMessage::NAK_FLAG;
constexpr std::uint16_t REJECT = gssipMessage::REPLY_FLAG | gssipMessage::HANDSHAKE_FLAG | gssipMessage::REJECT_FLAG;
constexpr std::uint16_t REJECT_EXTRA = REJECT | gssipMessage::REJECT_EXTRA_FLAG;

constexpr double SHORT_SEC = 0.2;   // a time-out that is to run out
constexpr double LONG_SEC = 5.0;    // one that is not, however busy the machine
constexpr std::size_t DATA_AT = 10; // offset of the first data byte in a frame
std::string const placeA = "A";
std::string const placeB = "      B";

nullModem::direction opposite(nullModem::direction way)
{
    return way == nullModem::A_TO_B ? nullModem::B_TO_A : nullModem::A_TO_B;
}

gssipMessage makeMessage(std::uint16_t id, std::uint16_t flags)
{
    gssipMessage message(id, flags, 0);
    message.setData({0x1111, 0x2222, id});
    return message;
}

} // namespace

void lineFaults::plan(std::uint16_t id, fault what)
{
    std::lock_guard<std::mutex> const lock(mutex);
    plans[id] = {what};
}

std::string lineFaults::apply(piece& passing)
{
    std::lock_guard<std::mutex> const lock(mutex);
    auto const found = passing.what == piece::FRAME ? plans.find(frameId(passing.image)) : plans.end();
    if (found == plans.end())
    {
        return "";
    }
    planned& plan = found->second;
    bool const first = plan.seen++ == 0;
    if (plan.what == LOSE_ALL || (plan.what == LOSE_FIRST && first))
    {
        passing.image.clear();
        return "LOST on the way";
    }
    if (plan.what == DAMAGE_FIRST && first)
    {
        passing.image[DATA_AT] ^= 0x04U;
        return "DAMAGED on the way";
    }
    return "sent again";
}

demoScenario::demoScenario(std::ostream& stream)
    : journal(stream), a(placeA, modem.deviceA(), journal, demoStation::invalidMessages::SKIP),
      b(placeB, modem.deviceB(), journal, demoStation::invalidMessages::SKIP)
{
    for (nullModem::direction const way : {nullModem::A_TO_B, nullModem::B_TO_A})
    {
        modem.setHook(way, frameByFrame([this, way](piece passing) { return watch(way, std::move(passing)); }));
    }
}

/// Runs for everything that passes the line. What is lost or damaged is seen as it arrives, or would have arrived.
bytes demoScenario::watch(nullModem::direction way, piece passing)
{
    piece seen = passing;
    std::string fate;
    if (way == nullModem::A_TO_B)
    {
        fate = faults.apply(passing);
        seen.image = passing.image.empty() ? seen.image : passing.image;
    }
    if (seen.what == piece::FILLER)
    {
        fate = "resync filler";
    }
    journal.line(way, seen, fate);
    return passing.image;
}

bool demoScenario::run()
{
    if (startBoth())
    {
        trackedBothWays();
        lostAndSentAgain();
        neverAcknowledged();
        damagedAndRefused();
        handshake();
        handshakeReject();
        resyncFiller();
        garbageOnTheLine();
    }
    stopBoth();
    return journal.summary();
}

bool demoScenario::startBoth()
{
    journal.heading("Two ports on the ends of a null modem: A on " + modem.deviceA() + ", B on " + modem.deviceB());
    journal.note("A --> B is what passes on the line, A or B alone what its application or its log gets.\n");
    journal.columnTitles();
    bool started = true;
    for (demoStation* each : {&a, &b})
    {
        int const configured = each->port().configurePort(115200, 8, PARITY_NONE, 1, 0, LONG_SEC, LONG_SEC, 3);
        started = configured == 0 && each->start() && started;
    }
    journal.expect(started, "both ports are configured and started");
    return started;
}

void demoScenario::trackedBothWays()
{
    journal.heading("1. Tracked messages are acknowledged by the port that receives them, in both directions");
    tracked(a, nullModem::A_TO_B, placeB, 0x0101);
    tracked(b, nullModem::B_TO_A, placeA, 0x0102);
}

void demoScenario::tracked(demoStation& from, nullModem::direction way, std::string const& receiver, std::uint16_t id)
{
    from.port().sendMessage(makeMessage(id, ACK_REQUEST), true);
    bool const done = journal.waitUntil([&] { return acknowledged(way, id) && journal.timesTaken(receiver, id) == 1; });
    journal.expect(done && journal.frames(way, id, ACK_REQUEST).size() == 1,
                   idText(id) + " sent once, received, acknowledged");
}

bool demoScenario::acknowledged(nullModem::direction way, std::uint16_t id) const
{
    return !journal.frames(opposite(way), id, ACK).empty();
}

void demoScenario::lostAndSentAgain()
{
    journal.heading("2. A message is lost on the way: after the acknowledgement time-out (0.2 s) it is sent again");
    std::uint16_t const id = 0x0201;
    faults.plan(id, lineFaults::LOSE_FIRST);
    a.port().setAcknowledgeTimeout_sec(SHORT_SEC);
    double const begin_sec = monotonicTimeStamp().getTime_sec();
    a.port().sendMessage(makeMessage(id, ACK_REQUEST), true);

    bool const done =
        journal.waitUntil([&] { return acknowledged(nullModem::A_TO_B, id) && journal.timesTaken(placeB, id) == 1; });
    auto const copies = journal.frames(nullModem::A_TO_B, id, ACK_REQUEST);
    journal.expect(done && copies.size() == 2, "0x0201 sent twice, received once, acknowledged");
    journal.expect(copies.size() == 2 && copies[1].time_sec - begin_sec >= SHORT_SEC, "no sooner than after 0.2 s");
}

void demoScenario::neverAcknowledged()
{
    journal.heading("3. Nothing gets through: sent again once, after the second time-out silently given up");
    std::uint16_t const id = 0x0301;
    faults.plan(id, lineFaults::LOSE_ALL);
    auto const copies = [&] { return journal.frames(nullModem::A_TO_B, id, ACK_REQUEST).size(); };
    a.port().sendMessage(makeMessage(id, ACK_REQUEST), true);

    bool const second = journal.waitUntil([&] { return copies() == 2; });
    bool const third = journal.waitUntil([&] { return copies() > 2; }, std::chrono::duration<double>(3 * SHORT_SEC));
    journal.expect(second && !third && journal.timesTaken(placeB, id) == 0,
                   "0x0301 sent twice, and within three more time-outs not again");
}

void demoScenario::damagedAndRefused()
{
    journal.heading("4. The data of a message are damaged: the receiver refuses it (NAK), it is sent again at once");
    std::uint16_t const id = 0x0401;
    faults.plan(id, lineFaults::DAMAGE_FIRST);
    a.port().setAcknowledgeTimeout_sec(LONG_SEC);
    a.port().sendMessage(makeMessage(id, ACK_REQUEST), true);

    bool const done =
        journal.waitUntil([&] { return acknowledged(nullModem::A_TO_B, id) && journal.timesTaken(placeB, id) == 1; });
    auto const copies = journal.frames(nullModem::A_TO_B, id, ACK_REQUEST);
    auto const refusals = journal.frames(nullModem::B_TO_A, id, NAK);
    journal.expect(done && copies.size() == 2 && refusals.size() == 1,
                   "0x0401 sent, refused, sent again, acknowledged");
    journal.expect(copies.size() == 2 && refusals.size() == 1 && refusals[0].time_sec < copies[1].time_sec,
                   "the NAK, not the time-out (5 s), made it be sent again");
    journal.expect(journal.timesLogged(placeB, "Invalid Message") == 1 && journal.timesTaken(placeB, id) == 1,
                   "the receiver has logged the damaged one, and its application has seen the other alone");
}

void demoScenario::handshake()
{
    journal.heading(
        "5. A message that requests acknowledgement shuts the gate for what B has to send; a handshake opens it");
    a.port().sendMessage(makeMessage(0x0501, ACK_REQUEST), true);
    journal.waitUntil([&] { return journal.timesTaken(placeB, 0x0501) == 1; });
    b.port().sendMessage(makeMessage(0x0502, 0), false);
    b.port().sendMessage(makeMessage(0x0503, 0), false);
    // Usually the transmit thread has passed the gate before it shut, and waits behind it for its next message.
    journal.waitUntil([&] { return journal.frames(nullModem::B_TO_A, 0x0502, 0).size() == 1; },
                      std::chrono::seconds(1));
    journal.expect(b.port().getNumberQueuedMessages() >= 1, "one message may still go; 0x0503 waits at the gate");

    a.port().sendMessage(makeMessage(0x0504, gssipMessage::HANDSHAKE_FLAG), false);
    journal.waitUntil([&] { return journal.timesTaken(placeA, 0x0503) == 1; });
    auto const opening = journal.frames(nullModem::A_TO_B, 0x0504, gssipMessage::HANDSHAKE_FLAG);
    auto const released = journal.frames(nullModem::B_TO_A, 0x0503, 0);
    journal.expect(opening.size() == 1 && released.size() == 1 && opening[0].time_sec < released[0].time_sec,
                   "the handshake has opened the gate");
    journal.expect(journal.timesTaken(placeB, 0x0504) == 0, "and is the port's own affair: no application sees it");
}

void demoScenario::handshakeReject()
{
    journal.heading("6. Handshake rejects, without and with the extra bit, which is logged too");
    b.port().sendHandshakeReject(0x0601, false);
    b.port().sendHandshakeReject(0x0602, true);
    b.port().sendMessage(makeMessage(0x0603, 0), false);
    bool const done = journal.waitUntil([&] { return journal.timesTaken(placeA, 0x0603) == 1; });
    journal.expect(done && journal.frames(nullModem::B_TO_A, 0x0601, REJECT).size() == 1 &&
                       journal.frames(nullModem::B_TO_A, 0x0602, REJECT_EXTRA).size() == 1,
                   "both on the line");
    journal.expect(journal.timesLogged(placeB, "reject") == 1 && journal.timesLogged(placeB, "reject 1538") == 1,
                   "the second in the log of B, by its number");
    journal.expect(journal.timesTaken(placeA, 0x0601) + journal.timesTaken(placeA, 0x0602) == 0,
                   "no application sees them");
}

void demoScenario::resyncFiller()
{
    journal.heading("7. A resync filler between two messages");
    a.port().sendMessage(makeMessage(0x0701, 0), false);
    journal.waitUntil([&] { return journal.frames(nullModem::A_TO_B, 0x0701, 0).size() == 1; });
    int const result = a.port().sendResyncSequence();
    a.port().sendMessage(makeMessage(0x0702, 0), false);
    bool const done = journal.waitUntil(
        [&] { return journal.timesTaken(placeB, 0x0701) == 1 && journal.timesTaken(placeB, 0x0702) == 1; });
    journal.expect(done && result == 0 && journal.fillers(nullModem::A_TO_B) == 1,
                   "both messages received, the filler passed over");
}

void demoScenario::garbageOnTheLine()
{
    journal.heading("8. Garbage on the line, the beginning of a message with a wrong header among it");
    piece const garbage{piece::OTHER, {0x13, 0x55, 0xFF, 0x81, 0x21, 0x43, 0x02, 0x00, 0x40, 0x00, 0x12, 0x34}};
    journal.line(nullModem::A_TO_B, garbage, "garbage");
    modem.inject(nullModem::A_TO_B, garbage.image);
    auto const errors = [&] { return journal.timesLogged(placeB, "Header Checksum ERROR Detected"); };
    journal.waitUntil([&] { return errors() == 1; });
    journal.expect(errors() == 1, "the receiver has logged the wrong header");
    tracked(a, nullModem::A_TO_B, placeB, 0x0801);
}

void demoScenario::stopBoth()
{
    journal.heading("9. The end");
    bool const stoppedA = a.stop();
    bool const stoppedB = b.stop();
    journal.expect(stoppedA && stoppedB, "both ports have stopped");
}

} // namespace examples
