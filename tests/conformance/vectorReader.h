#ifndef CONFORMANCE_VECTORREADER_H
#define CONFORMANCE_VECTORREADER_H

#include "testVector.h"

#include <istream>
#include <stdexcept>
#include <string>

namespace conformance
{

/// A file that cannot be read or is no file of vectors; says where: "path:line: what is wrong".
class vectorError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/// Reads a whole file of vectors; throws `vectorError`.
vectorFile readVectors(std::string const& path);

/// The same from a stream; `path` stands in errors.
vectorFile readVectors(std::istream& text, std::string const& path);

} // namespace conformance

#endif
