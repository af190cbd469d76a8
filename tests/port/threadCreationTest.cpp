#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "threadFunctions.h"

#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <limits>
#include <mutex>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

/// \file
/// This program stands between the port and two of the functions with which it makes its threads.

namespace
{

/// What the replaced functions do; both as they are when nothing is told.
class threadMaking
{
  public:
    /// Told the priority asked for; a result other than 0 is returned in place of the real one's.
    std::function<int(int priority, pthread_attr_t& attr)> onAttributes;
    /// Told the name; a result other than 0 is returned and the thread keeps its name.
    std::function<int(std::string const& name)> onName;

    std::vector<std::array<int, 5>> attributesAskedFor() const
    {
        std::lock_guard<std::mutex> const lock(mutex);
        return asked;
    }

    void note(std::array<int, 5> const& attributes)
    {
        std::lock_guard<std::mutex> const lock(mutex);
        asked.push_back(attributes);
    }

  private:
    mutable std::mutex mutex;
    std::vector<std::array<int, 5>> asked;
};

threadMaking* making = nullptr;

template <typename Function>
Function* realFunction(char const* symbol)
{
    void* const found = dlsym(RTLD_NEXT, symbol);
    Function* function = nullptr;
    static_assert(sizeof(found) == sizeof(function));
    std::memcpy(&function, &found, sizeof(function));
    return function;
}

} // namespace

int setPthreadAttributes(int detachState, int policy, int priority, int inheritSched, int scope, pthread_attr_t& attr)
{
    static auto* const real =
        realFunction<int(int, int, int, int, int, pthread_attr_t&)>("_Z20setPthreadAttributesiiiiiR14pthread_attr_t");
    int const status = real(detachState, policy, priority, inheritSched, scope, attr);
    if (making == nullptr)
    {
        return status;
    }
    making->note({detachState, policy, priority, inheritSched, scope});
    int const told = making->onAttributes ? making->onAttributes(priority, attr) : 0;
    return told != 0 ? told : status;
}

extern "C" int pthread_setname_np(pthread_t thread, char const* name) noexcept
{
    static auto* const real = realFunction<int(pthread_t, char const*)>("pthread_setname_np");
    int const told = making != nullptr && making->onName ? making->onName(name) : 0;
    return told != 0 ? told : real(thread, name);
}

namespace
{

using kit::frame;
using kit::message;
using kit::portOnLine;
using testing::ElementsAre;

constexpr int transmitPriority = 51;

struct portOnMaking
{
    portOnMaking() { making = &threads; }
    ~portOnMaking() { making = nullptr; }

    threadMaking threads;
    kit::threadWatch watch;
    portOnLine<> rig;

    void expectStartsProperly()
    {
        threads.onAttributes = nullptr;
        threads.onName = nullptr;
        EXPECT_TRUE(rig.port.start());
        EXPECT_TRUE(watch.waitForAdded(4));
        rig.port.sendMessage(message(1), false);
        EXPECT_EQ(rig.line.read(10), frame(1, 0));
        EXPECT_TRUE(rig.port.stop());
        EXPECT_TRUE(watch.waitForAdded(0));
    }

    void failTransmitAttributes(int result)
    {
        threads.onAttributes = [result](int priority, pthread_attr_t&) {
            return priority == transmitPriority ? result : 0;
        };
    }

    /// A stack for which no process has room.
    void failTransmitCreation()
    {
        threads.onAttributes = [](int priority, pthread_attr_t& attr) {
            return priority == transmitPriority
                       ? pthread_attr_setstacksize(&attr, std::numeric_limits<std::size_t>::max() / 4 * 3)
                       : 0;
        };
    }

    void failTransmitName(int result)
    {
        threads.onName = [result](std::string const& name) { return name == "GP TX" ? result : 0; };
    }
};

TEST(ThreadCreation, Attributes_AreAskedForInTheOrderOfStarting)
{
    portOnMaking test;
    ASSERT_TRUE(test.rig.port.start());
    EXPECT_THAT(test.threads.attributesAskedFor(),
                ElementsAre(std::array<int, 5>{0, 2, 50, 1, 0}, std::array<int, 5>{0, 2, 51, 1, 0}));
}

TEST(ThreadCreation, AttributesRefused_AreReportedAndNoThreadIsMade)
{
    portOnMaking test;
    test.failTransmitAttributes(33);
    EXPECT_EQ(test.rig.port.initializeTransmitThread(), 33);
    EXPECT_TRUE(test.watch.waitForAdded(0));
    EXPECT_FALSE(test.rig.gateIsOpen());
    test.expectStartsProperly();
}

TEST(ThreadCreation, AttributesRefused_FailTheStart)
{
    portOnMaking test;
    test.failTransmitAttributes(33);
    EXPECT_FALSE(test.rig.port.start());
    EXPECT_FALSE(test.rig.port.started);
    EXPECT_TRUE(test.watch.waitForAdded(3));
    EXPECT_TRUE(test.rig.port.stop());
    test.expectStartsProperly();
}

TEST(ThreadCreation, EventThreadsAttributesRefused_AreReportedAndNoThreadIsMade)
{
    portOnMaking test;
    test.rig.tracker().eventThreadRunning.set();
    test.threads.onAttributes = [](int priority, pthread_attr_t&) { return priority == transmitPriority ? 0 : 35; };
    EXPECT_EQ(test.rig.tracker().initializeEventThread(), 35);
    EXPECT_TRUE(test.rig.tracker().eventThreadRunning.isClear());
    EXPECT_TRUE(test.watch.waitForAdded(0));
    EXPECT_FALSE(test.rig.port.start());
    EXPECT_TRUE(test.watch.waitForAdded(3)) << "the transmit thread is made all the same";
    EXPECT_THAT(test.rig.log.lines(), testing::IsEmpty());
    test.expectStartsProperly();
}

TEST(ThreadCreation, ThreadRefused_IsReported)
{
    portOnMaking test;
    test.failTransmitCreation();
    EXPECT_EQ(test.rig.port.initializeTransmitThread(), EAGAIN);
    EXPECT_TRUE(test.rig.port.txRunning.isClear());
    EXPECT_TRUE(test.watch.waitForAdded(0));
    EXPECT_FALSE(test.rig.gateIsOpen());
    test.expectStartsProperly();
}

TEST(ThreadCreation, ThreadRefused_FailsTheStart)
{
    portOnMaking test;
    test.failTransmitCreation();
    EXPECT_FALSE(test.rig.port.start());
    EXPECT_FALSE(test.rig.port.started);
    EXPECT_TRUE(test.watch.waitForAdded(3));
    test.expectStartsProperly();
}

TEST(ThreadCreation, NameRefused_IsReportedWhileTheThreadRuns)
{
    portOnMaking test;
    test.failTransmitName(34);
    EXPECT_EQ(test.rig.port.initializeTransmitThread(), 34);
    EXPECT_TRUE(test.watch.waitForAdded(1));
    EXPECT_EQ(test.rig.port.uninitializeTransmitThread(), 0);
    EXPECT_TRUE(test.rig.port.txRunning.isClear());
    EXPECT_TRUE(test.watch.waitForAdded(0));
    test.expectStartsProperly();
}

TEST(ThreadCreation, NameRefused_FailsTheStartAndTheNextOneHasFourThreads)
{
    portOnMaking test;
    test.failTransmitName(34);
    EXPECT_FALSE(test.rig.port.start());
    EXPECT_FALSE(test.rig.port.started);
    EXPECT_TRUE(test.watch.waitForAdded(4));
    test.expectStartsProperly();
}

TEST(ThreadCreation, NameRefused_DestructionEndsTheThreads)
{
    kit::threadWatch const watch;
    {
        portOnMaking test;
        test.failTransmitName(34);
        EXPECT_FALSE(test.rig.port.start());
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

TEST(ThreadCreation, ThreadRefused_DestructionEndsTheOthers)
{
    kit::threadWatch const watch;
    {
        portOnMaking test;
        test.failTransmitCreation();
        EXPECT_FALSE(test.rig.port.start());
    }
    EXPECT_TRUE(watch.waitForAdded(0));
}

} // namespace
