#ifndef KIT_WATCHDOG_H
#define KIT_WATCHDOG_H

#include <string>

/// \file
/// Link watchdog.cpp into a test program: a test in it that hangs ends the program with a message, and so fails.

namespace kit
{

/// For a test of many short cases: watches the one that begins now instead of the whole test. When it takes longer, or
/// the program ends in it, the message shows `name`. An empty name ends the watch.
void watchCase(std::string const& name, unsigned limit_sec);

} // namespace kit

#endif
