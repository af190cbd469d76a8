// Atomic operations as steps of a schedule.
//
// Code that is compiled with -fsanitize=thread calls a function for each of its atomic operations. Here are these
// functions, in place of the sanitizer's own: they take the step and then the operation. What such code also tells, of
// every plain access and every function, is not asked for.

#include "scheduler.h"

#include <cstddef>
#include <cstdint>

namespace
{

void stepBefore(char const* what, void const volatile* object)
{
    schedules::scheduler* const schedule = schedules::scheduler::current();
    if (schedule != nullptr && schedule->atomicIsStep())
    {
        schedule->step(what, const_cast<void const*>(object));
    }
}

} // namespace

// NOLINTBEGIN
#define SCHEDULES_ATOMIC_MODIFIER(bits, type, name)                                                                    \
    type __tsan_atomic##bits##_##name(type volatile* object, type value, int)                                          \
    {                                                                                                                  \
        stepBefore("changes atomically", object);                                                                      \
        return __atomic_##name(object, value, __ATOMIC_SEQ_CST);                                                       \
    }

#define SCHEDULES_ATOMIC_EXCHANGE(bits, type, strength, isWeak)                                                        \
    int __tsan_atomic##bits##_compare_exchange_##strength(type volatile* object, type* expected, type value, int, int) \
    {                                                                                                                  \
        stepBefore("compares and exchanges", object);                                                                  \
        return __atomic_compare_exchange_n(object, expected, value, isWeak, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);       \
    }

#define SCHEDULES_ATOMIC(bits, type)                                                                                   \
    type __tsan_atomic##bits##_load(type const volatile* object, int)                                                  \
    {                                                                                                                  \
        stepBefore("loads", object);                                                                                   \
        return __atomic_load_n(object, __ATOMIC_SEQ_CST);                                                              \
    }                                                                                                                  \
    void __tsan_atomic##bits##_store(type volatile* object, type value, int)                                           \
    {                                                                                                                  \
        stepBefore("stores", object);                                                                                  \
        __atomic_store_n(object, value, __ATOMIC_SEQ_CST);                                                             \
    }                                                                                                                  \
    type __tsan_atomic##bits##_exchange(type volatile* object, type value, int)                                        \
    {                                                                                                                  \
        stepBefore("exchanges", object);                                                                               \
        return __atomic_exchange_n(object, value, __ATOMIC_SEQ_CST);                                                   \
    }                                                                                                                  \
    SCHEDULES_ATOMIC_MODIFIER(bits, type, fetch_add)                                                                   \
    SCHEDULES_ATOMIC_MODIFIER(bits, type, fetch_sub)                                                                   \
    SCHEDULES_ATOMIC_MODIFIER(bits, type, fetch_and)                                                                   \
    SCHEDULES_ATOMIC_MODIFIER(bits, type, fetch_or)                                                                    \
    SCHEDULES_ATOMIC_MODIFIER(bits, type, fetch_xor)                                                                   \
    SCHEDULES_ATOMIC_EXCHANGE(bits, type, strong, false)                                                               \
    SCHEDULES_ATOMIC_EXCHANGE(bits, type, weak, true)

#define SCHEDULES_ACCESS(bytes)                                                                                        \
    void __tsan_read##bytes(void*) {}                                                                                  \
    void __tsan_write##bytes(void*) {}                                                                                 \
    void __tsan_unaligned_read##bytes(void*) {}                                                                        \
    void __tsan_unaligned_write##bytes(void*) {}                                                                       \
    void __tsan_volatile_read##bytes(void*) {}                                                                         \
    void __tsan_volatile_write##bytes(void*) {}

extern "C" {

SCHEDULES_ATOMIC(8, std::uint8_t)
SCHEDULES_ATOMIC(16, std::uint16_t)
SCHEDULES_ATOMIC(32, std::uint32_t)
SCHEDULES_ATOMIC(64, std::uint64_t)

SCHEDULES_ACCESS(1)
SCHEDULES_ACCESS(2)
SCHEDULES_ACCESS(4)
SCHEDULES_ACCESS(8)
SCHEDULES_ACCESS(16)

void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}
void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit(void*) {}
void __tsan_read_range(void*, std::size_t) {}
void __tsan_write_range(void*, std::size_t) {}
void __tsan_vptr_update(void**, void*) {}
void __tsan_vptr_read(void**) {}

} // extern "C"
// NOLINTEND
