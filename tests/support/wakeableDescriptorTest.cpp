#include "wakeableDescriptor.h"

#include "callOnThread.h"
#include "checkpoint.h"
#include "monotonicTime.h"
#include "stopwatch.h"
#include "systemCalls.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace
{

using gssipInternal::monotonicNow_ns;
using gssipInternal::NEVER_NS;
using gssipInternal::NS_PER_MS;
using gssipInternal::NS_PER_SEC;
using gssipInternal::wakeableDescriptor;
using ending = wakeableDescriptor::ending;
using role = wakeableDescriptor::role;

/// Reads from a pipe whose other end the test holds.
class WakeableDescriptor : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
        ASSERT_EQ(device.adopt(ends[0]), 0);
    }

    void TearDown() override
    {
        close();
        ::close(ends[0]);
        ::close(ends[1]);
    }

    void close()
    {
        if (device.beginClose() >= 0)
        {
            device.cutOff();
            device.waitForUsers();
            device.release();
        }
    }

    void makeReadable() { ASSERT_EQ(::write(ends[1], "x", 1), 1); }

    ending waitAs(role purpose, short events, std::int64_t deadline_ns)
    {
        wakeableDescriptor::use use(device, purpose);
        EXPECT_TRUE(use);
        return use.wait(events, deadline_ns);
    }

    std::array<int, 2> ends{-1, -1};
    wakeableDescriptor device;
};

TEST_F(WakeableDescriptor, Use_HoldsTheDescriptorWhileItIsOpen)
{
    EXPECT_TRUE(device.isOpen());
    wakeableDescriptor::use const use(device, role::reader);
    EXPECT_TRUE(use);
    EXPECT_EQ(use.descriptor(), ends[0]);
}

TEST_F(WakeableDescriptor, UseOfAClosedOne_TellsSo)
{
    close();
    EXPECT_FALSE(device.isOpen());
    EXPECT_FALSE(wakeableDescriptor::use(device, role::reader));
    EXPECT_FALSE(wakeableDescriptor::use(device, role::writer));
    EXPECT_FALSE(wakeableDescriptor::use(device, role::other));
}

TEST_F(WakeableDescriptor, WaitForWhatIsReady_EndsAtOnce)
{
    makeReadable();
    EXPECT_EQ(waitAs(role::reader, POLLIN, NEVER_NS), ending::ready);
}

TEST_F(WakeableDescriptor, Wait_EndsWhenTheDescriptorBecomesReady)
{
    kit::callOnThread<ending> waiting([this] { return waitAs(role::reader, POLLIN, NEVER_NS); });
    waiting.awaitAsleep();
    makeReadable();
    EXPECT_EQ(waiting.get(), ending::ready);
}

TEST_F(WakeableDescriptor, Wait_EndsAtTheDeadlineAndNotBefore)
{
    kit::stopwatch const watch;
    EXPECT_EQ(waitAs(role::reader, POLLIN, monotonicNow_ns() + 100 * NS_PER_MS), ending::timeout);
    EXPECT_GE(watch.elapsed_sec(), 0.1);
    EXPECT_LT(watch.elapsed_sec(), 5.0);
    EXPECT_EQ(waitAs(role::reader, POLLIN, 0), ending::timeout) << "a deadline that has passed";
}

TEST_F(WakeableDescriptor, WaitForNoEvent_DoesNotLookAtTheDescriptor)
{
    makeReadable();
    kit::stopwatch const watch;
    EXPECT_EQ(waitAs(role::writer, 0, monotonicNow_ns() + 50 * NS_PER_MS), ending::timeout);
    EXPECT_GE(watch.elapsed_sec(), 0.05);
}

TEST_F(WakeableDescriptor, WaitThatASignalInterrupts_GoesOn)
{
    struct sigaction ignoring = {};
    struct sigaction former = {};
    ignoring.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &ignoring, &former), 0);
    std::atomic<pthread_t> thread{};
    std::atomic<bool> known{false};
    kit::callOnThread<ending> waiting([&] {
        thread = pthread_self();
        known = true;
        return waitAs(role::reader, POLLIN, NEVER_NS);
    });
    waiting.awaitAsleep();
    ASSERT_TRUE(known);
    pthread_kill(thread, SIGUSR1);
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());
    makeReadable();
    EXPECT_EQ(waiting.get(), ending::ready);
    sigaction(SIGUSR1, &former, nullptr);
}

TEST_F(WakeableDescriptor, BeginClose_EndsTheWaitOfAReader)
{
    kit::callOnThread<ending> waiting([this] { return waitAs(role::reader, POLLIN, NEVER_NS); });
    waiting.awaitAsleep();
    EXPECT_EQ(device.beginClose(), ends[0]);
    EXPECT_FALSE(device.isOpen());
    EXPECT_EQ(waiting.get(), ending::closed);
    EXPECT_EQ(device.beginClose(), -1) << "it is not open any more";
    device.waitForUsers();
    EXPECT_EQ(device.release(), ends[0]);
    EXPECT_EQ(device.release(), -1);
}

TEST_F(WakeableDescriptor, BeginClose_LetsAWriterGoOnUntilItIsCutOff)
{
    kit::callOnThread<ending> waiting([this] { return waitAs(role::writer, 0, NEVER_NS); });
    waiting.awaitAsleep();
    EXPECT_TRUE(device.hasWriters());
    device.beginClose();
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());
    EXPECT_FALSE(device.waitForWriters(monotonicNow_ns() + 50 * NS_PER_MS));

    device.cutOff();
    EXPECT_EQ(waiting.get(), ending::closed);
    EXPECT_TRUE(device.waitForWriters(monotonicNow_ns() + 10 * NS_PER_SEC));
    EXPECT_FALSE(device.hasWriters());
    device.waitForUsers();
    device.release();
}

TEST_F(WakeableDescriptor, WriterThatIsCutOff_IsToldAlsoWhenItDoesNotWait)
{
    auto use = std::make_unique<wakeableDescriptor::use>(device, role::writer);
    EXPECT_FALSE(use->isCutOff());
    device.beginClose();
    EXPECT_FALSE(use->isCutOff());
    device.cutOff();
    EXPECT_TRUE(use->isCutOff());
    EXPECT_EQ(use->wait(0, NEVER_NS), ending::closed);
    EXPECT_EQ(use->wait(0, NEVER_NS), ending::closed) << "as often as it asks";
    use.reset();
    device.waitForUsers();
    device.release();
}

TEST_F(WakeableDescriptor, WaitForUsers_EndsWhenTheLastHasLeft)
{
    for (role const purpose : {role::reader, role::writer, role::other})
    {
        auto use = std::make_unique<wakeableDescriptor::use>(device, purpose);
        device.beginClose();
        kit::callOnThread<bool> waiting([this] {
            device.waitForUsers();
            return true;
        });
        waiting.awaitAsleep();
        EXPECT_FALSE(waiting.hasEnded());
        use.reset();
        EXPECT_TRUE(waiting.get());
        ASSERT_EQ(device.adopt(device.release()), 0);
    }
}

TEST_F(WakeableDescriptor, InterruptReader_EndsTheWaitUnderWayOrElseTheNextOne)
{
    kit::callOnThread<ending> waiting([this] { return waitAs(role::reader, POLLIN, NEVER_NS); });
    waiting.awaitAsleep();
    device.interruptReader();
    EXPECT_EQ(waiting.get(), ending::interrupted);

    device.interruptReader();
    EXPECT_EQ(waitAs(role::reader, POLLIN, NEVER_NS), ending::interrupted);
    EXPECT_EQ(waitAs(role::reader, POLLIN, monotonicNow_ns() + NS_PER_MS), ending::timeout) << "once is enough";
}

TEST_F(WakeableDescriptor, InterruptReader_DoesNotDisturbAWriter)
{
    kit::callOnThread<ending> waiting([this] { return waitAs(role::writer, 0, monotonicNow_ns() + 200 * NS_PER_MS); });
    waiting.awaitAsleep();
    device.interruptReader();
    EXPECT_EQ(waiting.get(), ending::timeout);
}

TEST_F(WakeableDescriptor, Reopening_ForgetsAnInterruption)
{
    device.interruptReader();
    device.beginClose();
    device.waitForUsers();
    ASSERT_EQ(device.adopt(device.release()), 0);
    EXPECT_EQ(waitAs(role::reader, POLLIN, monotonicNow_ns() + NS_PER_MS), ending::timeout);
}

/// Holds back the first thread whose wait has been woken by its event, before it has looked why.
class lateLooker : public kit::systemCalls
{
  public:
    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        int const result = systemCalls::ppoll(descriptors, count, limit, signals);
        if (result > 0 && descriptors[1].revents != 0)
        {
            place.pass();
        }
        return result;
    }

    kit::checkpoint place;
};

TEST_F(WakeableDescriptor, InterruptionTakenByAPause_DoesNotEndTheWait)
{
    lateLooker system;
    kit::systemReplaced const replaced(system);
    kit::callOnThread<ending> waiting([this] { return waitAs(role::reader, POLLIN, NEVER_NS); });
    waiting.awaitAsleep();
    device.interruptReader();
    system.place.awaitArrival();
    EXPECT_EQ(device.pause(0, NEVER_NS), ending::interrupted);
    system.place.letGo();
    waiting.awaitAsleep();
    EXPECT_FALSE(waiting.hasEnded());
    makeReadable();
    EXPECT_EQ(waiting.get(), ending::ready);
}

TEST_F(WakeableDescriptor, Pause_EndsAtTheDeadlineAndNotBefore)
{
    std::uint64_t const generation = wakeableDescriptor::use(device, role::reader).generation();
    kit::stopwatch const watch;
    EXPECT_EQ(device.pause(generation, monotonicNow_ns() + 100 * NS_PER_MS), ending::timeout);
    EXPECT_GE(watch.elapsed_sec(), 0.1);
}

TEST_F(WakeableDescriptor, Pause_EndsWhenTheDescriptorIsClosedReopenedOrTheReaderInterrupted)
{
    auto const pauseWhile = [this](auto const& action) {
        std::uint64_t const generation = wakeableDescriptor::use(device, role::reader).generation();
        kit::callOnThread<ending> pausing([this, generation] { return device.pause(generation, NEVER_NS - 1); });
        pausing.awaitAsleep();
        EXPECT_FALSE(pausing.hasEnded());
        action();
        return pausing.get();
    };
    EXPECT_EQ(pauseWhile([this] { device.interruptReader(); }), ending::interrupted);
    EXPECT_EQ(pauseWhile([this] { close(); }), ending::closed);
    EXPECT_EQ(pauseWhile([this] { ASSERT_EQ(device.adopt(ends[0]), 0); }), ending::reopened);
}

TEST_F(WakeableDescriptor, PauseThatComesTooLate_SeesWhatHappened)
{
    std::uint64_t const generation = wakeableDescriptor::use(device, role::reader).generation();
    close();
    EXPECT_EQ(device.pause(generation, NEVER_NS - 1), ending::closed);
}

} // namespace
