#include "portOnLine.h"
#include "processState.h"

#include <cerrno>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <string>

/// \file
/// What becomes of the tracker when the system refuses it something. This program stands between the library and the
/// system for the calls below.

namespace
{

/// The errors that the calling thread's next calls fail with; 0 lets them through.
struct refusals
{
    int conditionInit = 0;
    int mutexInit = 0;
    int conditionDestroy = 0;
    int mutexDestroy = 0;
    int attributesInit = 0;
    int attributesDestroy = 0;
    int create = 0; ///< of the tracker's thread only
    int name = 0;

    unsigned mutexesAsked = 0; ///< made or destroyed, refused or not
};

thread_local refusals refuse;

// A sanitizer's runtime makes these calls too, on threads that are not ready for instrumented code yet.
#define UNINSTRUMENTED __attribute__((no_sanitize("thread")))

/// What the call would have reached without this program between; looked up once.
template <typename Function>
UNINSTRUMENTED Function* systemCall(void*& known, char const* name)
{
    void* found = __atomic_load_n(&known, __ATOMIC_RELAXED);
    if (found == nullptr)
    {
        found = dlsym(RTLD_NEXT, name);
        __atomic_store_n(&known, found, __ATOMIC_RELAXED);
    }
    return reinterpret_cast<Function*>(found);
}

} // namespace

extern "C" UNINSTRUMENTED int pthread_cond_init(pthread_cond_t* condition,
                                                pthread_condattr_t const* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_cond_t*, pthread_condattr_t const*);
    return refuse.conditionInit != 0 ? refuse.conditionInit
                                     : systemCall<call>(known, "pthread_cond_init")(condition, attributes);
}

extern "C" UNINSTRUMENTED int pthread_mutex_init(pthread_mutex_t* mutex, pthread_mutexattr_t const* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_mutex_t*, pthread_mutexattr_t const*);
    ++refuse.mutexesAsked;
    return refuse.mutexInit != 0 ? refuse.mutexInit : systemCall<call>(known, "pthread_mutex_init")(mutex, attributes);
}

extern "C" UNINSTRUMENTED int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_cond_t*);
    return refuse.conditionDestroy != 0 ? refuse.conditionDestroy
                                        : systemCall<call>(known, "pthread_cond_destroy")(condition);
}

extern "C" UNINSTRUMENTED int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_mutex_t*);
    ++refuse.mutexesAsked;
    return refuse.mutexDestroy != 0 ? refuse.mutexDestroy : systemCall<call>(known, "pthread_mutex_destroy")(mutex);
}

extern "C" UNINSTRUMENTED int pthread_attr_init(pthread_attr_t* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_attr_t*);
    return refuse.attributesInit != 0 ? refuse.attributesInit
                                      : systemCall<call>(known, "pthread_attr_init")(attributes);
}

extern "C" UNINSTRUMENTED int pthread_attr_destroy(pthread_attr_t* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_attr_t*);
    return refuse.attributesDestroy != 0 ? refuse.attributesDestroy
                                         : systemCall<call>(known, "pthread_attr_destroy")(attributes);
}

extern "C" UNINSTRUMENTED int pthread_create(pthread_t* id, pthread_attr_t const* attributes, void* (*entry)(void*),
                                             void* argument) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
    bool const refused = refuse.create != 0 && entry == gssipSendAckReq::callEventThread;
    return refused ? refuse.create : systemCall<call>(known, "pthread_create")(id, attributes, entry, argument);
}

extern "C" UNINSTRUMENTED int pthread_setname_np(pthread_t id, char const* name) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_t, char const*);
    return refuse.name != 0 ? refuse.name : systemCall<call>(known, "pthread_setname_np")(id, name);
}

namespace
{

class TrackerFailure : public testing::Test
{
  protected:
    void TearDown() override { refuse = {}; }

    void expectOnlyLine(std::string const& text)
    {
        auto const lines = log.lines();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, text);
        EXPECT_EQ(lines[0].level, 4);
        EXPECT_FALSE(lines[0].time_sec.has_value());
    }

    kit::portOnLine<> at;
    kit::recordingLog log;
    std::unique_ptr<kit::exposedSendAckReq> tracker = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
};

TEST_F(TrackerFailure, ConstructWithoutACondition_IsLoggedAndTheObjectStays)
{
    refuse.conditionInit = ENOMEM;
    auto const hampered = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
    refuse = {};
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to initializeEventQ");
    EXPECT_TRUE(hampered->eventQ.empty());
    EXPECT_EQ(hampered->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, ConstructWithoutAMutex_IsLogged)
{
    refuse.mutexInit = ENOMEM;
    auto const hampered = std::make_unique<kit::exposedSendAckReq>(at.port, &log);
    refuse = {};
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to initializeEventQ");
    EXPECT_EQ(hampered->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, DestroyWithAFailingCondition_IsLogged)
{
    refuse.conditionDestroy = EBUSY;
    tracker.reset();
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to unInitializeEventQ");
}

TEST_F(TrackerFailure, DestroyWithAFailingMutex_IsLogged)
{
    refuse.mutexDestroy = EBUSY;
    tracker.reset();
    expectOnlyLine("gssipSendAckReq(" + at.id() + " Failed to unInitializeEventQ");
}

TEST_F(TrackerFailure, ConstructAndDestroyWithoutALog_IsSurvived)
{
    refuse.conditionInit = ENOMEM;
    refuse.conditionDestroy = EBUSY;
    EXPECT_NO_THROW(kit::exposedSendAckReq(at.port, nullptr));
}

TEST_F(TrackerFailure, InitializeEventQ_ReturnsTheFirstErrorAndLeavesTheMutexUncreated)
{
    ASSERT_EQ(tracker->uninitializeEventQ(), 0);
    refuse.conditionInit = ENOMEM;
    refuse.mutexesAsked = 0;
    EXPECT_EQ(tracker->initializeEventQ(), ENOMEM);
    EXPECT_EQ(refuse.mutexesAsked, 0U);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, InitializeEventQ_ReturnsTheErrorOfTheMutex)
{
    ASSERT_EQ(tracker->uninitializeEventQ(), 0);
    refuse.mutexInit = EAGAIN;
    EXPECT_EQ(tracker->initializeEventQ(), EAGAIN);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

TEST_F(TrackerFailure, UninitializeEventQ_ReturnsTheFirstErrorAndLeavesTheMutex)
{
    refuse.conditionDestroy = EBUSY;
    refuse.mutexesAsked = 0;
    EXPECT_EQ(tracker->uninitializeEventQ(), EBUSY);
    EXPECT_EQ(refuse.mutexesAsked, 0U);
}

TEST_F(TrackerFailure, UninitializeEventQ_ReturnsTheErrorOfTheMutex)
{
    refuse.mutexDestroy = EBUSY;
    EXPECT_EQ(tracker->uninitializeEventQ(), EBUSY);
    refuse = {};
    EXPECT_EQ(tracker->initializeEventQ(), 0);
}

/// The start of the event thread: every failure is returned, nothing is logged, and the flag is clear.
class EventThreadFailure : public TrackerFailure
{
  protected:
    void expectNotStarted(int status)
    {
        tracker->eventThreadRunning.set();
        EXPECT_EQ(tracker->initializeEventThread(), status);
        EXPECT_TRUE(tracker->eventThreadRunning.isClear());
        EXPECT_EQ(threads.idOf("gssipSendAckReq"), 0);
        EXPECT_TRUE(log.lines().empty());
    }

    kit::threadWatch threads;
};

TEST_F(EventThreadFailure, AttributesCannotBeMade_IsReturned)
{
    refuse.attributesInit = ENOMEM;
    expectNotStarted(ENOMEM);
}

TEST_F(EventThreadFailure, ThreadCannotBeCreated_IsReturnedAndNothingWaits)
{
    refuse.create = EAGAIN;
    expectNotStarted(EAGAIN);
}

TEST_F(EventThreadFailure, CreationFailsWithAnyError_IsReturned)
{
    for (int const error : {1, 2, 4, 8, 16, 32, 64, EAGAIN, EINVAL, EPERM})
    {
        refuse.create = error;
        refuse.name = ~error & 0x7F; // shares no bit with it; a thread that does not exist is not named anyway
        expectNotStarted(error);
    }
}

TEST_F(EventThreadFailure, NotStarted_CanBeEndedAndStarted)
{
    refuse.create = EAGAIN;
    expectNotStarted(EAGAIN);
    refuse = {};
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
    EXPECT_EQ(tracker->initializeEventThread(), 0);
    EXPECT_NE(threads.idOf("gssipSendAckReq"), 0);
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
}

TEST_F(EventThreadFailure, NamingFailsAlone_ThreadRunsWithoutItsName)
{
    refuse.name = ERANGE;
    EXPECT_EQ(tracker->initializeEventThread(), 0);
    EXPECT_TRUE(tracker->eventThreadRunning.isSet());
    EXPECT_EQ(threads.idOf("gssipSendAckReq"), 0);
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
}

TEST_F(EventThreadFailure, AttributesCannotBeDestroyed_IsReturnedAndTheThreadCanBeEnded)
{
    refuse.attributesDestroy = EINVAL;
    EXPECT_EQ(tracker->initializeEventThread(), EINVAL);
    refuse = {};
    EXPECT_EQ(tracker->unnitializeEventThread(), 0);
    EXPECT_TRUE(tracker->eventThreadRunning.isClear());
    EXPECT_TRUE(kit::waitUntil([this] { return threads.idOf("gssipSendAckReq") == 0; }));
}

} // namespace
