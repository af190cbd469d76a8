#ifndef GSSIP_VERSION_H
#define GSSIP_VERSION_H

#include "gssipExport.h"

/// \file
/// The version of the headers at compile time and of the loaded library at run time.
/// These three numbers are the only place where the version is written; the build reads them from here.

/// Counts the breaks of the binary interface; stands in the SONAMEs.
#define GSSIP_VERSION_MAJOR 1
/// Counts additions to the interface.
#define GSSIP_VERSION_MINOR 0
/// Counts mends.
#define GSSIP_VERSION_PATCH 0

/// The version of the library that the program has loaded, for example "1.0.0".
///
/// Compare it with the macros above, which hold the version of the headers that the program was compiled with.
/// May be called from any thread; never blocks; the text lives as long as the program.
GSSIP_EXPORT char const* gssipVersion();

#endif
