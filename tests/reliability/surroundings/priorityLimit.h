#ifndef PRIORITYLIMIT_H
#define PRIORITYLIMIT_H

#include <string>

/// From now on no thread of this process gets a real-time priority above the limit, as with RLIMIT_RTPRIO.
///
/// Where the system lets this process set that limit, it is set. Where it does not (raising it takes a right that
/// containers withhold even from root), a second process answers each request to change a thread's scheduling in the
/// system's place, by the same rule, and ends with this one. For a process of its own; gives what went wrong, or
/// nothing.
std::string limitRealTimePriority(int limit);

#endif
