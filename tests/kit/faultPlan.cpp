#include "faultPlan.h"

#include "allocations.h"
#include "nextFunction.h"
#include "threadCalls.h"

#include <array>
#include <asm/termbits.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <pthread.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define GSSIP_OWN_ALLOCATOR 0 // the sanitizer's: the C library's own allocations cannot be made to fail
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define GSSIP_OWN_ALLOCATOR 0
#endif
#endif
#ifndef GSSIP_OWN_ALLOCATOR
#define GSSIP_OWN_ALLOCATOR 1
#endif

// A sanitizer's runtime makes these calls too, on threads that are not ready for instrumented code yet.
#define UNINSTRUMENTED __attribute__((no_sanitize("thread", "address")))

namespace
{

constexpr std::array<char const*, kit::CALL_KINDS> NAMES{
    "allocation",
    "open",
    "close",
    "read",
    "write",
    "read(event)",
    "write(event)",
    "ppoll",
    "poll",
    "eventfd",
    "fstat",
    "flock(LOCK_EX)",
    "flock(LOCK_UN)",
    "ioctl(TCGETS2)",
    "ioctl(TCSETS2)",
    "ioctl(TCGETS)",
    "ioctl(TCSETS)",
    "ioctl(TIOCEXCL)",
    "ioctl(TIOCNXCL)",
    "ioctl(TIOCGSERIAL)",
    "ioctl(TIOCSSERIAL)",
    "ioctl(TIOCOUTQ)",
    "ioctl(TCFLSH)",
    "clock_gettime(CLOCK_REALTIME)",
    "nanosleep",
    "pthread_create",
    "pthread_setname_np",
    "pthread_attr_init",
    "pthread_attr_destroy",
    "pthread_attr_setdetachstate",
    "pthread_attr_setinheritsched",
    "pthread_attr_setschedpolicy",
    "pthread_attr_setschedparam",
    "pthread_attr_setscope",
    "pthread_attr_setstacksize",
    "pthread_mutex_init",
    "pthread_cond_init",
    "sem_init",
    "sem_wait",
    "sem_post",
    "pthread_cond_wait",
};

// --- The plan in force

thread_local bool insideLibrary = false;

std::atomic<bool> armed{false};
std::array<std::atomic<unsigned>, kit::CALL_KINDS> calls{};
std::array<kit::fault, kit::faultPlan::MOST_FAULTS> faultsInForce{}; ///< changed while not armed
std::atomic<std::size_t> numberOfFaults{0};
std::array<std::atomic<bool>, kit::faultPlan::MOST_FAULTS> struck{};

UNINSTRUMENTED bool hits(kit::fault const& one, unsigned n)
{
    constexpr unsigned STORM = 4; // the same calls get through whatever else lasts
    return n == one.n || (one.lasts && n > one.n && (one.what.value != EINTR || n % STORM != 0));
}

/// Counts a call; tells what is to happen to it, if anything.
UNINSTRUMENTED kit::effect const* strike(kit::callKind kind)
{
    if (!insideLibrary || !armed)
    {
        return nullptr;
    }
    unsigned const n = ++calls[static_cast<std::size_t>(kind)];
    for (std::size_t i = 0; i < numberOfFaults; ++i)
    {
        if (faultsInForce[i].at == kind && hits(faultsInForce[i], n))
        {
            struck[i] = true;
            return &faultsInForce[i].what;
        }
    }
    return nullptr;
}

/// Whether this kind answers EAGAIN from now on.
bool isBlocked(kit::callKind kind)
{
    for (std::size_t i = 0; insideLibrary && armed && i < numberOfFaults; ++i)
    {
        kit::fault const& one = faultsInForce[i];
        if (one.at == kind && one.lasts && struck[i] && one.what.value == EAGAIN)
        {
            return true;
        }
    }
    return false;
}

bool isToFailAllocation()
{
    return strike(kit::callKind::allocation) != nullptr;
}

// --- Calls that report through errno

/// The result of a call that may be hit.
template <typename Call>
auto orFault(kit::callKind kind, Call const& call) -> decltype(call())
{
    kit::effect const* const hit = strike(kind);
    if (hit == nullptr)
    {
        return call();
    }
    if (hit->what == kit::effect::kind::reports)
    {
        call();
    }
    errno = hit->value;
    return -1;
}

template <typename Call>
ssize_t transferOrFault(kit::callKind kind, std::size_t count, Call const& call)
{
    kit::effect const* const hit = strike(kind);
    if (hit == nullptr)
    {
        return call(count);
    }
    if (hit->what == kit::effect::kind::shortens)
    {
        auto const most = static_cast<std::size_t>(hit->value);
        return most == 0 ? 0 : call(count < most ? count : most);
    }
    if (hit->what == kit::effect::kind::reports)
    {
        call(count);
    }
    errno = hit->value;
    return -1;
}

std::optional<kit::callKind> kindOf(unsigned long request)
{
    switch (request)
    {
    case TCGETS2:
        return kit::callKind::readSettings2;
    case TCSETS2:
        return kit::callKind::writeSettings2;
    case TCGETS:
        return kit::callKind::readSettings;
    case TCSETS:
        return kit::callKind::writeSettings;
    case TIOCEXCL:
        return kit::callKind::takeExclusively;
    case TIOCNXCL:
        return kit::callKind::giveExclusively;
    case TIOCGSERIAL:
        return kit::callKind::readDriver;
    case TIOCSSERIAL:
        return kit::callKind::writeDriver;
    case TIOCOUTQ:
        return kit::callKind::outputCount;
    case TCFLSH:
        return kit::callKind::flushOutput;
    default:
        return std::nullopt;
    }
}

std::atomic<kit::systemCalls*> behind{nullptr};

kit::systemCalls& systemBehind()
{
    static kit::systemCalls real;
    kit::systemCalls* const other = behind;
    return other != nullptr ? *other : real;
}

/// Stands in front of the system for the life of the program.
class faultySystem : public kit::systemCalls
{
  public:
    int open(char const* name, int flags, mode_t mode) override
    {
        return orFault(kit::callKind::open, [&] { return systemBehind().open(name, flags, mode); });
    }

    int close(int descriptor) override
    {
        forgetEvent(descriptor);
        return orFault(kit::callKind::close, [&] { return systemBehind().close(descriptor); });
    }

    ssize_t read(int descriptor, void* bytes, std::size_t capacity) override
    {
        return transferOrFault(isEvent(descriptor) ? kit::callKind::eventRead : kit::callKind::deviceRead, capacity,
                               [&](std::size_t most) { return systemBehind().read(descriptor, bytes, most); });
    }

    ssize_t write(int descriptor, void const* bytes, std::size_t count) override
    {
        return transferOrFault(isEvent(descriptor) ? kit::callKind::eventWrite : kit::callKind::deviceWrite, count,
                               [&](std::size_t most) { return systemBehind().write(descriptor, bytes, most); });
    }

    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override
    {
        hideWhatIsBlocked(descriptors, count);
        return orFault(kit::callKind::ppoll, [&] { return systemBehind().ppoll(descriptors, count, limit, signals); });
    }

    int poll(pollfd* descriptors, nfds_t count, int limit_ms) override
    {
        return orFault(kit::callKind::poll, [&] { return systemBehind().poll(descriptors, count, limit_ms); });
    }

    int eventfd(unsigned initial, int flags) override
    {
        int const made = orFault(kit::callKind::eventfd, [&] { return systemBehind().eventfd(initial, flags); });
        rememberEvent(made);
        return made;
    }

    int fstat(int descriptor, struct stat& status) override
    {
        return orFault(kit::callKind::fstat, [&] { return systemBehind().fstat(descriptor, status); });
    }

    int flock(int descriptor, int operation) override
    {
        bool const gives = (operation & LOCK_UN) != 0;
        return orFault(gives ? kit::callKind::flockGive : kit::callKind::flockTake,
                       [&] { return systemBehind().flock(descriptor, operation); });
    }

    int ioctl(int descriptor, unsigned long request, void* argument) override
    {
        auto const call = [&] { return systemBehind().ioctl(descriptor, request, argument); };
        std::optional<kit::callKind> const kind = kindOf(request);
        return kind ? orFault(*kind, call) : call();
    }

  private:
    static constexpr std::size_t MOST_DESCRIPTORS = 1024;

    bool isEvent(int descriptor) const
    {
        auto const place = static_cast<std::size_t>(descriptor);
        return place < MOST_DESCRIPTORS && events[place];
    }

    void rememberEvent(int descriptor)
    {
        if (auto const place = static_cast<std::size_t>(descriptor); place < MOST_DESCRIPTORS)
        {
            events[place] = true;
        }
    }

    void forgetEvent(int descriptor)
    {
        if (auto const place = static_cast<std::size_t>(descriptor); place < MOST_DESCRIPTORS)
        {
            events[place] = false;
        }
    }

    void hideWhatIsBlocked(pollfd* descriptors, nfds_t count) const
    {
        int const hidden =
            (isBlocked(kit::callKind::deviceRead) ? POLLIN : 0) | (isBlocked(kit::callKind::deviceWrite) ? POLLOUT : 0);
        for (nfds_t i = 0; hidden != 0 && i < count; ++i)
        {
            if (!isEvent(descriptors[i].fd))
            {
                descriptors[i].events = static_cast<short>(descriptors[i].events & ~hidden);
            }
        }
    }

    std::array<std::atomic<bool>, MOST_DESCRIPTORS> events{};
};

// --- Calls that return their error

/// What a thread begins with: it is the library's when its creator was inside.
struct beginning
{
    kit::threadEntry entry = nullptr;
    void* argument = nullptr;
};

void* beginInLibrary(void* told)
{
    beginning const own = *static_cast<beginning*>(told);
    delete static_cast<beginning*>(told);
    kit::libraryCode const inside;
    return own.entry(own.argument);
}

class faultyThreads : public kit::threadCalls
{
  public:
    int create(pthread_t& thread, pthread_attr_t const* attributes, kit::threadEntry entry, void* argument) override
    {
        if (!insideLibrary)
        {
            return threadCalls::create(thread, attributes, entry, argument);
        }
        if (kit::effect const* const hit = strike(kit::callKind::createThread); hit != nullptr)
        {
            return hit->value;
        }
        beginning* const told = makeBeginning(entry, argument);
        int const status = makeThread(thread, attributes, told);
        if (status != 0)
        {
            delete told;
        }
        return status;
    }

    int setName(pthread_t thread, char const* name) override
    {
        kit::effect const* const hit = strike(kit::callKind::nameThread);
        return hit != nullptr ? hit->value : threadCalls::setName(thread, name);
    }

    bool wakesForNothing() override { return strike(kit::callKind::waitCondition) != nullptr; }

  private:
    int makeThread(pthread_t& thread, pthread_attr_t const* attributes, beginning* told)
    {
#if !GSSIP_OWN_ALLOCATOR
        kit::applicationCode const outside; // a sanitizer's own calls must not fail
#endif
        return threadCalls::create(thread, attributes, beginInLibrary, told);
    }

    static beginning* makeBeginning(kit::threadEntry entry, void* argument)
    {
        kit::applicationCode const outside;
        return new beginning{entry, argument};
    }
};

/// What the call would have reached without this program between; looked up once.
template <typename Function>
UNINSTRUMENTED Function* systemFunction(void*& known, char const* name)
{
    void* found = __atomic_load_n(&known, __ATOMIC_RELAXED);
    if (found == nullptr)
    {
        found = dlsym(RTLD_NEXT, name);
        __atomic_store_n(&known, found, __ATOMIC_RELAXED);
    }
    return reinterpret_cast<Function*>(found);
}

[[maybe_unused]] bool const inFront = [] {
    static faultySystem system;
    static faultyThreads threads;
    static kit::systemReplaced const systemInFront(system);
    static kit::threadCallsReplaced const threadsInFront(threads);
#if !GSSIP_OWN_ALLOCATOR
    kit::askBeforeAllocating(isToFailAllocation);
#endif
    return true;
}();

} // namespace

// A function of the C library whose result is its error number.
// NOLINTBEGIN(bugprone-macro-parentheses): lists of parameters, types and arguments, parentheses and all
#define GSSIP_HIT_RESULT(kind, function, parameters, types, arguments)                                                 \
    extern "C" UNINSTRUMENTED int function parameters noexcept                                                         \
    {                                                                                                                  \
        static void* known = nullptr;                                                                                  \
        kit::effect const* const hit = strike(kit::callKind::kind);                                                    \
        return hit != nullptr ? hit->value : systemFunction<int types>(known, #function) arguments;                    \
    }

// NOLINTEND(bugprone-macro-parentheses)

GSSIP_HIT_RESULT(initAttributes, pthread_attr_init, (pthread_attr_t * attr), (pthread_attr_t*), (attr))
GSSIP_HIT_RESULT(destroyAttributes, pthread_attr_destroy, (pthread_attr_t * attr), (pthread_attr_t*), (attr))
GSSIP_HIT_RESULT(setDetachState, pthread_attr_setdetachstate, (pthread_attr_t * attr, int value),
                 (pthread_attr_t*, int), (attr, value))
GSSIP_HIT_RESULT(setInheritSched, pthread_attr_setinheritsched, (pthread_attr_t * attr, int value),
                 (pthread_attr_t*, int), (attr, value))
GSSIP_HIT_RESULT(setSchedPolicy, pthread_attr_setschedpolicy, (pthread_attr_t * attr, int value),
                 (pthread_attr_t*, int), (attr, value))
GSSIP_HIT_RESULT(setSchedParam, pthread_attr_setschedparam, (pthread_attr_t * attr, sched_param const* value),
                 (pthread_attr_t*, sched_param const*), (attr, value))
GSSIP_HIT_RESULT(setScope, pthread_attr_setscope, (pthread_attr_t * attr, int value), (pthread_attr_t*, int),
                 (attr, value))
GSSIP_HIT_RESULT(setStackSize, pthread_attr_setstacksize, (pthread_attr_t * attr, std::size_t value),
                 (pthread_attr_t*, std::size_t), (attr, value))
GSSIP_HIT_RESULT(initMutex, pthread_mutex_init, (pthread_mutex_t * mutex, pthread_mutexattr_t const* attr),
                 (pthread_mutex_t*, pthread_mutexattr_t const*), (mutex, attr))
GSSIP_HIT_RESULT(initCondition, pthread_cond_init, (pthread_cond_t * condition, pthread_condattr_t const* attr),
                 (pthread_cond_t*, pthread_condattr_t const*), (condition, attr))

extern "C" {

UNINSTRUMENTED int sem_init(sem_t* semaphore, int shared, unsigned value) noexcept
{
    static void* known = nullptr;
    return orFault(kit::callKind::initSemaphore, [&] {
        return systemFunction<int(sem_t*, int, unsigned)>(known, "sem_init")(semaphore, shared, value);
    });
}

UNINSTRUMENTED int sem_wait(sem_t* semaphore)
{
    static void* known = nullptr;
    return orFault(kit::callKind::waitSemaphore,
                   [&] { return systemFunction<int(sem_t*)>(known, "sem_wait")(semaphore); });
}

UNINSTRUMENTED int sem_post(sem_t* semaphore) noexcept
{
    static void* known = nullptr;
    return orFault(kit::callKind::postSemaphore,
                   [&] { return systemFunction<int(sem_t*)>(known, "sem_post")(semaphore); });
}

UNINSTRUMENTED int nanosleep(timespec const* duration, timespec* left)
{
    static void* known = nullptr;
    constexpr char const* SYMBOL = kit::symbolOf("nanosleep");
    return orFault(kit::callKind::nanosleep,
                   [&] { return systemFunction<int(timespec const*, timespec*)>(known, SYMBOL)(duration, left); });
}

UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    static void* known = nullptr;
    constexpr char const* SYMBOL = kit::symbolOf("clock_gettime");
    auto const call = [&] { return systemFunction<int(clockid_t, timespec*)>(known, SYMBOL)(clock, time); };
    return clock == CLOCK_REALTIME ? orFault(kit::callKind::wallClock, call) : call();
}

#if GSSIP_OWN_ALLOCATOR

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size)
{
    if (isToFailAllocation())
    {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    if (isToFailAllocation())
    {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size)
{
    if (isToFailAllocation())
    {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(memory, size);
}

#endif

} // extern "C"

namespace kit
{

char const* nameOf(callKind kind)
{
    return NAMES[static_cast<std::size_t>(kind)];
}

std::string textOf(effect const& what)
{
    switch (what.what)
    {
    case effect::kind::shortens:
        return "short-" + std::to_string(what.value);
    case effect::kind::wakesEarly:
        return "wakes-early";
    default:
        return strerrorname_np(what.value);
    }
}

std::string textOf(fault const& one)
{
    return std::string(nameOf(one.at)) + '#' + std::to_string(one.n) + ' ' + textOf(one.what) +
           (one.lasts ? " for-ever" : " once");
}

libraryCode::libraryCode() noexcept : former(insideLibrary)
{
    insideLibrary = true;
}

libraryCode::~libraryCode()
{
    insideLibrary = former;
}

applicationCode::applicationCode() noexcept : former(insideLibrary)
{
    insideLibrary = false;
}

applicationCode::~applicationCode()
{
    insideLibrary = former;
}

faultPlan::faultPlan(std::vector<fault> faultsToMake) : faults(std::move(faultsToMake))
{
    for (auto& count : calls)
    {
        count = 0;
    }
    numberOfFaults = 0;
    for (std::size_t i = 0; i < faults.size() && i < MOST_FAULTS; ++i)
    {
        faultsInForce[i] = faults[i];
        struck[i] = false;
        ++numberOfFaults;
    }
}

faultPlan::~faultPlan()
{
    lift();
}

void faultPlan::arm()
{
    armed = true;
}

void faultPlan::lift()
{
    armed = false;
}

unsigned faultPlan::seen(callKind kind) const
{
    return calls[static_cast<std::size_t>(kind)];
}

bool faultPlan::hasStruck(std::size_t faultIndex) const
{
    return struck[faultIndex];
}

systemBehindFaults::systemBehindFaults(systemCalls& system)
{
    behind = &system;
}

systemBehindFaults::~systemBehindFaults()
{
    behind = nullptr;
}

} // namespace kit
