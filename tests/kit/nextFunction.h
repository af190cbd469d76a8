#ifndef KIT_NEXTFUNCTION_H
#define KIT_NEXTFUNCTION_H

#include <dlfcn.h>
#include <features.h>
#include <string_view>
#include <utility>

/// \file
/// For what stands in front of a function of the C library: the way to that function itself.
///
/// On a 32-bit machine the headers give functions that know times or file sizes another symbol. A function that is
/// defined under its usual name gets that symbol from its declaration; only who looks it up by name has to know it.

namespace kit
{

/// The symbol of a function of the C library, as this program is compiled.
constexpr char const* symbolOf(char const* function)
{
#if __TIMESIZE == 32
    constexpr std::pair<std::string_view, char const*> OTHERS[] = {
        {"clock_gettime", "__clock_gettime64"},
        {"clock_nanosleep", "__clock_nanosleep_time64"},
        {"fcntl", "__fcntl_time64"},
        {"fstat", "__fstat64_time64"},
        {"ioctl", "__ioctl_time64"},
        {"nanosleep", "__nanosleep64"},
        {"open", "open64"},
        {"ppoll", "__ppoll64"},
        {"pthread_cond_clockwait", "__pthread_cond_clockwait64"},
        {"pthread_cond_timedwait", "__pthread_cond_timedwait64"},
        {"sem_clockwait", "__sem_clockwait64"},
        {"sem_timedwait", "__sem_timedwait64"},
    };
    for (auto const& other : OTHERS)
    {
        if (other.first == function)
        {
            return other.second;
        }
    }
#endif
    return function;
}

/// The function that this program would call if it had none of that name: the C library's, or a sanitizer's.
template <typename Function>
Function* nextFunction(char const* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbolOf(name)));
}

} // namespace kit

#endif
