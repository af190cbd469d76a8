#ifndef KIT_PSEUDOTERMINAL_H
#define KIT_PSEUDOTERMINAL_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <termios.h>
#include <vector>

namespace kit
{

using bytes = std::vector<std::uint8_t>;

/// A real tty whose other end the test holds.
///
/// The device (`name()`) is for the code under test; what that writes is read here, and what is written here arrives
/// there. Failures of the machine (no pseudo-terminals left) throw `std::system_error`.
class pseudoTerminal
{
  public:
    pseudoTerminal();
    ~pseudoTerminal();
    pseudoTerminal(pseudoTerminal const&) = delete;
    pseudoTerminal& operator=(pseudoTerminal const&) = delete;

    std::string const& name() const { return deviceName; }
    int masterDescriptor() const { return master; }

    /// Puts bytes on the line towards the device. Blocks when the device's reader does not take them.
    void write(bytes const& data);

    /// Exactly `count` bytes that the device sent, or fewer when they have not come within the limit.
    bytes read(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Whatever the device has sent by now and sends until the line has been quiet for that long.
    bytes readUntilQuiet(std::chrono::milliseconds quiet = std::chrono::milliseconds(100));

    /// The device's settings as the system holds them.
    termios settings() const;

    /// Unplugs: from now on the device is gone (its reads and writes fail).
    void hangUp();

  private:
    int master = -1;
    std::string deviceName;
};

} // namespace kit

#endif
