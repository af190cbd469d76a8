// Fills memory when it is freed, so that a thread that goes on using it does not get away with it.
// Under the address sanitizer that is the sanitizer's business.

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <new>

#if !defined(__SANITIZE_ADDRESS__)

void* operator new(std::size_t size)
{
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    constexpr int FREED = 0xA5;
    if (memory != nullptr)
    {
        std::memset(memory, FREED, malloc_usable_size(memory));
        asm volatile("" : : "r"(memory) : "memory"); // or the compiler leaves out what seems to be read by nobody
        std::free(memory);
    }
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

#endif
