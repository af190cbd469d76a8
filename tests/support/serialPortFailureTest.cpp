#include "callOnThread.h"
#include "serialPortOnLine.h"
#include "stopwatch.h"
#include "systemCalls.h"
#include "temporaryFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <vector>

namespace
{

using kit::bytes;

class SerialPortFailure : public testing::Test, protected kit::serialPortOnLine
{
  protected:
    kit::temporaryFolder folder;
};

TEST_F(SerialPortFailure, HangUp_IsAnErrorOfReceiveAndSendUntilClose)
{
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    line.hangUp();

    kit::transfer const ended = receiving.get();
    EXPECT_EQ(ended.status, EIO);
    EXPECT_EQ(ended.count, 0U);
    EXPECT_TRUE(port.isOpen());
    kit::transfer const failed = send({1, 2});
    EXPECT_EQ(failed.status, EIO);
    EXPECT_EQ(failed.count, 0U);
    EXPECT_TRUE(port.isOpen());

    EXPECT_EQ(port.close(), 0);
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(port.open(), ENOENT);
}

TEST_F(SerialPortFailure, HangUpWithVmin0_IsNotTakenForSilence)
{
    ASSERT_EQ(port.setVminVtime(0, 1), 0);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(receive().status, 0) << "nothing has come, that is all";
    line.hangUp();
    EXPECT_EQ(receive().status, EIO);
}

TEST_F(SerialPortFailure, BytesBeforeAHangUp_DoNotHideIt)
{
    ASSERT_EQ(port.setVminVtime(10, 255), 0);
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    line.write({1, 2, 3});
    receiving.awaitAsleep();
    line.hangUp();
    kit::transfer const first = receiving.get();
    if (first.status == 0)
    {
        EXPECT_EQ(first.data, (bytes{1, 2, 3}));
        EXPECT_EQ(receive().status, EIO);
    }
    else
    {
        EXPECT_EQ(first.status, EIO);
    }
}

TEST_F(SerialPortFailure, HangUpInASendThatWaits_EndsIt)
{
    ASSERT_EQ(port.open(), 0);
    kit::callOnThread<kit::transfer> sending([this] { return send(kit::patternOf(100000)); });
    sending.awaitAsleep();
    line.hangUp();
    kit::transfer const ended = sending.get();
    EXPECT_EQ(ended.status, EIO);
    EXPECT_LT(ended.count, 100000U);
}

/// A driver whose reads and writes of a length that nobody else uses are answered by the test, as long as it has
/// answers, and whose waits fail when they are told to.
class answeringDriver : public kit::systemCalls
{
  public:
    static constexpr std::size_t LENGTH = 50;

    /// The result of a call, with errno when it is negative.
    struct answer
    {
        ssize_t result = -1;
        int error = 0;
    };

    ssize_t write(int descriptor, void const* data, std::size_t count) override
    {
        return count == LENGTH && !answers.empty() ? next() : systemCalls::write(descriptor, data, count);
    }

    ssize_t read(int descriptor, void* data, std::size_t capacity) override
    {
        return capacity == LENGTH && !answers.empty() ? next() : systemCalls::read(descriptor, data, capacity);
    }

    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        errno = ENOMEM;
        return waitsFail ? -1 : systemCalls::ppoll(descriptors, count, limit, signals);
    }

    std::deque<answer> answers; ///< to be told before the calls
    bool waitsFail = false;

  private:
    ssize_t next()
    {
        answer const given = answers.front();
        answers.pop_front();
        errno = given.error;
        return given.result;
    }
};

TEST_F(SerialPortFailure, DriverThatTakesNothingWithoutAnError_IsAFailureOfSend)
{
    answeringDriver driver;
    driver.answers = {{0, 0}};
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    kit::transfer const failed = send(bytes(answeringDriver::LENGTH, 1));
    EXPECT_EQ(failed.status, EIO);
    EXPECT_EQ(failed.count, 0U);
    EXPECT_EQ(send(bytes(answeringDriver::LENGTH, 1)).status, 0) << "the next one finds a driver that takes again";
}

TEST_F(SerialPortFailure, WaitForRoomThatFails_IsAFailureOfSend)
{
    answeringDriver driver;
    driver.answers = {{-1, EAGAIN}};
    driver.waitsFail = true;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    EXPECT_EQ(send(bytes(answeringDriver::LENGTH, 1)).status, EIO);
}

TEST_F(SerialPortFailure, WriteThatFails_IsReturnedWithTheNumberWritten)
{
    answeringDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    for (int const error : {ENOSPC, EFBIG, ENODEV})
    {
        driver.answers = {{-1, EINTR}, {-1, error}};
        kit::transfer const failed = send(bytes(answeringDriver::LENGTH, 1));
        EXPECT_EQ(failed.status, error);
        EXPECT_EQ(failed.count, 0U);
        EXPECT_TRUE(driver.answers.empty()) << "interrupted, it is tried again; failed, it is not";
    }
    EXPECT_EQ(line.readUntilQuiet(), bytes{});
}

TEST_F(SerialPortFailure, ReadThatFindsNothingAfterAll_GoesOn)
{
    answeringDriver driver;
    driver.answers = {{-1, EINTR}, {-1, EAGAIN}};
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    line.write({1, 2, 3});
    kit::transfer const result = receive(answeringDriver::LENGTH);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.data, (bytes{1, 2, 3}));
    EXPECT_TRUE(driver.answers.empty());
}

TEST_F(SerialPortFailure, EmptyReadOfALineThatIsThere_IsSilenceWithVmin0)
{
    answeringDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    line.write({1});
    driver.answers = {{0, 0}};
    EXPECT_EQ(receive(answeringDriver::LENGTH).status, EIO) << "with VMIN 1 it means a hang-up";
    ASSERT_EQ(port.setVminVtime(0, 255), 0);
    driver.answers = {{0, 0}};
    kit::transfer const silence = receive(answeringDriver::LENGTH);
    EXPECT_EQ(silence.status, 0);
    EXPECT_EQ(silence.count, 0U);
    EXPECT_EQ(receive(answeringDriver::LENGTH).data, bytes{1});
}

TEST_F(SerialPortFailure, ReadThatFails_IsReturnedAsItIs)
{
    answeringDriver driver;
    driver.answers = {{-1, ENODEV}};
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    line.write({1});
    kit::transfer const result = receive(answeringDriver::LENGTH);
    EXPECT_EQ(result.status, ENODEV);
    EXPECT_EQ(result.count, 0U);
}

/// Waits until bytes have been read, and not again.
class oneWaitDriver : public answeringDriver
{
  public:
    ssize_t read(int descriptor, void* data, std::size_t capacity) override
    {
        waitsFail = capacity == LENGTH;
        return answeringDriver::read(descriptor, data, capacity);
    }
};

TEST_F(SerialPortFailure, WaitThatFailsBehindTheFirstBytes_LosesNoneOfThem)
{
    oneWaitDriver driver;
    kit::systemReplaced const replaced(driver);
    ASSERT_EQ(port.open(), 0);
    ASSERT_EQ(port.setVminVtime(2, 10), 0);
    line.write({1});
    kit::transfer const result = receive(answeringDriver::LENGTH);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.data, bytes{1});
    EXPECT_EQ(receive(answeringDriver::LENGTH).status, EIO);
}

TEST_F(SerialPortFailure, SettingsAfterAHangUp_FailAndLeaveTheFormerOnes)
{
    ASSERT_EQ(port.open(), 0);
    line.hangUp();
    EXPECT_EQ(port.setSpeed(19200U), EIO);
    double seconds = 0.0;
    EXPECT_EQ(port.getByteTransmitTime(seconds), 0);
    EXPECT_DOUBLE_EQ(seconds, 10.0 / 9600.0);
}

TEST_F(SerialPortFailure, DeviceThatCameBack_CanBeOpenedAgain)
{
    std::filesystem::path const name = folder.path / "device";
    auto first = std::make_unique<kit::pseudoTerminal>();
    std::filesystem::create_symlink(first->name(), name);
    serialPort vanishing(name.string(), log);
    ASSERT_EQ(vanishing.open(), 0);
    first->hangUp();
    bytes buffer(10);
    unsigned received = 0;
    EXPECT_EQ(vanishing.receive(buffer.data(), 10, received), EIO);
    EXPECT_EQ(vanishing.close(), 0);
    std::filesystem::remove(name);
    EXPECT_EQ(vanishing.open(), ENOENT);

    kit::pseudoTerminal second;
    std::filesystem::create_symlink(second.name(), name);
    EXPECT_EQ(vanishing.open(), 0);
    second.write({5});
    EXPECT_EQ(vanishing.receive(buffer.data(), 10, received), 0);
    EXPECT_EQ(received, 1U);
    EXPECT_EQ(buffer.front(), 5);
}

/// The processor time of the calling thread.
double processorTime_sec()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    auto const seconds = [](timeval const& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// The times, counted from now, at which `receive` failed while it was called again and again.
std::vector<double> failureTimes(std::function<int()> const& receive, double duration_sec)
{
    std::vector<double> times;
    for (kit::stopwatch const watch; watch.elapsed_sec() < duration_sec;)
    {
        if (receive() != 0)
        {
            times.push_back(watch.elapsed_sec());
        }
    }
    return times;
}

std::ptrdiff_t numberBefore(std::vector<double> const& times, double limit_sec)
{
    return std::count_if(times.begin(), times.end(), [limit_sec](double time) { return time < limit_sec; });
}

TEST_F(SerialPortFailure, ReaderOfADeviceThatIsGone_CostsNextToNothing)
{
    ASSERT_EQ(port.open(), 0);
    line.hangUp();
    double const before_sec = processorTime_sec();
    std::vector<double> const times = failureTimes([this] { return receive().status; }, 2.0);
    double const spent_sec = processorTime_sec() - before_sec;

    EXPECT_GE(times.size(), 3U) << "it is held back, not hidden";
    EXPECT_LE(numberBefore(times, 1.0), 10);
    EXPECT_LE(numberBefore(times, 2.0), 20);
    EXPECT_LT(spent_sec, 0.02);
}

TEST_F(SerialPortFailure, FirstFailure_IsReportedAtOnce)
{
    double quickest_sec = 1.0;
    for (int times = 0; times < 5; ++times)
    {
        kit::serialPortOnLine own;
        kit::stopwatch const watch;
        EXPECT_EQ(own.receive().status, EBADF);
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
    }
    EXPECT_LT(quickest_sec, 0.009) << "ten milliseconds are the shortest pause";
}

TEST_F(SerialPortFailure, FailuresWithoutSuccess_ComeLessAndLessOften)
{
    ASSERT_EQ(port.open(), 0);
    line.hangUp();
    double longest_sec = 0.0;
    for (int times = 0; times < 8; ++times)
    {
        kit::stopwatch const watch;
        EXPECT_EQ(receive().status, EIO);
        longest_sec = std::max(longest_sec, watch.elapsed_sec());
    }
    EXPECT_GE(longest_sec, 0.5);
}

TEST_F(SerialPortFailure, SuccessesBetweenFailures_DoNotRefillTheBudget)
{
    auto const failAndSucceed = [this] {
        int const status = receive().status;
        EXPECT_EQ(status, EBADF);
        EXPECT_EQ(port.open(), 0);
        line.write({1});
        EXPECT_EQ(receive().data, bytes{1});
        EXPECT_EQ(port.close(), 0);
        return status;
    };
    std::vector<double> const times = failureTimes(failAndSucceed, 2.0);
    EXPECT_GE(times.size(), 3U);
    EXPECT_LE(numberBefore(times, 1.0), 10);
    EXPECT_LE(numberBefore(times, 2.0), 20);
}

TEST_F(SerialPortFailure, ReaderOfAClosedDevice_CostsNextToNothingToo)
{
    std::vector<double> const times = failureTimes([this] { return receive().status; }, 1.0);
    EXPECT_GE(times.size(), 3U);
    EXPECT_LE(numberBefore(times, 1.0), 10);
}

/// Reads that fail until there is a pause that nobody could take for the noise of a busy machine.
void failUntilPausesAreLong(kit::serialPortOnLine& own)
{
    for (double longest_sec = 0.0; longest_sec < 0.6;)
    {
        kit::stopwatch const watch;
        EXPECT_NE(own.receive().status, 0);
        longest_sec = watch.elapsed_sec();
    }
}

/// How long a call to receive goes on after the action; the quickest of several times.
double quickestEnd_sec(kit::serialPortOnLine& own, std::function<void()> const& prepare,
                       std::function<void()> const& action)
{
    double quickest_sec = 10.0;
    for (int times = 0; times < 3; ++times)
    {
        prepare();
        kit::callOnThread<kit::transfer> receiving([&] { return own.receive(); });
        receiving.awaitAsleep();
        kit::stopwatch const watch;
        action();
        kit::transfer const ended = receiving.get();
        quickest_sec = std::min(quickest_sec, watch.elapsed_sec());
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.count, 0U);
    }
    return quickest_sec;
}

TEST_F(SerialPortFailure, InterruptReceive_EndsThePauseBetweenFailures)
{
    ASSERT_EQ(port.open(), 0);
    line.hangUp();
    failUntilPausesAreLong(*this);
    EXPECT_LT(quickestEnd_sec(
                  *this, [] {}, [this] { port.interruptReceive(); }),
              0.3);
}

TEST_F(SerialPortFailure, Close_EndsThePauseBetweenFailures)
{
    ASSERT_EQ(port.open(), 0);
    line.hangUp();
    failUntilPausesAreLong(*this);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    kit::stopwatch const watch;
    EXPECT_EQ(port.close(), 0);
    kit::transfer const ended = receiving.get();
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.count, 0U);
    EXPECT_LT(watch.elapsed_sec(), 0.5);
}

TEST_F(SerialPortFailure, Open_EndsThePauseBetweenFailures)
{
    failUntilPausesAreLong(*this);
    kit::callOnThread<kit::transfer> receiving([this] { return receive(); });
    receiving.awaitAsleep();
    kit::stopwatch const watch;
    ASSERT_EQ(port.open(), 0);
    line.write({8});
    kit::transfer const first = receiving.get();
    if (first.count == 0)
    {
        EXPECT_EQ(receive().data, bytes{8});
    }
    else
    {
        EXPECT_EQ(first.data, bytes{8});
    }
    EXPECT_LT(watch.elapsed_sec(), 0.5);
}

} // namespace
