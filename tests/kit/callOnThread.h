#ifndef KIT_CALLONTHREAD_H
#define KIT_CALLONTHREAD_H

#include "processState.h"
#include "waitUntil.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace kit
{

/// One call on a thread of its own, of which the test can tell that it has gone to sleep.
template <typename Result>
class callOnThread
{
  public:
    template <typename Call>
    explicit callOnThread(Call call)
        : result(promise.get_future()), thread([this, call = std::move(call)]() mutable { run(call); })
    {
        threadId = threadIdKnown.get_future().get();
    }
    ~callOnThread() { thread.join(); }
    callOnThread(callOnThread const&) = delete;
    callOnThread& operator=(callOnThread const&) = delete;

    /// Waits until the call sleeps in the system, woken by nobody, or has ended.
    void awaitAsleep()
    {
        if (!waitUntil([this] { return hasEnded() || isAsleep(threadId); }))
        {
            throw std::runtime_error("the call does not go to sleep");
        }
    }

    bool hasEnded() const { return endsWithin(std::chrono::milliseconds(0)); }
    bool endsWithin(std::chrono::milliseconds limit) const
    {
        return result.wait_for(limit) == std::future_status::ready;
    }

    /// What the call returned or threw; throws when it has not ended within the limit.
    Result get(std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        if (!endsWithin(limit))
        {
            throw std::runtime_error("the call does not return");
        }
        return result.get();
    }

  private:
    template <typename Call>
    void run(Call& call)
    {
        threadIdKnown.set_value(gettid());
        try
        {
            promise.set_value(call());
        }
        catch (...)
        {
            promise.set_exception(std::current_exception());
        }
    }

    std::promise<pid_t> threadIdKnown;
    std::promise<Result> promise;
    std::future<Result> result;
    pid_t threadId = 0;
    std::thread thread;
};

} // namespace kit

#endif
