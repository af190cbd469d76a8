#ifndef CONFORMANCE_RUNNER_H
#define CONFORMANCE_RUNNER_H

#include "player.h"
#include "subject.h"

#include <ostream>
#include <string>
#include <vector>

namespace conformance
{

/// How many vectors came out how.
struct tally
{
    unsigned passed = 0;
    unsigned failed = 0;
    unsigned skipped = 0;
};

/// Plays every vector whose name contains `only`, and writes one line for each, and one for all.
tally playFiles(std::vector<vectorFile> const& files, std::string const& only, subject& with, duration patience,
                std::ostream& out);

/// Writes the names of the vectors whose names contain `only`.
void listFiles(std::vector<vectorFile> const& files, std::string const& only, std::ostream& out);

} // namespace conformance

#endif
