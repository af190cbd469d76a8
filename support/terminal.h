#ifndef TERMINAL_H
#define TERMINAL_H

#include "lineSettings.h"

#include <string>

/// \file
/// The system calls on a terminal device, each with its interruptions, its fall-backs and its errno in one place.
/// Results are 0 or an errno value. The descriptors never block.

namespace gssipInternal::terminal
{

/// Opens a working terminal device, without waiting for a carrier and without making it the controlling terminal.
int open(std::string const& name, int& descriptor);

/// Takes the device for this descriptor alone: EBUSY when another has it.
int take(int descriptor);

/// Gives it back. Exclusive mode outlives the descriptor where the driver keeps the terminal (a pseudo-terminal does).
void give(int descriptor);

/// A pseudo-terminal has no line whose time could be kept.
bool isPseudoTerminal(int descriptor);

/// Makes the line raw with these settings. EINVAL when the driver kept a speed more than 3 % off; what was in force
/// before is then in force again.
int apply(int descriptor, lineSettings const& settings);

/// Asks the driver to deliver received bytes at once; most have no such thing, which is no failure.
void askForLowLatency(int descriptor);

/// How many bytes the driver has accepted and not yet passed on; 0 when it does not tell.
unsigned queuedOutput(int descriptor);

/// Whether the device has gone: unplugged, or the other end of a pseudo-terminal closed.
bool hasHungUp(int descriptor);

/// Throws away what is queued for output, where the driver does that.
void discardOutput(int descriptor);

} // namespace gssipInternal::terminal

#endif
