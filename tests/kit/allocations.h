#ifndef KIT_ALLOCATIONS_H
#define KIT_ALLOCATIONS_H

#include <cstddef>

/// \file
/// Watches and fails the memory that threads take with `operator new`, the library's share included.
/// Link allocations.cpp into the test program: it replaces the operator there.

namespace kit
{

/// The number of allocations that the calling thread has made so far.
std::size_t allocationsMade();

/// The number of allocations, of all threads, that have been made and not yet been given back.
std::ptrdiff_t allocationsAlive();

/// From now on every allocation asks first, on its own thread: true makes it fail. Null asks nobody.
void askBeforeAllocating(bool (*shallFail)());

/// The number that all threads together have made so far.
std::size_t allocationsMadeByAll();

/// While it lives, the calling thread's allocations succeed `successes` times; the next one throws `std::bad_alloc`,
/// and those after it succeed again.
class oneFailingAllocation
{
  public:
    explicit oneFailingAllocation(std::size_t successes);
    ~oneFailingAllocation();
    oneFailingAllocation(oneFailingAllocation const&) = delete;
    oneFailingAllocation& operator=(oneFailingAllocation const&) = delete;

    bool happened() const; ///< true once the failure has been delivered
};

/// The same for all other threads together: while it lives, the n-th allocation that any of them makes throws.
class oneFailingAllocationElsewhere
{
  public:
    explicit oneFailingAllocationElsewhere(std::size_t successes);
    ~oneFailingAllocationElsewhere();
    oneFailingAllocationElsewhere(oneFailingAllocationElsewhere const&) = delete;
    oneFailingAllocationElsewhere& operator=(oneFailingAllocationElsewhere const&) = delete;

    bool happened() const; ///< true once the failure has been delivered
};

} // namespace kit

#endif
