#include "scheduler.h"

#include "fileTable.h"

#include <algorithm>
#include <cerrno>

namespace schedules
{
namespace
{

constexpr std::int64_t NS_PER_SEC = 1'000'000'000;
constexpr std::int64_t START_NS = 1000 * NS_PER_SEC;                // a machine that has been up for a while
constexpr std::int64_t WALL_OFFSET_NS = 1'700'000'000 * NS_PER_SEC; // some day in 2023
constexpr std::int64_t LONGEST_NS = 60 * NS_PER_SEC;
constexpr std::uint64_t MOST_STEPS = 2'000'000;
constexpr unsigned LIBERTY_ONCE_IN = 48;
constexpr std::uint64_t PROGRAM_STREAM = 0x5EED0FA9A06A4E5DU;

scheduler* inside = nullptr;

char const* nameOf(waiting what)
{
    switch (what)
    {
    case waiting::nothing:
        break;
    case waiting::mutex:
        return "a mutex";
    case waiting::condition:
        return "a condition";
    case waiting::semaphore:
        return "a semaphore";
    case waiting::thread:
        return "the end of a thread";
    case waiting::files:
        return "a file";
    case waiting::time:
        return "a time";
    }
    return "nothing";
}

} // namespace

scheduler* scheduler::current()
{
    return inside;
}

scheduler::scheduler(plan const& wanted, liberties const& allowed)
    : ownChance(~wanted.seed), programChance(wanted.seed ^ PROGRAM_STREAM), allowance(allowed),
      chooser(strategy::make(wanted)), table(std::make_unique<fileTable>()), time_ns(START_NS),
      wallOffset_ns(WALL_OFFSET_NS)
{}

scheduler::~scheduler() = default;

outcome scheduler::run(std::function<void(scheduler&)> const& program, bool alwaysTell)
{
    std::function<void()> const firstBody = [&] { program(*this); };
    thread* const first = create(
        [](void* body) -> void* {
            (*static_cast<std::function<void()> const*>(body))();
            return nullptr;
        },
        const_cast<void*>(static_cast<void const*>(&firstBody)));
    first->name = "main";
    first->isDetached = true;
    running = first;
    inside = this;
    home.handOverTo(*first->runner);
    inside = nullptr;
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->runner && each->state != threadState::ended)
        {
            each->runner->abandon();
        }
    }
    if (alwaysTell && result.fault.empty())
    {
        result.story = story();
    }
    result.steps = steps;
    result.digest = events.digest();
    result.time_ns = time_ns - START_NS;
    return result;
}

void scheduler::fail(std::string const& why)
{
    if (result.fault.empty())
    {
        result.fault = why;
        result.story = story();
    }
    leave();
}

void scheduler::leave()
{
    isOver = true;
    thread& last = *running;
    last.runner->handOverTo(home);
    std::abort(); // nobody hands over to it any more
}

void scheduler::stepWallClock(std::int64_t by_ns)
{
    wallOffset_ns += by_ns;
    record("the wall clock is stepped by ns", nullptr, by_ns);
}

void scheduler::note(char const* what, std::int64_t value)
{
    record(what, nullptr, value);
}

void scheduler::nameThread(std::string const& name)
{
    running->name = name;
}

void scheduler::watchMutex(pthread_mutex_t const* mutex, std::function<void(thread const&)> observer)
{
    observers.emplace_back(mutex, std::move(observer));
}

void scheduler::forgetMutex(pthread_mutex_t const* mutex)
{
    observers.erase(std::remove_if(observers.begin(), observers.end(),
                                   [&](auto const& observer) { return observer.first == mutex; }),
                    observers.end());
}

void scheduler::observeRelease(pthread_mutex_t const* mutex)
{
    for (auto const& [watched, observer] : observers)
    {
        if (watched == mutex)
        {
            observer(*running);
        }
    }
}

void scheduler::at(std::int64_t when_ns, std::function<void()> action)
{
    timers.emplace(std::max(when_ns, time_ns), std::move(action));
}

unsigned scheduler::livingThreads() const
{
    return static_cast<unsigned>(std::count_if(threads.begin(), threads.end(),
                                               [](auto const& each) { return each->state != threadState::ended; }));
}

void scheduler::record(char const* what, void const* object, std::int64_t value)
{
    events.add({steps, time_ns - START_NS, running->number, what, object, value});
}

void scheduler::step(char const* what, void const* object, std::int64_t value)
{
    record(what, object, value);
    handOver();
}

wake scheduler::block(waiting what, void const* object, std::int64_t deadline_ns, bool onWallClock)
{
    thread& self = *running;
    self.state = threadState::blocked;
    self.waitsFor = what;
    self.object = object;
    self.deadline_ns = deadline_ns;
    self.onWallClock = onWallClock;
    handOver();
    return self.reason;
}

wake scheduler::blockForFiles(std::function<bool()> isReady, std::int64_t deadline_ns)
{
    running->isReady = std::move(isReady);
    wake const reason = block(waiting::files, nullptr, deadline_ns);
    running->isReady = nullptr;
    return reason;
}

void scheduler::wakeUp(thread& which, wake reason)
{
    which.state = threadState::able;
    which.waitsFor = waiting::nothing;
    which.reason = reason;
    which.deadline_ns = NEVER_NS;
}

void scheduler::wakeAll(waiting what, void const* object)
{
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->waitsFor == what && each->object == object)
        {
            wakeUp(*each, wake::signalled);
        }
    }
}

void scheduler::wakeOne(waiting what, void const* object)
{
    std::vector<thread*> waiters;
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->waitsFor == what && each->object == object)
        {
            waiters.push_back(each.get());
        }
    }
    if (!waiters.empty())
    {
        wakeUp(*waiters[ownChance.below(waiters.size())], wake::signalled);
    }
}

bool scheduler::anyoneWaits(waiting what, void const* object) const
{
    return std::any_of(threads.begin(), threads.end(),
                       [&](auto const& each) { return each->waitsFor == what && each->object == object; });
}

unsigned scheduler::waitingForFiles() const
{
    return static_cast<unsigned>(std::count_if(threads.begin(), threads.end(),
                                               [](auto const& each) { return each->waitsFor == waiting::files; }));
}

void scheduler::filesChanged()
{
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->waitsFor == waiting::files && each->isReady())
        {
            wakeUp(*each, wake::signalled);
        }
    }
}

thread* scheduler::create(void* (*entry)(void*), void* argument)
{
    if (creationsUntilFailure != 0 && --creationsUntilFailure == 0)
    {
        return nullptr;
    }
    auto made = std::make_unique<thread>();
    thread& created = *made;
    created.number = static_cast<unsigned>(threads.size() + 1);
    created.creator = running != nullptr ? running->number : 0;
    created.entry = entry;
    created.argument = argument;
    if (running != nullptr)
    {
        created.signals = running->signals;
    }
    created.runner = std::make_unique<fibre>([this, &created] { runThread(created); });
    threads.push_back(std::move(made));
    result.mostThreads = std::max(result.mostThreads, livingThreads());
    return &created;
}

thread* scheduler::find(pthread_t id)
{
    return id >= 1 && id <= threads.size() ? threads[id - 1].get() : nullptr;
}

void scheduler::runThread(thread& which)
{
    record("begins");
    which.result = which.entry(which.argument);
    endThread();
}

void scheduler::endThread()
{
    record("ends");
    running->state = threadState::ended;
    wakeAll(waiting::thread, running);
    if (livingThreads() == 0)
    {
        checkEnd();
        leave();
    }
    handOver();
}

/// Nobody may be left over, and nothing.
void scheduler::checkEnd()
{
    for (std::unique_ptr<thread> const& each : threads)
    {
        if (!each->isDetached && !each->isJoined)
        {
            fail("thread " + nameOf(each->number) + " was never joined");
        }
    }
    if (std::string const left = table->whatIsOpen(); !left.empty())
    {
        fail("still open at the end: " + left);
    }
}

void scheduler::handOver()
{
    if (++steps > MOST_STEPS)
    {
        fail("no end after " + std::to_string(steps) + " steps\n" + whoWaits());
    }
    thread& former = *running;
    thread& next = chooseNext();
    if (&next != &former)
    {
        running = &next;
        former.runner->handOverTo(*next.runner);
    }
}

thread& scheduler::chooseNext()
{
    for (;;)
    {
        able.clear();
        for (std::unique_ptr<thread> const& each : threads)
        {
            if (each->state == threadState::able)
            {
                able.push_back(each->number);
            }
        }
        if (takeLiberties(!able.empty()))
        {
            continue;
        }
        if (!able.empty())
        {
            return *threads[chooser->choose(able, running->number) - 1];
        }
        if (!passTime())
        {
            fail("hang: no thread can go on\n" + whoWaits());
        }
    }
}

/// True when one was taken that may have changed who can go on.
bool scheduler::takeLiberties(bool someoneIsAble)
{
    if (allowance.idleWakes != 0 && ownChance.onceIn(LIBERTY_ONCE_IN))
    {
        --allowance.idleWakes;
        wakeIdly();
        return true;
    }
    if (allowance.earlyTimes != 0 && someoneIsAble && ownChance.onceIn(LIBERTY_ONCE_IN))
    {
        --allowance.earlyTimes;
        std::int64_t const before_ns = time_ns;
        passTime();
        earlyTime_ns += time_ns - before_ns;
        return true;
    }
    return false;
}

void scheduler::wakeIdly()
{
    std::vector<thread*> waiters;
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->waitsFor == waiting::condition)
        {
            waiters.push_back(each.get());
        }
    }
    if (!waiters.empty())
    {
        wakeUp(*waiters[ownChance.below(waiters.size())], wake::idle);
    }
}

std::int64_t scheduler::deadlineOf(thread const& which) const
{
    bool const moves = which.onWallClock && which.deadline_ns != NEVER_NS;
    return moves ? which.deadline_ns - wallOffset_ns : which.deadline_ns;
}

std::int64_t scheduler::nextDeadline_ns() const
{
    std::int64_t next_ns = timers.empty() ? NEVER_NS : timers.begin()->first;
    for (std::unique_ptr<thread> const& each : threads)
    {
        if (each->state == threadState::blocked)
        {
            next_ns = std::min(next_ns, deadlineOf(*each));
        }
    }
    return next_ns;
}

/// Lets time pass until the next thing is due; false when nothing ever is.
bool scheduler::passTime()
{
    std::int64_t const next_ns = nextDeadline_ns();
    if (next_ns == NEVER_NS)
    {
        return false;
    }
    time_ns = std::max(time_ns, next_ns);
    if (time_ns - earlyTime_ns > START_NS + LONGEST_NS)
    {
        fail("hang: still running after 60 s\n" + whoWaits());
    }
    while (!timers.empty() && timers.begin()->first <= time_ns)
    {
        std::function<void()> const action = std::move(timers.begin()->second);
        timers.erase(timers.begin());
        action();
    }
    for (std::unique_ptr<thread>& each : threads)
    {
        if (each->state == threadState::blocked && deadlineOf(*each) <= time_ns)
        {
            wakeUp(*each, wake::timeout);
        }
    }
    return true;
}

bool scheduler::mayTransferLess()
{
    if (allowance.shortTransfers == 0 || !ownChance.onceIn(4))
    {
        return false;
    }
    --allowance.shortTransfers;
    return true;
}

std::string scheduler::nameOf(unsigned number) const
{
    return number == 0 ? "" : threads[number - 1]->name;
}

std::string scheduler::story() const
{
    return events.text([this](unsigned number) { return nameOf(number); });
}

std::string scheduler::whoWaits() const
{
    std::string all;
    for (std::unique_ptr<thread> const& each : threads)
    {
        if (each->state == threadState::ended)
        {
            continue;
        }
        all += "  thread " + std::to_string(each->number) + ' ' + each->name;
        all += each->state == threadState::able ? " can go on"
                                                : std::string(" waits for ") + schedules::nameOf(each->waitsFor);
        bool const timed = each->state == threadState::blocked && each->deadline_ns != NEVER_NS;
        all += timed ? ", until " + std::to_string((deadlineOf(*each) - START_NS) / 1000000) + " ms\n" : "\n";
    }
    return all;
}

outcome run(plan const& wanted, liberties const& allowed, std::function<void(scheduler&)> const& program,
            bool alwaysTell)
{
    scheduler one(wanted, allowed);
    return one.run(program, alwaysTell);
}

} // namespace schedules
