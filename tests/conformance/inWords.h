#ifndef CONFORMANCE_INWORDS_H
#define CONFORMANCE_INWORDS_H

#include "reactions.h"
#include "testVector.h"

#include <string>

namespace conformance
{

// As a file of vectors has them; what is long is cut short.

std::string inWords(bytes const& shown);
std::string inWords(deliveredMessage const& shown);
std::string inWords(loggedLine const& shown);

} // namespace conformance

#endif
