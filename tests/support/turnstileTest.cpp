#include "turnstile.h"

#include "callOnThread.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace
{

using gssipInternal::fairSentry;
using gssipInternal::turnstile;

TEST(Turnstile, NobodyInside_LetsThroughAtOnce)
{
    turnstile door;
    for (int times = 0; times < 3; ++times)
    {
        door.enter();
        door.leave();
    }
    SUCCEED();
}

TEST(Turnstile, Second_WaitsUntilTheFirstHasLeft)
{
    turnstile door;
    door.enter();
    kit::callOnThread<bool> second([&] {
        door.enter();
        door.leave();
        return true;
    });
    second.awaitAsleep();
    EXPECT_FALSE(second.hasEnded());
    door.leave();
    EXPECT_TRUE(second.get());
}

TEST(Turnstile, Waiters_AreServedInTheOrderInWhichTheyCame)
{
    constexpr int waiters = 8;
    turnstile door;
    std::vector<int> served; // guarded by the turnstile
    std::vector<std::unique_ptr<kit::callOnThread<bool>>> threads;
    door.enter();
    for (int each = 0; each < waiters; ++each)
    {
        threads.push_back(std::make_unique<kit::callOnThread<bool>>([&door, &served, each] {
            door.enter();
            served.push_back(each);
            door.leave();
            return true;
        }));
        threads.back()->awaitAsleep();
    }
    door.leave();
    for (auto const& thread : threads)
    {
        EXPECT_TRUE(thread->get());
    }
    EXPECT_EQ(served, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(Turnstile, ThreadThatComesAgainAndAgain_DoesNotOvertakeAWaiter)
{
    turnstile door;
    for (int round = 0; round < 20; ++round)
    {
        std::atomic<bool> served{false};
        door.enter();
        kit::callOnThread<bool> waiter([&] {
            door.enter();
            served = true;
            door.leave();
            return true;
        });
        waiter.awaitAsleep();
        ASSERT_FALSE(served);
        door.leave();
        door.enter();
        EXPECT_TRUE(served) << "it came first";
        door.leave();
    }
}

TEST(Turnstile, ManyThreads_AreInsideOneAtATime)
{
    turnstile door;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int each = 0; each < 4; ++each)
    {
        threads.emplace_back([&] {
            for (int times = 0; times < 1000; ++times)
            {
                door.enter();
                ++counter;
                door.leave();
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(counter, 4000);
}

TEST(FairSentry, Lifetime_IsTheTimeThatTheMutexIsHeld)
{
    turnstile door;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        fairSentry const lock(door, mutex);
        EXPECT_NE(pthread_mutex_trylock(&mutex), 0);
    }
    ASSERT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
}

TEST(FairSentry, HolderThatLocksAgain_DoesNotOvertakeAWaiter)
{
    turnstile door;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (int round = 0; round < 20; ++round)
    {
        bool served = false; // guarded by the mutex
        std::unique_ptr<kit::callOnThread<bool>> waiter;
        {
            fairSentry const lock(door, mutex);
            waiter = std::make_unique<kit::callOnThread<bool>>([&] {
                fairSentry const own(door, mutex);
                served = true;
                return true;
            });
            waiter->awaitAsleep();
            ASSERT_FALSE(served);
        }
        {
            fairSentry const again(door, mutex);
            EXPECT_TRUE(served) << "it came first";
        }
        EXPECT_TRUE(waiter->get());
    }
}

TEST(FairSentry, Waiters_AreServedInTheOrderInWhichTheyCame)
{
    constexpr int waiters = 6;
    turnstile door;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::vector<int> served; // guarded by the mutex
    std::vector<std::unique_ptr<kit::callOnThread<bool>>> threads;
    {
        fairSentry const lock(door, mutex);
        for (int each = 0; each < waiters; ++each)
        {
            threads.push_back(std::make_unique<kit::callOnThread<bool>>([&, each] {
                fairSentry const own(door, mutex);
                served.push_back(each);
                return true;
            }));
            threads.back()->awaitAsleep();
        }
    }
    for (auto const& thread : threads)
    {
        EXPECT_TRUE(thread->get());
    }
    EXPECT_EQ(served, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

} // namespace
