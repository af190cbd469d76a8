// An event thread that nobody waits for, since its attributes could not be destroyed, and that begins after its stop.

#include "callOnThread.h"
#include "portOnLine.h"
#include "sanitized.h"
#include "threadCalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>

namespace
{

std::atomic<bool> destructionFails{false};

} // namespace

extern "C" int pthread_attr_destroy(pthread_attr_t* attributes) noexcept
{
    if (kit::isThreadSanitized) // which comes here before the process can do more than this
    {
        return 0;
    }
    static auto* const real = reinterpret_cast<int (*)(pthread_attr_t*)>(dlsym(RTLD_NEXT, "pthread_attr_destroy"));
    int const status = real(attributes);
    return destructionFails ? EBUSY : status;
}

namespace
{

/// Holds back what the event thread does.
class lateEventThread : public kit::threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        if (entry != &gssipSendAckReq::callEventThread)
        {
            return threadCalls::create(thread, attributes, entry, argument);
        }
        tracker = argument;
        return threadCalls::create(
            thread, attributes,
            [](void* self) {
                auto* const late = static_cast<lateEventThread*>(self);
                late->beginning.pass();
                return gssipSendAckReq::callEventThread(late->tracker);
            },
            this);
    }

    kit::checkpoint beginning;

  private:
    void* tracker = nullptr;
};

TEST(LateEventThread, StoppedBeforeItBegan_EndsAtOnceAndIsNotRunning)
{
    if (kit::isThreadSanitized)
    {
        GTEST_SKIP() << "the sanitizer's own threads could not be made";
    }
    kit::portOnLine<> rig;
    lateEventThread system;
    {
        kit::threadCallsReplaced const replaced(system);
        destructionFails = true;
        EXPECT_EQ(rig.tracker().initializeEventThread(), EBUSY);
        destructionFails = false;
    }
    system.beginning.awaitArrival();
    kit::callOnThread<int> stopping([&] { return rig.tracker().unnitializeEventThread(); });
    stopping.awaitAsleep();
    system.beginning.letGo();
    EXPECT_EQ(stopping.get(), 0);
    EXPECT_TRUE(rig.tracker().eventThreadRunning.isClear());
}

} // namespace
