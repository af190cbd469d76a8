// The engine's own tests: does it find what is wrong, leave alone what is right, and do the same thing twice?

#include "exploration.h"
#include "line.h"

#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <stdexcept>
#include <thread>
#include <unistd.h>

/// A schedule that fails leaves its threads where they stand, and what they own with them: here that is no leak.
extern "C" int __lsan_is_turned_off() // NOLINT(bugprone-reserved-identifier): the leak sanitizer asks for that name
{
    return 1;
}

namespace
{

using namespace schedules;
using namespace std::chrono_literals;

class Engine : public testing::TestWithParam<plan>
{
  protected:
    static constexpr std::uint64_t FEW = 200;
    static constexpr std::uint64_t MANY = 20'000;

    static plan planOf(std::uint64_t seed)
    {
        plan wanted = GetParam();
        wanted.seed = seed;
        wanted.steps = 64;
        return wanted;
    }

    static std::optional<finding> find(std::function<void(scheduler&)> const& program, std::uint64_t count = FEW,
                                       std::function<liberties(dice&)> const& allow = {})
    {
        return findFault({"toy", planOf(1), count, allow, program});
    }

    static std::string faultOf(std::function<void(scheduler&)> const& program, std::uint64_t count = FEW)
    {
        std::optional<finding> const found = find(program, count);
        return found ? found->result.fault : "";
    }
};

/// Two threads add to a number; whole or not.
void addTwice(scheduler& schedule, bool isWhole)
{
    std::mutex mutex;
    int number = 0;
    auto const add = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        int const before = number;
        if (!isWhole)
        {
            lock.unlock();
            lock.lock();
        }
        number = before + 1;
    };
    std::thread other(add);
    add();
    other.join();
    if (number != 2)
    {
        schedule.fail("lost update");
    }
}

/// A thread sleeps until it is asked to stop; the request is made with the mutex or beside it.
void stopSleeper(bool withMutex)
{
    std::mutex mutex;
    std::condition_variable condition;
    std::atomic<bool> stopped{false};
    std::thread sleeper([&] {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopped)
        {
            condition.wait(lock);
        }
    });
    if (withMutex)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        stopped = true;
    }
    stopped = true;
    condition.notify_one();
    sleeper.join();
}

void takeTwoMutexes(bool inOneOrder)
{
    std::mutex first;
    std::mutex second;
    std::thread other([&] {
        std::lock_guard<std::mutex> const a(inOneOrder ? first : second);
        std::lock_guard<std::mutex> const b(inOneOrder ? second : first);
    });
    {
        std::lock_guard<std::mutex> const a(first);
        std::lock_guard<std::mutex> const b(second);
    }
    other.join();
}

/// Two consumers, two elements: one who has been woken may find that the other has been faster.
void consume(scheduler& schedule, bool looksAgain)
{
    std::mutex mutex;
    std::condition_variable condition;
    int elements = 0;
    auto const take = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        if (elements == 0)
        {
            condition.wait(lock);
        }
        while (looksAgain && elements == 0)
        {
            condition.wait(lock);
        }
        if (--elements < 0)
        {
            schedule.fail("taken from an empty queue");
        }
    };
    std::thread one(take);
    std::thread two(take);
    for (int i = 0; i < 2; ++i)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        ++elements;
        condition.notify_one();
    }
    one.join();
    two.join();
}

/// Two threads have to take turns that many times, at every place the right one, for the fault to show.
void takeTurns(scheduler& schedule, unsigned turns)
{
    std::mutex mutex;
    unsigned place = 0;
    auto const walk = [&](unsigned first) {
        for (unsigned mine = first; mine <= turns; mine += 2)
        {
            std::lock_guard<std::mutex> const lock(mutex);
            place = place == mine ? place + 1 : place;
        }
    };
    std::thread other([&] { walk(1); });
    walk(0);
    other.join();
    if (place == turns + 1)
    {
        schedule.fail("turn by turn");
    }
}

TEST_P(Engine, LostUpdate_Found)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) { addTwice(schedule, false); }), "lost update");
}

TEST_P(Engine, WholeUpdate_NothingFound)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) { addTwice(schedule, true); }), "");
}

TEST_P(Engine, LostWakeUp_Found)
{
    EXPECT_NE(faultOf([](scheduler&) { stopSleeper(false); }).find("hang: no thread can go on"), std::string::npos);
}

TEST_P(Engine, RequestUnderTheMutex_NothingFound)
{
    EXPECT_EQ(faultOf([](scheduler&) { stopSleeper(true); }), "");
}

TEST_P(Engine, TwoMutexesInTwoOrders_DeadlockFound)
{
    EXPECT_NE(faultOf([](scheduler&) { takeTwoMutexes(false); }).find("waits for a mutex"), std::string::npos);
}

TEST_P(Engine, TwoMutexesInOneOrder_NothingFound)
{
    EXPECT_EQ(faultOf([](scheduler&) { takeTwoMutexes(true); }), "");
}

TEST_P(Engine, ConditionNotLookedAtAgain_Found)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) { consume(schedule, false); }, MANY), "taken from an empty queue");
}

TEST_P(Engine, ConditionLookedAtAgain_NothingFoundThoughWaitsEndForNothing)
{
    std::optional<finding> const found = find([](scheduler& schedule) { consume(schedule, true); }, FEW,
                                              [](dice&) { return liberties{0, 5, 0, false, false, false}; });
    EXPECT_FALSE(found) << found->result.fault;
}

TEST_P(Engine, FaultOfAsManyOrdersAsTheDepth_Found)
{
    unsigned const turns = GetParam().strategy == plan::kind::random ? 4 : GetParam().depth - 1;
    EXPECT_EQ(faultOf([turns](scheduler& schedule) { takeTurns(schedule, turns); }, MANY), "turn by turn");
}

TEST_P(Engine, Fault_ReplaysIdenticallyFromItsSeed)
{
    auto const program = [](scheduler& schedule) { addTwice(schedule, false); };
    std::optional<finding> const found = find(program);
    ASSERT_TRUE(found);
    outcome const again = run(found->schedule, {}, program);
    EXPECT_EQ(again.fault, found->result.fault);
    EXPECT_EQ(again.story, found->result.story);
    EXPECT_EQ(again.digest, found->result.digest);
}

TEST_P(Engine, SeedsThatFollowEachOther_GiveDifferentSchedules)
{
    std::set<std::uint64_t> digests;
    for (std::uint64_t seed = 0; seed < 50; ++seed)
    {
        digests.insert(run(planOf(seed), {}, [](scheduler& one) { consume(one, true); }).digest);
    }
    EXPECT_GT(digests.size(), 10U);
}

TEST_P(Engine, Sleep_TakesTimeOfTheScheduleOnly)
{
    auto const before = std::chrono::steady_clock::now();
    outcome const result = run(planOf(1), {}, [](scheduler& schedule) {
        auto const start = std::chrono::steady_clock::now();
        std::thread other([] { std::this_thread::sleep_for(50s); });
        std::this_thread::sleep_for(20s);
        if (std::chrono::steady_clock::now() - start != 20s)
        {
            schedule.fail("slept for another time");
        }
        other.join();
        if (std::chrono::steady_clock::now() - start != 50s)
        {
            schedule.fail("the other slept for another time");
        }
    });
    EXPECT_EQ(result.fault, "");
    EXPECT_EQ(result.time_ns, 50'000'000'000);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
}

TEST_P(Engine, TimedWait_EndsAtItsDeadlineThoughTheWallClockIsStepped)
{
    outcome const result = run(planOf(1), {}, [](scheduler& schedule) {
        std::mutex mutex;
        std::condition_variable condition;
        std::unique_lock<std::mutex> lock(mutex);
        schedule.stepWallClock(-3600'000'000'000);
        if (condition.wait_for(lock, 3s) != std::cv_status::timeout)
        {
            schedule.fail("woken");
        }
    });
    EXPECT_EQ(result.fault, "");
    EXPECT_EQ(result.time_ns, 3'000'000'000);
}

TEST_P(Engine, MoreThanAMinute_IsAHang)
{
    EXPECT_NE(faultOf([](scheduler&) {
                  for (;;)
                  {
                      std::this_thread::sleep_for(1s);
                  }
              }).find("hang: still running after 60 s"),
              std::string::npos);
}

TEST_P(Engine, EarlyTime_LetsADeadlineComeWhileAThreadCouldGoOn)
{
    auto const program = [](scheduler& schedule) {
        bool late = false;
        std::thread other([&] {
            std::this_thread::sleep_for(1ms);
            late = true;
        });
        std::mutex mutex;
        for (int i = 0; i < 100; ++i)
        {
            std::lock_guard<std::mutex> const lock(mutex);
        }
        if (late)
        {
            schedule.fail("late");
        }
        other.join();
    };
    EXPECT_FALSE(find(program));
    EXPECT_TRUE(find(program, FEW, [](dice&) { return liberties{3, 0, 0, false, false, false}; }));
}

TEST_P(Engine, CreationThatIsToFail_Fails)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) {
                  schedule.failCreation(2);
                  std::thread([] {}).join();
                  try
                  {
                      std::thread([] {}).join();
                      schedule.fail("created");
                  }
                  catch (std::system_error const&)
                  {}
                  std::thread([] {}).join();
              }),
              "");
}

TEST_P(Engine, ThreadNeverJoined_Found)
{
    EXPECT_NE(faultOf([](scheduler&) {
                  pthread_t id{};
                  pthread_create(
                      &id, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
              }).find("was never joined"),
              std::string::npos);
}

TEST_P(Engine, MutexReleasedByAnother_Found)
{
    EXPECT_EQ(faultOf([](scheduler&) {
                  std::mutex mutex;
                  mutex.lock();
                  std::thread([&] { mutex.unlock(); }).join();
              }),
              "a thread releases a mutex that it does not hold");
}

TEST_P(Engine, MutexUsedAfterItsEnd_Found)
{
    EXPECT_EQ(faultOf([](scheduler&) {
                  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
                  pthread_mutex_destroy(&mutex);
                  pthread_mutex_lock(&mutex);
              }),
              "a mutex is used that does not exist (any more)");
}

#if !defined(__SANITIZE_ADDRESS__) // which ends the process instead
TEST_P(Engine, MutexOfAFreedObjectUsed_Found)
{
    EXPECT_EQ(faultOf([](scheduler&) {
                  std::mutex* volatile object = new std::mutex;
                  std::mutex* const kept = object;
                  delete object;
                  kept->lock();
              }),
              "a mutex is used that does not exist (any more)");
}
#endif

TEST_P(Engine, ConditionDestroyedUnderAWaiter_Found)
{
    EXPECT_EQ(faultOf([](scheduler&) {
                  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
                  pthread_cond_t plain = PTHREAD_COND_INITIALIZER;
                  std::thread other([&] {
                      pthread_mutex_lock(&mutex);
                      pthread_cond_wait(&plain, &mutex);
                  });
                  std::this_thread::sleep_for(1s);
                  pthread_cond_destroy(&plain);
                  other.join();
              }),
              "a condition is destroyed while somebody waits on it");
}

TEST_P(Engine, DescriptorUsedAfterItsClose_Found)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) {
                  line const wire(schedule, {});
                  int const descriptor = ::open(line::path(line::LEFT).c_str(), O_RDWR);
                  ::close(descriptor);
                  std::uint8_t const byte = 1;
                  static_cast<void>(::write(descriptor, &byte, 1));
              }),
              "write: the descriptor is closed");
}

TEST_P(Engine, DescriptorClosedUnderAWaiter_Found)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) {
                  line const wire(schedule, {});
                  int const descriptor = ::open(line::path(line::LEFT).c_str(), O_RDWR);
                  std::thread reader([&] {
                      pollfd polled{descriptor, POLLIN, 0};
                      ::poll(&polled, 1, -1);
                  });
                  std::this_thread::sleep_for(1s);
                  ::close(descriptor);
                  reader.join();
              }),
              "close: somebody waits for the descriptor");
}

TEST_P(Engine, DescriptorLeftOpen_Found)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) {
                  line const wire(schedule, {});
                  ::open(line::path(line::LEFT).c_str(), O_RDWR);
              }),
              "still open at the end: device ");
}

thread_local int ofThread = 7;

TEST_P(Engine, ThreadLocalsAndExceptions_BelongToTheirThreads)
{
    auto const program = [](scheduler& schedule) {
        std::mutex mutex;
        auto const body = [&](int mine) {
            if (ofThread != 7)
            {
                schedule.fail("not fresh");
            }
            ofThread = mine;
            try
            {
                throw std::runtime_error(std::to_string(mine));
            }
            catch (std::runtime_error const&)
            {
                mutex.lock();
                mutex.unlock();
                try
                {
                    throw;
                }
                catch (std::runtime_error const& again)
                {
                    if (again.what() != std::to_string(mine) || ofThread != mine)
                    {
                        schedule.fail("another thread's");
                    }
                }
            }
        };
        std::thread one([&] { body(1); });
        std::thread two([&] { body(2); });
        one.join();
        two.join();
    };
    EXPECT_EQ(faultOf(program), "");
    EXPECT_EQ(ofThread, 7);
}

std::string receive(int descriptor, std::size_t count)
{
    std::string text;
    while (text.size() < count)
    {
        pollfd polled{descriptor, POLLIN, 0};
        ::poll(&polled, 1, -1);
        char buffer[16];
        ssize_t const taken = ::read(descriptor, buffer, sizeof buffer);
        if (taken <= 0)
        {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(taken));
    }
    return text;
}

TEST_P(Engine, Line_CarriesBytesInOrderAndAtItsPace)
{
    outcome const result = run(planOf(1), {0, 0, 100, false, false, false}, [](scheduler& schedule) {
        lineTraits traits;
        traits.isPseudoTerminal = false;
        traits.characterTime_ns = 1'000'000;
        line const wire(schedule, traits);
        int const left = ::open(line::path(line::LEFT).c_str(), O_RDWR);
        int const right = ::open(line::path(line::RIGHT).c_str(), O_RDWR);
        std::int64_t const start_ns = schedule.now_ns();
        std::string received;
        std::thread reader([&] { received = receive(right, 10); });
        std::string const text = "0123456789";
        for (std::size_t sent = 0; sent < text.size();)
        {
            sent += static_cast<std::size_t>(::write(left, text.data() + sent, text.size() - sent));
        }
        reader.join();
        if (received != text || schedule.now_ns() - start_ns != 10'000'000)
        {
            schedule.fail("received " + received + " after " + std::to_string(schedule.now_ns() - start_ns));
        }
        ::close(left);
        ::close(right);
    });
    EXPECT_EQ(result.fault, "");
}

TEST_P(Engine, Unplugging_WakesTheReader)
{
    EXPECT_EQ(faultOf([](scheduler& schedule) {
                  line wire(schedule, {});
                  int const right = ::open(line::path(line::RIGHT).c_str(), O_RDWR);
                  std::thread reader([&] { receive(right, 1); });
                  wire.unplug(line::RIGHT);
                  reader.join();
                  ::close(right);
                  if (::open(line::path(line::RIGHT).c_str(), O_RDWR) != -1 || errno != ENOENT)
                  {
                      schedule.fail("still there");
                  }
              }),
              "");
}

INSTANTIATE_TEST_SUITE_P(Strategies, Engine, testing::ValuesIn(everyStrategy()),
                         [](auto const& strategy) { return shortName(strategy.param); });

} // namespace
