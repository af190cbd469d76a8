#ifndef KIT_WALLCLOCK_H
#define KIT_WALLCLOCK_H

#include <chrono>

/// \file
/// A wall clock that a test can step, for this program alone. Link wallClock.cpp into the test program: there
/// `clock_gettime` shows the stepped time, and timed waits on that clock end by it. No other clock is touched.

namespace kit
{

/// Moves the wall clock of this program from now on; negative steps it back.
void stepWallClock(std::chrono::seconds step);

/// Sets the wall clock of this program to so many seconds after the beginning of 1970.
void setWallClock(std::chrono::seconds sinceEpoch);

/// Plans a step for the moment right after the wall clock has been read that many times more, by whatever thread.
void stepWallClockAfterReading(int reading, std::chrono::seconds step);

/// Takes the planned step now, if it has not been taken yet.
void takePlannedStep();

/// Undoes every step at the end of its scope.
class unsteppedAgain
{
  public:
    unsteppedAgain() = default;
    ~unsteppedAgain();
    unsteppedAgain(unsteppedAgain const&) = delete;
    unsteppedAgain& operator=(unsteppedAgain const&) = delete;
};

} // namespace kit

#endif
