#include "documentedErrors.h"

#include <array>
#include <cerrno>

/// \file
/// Left out are what only a caller with a fault of its own can meet (EBADF, EFAULT, ESRCH), and calls that cannot fail
/// for a caller without one: locking and unlocking a plain mutex, waiting on and signalling a condition, joining, the
/// signal mask, asking for one's own scheduling, the monotonic clock, which every kernel has. Of the waits on a
/// condition the early wake-up is here.

namespace faults
{
namespace
{

using kit::callKind;
using kit::effect;
using possibilities = std::vector<possibility>;

possibility costs(int error)
{
    return {{effect::kind::fails, error}, true, true};
}

/// Nobody but the processor notices, however often it happens.
possibility harmless(int error)
{
    return {{effect::kind::fails, error}, false, false};
}

/// A caller tries again; that it fails for ever is a state of the device.
possibility harmlessOnce(int error)
{
    return {{effect::kind::fails, error}, false, true};
}

/// Done all the same: an event that is set already, a semaphore that is up already, a descriptor that is closed.
possibility doneButTold(int error, bool itCosts)
{
    return {{effect::kind::reports, error}, itCosts, itCosts};
}

possibility shortTo(int bytes, bool itCosts)
{
    return {{effect::kind::shortens, bytes}, itCosts, itCosts};
}

template <typename Make, typename... Errors>
possibilities each(Make const& make, Errors... errors)
{
    return {make(errors)...};
}

possibilities operator+(possibilities left, possibilities const& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

possibilities make(callKind kind)
{
    switch (kind)
    {
    case callKind::allocation:
        return each(costs, ENOMEM);
    case callKind::open:
        return each(harmless, EINTR) + each(costs, EACCES, EBUSY, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENODEV,
                                            ENOENT, ENOMEM, ENOTDIR, ENXIO, EPERM, EROFS, EWOULDBLOCK);
    case callKind::close:
        return {doneButTold(EINTR, false), doneButTold(EIO, true)};
    case callKind::deviceRead:
        return each(harmless, EINTR) + each(harmlessOnce, EAGAIN) + each(costs, EIO, EINVAL, ENXIO) +
               possibilities{shortTo(1, false), shortTo(0, true)};
    case callKind::deviceWrite:
        return each(harmless, EINTR) + each(harmlessOnce, EAGAIN) +
               each(costs, EIO, EINVAL, ENOSPC, EPERM, EPIPE, ENXIO) +
               possibilities{shortTo(1, false), shortTo(0, true)};
    case callKind::eventRead:
    case callKind::eventWrite:
        return {doneButTold(EAGAIN, false)};
    case callKind::ppoll:
        return each(harmless, EINTR) + each(costs, EINVAL, ENOMEM);
    case callKind::poll:
        return each(harmless, EINTR) + each(costs, EINVAL, ENOMEM);
    case callKind::eventfd:
        return each(costs, EMFILE, ENFILE, ENODEV, ENOMEM);
    case callKind::fstat: // the device then counts as one with a line
        return each(harmless, ENOMEM, EOVERFLOW, EIO);
    case callKind::flockTake:
        return each(harmless, EINTR) + each(costs, EWOULDBLOCK, ENOLCK);
    case callKind::flockGive: // the close gives the lock back, too
        return each(harmless, EINTR, ENOLCK);
    case callKind::readSettings2: // a kernel without arbitrary rates
        return each(harmless, EINTR, ENOTTY, EINVAL, ENOSYS) + each(costs, EIO, EPERM);
    case callKind::readSettings:
        return each(harmless, EINTR) + each(costs, ENOTTY, EINVAL, EIO, EPERM);
    case callKind::writeSettings2:
    case callKind::writeSettings:
        return each(harmless, EINTR) + each(costs, ENOTTY, EINVAL, EIO, EPERM);
    case callKind::takeExclusively: // controls that a driver may lack
    case callKind::giveExclusively:
        return each(harmless, EINTR, ENOTTY, EINVAL, EIO, EPERM);
    case callKind::readDriver:
        return each(harmless, EINTR, ENOTTY, EINVAL, EIO);
    case callKind::writeDriver:
        return each(harmless, EINTR, ENOTTY, EINVAL, EIO, EPERM, EBUSY);
    case callKind::outputCount:
        return each(harmless, EINTR, ENOTTY, EINVAL, EIO);
    case callKind::flushOutput:
        return each(harmless, EINTR) + each(costs, ENOTTY, EINVAL, EIO);
    case callKind::wallClock:
        return each(costs, EINVAL);
    case callKind::nanosleep:
        return each(harmless, EINTR) + each(costs, EINVAL);
    case callKind::createThread:
        return each(costs, EAGAIN, EINVAL, EPERM);
    case callKind::nameThread:
        return each(costs, ERANGE, EACCES, EMFILE, ENOENT, EIO);
    case callKind::initAttributes:
        return each(costs, ENOMEM);
    case callKind::destroyAttributes:
        return each(costs, EINVAL);
    case callKind::setDetachState:
    case callKind::setInheritSched:
    case callKind::setSchedPolicy:
    case callKind::setSchedParam:
    case callKind::setScope:
        return each(costs, EINVAL, ENOTSUP);
    case callKind::setStackSize:
        return each(costs, EINVAL);
    case callKind::initMutex:
        return each(costs, EAGAIN, ENOMEM, EPERM);
    case callKind::initCondition:
        return each(costs, EAGAIN, ENOMEM);
    case callKind::initSemaphore:
        return each(costs, EINVAL, ENOSYS);
    case callKind::waitSemaphore:
        return each(harmless, EINTR) + each(costs, EINVAL);
    case callKind::postSemaphore:
        return {doneButTold(EOVERFLOW, false)};
    case callKind::waitCondition:
        return {{{effect::kind::wakesEarly, 0}, false, false}};
    }
    return {};
}

} // namespace

std::vector<possibility> const& possibilitiesOf(callKind kind)
{
    static std::array<possibilities, kit::CALL_KINDS> const all = [] {
        std::array<possibilities, kit::CALL_KINDS> made;
        for (std::size_t i = 0; i < made.size(); ++i)
        {
            made[i] = make(static_cast<callKind>(i));
        }
        return made;
    }();
    return all[static_cast<std::size_t>(kind)];
}

} // namespace faults
