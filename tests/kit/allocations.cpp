#include "allocations.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace
{

thread_local std::size_t made = 0;
std::atomic<std::ptrdiff_t> alive{0};
std::atomic<bool (*)()> isToFail{nullptr};
std::atomic<std::size_t> madeByAll{0};
thread_local bool failureAhead = false;
thread_local std::size_t successesLeft = 0;

thread_local bool countsElsewhere = false; ///< on the thread that has asked for a failure on the others
std::atomic<bool> failureElsewhere{false};
std::atomic<std::int64_t> successesLeftElsewhere{0};

void failElsewhere()
{
    if (failureElsewhere && !countsElsewhere && successesLeftElsewhere.fetch_sub(1) == 0)
    {
        failureElsewhere = false;
        throw std::bad_alloc();
    }
}

void failIfAsked()
{
    auto* const ask = isToFail.load();
    if (ask != nullptr && ask())
    {
        throw std::bad_alloc();
    }
}

void* allocate(std::size_t size)
{
    failIfAsked();
    failElsewhere();
    if (failureAhead && successesLeft == 0)
    {
        failureAhead = false;
        throw std::bad_alloc();
    }
    if (failureAhead)
    {
        --successesLeft;
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    ++made;
    ++alive;
    ++madeByAll;
    return memory;
}

void giveBack(void* memory) noexcept
{
    alive -= memory == nullptr ? 0 : 1;
    std::free(memory);
}

} // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory) noexcept
{
    giveBack(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    giveBack(memory);
}

namespace kit
{

std::size_t allocationsMade()
{
    return made;
}

std::ptrdiff_t allocationsAlive()
{
    return alive;
}

void askBeforeAllocating(bool (*shallFail)())
{
    isToFail = shallFail;
}

std::size_t allocationsMadeByAll()
{
    return madeByAll;
}

oneFailingAllocation::oneFailingAllocation(std::size_t successes)
{
    successesLeft = successes;
    failureAhead = true;
}

oneFailingAllocation::~oneFailingAllocation()
{
    failureAhead = false;
}

bool oneFailingAllocation::happened() const
{
    return !failureAhead;
}

oneFailingAllocationElsewhere::oneFailingAllocationElsewhere(std::size_t successes)
{
    countsElsewhere = true;
    successesLeftElsewhere = static_cast<std::int64_t>(successes);
    failureElsewhere = true;
}

oneFailingAllocationElsewhere::~oneFailingAllocationElsewhere()
{
    failureElsewhere = false;
    countsElsewhere = false;
}

bool oneFailingAllocationElsewhere::happened() const
{
    return !failureElsewhere;
}

} // namespace kit
