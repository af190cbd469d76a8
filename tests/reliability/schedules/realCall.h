#ifndef SCHEDULES_REALCALL_H
#define SCHEDULES_REALCALL_H

#include "nextFunction.h"

namespace schedules
{

/// The function that this program would call if no engine stood in front of it: the C library's, or a sanitizer's.
template <typename Function>
Function* realCall(char const* name)
{
    return kit::nextFunction<Function>(name);
}

} // namespace schedules

#endif
