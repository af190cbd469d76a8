#ifndef KIT_EMULATION_H
#define KIT_EMULATION_H

/// \file
/// What a kernel has and an emulator of its calls lacks, found out by trying. A test that needs it is skipped with the
/// reason that stands here.

namespace kit
{

/// Whether the program runs by user-mode emulation.
bool isEmulated();

/// Speeds that have no constant of their own.
bool hasArbitraryRates();
constexpr char const* NO_ARBITRARY_RATES = "this system knows standard rates only (no TCGETS2)";

/// All speeds that have one.
bool hasEveryStandardRate();
constexpr char const* NOT_EVERY_STANDARD_RATE = "this system keeps standard rates up to 460800 bit/s only";

/// Whether a terminal is in exclusive mode.
bool tellsExclusiveMode();
constexpr char const* EXCLUSIVE_MODE_UNTOLD = "this system does not tell of exclusive mode (no TIOCGEXCL)";

/// System calls that a process refuses itself from then on.
bool hasSystemCallFilters();
constexpr char const* NO_SYSTEM_CALL_FILTERS = "this system has no filters of system calls (seccomp)";

/// That the memory of a thread is given back when the thread has ended.
bool givesThreadMemoryBack();
constexpr char const* THREAD_MEMORY_KEPT = "the emulator keeps memory of each thread that has ended (170 KiB "
                                           "measured): it runs out of it after many thousands";

} // namespace kit

#endif
