#ifndef DISCARDLOG_H
#define DISCARDLOG_H

#include "asciiLogInterface.h"

namespace gssipInternal
{

/// Stands in for a log that was not given, so that nobody has to ask whether there is one.
class discardLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override {}
    void log(double const& /*time_sec*/, std::int32_t const& /*level*/, std::string const& /*text*/) override {}

    /// The log given, or this one.
    static asciiLogInterface* unless(asciiLogInterface* given)
    {
        static auto* const nowhere = new discardLog; // never destroyed: it may outlive static ports
        return given != nullptr ? given : nowhere;
    }
};

} // namespace gssipInternal

#endif
