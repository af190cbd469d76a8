#ifndef CONFORMANCE_PLAYER_H
#define CONFORMANCE_PLAYER_H

#include "subject.h"
#include "testVector.h"

#include <string>

namespace conformance
{

struct verdict
{
    enum outcome { passed, failed, skipped };

    outcome result = passed;
    std::string reason; ///< of a failure "path:line: what was expected, and what came"
};

/// Plays one vector, with the closing exchange behind it. `patience` is how long an expected reaction may take.
verdict play(testVector const& vector, std::string const& path, subject& with, duration patience);

/// The closing exchange alone: empty when the other side takes part in it, what is wrong otherwise.
std::string whyNoExchange(subject& with, duration patience);

} // namespace conformance

#endif
