#ifndef KIT_REFUSALS_H
#define KIT_REFUSALS_H

#include <cstddef>
#include <vector>

/// \file
/// Lets the system refuse a thread what it makes of mutexes, conditions, attributes and threads. Add refusals.cpp to
/// the test program: it defines these functions in front of the C library's.

namespace kit
{

/// The errors that the calling thread's next calls fail with; 0 lets them through.
struct refusals
{
    int conditionInit = 0;
    int mutexInit = 0;
    int conditionDestroy = 0;
    int mutexDestroy = 0;
    int attributesInit = 0;
    int attributesDestroy = 0;
    int create = 0; ///< of the tracker's thread only
    int name = 0;

    unsigned mutexesAsked = 0; ///< made or destroyed, refused or not

    std::vector<void const*>* asked = nullptr; ///< gets each mutex or condition that is made or destroyed, if any
    std::size_t refusedOne = 0;                ///< which of these is refused, counted from 1
};

/// Those of the calling thread.
refusals& refusedHere();

} // namespace kit

#endif
