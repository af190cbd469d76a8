// Who writes when: replies, resends and acknowledgements beside a queue that is full, on a line that takes its time.

#include "callOnThread.h"
#include "checkpoint.h"
#include "emulatedLine.h"
#include "farEnd.h"
#include "frames.h"
#include "messages.h"
#include "oneProcessor.h"
#include "patience.h"
#include "portOnLine.h"
#include "resendingPort.h"
#include "serialPortOnLine.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace
{

using kit::bytes;
using kit::emulatedLine;
using kit::frame;
using kit::lineAt;
using kit::lineTraits;
using kit::message;
using kit::unless;

constexpr double ROUNDING_SEC = 1e-5;
constexpr double LEAD_SEC = 0.002;

/// A port whose device has a line behind its driver.
struct portOnEmulatedLine : kit::portOnLine<>
{
    portOnEmulatedLine(lineTraits const& traits, unsigned speed) : driver(traits)
    {
        EXPECT_EQ(port.configurePort(speed, 8U, PARITY_NONE, 1U, 0U, 1.5, 0.6, 5U), 0);
    }
    ~portOnEmulatedLine()
    {
        driver.letFlow();
        port.stop();
    }
    portOnEmulatedLine(portOnEmulatedLine const&) = delete;
    portOnEmulatedLine& operator=(portOnEmulatedLine const&) = delete;

    emulatedLine driver;
    kit::systemReplaced replaced{driver};
};

std::uint16_t idOf(bytes const& image)
{
    return static_cast<std::uint16_t>(image.at(2) + 256 * image.at(3));
}

/// Each message lasts 0.21 s and is acknowledged when its last character has arrived. Together they last longer than
/// the time-out, which counts from each message's own time on the line.
std::string exchangeOnAPerfectLine()
{
    constexpr std::uint16_t COUNT = 12;
    portOnEmulatedLine rig(lineAt(4800), 4800);
    EXPECT_TRUE(rig.port.start());
    for (std::uint16_t id = 1; id <= COUNT; ++id)
    {
        rig.port.sendMessage(message(id, gssipMessage::ACK_REQ_FLAG, std::vector<std::uint16_t>(45, id)), true);
    }
    kit::callOnThread<int> acknowledgements([&] {
        gssipMessage received;
        return rig.port.getMessage(received, true);
    });
    bool inOrder = true;
    for (std::uint16_t each = 1; each <= COUNT; ++each)
    {
        bytes const image = rig.line.read(102);
        inOrder = inOrder && image.size() == 102 && idOf(image) == each;
        std::this_thread::sleep_for(std::chrono::duration<double>(rig.driver.backlog_sec()));
        rig.line.write(frame(each, 0x8800));
    }
    bool const settled = rig.waitForPending(0);
    bool const once = rig.line.readUntilQuiet(std::chrono::milliseconds(300)).empty();
    rig.port.stop();
    EXPECT_EQ(acknowledgements.get(), -1);
    return unless(inOrder, "each comes once, in order") + unless(settled, "all are acknowledged") +
           unless(once, "nothing is sent twice");
}

TEST(DeviceTurns, TrackedMessagesOnAPerfectLine_AreDeliveredOnce)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime(exchangeOnAPerfectLine), "");
}

std::string replyBesideAQueue()
{
    constexpr std::uint16_t COUNT = 10;
    portOnEmulatedLine rig(lineAt(4800), 4800);
    EXPECT_TRUE(rig.port.start());
    for (std::uint16_t id = 1; id <= COUNT; ++id)
    {
        rig.port.sendMessage(message(id, 0, std::vector<std::uint16_t>(45, id)), false);
    }
    EXPECT_TRUE(kit::waitUntil([&] { return rig.driver.handOvers().size() >= 3; }));

    gssipMessage request = message(77, gssipMessage::ACK_REQ_FLAG);
    request.setHeaderChecksum();
    std::size_t const sentBefore = rig.driver.handOvers().size();
    EXPECT_EQ(rig.port.sendAcknowledgement(request), 0U);
    rig.port.clearTransmitQueue();
    std::vector<emulatedLine::handOver> const handOvers = rig.driver.handOvers();

    auto const reply = std::find_if(handOvers.begin(), handOvers.end(),
                                    [](emulatedLine::handOver const& each) { return each.count == 10; });
    EXPECT_NE(reply, handOvers.end());
    auto const place = static_cast<std::size_t>(reply - handOvers.begin());
    EXPECT_LE(reply->backlog_sec, LEAD_SEC + ROUNDING_SEC);
    return unless(place <= sentBefore + 1, "only a message that waits for the line already goes before") +
           unless(place < COUNT, "messages are left that it can overtake");
}

TEST(DeviceTurns, Reply_OvertakesQueuedMessages)
{
    EXPECT_EQ(kit::whatIsWrongEveryTime(replyBesideAQueue), "");
}

/// Neither the writer's lock nor the tracker's is held for ever.
TEST(DeviceTurns, LineThatStands_LetsWriterAndTrackerGo)
{
    lineTraits traits = lineAt(115200);
    traits.startsHeld = true;
    traits.ring = 40;
    portOnEmulatedLine rig(traits, 115200);
    rig.port.setAcknowledgeTimeout_sec(0.0);
    ASSERT_TRUE(rig.port.start());
    gssipMessage fills = message(1, gssipMessage::ACK_REQ_FLAG, std::vector<std::uint16_t>(22, 1));
    ASSERT_EQ(rig.port._gssipSend(fills), 0) << "56 bytes: what ring and hardware hold";

    gssipMessage pending = message(2, gssipMessage::ACK_REQ_FLAG);
    ASSERT_EQ(rig.port.sendAckReq.processSendAckRequest(pending), 0);
    ASSERT_TRUE(kit::waitUntil([&] {
        return pthread_mutex_trylock(&rig.port.sendMutex) == EBUSY ||
               (pthread_mutex_unlock(&rig.port.sendMutex), false);
    })) << "the tracker resends";

    gssipMessage behind = message(3);
    EXPECT_EQ(rig.port._gssipSend(behind), ETIMEDOUT);
    rig.port.sendAckReq.clearQueue();
    EXPECT_TRUE(rig.events().empty());
}

/// A driver that takes its time over each marked message, and counts those that go before a latecomer's.
class watchedDriver : public kit::systemCalls
{
  public:
    static constexpr std::size_t MARK = 10;
    static inline thread_local bool isLatecomer = false;

    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        if (count == MARK)
        {
            isLatecomer ? passLatecomer() : passBusyWriter();
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        return systemCalls::write(descriptor, data, count);
    }

    /// Holds the next busy writer, with every lock that it has; counting begins with the one after it.
    void holdNext(kit::checkpoint& atPlace)
    {
        written = 0;
        place = &atPlace;
    }

    std::atomic<std::size_t> beforeLatecomer{0};

  private:
    void passLatecomer() { beforeLatecomer = written.load(); }

    void passBusyWriter()
    {
        if (kit::checkpoint* const held = place.exchange(nullptr); held != nullptr)
        {
            written = 0;
            held->pass();
        }
        else
        {
            ++written;
        }
    }

    std::atomic<std::size_t> written{0};
    std::atomic<kit::checkpoint*> place{nullptr};
};

/// The most messages of a thread that writes again and again that go before the one of a thread that has been waiting
/// for its turn since the message before them.
template <typename Write>
std::size_t timesOvertaken(watchedDriver& driver, Write const& write)
{
    std::atomic<bool> stopped{false};
    kit::callOnThread<int> busy([&] {
        while (!stopped)
        {
            write();
        }
        return 0;
    });
    std::size_t most = 0;
    for (int round = 0; round < 10; ++round)
    {
        kit::checkpoint held;
        driver.holdNext(held);
        held.awaitArrival();
        kit::callOnThread<int> latecomer([&] {
            watchedDriver::isLatecomer = true;
            write();
            return 0;
        });
        latecomer.awaitAsleep();
        held.letGo();
        latecomer.get();
        most = std::max<std::size_t>(most, driver.beforeLatecomer);
    }
    stopped = true;
    busy.get();
    return most;
}

TEST(DeviceTurns, WriterOnTheDevice_WaitsForOneMessageOnly)
{
    watchedDriver driver;
    kit::systemReplaced const replaced(driver);
    kit::serialPortOnLine device;
    ASSERT_EQ(device.port.open(), 0);
    kit::farEnd const far(device.line);
    bytes const data(watchedDriver::MARK, 0x55);
    std::size_t const most = timesOvertaken(driver, [&] {
        unsigned sent = 0;
        EXPECT_EQ(device.port.send(data.data(), watchedDriver::MARK, sent), 0);
    });
    EXPECT_EQ(most, 0U);
}

TEST(DeviceTurns, WriterOfAFrame_WaitsForOneMessageOnly)
{
    watchedDriver driver;
    kit::systemReplaced const replaced(driver);
    kit::portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    kit::farEnd const far(rig.line);
    std::size_t const most = timesOvertaken(driver, [&] {
        gssipMessage shortest = message(1);
        EXPECT_EQ(rig.port._gssipSend(shortest), 0);
    });
    EXPECT_EQ(most, 0U);
}

/// Every event is overdue: without turns the event thread would resend them all before an acknowledgement counts.
/// On one processor a thread that lets go of the lock and takes it again is always faster than one that has to be
/// woken.
TEST(DeviceTurns, Acknowledgement_DoesNotWaitBehindResends)
{
    kit::onOneProcessor const together;
    constexpr std::uint16_t COUNT = 3000;
    kit::portOnLine<kit::resendingPort> rig;
    rig.port.writes = false;
    std::atomic<std::size_t> resends{0};
    rig.port.onResend = [&] {
        ++resends;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    };
    ASSERT_TRUE(rig.port.start());
    rig.port.setAcknowledgeTimeout_sec(0.0);
    {
        sentry const lock(rig.tracker().eventQMutex);
        for (std::uint16_t id = 0; id < COUNT; ++id)
        {
            gssipSendAckReqEvent event;
            event.message = message(id, gssipMessage::ACK_REQ_FLAG);
            event.absTimeout.tv_sec = 1;
            event.eventId = id;
            rig.tracker().eventQ.push_back(event);
        }
        pthread_cond_signal(&rig.tracker().eventQCond);
    }
    std::vector<std::size_t> waited;
    for (std::uint16_t id = COUNT - 1; id > COUNT - 12; --id)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::size_t const before = resends;
        bool handled = false;
        EXPECT_EQ(rig.port.sendAckReq.processReceiveAckNak(gssipMessage(id, 0x8800, 0), handled), 0);
        EXPECT_TRUE(handled);
        waited.push_back(resends - before);
    }
    ASSERT_LT(resends, COUNT) << "nothing was left to resend";
    std::nth_element(waited.begin(), waited.begin() + 5, waited.end());
    EXPECT_LE(waited[5], 3U);
    rig.port.sendAckReq.clearQueue();
}

/// Takes a few bytes at a time.
class haltingDriver : public kit::systemCalls
{
  public:
    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        bool const isEvent = count == sizeof(std::uint64_t);
        return systemCalls::write(descriptor, data, isEvent ? count : std::min<std::size_t>(count, 7));
    }
};

TEST(DeviceTurns, FramesAndRawBytes_NeverMix)
{
    haltingDriver driver;
    kit::systemReplaced const replaced(driver);
    kit::portOnLine<> rig;
    ASSERT_EQ(rig.port.serial.open(), 0);
    constexpr int TIMES = 100;
    bytes const raw(40, 0xAA);
    bytes const image = frame(9, 0, std::vector<std::uint16_t>(30, 0x5555));
    kit::callOnThread<int> rawSender([&] {
        int status = 0;
        for (int times = 0; times < TIMES; ++times)
        {
            unsigned sent = 0;
            status |= rig.port.send(raw.data(), 40U, sent);
        }
        return status;
    });
    kit::callOnThread<int> frameSender([&] {
        int status = 0;
        gssipMessage framed = message(9, 0, std::vector<std::uint16_t>(30, 0x5555));
        for (int times = 0; times < TIMES; ++times)
        {
            status |= rig.port._gssipSend(framed);
        }
        return status;
    });
    int frames = 0;
    for (int each = 0; each < 2 * TIMES; ++each)
    {
        bytes next = rig.line.read(raw.size());
        if (next != raw)
        {
            bytes const rest = rig.line.read(image.size() - raw.size());
            next.insert(next.end(), rest.begin(), rest.end());
            ASSERT_EQ(next, image);
            ++frames;
        }
    }
    EXPECT_EQ(frames, TIMES);
    EXPECT_EQ(rawSender.get(), 0);
    EXPECT_EQ(frameSender.get(), 0);
}

} // namespace
