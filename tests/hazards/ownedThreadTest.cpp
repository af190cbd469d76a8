// The part that knows whether a POSIX thread exists, and whether it has taken up its work.

#include "ownedThread.h"

#include "callOnThread.h"
#include "checkpoint.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <pthread.h>

namespace
{

using gssipInternal::ownedThread;

class defaultAttributes
{
  public:
    defaultAttributes() { pthread_attr_init(&value); }
    ~defaultAttributes() { pthread_attr_destroy(&value); }
    defaultAttributes(defaultAttributes const&) = delete;
    defaultAttributes& operator=(defaultAttributes const&) = delete;

    pthread_attr_t value{};
};

TEST(OwnedThread, FailedCreation_LeavesNothingToJoin)
{
    ownedThread subject;
    defaultAttributes attributes;
    constexpr std::size_t TOO_MUCH = std::numeric_limits<std::size_t>::max() / 4 * 3;
    ASSERT_EQ(pthread_attr_setstacksize(&attributes.value, TOO_MUCH), 0);
    pthread_t id{};
    EXPECT_NE(subject.create(
                  id, attributes.value, [](void*) -> void* { return nullptr; }, nullptr),
              0);
    EXPECT_FALSE(subject.exists());
}

/// A thread that announces itself, with or without being held back before.
struct announcing
{
    static void* atOnce(void* self)
    {
        static_cast<announcing*>(self)->subject.announceRunning();
        return nullptr;
    }
    static void* held(void* self)
    {
        static_cast<announcing*>(self)->beginning.pass();
        return atOnce(self);
    }

    ownedThread subject;
    kit::checkpoint beginning;
};

TEST(OwnedThread, AnnouncementThatNobodyHasWaitedFor_DoesNotCountForTheNextThread)
{
    announcing thread;
    defaultAttributes const attributes;
    pthread_t id{};
    ASSERT_EQ(thread.subject.create(id, attributes.value, announcing::atOnce, &thread), 0);
    thread.subject.join(id);
    ASSERT_EQ(thread.subject.create(id, attributes.value, announcing::held, &thread), 0);
    kit::callOnThread<bool> starting([&] {
        thread.subject.awaitRunning();
        return true;
    });
    starting.awaitAsleep();
    EXPECT_FALSE(starting.hasEnded());
    thread.beginning.letGo();
    EXPECT_TRUE(starting.get());
    thread.subject.join(id);
}

TEST(OwnedThread, Join_EndsTheRequestToStop)
{
    ownedThread subject;
    subject.requestStop();
    EXPECT_TRUE(subject.stopRequested());
    subject.join(pthread_t{});
    EXPECT_FALSE(subject.stopRequested());
}

} // namespace
