#include "callOnThread.h"
#include "checkpoint.h"
#include "processState.h"
#include "serialPortOnLine.h"
#include "stopwatch.h"
#include "systemCalls.h"
#include "threadCalls.h"
#include "waitUntil.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using kit::bytes;
using std::chrono::milliseconds;

class SerialPortLife : public testing::Test, protected kit::serialPortOnLine
{};

TEST_F(SerialPortLife, NewObject_IsClosedAndTouchesNothing)
{
    EXPECT_FALSE(port.isOpen());
    EXPECT_FALSE(kit::holdsOpen(line.name()));
}

TEST_F(SerialPortLife, OpenAndClose_MayBeRepeated)
{
    EXPECT_EQ(port.close(), 0) << "closed already";
    for (int times = 0; times < 3; ++times)
    {
        EXPECT_EQ(port.open(), 0);
        EXPECT_TRUE(port.isOpen());
        EXPECT_EQ(port.open(), 0) << "open already";
        EXPECT_TRUE(port.isOpen());
        EXPECT_TRUE(kit::holdsOpen(line.name()));

        EXPECT_EQ(port.close(), 0);
        EXPECT_FALSE(port.isOpen());
        EXPECT_EQ(port.close(), 0);
        EXPECT_FALSE(kit::holdsOpen(line.name()));
    }
}

TEST_F(SerialPortLife, Reopened_WorksAsBefore)
{
    for (std::uint8_t times = 0; times < 20; ++times)
    {
        ASSERT_EQ(port.open(), 0);
        ASSERT_EQ(send({times, 1}).status, 0);
        EXPECT_EQ(line.read(2), (bytes{times, 1}));
        line.write({times, 2});
        EXPECT_EQ(receiveAll(2), (bytes{times, 2}));
        ASSERT_EQ(port.close(), 0);
    }
}

TEST_F(SerialPortLife, SendOnAClosedDevice_IsRefused)
{
    for (int times = 0; times < 2; ++times)
    {
        kit::transfer const refused = send({1, 2, 3});
        EXPECT_EQ(refused.status, EBADF);
        EXPECT_EQ(refused.count, 0U);
        ASSERT_EQ(port.open(), 0);
        ASSERT_EQ(port.close(), 0);
    }
    EXPECT_EQ(line.readUntilQuiet(), bytes{});
}

TEST_F(SerialPortLife, SendOnAClosedDevice_DoesNotAnnounceItsFirstByte)
{
    unsigned calls = 0;
    unsigned sent = 7;
    bytes const data{1};
    EXPECT_EQ(port.send(data.data(), 1, sent, [&] { ++calls; }), EBADF);
    EXPECT_EQ(calls, 0U);
    EXPECT_EQ(sent, 0U);
}

TEST_F(SerialPortLife, ReceiveOnAClosedDevice_IsRefused)
{
    kit::transfer const refused = receive();
    EXPECT_EQ(refused.status, EBADF);
    EXPECT_EQ(refused.count, 0U);
}

TEST_F(SerialPortLife, Close_LeavesTheDevicesSettingsAlone)
{
    int const keptAlive = ::open(line.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(keptAlive, 0);
    ASSERT_EQ(port.setSpeed(19200U), 0);
    ASSERT_EQ(port.setStopBits(2U), 0);
    ASSERT_EQ(port.setVminVtime(7, 3), 0);
    ASSERT_EQ(port.open(), 0);
    termios const before = line.settings();
    ASSERT_EQ(port.close(), 0);
    termios const after = line.settings();

    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_ospeed, before.c_ospeed);
    EXPECT_TRUE(std::equal(std::begin(after.c_cc), std::end(after.c_cc), std::begin(before.c_cc)));
    ::close(keptAlive);
}

TEST_F(SerialPortLife, Destructor_ClosesTheDevice)
{
    {
        serialPort shortLived(line.name(), log);
        ASSERT_EQ(shortLived.open(), 0);
        EXPECT_TRUE(kit::holdsOpen(line.name()));
    }
    EXPECT_FALSE(kit::holdsOpen(line.name()));
    EXPECT_EQ(port.open(), 0);
}

TEST_F(SerialPortLife, Close_EndsABlockedReceiveWithNothing)
{
    for (int times = 0; times < 20; ++times)
    {
        ASSERT_EQ(port.open(), 0);
        kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
        receiving.awaitAsleep();
        EXPECT_FALSE(receiving.hasEnded());
        EXPECT_EQ(port.close(), 0);
        kit::transfer const ended = receiving.get();
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.count, 0U);
    }
}

TEST_F(SerialPortLife, CloseAtAnyMoment_EndsAReceiveThatIsAboutToBlock)
{
    for (int times = 0; times < 300; ++times)
    {
        serialPort fresh(line.name(), log); // whose failures are not held back
        ASSERT_EQ(fresh.open(), 0);
        kit::callOnThread<kit::transfer> receiving([&fresh] {
            kit::transfer result;
            bytes const buffer(10);
            result.status = fresh.receive(buffer.data(), 10, result.count);
            return result;
        });
        if (times % 3 != 0)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(times));
        }
        EXPECT_EQ(fresh.close(), 0);
        kit::transfer const ended = receiving.get();
        EXPECT_TRUE(ended.status == 0 || ended.status == EBADF) << ended.status;
        EXPECT_EQ(ended.count, 0U);
    }
}

TEST_F(SerialPortLife, CloseOfAQuietDevice_TakesNoTime)
{
    double quickest_sec = 1.0;
    for (int times = 0; times < 10; ++times)
    {
        ASSERT_EQ(port.open(), 0);
        ASSERT_EQ(send({1}).status, 0);
        EXPECT_EQ(line.read(1), bytes{1});
        kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
        receiving.awaitAsleep();
        kit::stopwatch const watch;
        EXPECT_EQ(port.close(), 0);
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.05);
}

TEST_F(SerialPortLife, NumberReusedByAnotherFile_IsNotReadByTheReceiveThatCloseEnded)
{
    for (int times = 0; times < 20; ++times)
    {
        ASSERT_EQ(port.open(), 0);
        kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
        receiving.awaitAsleep();
        ASSERT_EQ(port.close(), 0);

        std::array<std::array<int, 2>, 4> pipes{};
        for (auto& each : pipes)
        {
            ASSERT_EQ(pipe2(each.data(), O_CLOEXEC), 0);
            ASSERT_EQ(::write(each[1], "no", 2), 2);
        }
        kit::transfer const ended = receiving.get();
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.count, 0U);
        for (auto const& each : pipes)
        {
            ::close(each[0]);
            ::close(each[1]);
        }
    }
}

/// A system that has no memory for waiting, once that is asked of it.
class unableToWait : public kit::systemCalls
{
  public:
    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        if (fails)
        {
            errno = ENOMEM;
            return -1;
        }
        return systemCalls::ppoll(descriptors, count, limit, signals);
    }

    std::atomic<bool> fails{false};
};

TEST_F(SerialPortLife, WaitThatFails_IsAnErrorAndDoesNotHoldUpClose)
{
    unableToWait system;
    kit::systemReplaced const replaced(system);
    ASSERT_EQ(port.open(), 0);
    system.fails = true;
    EXPECT_EQ(receive().status, EIO);
    kit::callOnThread<kit::transfer> heldBack([this] { return receive(); });
    heldBack.awaitAsleep();
    EXPECT_EQ(port.close(), 0);
    EXPECT_TRUE(heldBack.endsWithin(std::chrono::seconds(10)));
}

/// Keeps whoever waits on a descriptor inside for a while after its wait has ended, and then looks.
class slowToLeave : public kit::systemCalls
{
  public:
    explicit slowToLeave(std::string deviceName) : name(std::move(deviceName)) {}

    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        int const result = systemCalls::ppoll(descriptors, count, limit, signals);
        std::this_thread::sleep_for(milliseconds(50));
        deviceWasOpen = kit::holdsOpen(name);
        return result;
    }

    std::atomic<bool> deviceWasOpen{false};

  private:
    std::string const name;
};

TEST_F(SerialPortLife, Close_LeavesTheDescriptorOpenWhileAReceiveIsInside)
{
    slowToLeave system(line.name());
    kit::systemReplaced const replaced(system);
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    EXPECT_EQ(port.close(), 0);
    EXPECT_EQ(receiving.get().status, 0);
    EXPECT_TRUE(system.deviceWasOpen) << "its number could have been another file's by then";
    EXPECT_FALSE(kit::holdsOpen(line.name()));
}

TEST_F(SerialPortLife, Close_CutsABlockedSendOff)
{
    ASSERT_EQ(port.open(), 0);
    bytes const message = kit::patternOf(100000);
    kit::callOnThread<kit::transfer> sending([&] { return send(message); });
    sending.awaitAsleep();
    EXPECT_FALSE(sending.hasEnded());

    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    kit::transfer const cut = sending.get();
    EXPECT_LT(watch.elapsed_sec(), 10.0);
    EXPECT_EQ(cut.status, EBADF);
    ASSERT_GT(cut.count, 0U);
    ASSERT_LT(cut.count, message.size());
    EXPECT_EQ(line.readUntilQuiet(), bytes(message.data(), message.data() + cut.count));
}

TEST_F(SerialPortLife, Close_GrantsAFlowingSendTheTimeItNeeds)
{
    ASSERT_EQ(port.open(), 0);
    bytes const message = kit::patternOf(20000);
    std::atomic<bool> closing{false};
    kit::callOnThread<kit::transfer> sending([&] { return send(message); });
    sending.awaitAsleep();
    kit::callOnThread<bytes> reader([&] {
        kit::waitUntil([&] { return closing.load(); });
        bytes all;
        for (bytes next{0}; all.size() < message.size() && !next.empty();)
        {
            std::this_thread::sleep_for(milliseconds(5));
            next = line.read(std::min<std::size_t>(5000, message.size() - all.size()), milliseconds(2000));
            all.insert(all.end(), next.begin(), next.end());
        }
        return all;
    });
    closing = true;
    EXPECT_EQ(port.close(), 0);

    EXPECT_EQ(sending.get().status, 0);
    EXPECT_EQ(reader.get(), message);
}

TEST_F(SerialPortLife, CloseOfALineThatFlowsForEver_TakesAboutTwoSeconds)
{
    ASSERT_EQ(port.open(), 0);
    std::atomic<bool> stop{false};
    std::atomic<std::size_t> arrived{0};
    kit::callOnThread<bool> reader([&] {
        while (!stop)
        {
            arrived += line.read(400, milliseconds(1)).size();
            std::this_thread::sleep_for(milliseconds(1));
        }
        return true;
    });
    std::thread sender([this] {
        kit::transfer const cut = send(kit::patternOf(4000000));
        EXPECT_EQ(cut.status, EBADF);
        EXPECT_LT(cut.count, 4000000U);
    });
    EXPECT_TRUE(kit::waitUntil([&] { return arrived > 20000; })) << "it has to flow";
    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    double const needed_sec = watch.elapsed_sec();
    sender.join();
    stop = true;
    EXPECT_LT(needed_sec, 8.0);
}

TEST_F(SerialPortLife, SendersThatQueueWhenTheDeviceIsClosed_AreTurnedAway)
{
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> blocked([this] { return send(kit::patternOf(100000)); });
    blocked.awaitAsleep();
    kit::callOnThread<kit::transfer> queued([this] { return send({1}); });
    queued.awaitAsleep();
    EXPECT_EQ(port.close(), 0);

    EXPECT_EQ(blocked.get().status, EBADF);
    EXPECT_EQ(queued.get().status, EBADF);
}

TEST_F(SerialPortLife, InterruptReceive_EndsTheOneUnderWay)
{
    ASSERT_EQ(port.open(), 0);
    for (int times = 0; times < 20; ++times)
    {
        kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
        receiving.awaitAsleep();
        EXPECT_FALSE(receiving.hasEnded());
        port.interruptReceive();
        kit::transfer const ended = receiving.get();
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.count, 0U);
        EXPECT_TRUE(port.isOpen());
    }
}

TEST_F(SerialPortLife, InterruptReceiveWithNoneUnderWay_EndsTheNextOnly)
{
    ASSERT_EQ(port.open(), 0);
    port.interruptReceive();
    kit::transfer const ended = receive();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.count, 0U);

    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    EXPECT_FALSE(receiving.hasEnded());
    line.write({3});
    EXPECT_EQ(receiving.get().data, bytes{3});
}

TEST_F(SerialPortLife, InterruptReceive_LosesNoByte)
{
    ASSERT_EQ(port.open(), 0);
    std::atomic<bool> stop{false};
    kit::callOnThread<bool> interrupter([&] {
        while (!stop)
        {
            port.interruptReceive();
            std::this_thread::sleep_for(milliseconds(2));
        }
        return true;
    });
    bytes const sent = kit::patternOf(2000);
    kit::callOnThread<bool> writer([&] {
        for (std::uint8_t const each : sent)
        {
            line.write({each});
        }
        return true;
    });
    bytes all;
    kit::stopwatch const watch;
    while (all.size() < sent.size() && watch.elapsed_sec() < 20.0)
    {
        kit::transfer const next = receive();
        EXPECT_EQ(next.status, 0);
        all.insert(all.end(), next.data.begin(), next.data.end());
    }
    stop = true;
    EXPECT_EQ(all, sent);
}

/// An adapter that holds bytes which it neither sends nor drops, so that its close blocks.
class stuckAdapter : public kit::systemCalls
{
  public:
    stuckAdapter(std::string deviceName, bool queueCanBeDropped)
        : name(std::move(deviceName)), droppable(queueCanBeDropped)
    {}

    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        if (request == TIOCOUTQ)
        {
            *static_cast<int*>(argument) = queued;
            return 0;
        }
        if (request == TCFLSH && droppable)
        {
            queued = 0;
        }
        return systemCalls::ioctl(descriptor, request, argument);
    }

    int close(int descriptor) override
    {
        if (!isTheDevice(descriptor))
        {
            return systemCalls::close(descriptor);
        }
        closingThread = gettid();
        while (queued != 0)
        {
            std::this_thread::sleep_for(milliseconds(1));
        }
        int const result = systemCalls::close(descriptor);
        isClosed = true;
        return result;
    }

    std::atomic<int> queued{3000};
    std::atomic<pid_t> closingThread{0};
    std::atomic<bool> isClosed{false}; ///< from then on the closing thread does not come here any more

  private:
    bool isTheDevice(int descriptor) const
    {
        std::error_code none;
        return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none) == name;
    }

    std::string const name;
    bool const droppable;
};

TEST_F(SerialPortLife, CloseOfAnAdapterThatKeepsItsBytes_IsFinishedByAnotherThread)
{
    stuckAdapter adapter(line.name(), false);
    kit::systemReplaced const replaced(adapter);
    kit::threadWatch const threads;
    ASSERT_EQ(port.open(), 0);
    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    EXPECT_LT(watch.elapsed_sec(), 10.0);
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(port.open(), EBUSY) << "the driver has not let go yet";
    EXPECT_EQ(send({1}).status, EBADF);
    EXPECT_TRUE(kit::waitUntil([&] { return adapter.closingThread != 0; }));
    EXPECT_NE(adapter.closingThread, gettid());
    EXPECT_EQ(threads.added().size(), 1U);
    for (kit::threadState const& thread : threads.added())
    {
        EXPECT_NE(thread.blockedSignals & (std::uint64_t{1} << (SIGTERM - 1)), 0U) << "signals are the application's";
    }

    adapter.queued = 0;
    EXPECT_TRUE(kit::waitUntil([&] { return adapter.isClosed.load(); }));
    EXPECT_TRUE(kit::waitUntil([this] { return port.open() == 0; }));
    EXPECT_EQ(port.close(), 0);
    EXPECT_TRUE(threads.waitForAdded(0));
}

TEST_F(SerialPortLife, ObjectDestroyedWhileItsAdapterStillCloses_LeavesNothingBehind)
{
    stuckAdapter adapter(line.name(), false);
    kit::systemReplaced const replaced(adapter);
    kit::threadWatch const threads;
    {
        serialPort shortLived(line.name(), log);
        ASSERT_EQ(shortLived.open(), 0);
    }
    EXPECT_TRUE(kit::holdsOpen(line.name()));
    adapter.queued = 0;
    EXPECT_TRUE(kit::waitUntil([&] { return adapter.isClosed.load(); }));
    EXPECT_TRUE(threads.waitForAdded(0));
    EXPECT_FALSE(kit::holdsOpen(line.name()));
}

/// A system that has no thread for one of its callers.
class noThreadForOne : public kit::threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        return gettid() == refused ? EAGAIN : threadCalls::create(thread, attributes, entry, argument);
    }

    std::atomic<pid_t> refused{0};
};

TEST_F(SerialPortLife, CloseOfAnAdapterWithoutAHelper_IsFinishedByTheCaller)
{
    stuckAdapter adapter(line.name(), false);
    kit::systemReplaced const replaced(adapter);
    noThreadForOne threads;
    kit::threadCallsReplaced const threadsReplaced(threads);
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<int> closing([&] {
        threads.refused = gettid();
        return port.close();
    });
    EXPECT_TRUE(kit::waitUntil([&] { return adapter.closingThread != 0; }));
    EXPECT_EQ(adapter.closingThread, threads.refused);
    EXPECT_FALSE(closing.hasEnded());
    adapter.queued = 0;
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(port.open(), 0) << "nobody is closing it any more";
}

/// Closes every file, and tells something else of one device.
class lyingClose : public kit::systemCalls
{
  public:
    lyingClose(std::string deviceName, int errorNumber) : name(std::move(deviceName)), error(errorNumber) {}

    int close(int descriptor) override
    {
        std::error_code none;
        bool const isTheDevice =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), none) == name;
        int const result = systemCalls::close(descriptor);
        if (isTheDevice)
        {
            errno = error;
            return -1;
        }
        return result;
    }

  private:
    std::string const name;
    int const error;
};

TEST_F(SerialPortLife, CloseThatFails_IsToldAndTheDeviceIsClosed)
{
    lyingClose system(line.name(), EIO);
    kit::systemReplaced const replaced(system);
    for (int times = 0; times < 2; ++times)
    {
        ASSERT_EQ(port.open(), 0);
        EXPECT_EQ(port.close(), EIO);
        EXPECT_FALSE(port.isOpen());
        EXPECT_FALSE(kit::holdsOpen(line.name()));
        EXPECT_EQ(port.close(), 0) << "closed already";
    }
}

TEST_F(SerialPortLife, CloseThatIsInterrupted_IsNoFailure)
{
    lyingClose system(line.name(), EINTR);
    kit::systemReplaced const replaced(system);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(port.close(), 0);
    EXPECT_FALSE(port.isOpen());
}

/// Takes one byte of a message, late, and counts the wake-ups that others give meanwhile.
class lateDriver : public kit::systemCalls
{
  public:
    static constexpr std::size_t LENGTH = 100;

    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        wakeUps += count == sizeof(std::uint64_t) ? 1 : 0;
        if (count != LENGTH)
        {
            return systemCalls::write(descriptor, data, count);
        }
        place.pass();
        return systemCalls::write(descriptor, data, 1);
    }

    kit::checkpoint place;
    std::atomic<int> wakeUps{0};
};

TEST_F(SerialPortLife, SenderThatIsCutOffDuringAWrite_BeginsNoOther)
{
    lateDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> sending([this] { return send(bytes(lateDriver::LENGTH, 7)); });
    driver.place.awaitArrival();
    kit::callOnThread<int> closing([this] { return port.close(); });
    EXPECT_TRUE(kit::waitUntil([&] { return driver.wakeUps == 2; })) << "of readers, and then of writers: the cut";
    driver.place.letGo();
    kit::transfer const cut = sending.get();
    EXPECT_EQ(cut.status, EBADF);
    EXPECT_EQ(cut.count, 1U);
    EXPECT_EQ(closing.get(), 0);
    EXPECT_EQ(line.readUntilQuiet(), bytes{7});
}

TEST_F(SerialPortLife, CloseOfABlockedLine_DropsWhatTheDriverHolds)
{
    stuckAdapter uart(line.name(), true);
    kit::systemReplaced const replaced(uart);
    kit::threadWatch const threads;
    ASSERT_EQ(port.open(), 0);
    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    EXPECT_LT(watch.elapsed_sec(), 10.0);
    EXPECT_EQ(uart.queued, 0);
    EXPECT_EQ(uart.closingThread, gettid());
    EXPECT_TRUE(threads.added().empty());
    EXPECT_EQ(port.open(), 0) << "nothing may be left to wait for";
}

TEST_F(SerialPortLife, FailureAfterManyReopenings_IsHeldBackNoLongerThanAnyOther)
{
    std::atomic<bool> stop{false};
    kit::callOnThread<int> failing([&] {
        int last = 0;
        while (!stop || last != EBADF)
        {
            last = receive().status; // each close lets it fail, and each open ends its pause
        }
        return last;
    });
    for (int each = 0; each < 1000; ++each)
    {
        ASSERT_EQ(port.open(), 0);
        ASSERT_EQ(port.close(), 0);
    }
    stop = true;
    EXPECT_TRUE(failing.endsWithin(std::chrono::seconds(10)));
    EXPECT_EQ(failing.get(), EBADF);
}

TEST_F(SerialPortLife, OpenAndCloseOfSeveralThreads_AreServedInTurn)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int each = 0; each < 2; ++each)
    {
        threads.emplace_back([&] {
            while (!stop)
            {
                EXPECT_EQ(port.open(), 0);
                EXPECT_EQ(port.close(), 0);
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop)
        {
            kit::transfer const result = send({0x55});
            EXPECT_TRUE(result.status == 0 || result.status == EBADF) << result.status;
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    threads.emplace_back([&] {
        while (!stop)
        {
            kit::transfer const result = receive();
            EXPECT_TRUE(result.status == 0 || result.status == EBADF) << result.status;
        }
    });
    std::this_thread::sleep_for(milliseconds(500));
    stop = true;
    port.interruptReceive();
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(port.close(), 0);
    EXPECT_FALSE(kit::holdsOpen(line.name()));
}

} // namespace
