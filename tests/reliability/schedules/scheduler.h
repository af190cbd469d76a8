#ifndef SCHEDULES_SCHEDULER_H
#define SCHEDULES_SCHEDULER_H

#include "dice.h"
#include "fibre.h"
#include "strategy.h"
#include "trace.h"

#include <csignal>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

/// \file
/// The engine: runs a program with all its threads in an order of steps that a seed determines.
///
/// The program is ordinary code: `std::thread`, `std::mutex`, condition variables, semaphores, clocks, files. While a
/// schedule runs, the definitions in threadCalls.cpp, timeCalls.cpp and fileCalls.cpp take the place of the C
/// library's, for this program and for every library that it loads; outside a schedule they pass each call on.
/// Every such call is a step; between two steps another thread may be chosen to go on. Threads are fibres, and time
/// stands still until no thread can go on (see `liberties` for the exceptions): then it jumps to the next deadline.
///
///     outcome const result = run({seed}, {}, [](scheduler&) { ... });

namespace schedules
{

class fileTable;

constexpr std::int64_t NEVER_NS = std::numeric_limits<std::int64_t>::max();

/// What may happen in a schedule besides an order of steps, all of it allowed by POSIX. How often at most.
struct liberties
{
    unsigned earlyTimes = 0;      ///< time jumps to the next deadline although a thread could go on: a slow machine
    unsigned idleWakes = 0;       ///< a wait on a condition ends for no reason
    unsigned shortTransfers = 0;  ///< a read or a write takes less than it could
    bool realTimeRefused = false; ///< creating a thread with real-time scheduling fails with EPERM
    bool clocksAreSteps = false;  ///< another thread may go on at each reading of a clock, too
    bool atomicsAreSteps = false; ///< and at each atomic operation, of code that tells (see atomicCalls.cpp)
};

/// How a schedule ended.
struct outcome
{
    std::string fault; ///< empty: none
    std::string story; ///< the last steps, when there is a fault or it was asked for
    std::uint64_t steps = 0;
    std::uint64_t digest = 0; ///< equal for equal schedules
    std::int64_t time_ns = 0; ///< how long it took by its own time
    unsigned mostThreads = 0; ///< at the same time
};

enum class threadState { able, blocked, ended };

/// What a thread waits for.
enum class waiting { nothing, mutex, condition, semaphore, thread, files, time };

/// Why it goes on.
enum class wake { signalled, timeout, idle };

/// A thread of the program.
struct thread
{
    unsigned number = 0; ///< from 1 on, in the order of creation
    unsigned creator = 0;
    std::string name;
    void* (*entry)(void*) = nullptr;
    void* argument = nullptr;
    void* result = nullptr;
    bool isDetached = false;
    bool isJoined = false;
    bool goesToSleep = false; ///< it releases a mutex in order to wait on a condition
    sigset_t signals{};       ///< blocked

    threadState state = threadState::able;
    waiting waitsFor = waiting::nothing;
    void const* object = nullptr;
    std::int64_t deadline_ns = NEVER_NS; ///< monotonic, or of the wall clock
    bool onWallClock = false;
    std::function<bool()> isReady; ///< of one that waits for files
    wake reason = wake::signalled;

    std::unique_ptr<fibre> runner;
};

/// One schedule while it runs.
class scheduler
{
  public:
    scheduler(plan const& wanted, liberties const& allowed);
    ~scheduler();
    scheduler(scheduler const&) = delete;
    scheduler& operator=(scheduler const&) = delete;

    /// The schedule that the calling code is part of; null outside of any.
    static scheduler* current();

    /// `alwaysTell`: the outcome has a story also when there is no fault.
    outcome run(std::function<void(scheduler&)> const& program, bool alwaysTell);

    // For programs.

    /// Ends the schedule: it has failed. Does not return.
    [[noreturn]] void fail(std::string const& why);
    /// What the program decides by chance, beside the order of steps.
    dice& chance() { return programChance; }
    std::int64_t now_ns() const { return time_ns; }
    /// How much of it has passed although a thread could go on.
    std::int64_t early_ns() const { return earlyTime_ns; }
    std::int64_t wallNow_ns() const { return time_ns + wallOffset_ns; }
    void stepWallClock(std::int64_t by_ns);
    /// Puts a line into the trace; `what` is a literal.
    void note(char const* what, std::int64_t value = 0);
    void nameThread(std::string const& name);
    void nameObject(void const* object, std::string const& name) { events.name(object, name); }
    /// Called on the thread that is about to release that mutex, while it still holds it. It must not wait.
    void watchMutex(pthread_mutex_t const* mutex, std::function<void(thread const&)> observer);
    void forgetMutex(pthread_mutex_t const* mutex);
    /// Called at that time, between the steps of threads. It must not wait.
    void at(std::int64_t when_ns, std::function<void()> action);
    /// Of the threads that are created from now on, this one (counted from 1) is not: EAGAIN.
    void failCreation(unsigned nth) { creationsUntilFailure = nth; }
    /// The threads that exist, the caller's included.
    unsigned livingThreads() const;
    thread& self() { return *running; }
    fileTable& files() { return *table; }

    // For those who stand in for the C library.

    /// A step of the running thread; another one may go on before it is taken.
    void step(char const* what, void const* object = nullptr, std::int64_t value = 0);
    /// A step that lets nobody else go on.
    void record(char const* what, void const* object = nullptr, std::int64_t value = 0);
    /// The running thread waits until it is woken or its deadline has come.
    wake block(waiting what, void const* object, std::int64_t deadline_ns = NEVER_NS, bool onWallClock = false);
    /// The same, until `isReady`, which is asked whenever a file has changed.
    wake blockForFiles(std::function<bool()> isReady, std::int64_t deadline_ns);
    void wakeAll(waiting what, void const* object);
    void wakeOne(waiting what, void const* object); ///< any one of them
    bool anyoneWaits(waiting what, void const* object) const;
    unsigned waitingForFiles() const;
    void filesChanged();

    thread* create(void* (*entry)(void*), void* argument); ///< null: not possible just now
    thread* find(pthread_t id);
    static pthread_t idOf(thread const& which) { return which.number; }
    void observeRelease(pthread_mutex_t const* mutex);
    bool mayTransferLess();
    bool refusesRealTime() const { return allowance.realTimeRefused; }
    bool clockIsStep() const { return allowance.clocksAreSteps; }
    bool atomicIsStep() const { return allowance.atomicsAreSteps; }
    dice& schedulersChance() { return ownChance; }
    std::string story() const;

  private:
    void runThread(thread& which);
    void endThread();
    void handOver();
    thread& chooseNext();
    bool takeLiberties(bool someoneIsAble);
    bool passTime();
    void wakeIdly();
    std::int64_t nextDeadline_ns() const;
    std::int64_t deadlineOf(thread const& which) const;
    void wakeUp(thread& which, wake reason);
    std::string whoWaits() const;
    std::string nameOf(unsigned number) const;
    [[noreturn]] void leave();
    void checkEnd();

    dice ownChance;
    dice programChance;
    liberties allowance;
    std::unique_ptr<strategy> chooser;
    std::unique_ptr<fileTable> table;
    trace events;
    outcome result;

    std::vector<std::unique_ptr<thread>> threads; ///< by number; those that have been joined stay
    std::vector<unsigned> able;                   ///< only for `chooseNext`, which would allocate it every time
    thread* running = nullptr;
    fibre home;
    std::int64_t time_ns;
    std::int64_t wallOffset_ns;
    std::int64_t earlyTime_ns = 0;
    std::multimap<std::int64_t, std::function<void()>> timers;
    std::vector<std::pair<pthread_mutex_t const*, std::function<void(thread const&)>>> observers;
    std::uint64_t steps = 0;
    unsigned creationsUntilFailure = 0; ///< 0: none fails
    bool isOver = false;
};

/// Runs one schedule of a program from its first thread's beginning to its last thread's end.
///
/// Besides what the program itself finds wrong, these are faults: no thread can go on and none has a deadline; it takes
/// more than 60 s of its own time, or two million steps; a mutex is released by a thread that does not hold it, or used
/// after its end; a thread is joined twice, or never; a file is used after it has been closed, closed while somebody
/// waits for it, or never closed; memory is used after it was freed, where that shows.
outcome run(plan const& wanted, liberties const& allowed, std::function<void(scheduler&)> const& program,
            bool alwaysTell = false);

} // namespace schedules

#endif
