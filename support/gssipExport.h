#ifndef GSSIP_EXPORT_H
#define GSSIP_EXPORT_H

/// Marks what the two shared libraries export; everything else in them is hidden.
#define GSSIP_EXPORT __attribute__((visibility("default")))

/// Keeps an inner class of an exported one hidden.
#define GSSIP_HIDDEN __attribute__((visibility("hidden")))

#endif
