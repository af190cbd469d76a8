#include "refusals.h"

#include "gssipSendAckReq.h"

#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>

namespace
{

thread_local kit::refusals refuse;

// A sanitizer's runtime makes these calls too, on threads that are not ready for instrumented code yet.
#define UNINSTRUMENTED __attribute__((no_sanitize("thread")))

/// What the call would have reached without this program between; looked up once.
template <typename Function>
UNINSTRUMENTED Function* systemCall(void*& known, char const* name)
{
    void* found = __atomic_load_n(&known, __ATOMIC_RELAXED);
    if (found == nullptr)
    {
        found = dlsym(RTLD_NEXT, name);
        __atomic_store_n(&known, found, __ATOMIC_RELAXED);
    }
    return reinterpret_cast<Function*>(found);
}

/// The error with which a call on that object fails, or 0.
UNINSTRUMENTED int refusalOf(void const* object, int always)
{
    if (refuse.asked == nullptr)
    {
        return always;
    }
    refuse.asked->push_back(object);
    return refuse.asked->size() == refuse.refusedOne ? ENOMEM : always;
}

} // namespace

namespace kit
{

refusals& refusedHere()
{
    return refuse;
}

} // namespace kit

extern "C" UNINSTRUMENTED int pthread_cond_init(pthread_cond_t* condition,
                                                pthread_condattr_t const* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_cond_t*, pthread_condattr_t const*);
    int const refusal = refusalOf(condition, refuse.conditionInit);
    return refusal != 0 ? refusal : systemCall<call>(known, "pthread_cond_init")(condition, attributes);
}

extern "C" UNINSTRUMENTED int pthread_mutex_init(pthread_mutex_t* mutex, pthread_mutexattr_t const* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_mutex_t*, pthread_mutexattr_t const*);
    ++refuse.mutexesAsked;
    int const refusal = refusalOf(mutex, refuse.mutexInit);
    return refusal != 0 ? refusal : systemCall<call>(known, "pthread_mutex_init")(mutex, attributes);
}

extern "C" UNINSTRUMENTED int pthread_cond_destroy(pthread_cond_t* condition) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_cond_t*);
    int const refusal = refusalOf(condition, refuse.conditionDestroy);
    return refusal != 0 ? refusal : systemCall<call>(known, "pthread_cond_destroy")(condition);
}

extern "C" UNINSTRUMENTED int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_mutex_t*);
    ++refuse.mutexesAsked;
    int const refusal = refusalOf(mutex, refuse.mutexDestroy);
    return refusal != 0 ? refusal : systemCall<call>(known, "pthread_mutex_destroy")(mutex);
}

extern "C" UNINSTRUMENTED int pthread_attr_init(pthread_attr_t* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_attr_t*);
    return refuse.attributesInit != 0 ? refuse.attributesInit
                                      : systemCall<call>(known, "pthread_attr_init")(attributes);
}

extern "C" UNINSTRUMENTED int pthread_attr_destroy(pthread_attr_t* attributes) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_attr_t*);
    return refuse.attributesDestroy != 0 ? refuse.attributesDestroy
                                         : systemCall<call>(known, "pthread_attr_destroy")(attributes);
}

extern "C" UNINSTRUMENTED int pthread_create(pthread_t* id, pthread_attr_t const* attributes, void* (*entry)(void*),
                                             void* argument) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
    bool const refused = refuse.create != 0 && entry == gssipSendAckReq::callEventThread;
    return refused ? refuse.create : systemCall<call>(known, "pthread_create")(id, attributes, entry, argument);
}

extern "C" UNINSTRUMENTED int pthread_setname_np(pthread_t id, char const* name) noexcept
{
    static void* known = nullptr;
    using call = int(pthread_t, char const*);
    return refuse.name != 0 ? refuse.name : systemCall<call>(known, "pthread_setname_np")(id, name);
}
