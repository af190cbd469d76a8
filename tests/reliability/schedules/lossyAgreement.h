#ifndef SCHEDULES_LOSSYAGREEMENT_H
#define SCHEDULES_LOSSYAGREEMENT_H

#include "line.h"

#include <cstdint>
#include <string>
#include <vector>

namespace schedules
{

/// Something that happened, or should have: bytes on the line, or words.
struct happening
{
    std::int64_t when_ns = 0;
    unsigned by = 0; ///< whose doing; of what has been observed it is not known
    bytes content;
};

/// Compares what was to happen with what did, time by time. At one time the contents must be the same, in the order of
/// each source; how the sources lie to each other is left open, but none is cut by another. `observed` may be cut
/// anywhere. Empty when they agree, else the first difference in words.
///
/// `inOrder` is given what was to happen in the order in which it did.
std::string disagreement(std::vector<happening> const& expected, std::vector<happening> const& observed,
                         std::vector<happening>& inOrder);

} // namespace schedules

#endif
