#ifndef EXAMPLES_PLUGGABLEDEVICE_H
#define EXAMPLES_PLUGGABLEDEVICE_H

#include "partner.h"

#include <memory>
#include <string>

namespace examples
{

/// A device that comes and goes, as a USB adapter does: a symbolic link, in a folder of its own, to one end of a null
/// modem with a partner at its other end. Not plugged in at first.
class pluggableDevice
{
  public:
    pluggableDevice();
    ~pluggableDevice();
    pluggableDevice(pluggableDevice const&) = delete;
    pluggableDevice& operator=(pluggableDevice const&) = delete;

    std::string path() const { return folder + "/tty"; } ///< the same every time
    void plugIn();                                       ///< throws `std::system_error` when the link cannot be made
    void pullOut();                                      ///< whoever has it open sees a hang-up
    partner& otherSide() { return *line->otherSide(); }  ///< while it is plugged in

  private:
    std::string const folder;
    std::unique_ptr<exampleLine> line;
};

} // namespace examples

#endif
