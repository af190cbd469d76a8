#ifndef KIT_FAULTPLAN_H
#define KIT_FAULTPLAN_H

#include "systemCalls.h"

#include <cstddef>
#include <string>
#include <vector>

/// \file
/// Makes the n-th call of a kind fail that the library makes, once or from then on, and counts the calls.
/// Link faultPlan.cpp into the test program, with allocations.cpp, systemCalls.cpp and threadCalls.cpp.
///
/// Only the library's calls count: those of an application's thread inside `libraryCode`, and those of the threads that
/// were created there. A call-back puts itself out of it with `applicationCode`.

namespace kit
{

enum class callKind : unsigned {
    allocation,
    open,
    close,
    deviceRead,
    deviceWrite,
    eventRead,
    eventWrite,
    ppoll,
    poll,
    eventfd,
    fstat,
    flockTake,
    flockGive,
    readSettings2,
    writeSettings2,
    readSettings,
    writeSettings,
    takeExclusively,
    giveExclusively,
    readDriver,
    writeDriver,
    outputCount,
    flushOutput,
    wallClock,
    nanosleep,
    createThread,
    nameThread,
    initAttributes,
    destroyAttributes,
    setDetachState,
    setInheritSched,
    setSchedPolicy,
    setSchedParam,
    setScope,
    setStackSize,
    initMutex,
    initCondition,
    initSemaphore,
    waitSemaphore,
    postSemaphore,
    waitCondition,
};

constexpr std::size_t CALL_KINDS = static_cast<std::size_t>(callKind::waitCondition) + 1;

/// As the call is known to programmers, for example "read" or "ioctl(TIOCEXCL)".
char const* nameOf(callKind kind);

/// What happens instead of, or besides, the call.
struct effect
{
    enum class kind {
        fails,     ///< with errno (or, where the call does so, the result) `value`; nothing is done
        reports,   ///< the same, but it is done all the same
        shortens,  ///< at most `value` bytes are read or written
        wakesEarly ///< a wait ends though nobody has signalled
    };

    kind what = kind::fails;
    int value = 0;
};

std::string textOf(effect const& what);

/// One kind of call that is hit, from 1 the how-manieth, and whether all that follow are too.
///
/// EINTR that lasts interrupts three calls of four, as a system under a storm of signals would. EAGAIN that lasts is no
/// readiness either: ppoll does not report the descriptor ready for what cannot be done.
struct fault
{
    callKind at = callKind::allocation;
    unsigned n = 1;
    effect what;
    bool lasts = false;
};

std::string textOf(fault const& one);

/// While it lives, the calling thread is inside the library.
class libraryCode
{
  public:
    libraryCode() noexcept;
    ~libraryCode();
    libraryCode(libraryCode const&) = delete;
    libraryCode& operator=(libraryCode const&) = delete;

  private:
    bool const former;
};

/// While it lives, the calling thread is outside of it.
class applicationCode
{
  public:
    applicationCode() noexcept;
    ~applicationCode();
    applicationCode(applicationCode const&) = delete;
    applicationCode& operator=(applicationCode const&) = delete;

  private:
    bool const former;
};

/// While it is armed, and no longer than it lives, the faults are in force and the library's calls are counted.
/// One at a time.
class faultPlan
{
  public:
    static constexpr std::size_t MOST_FAULTS = 2;

    explicit faultPlan(std::vector<fault> faults);
    ~faultPlan();
    faultPlan(faultPlan const&) = delete;
    faultPlan& operator=(faultPlan const&) = delete;

    void arm();
    void lift();

    unsigned seen(callKind kind) const;           ///< calls while it was armed
    bool hasStruck(std::size_t faultIndex) const; ///< whether that fault has happened

  private:
    std::vector<fault> const faults;
};

/// While it lives, what is not hit goes to that system instead of the real one.
class systemBehindFaults
{
  public:
    explicit systemBehindFaults(systemCalls& system);
    ~systemBehindFaults();
    systemBehindFaults(systemBehindFaults const&) = delete;
    systemBehindFaults& operator=(systemBehindFaults const&) = delete;
};

} // namespace kit

#endif
