#ifndef GSSIP_EXPORT_H
#define GSSIP_EXPORT_H

#include <ctime>

/// Marks what the two shared libraries export; everything else in them is hidden.
#define GSSIP_EXPORT __attribute__((visibility("default")))

/// Keeps an inner class of an exported one hidden.
#define GSSIP_HIDDEN __attribute__((visibility("hidden")))

// Deadlines are part of public classes. Where a C library offers 32 and 64 bits for time, the libraries are built
// with 64.
#if !defined(__GLIBC__) || __GLIBC_PREREQ(2, 34)
static_assert(sizeof(std::time_t) >= 8,
              "GSSIP needs 64-bit time: compile with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64, as the CMake targets "
              "gssip::port and gssip::support and the pkg-config modules do by themselves");
#endif

#endif
