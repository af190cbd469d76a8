#ifndef KIT_PLUGGABLETERMINAL_H
#define KIT_PLUGGABLETERMINAL_H

#include "pseudoTerminal.h"
#include "temporaryFolder.h"

#include <filesystem>
#include <memory>
#include <string>

namespace kit
{

/// A device name that stays, behind which a terminal comes and goes: an adapter that somebody pulls out and plugs in.
/// At first there is none.
class pluggableTerminal
{
  public:
    std::string const& name() const { return deviceName; }
    bool isPluggedIn() const { return terminal != nullptr; }
    pseudoTerminal& line() { return *terminal; } ///< while it is plugged in

    /// Another terminal each time; one that is there is unplugged first.
    pseudoTerminal& plugIn()
    {
        unplug();
        terminal = std::make_unique<pseudoTerminal>();
        std::filesystem::create_symlink(terminal->name(), deviceName);
        return *terminal;
    }

    void unplug()
    {
        std::filesystem::remove(deviceName);
        terminal.reset();
    }

  private:
    temporaryFolder folder;
    std::string const deviceName = (folder.path / "line").string();
    std::unique_ptr<pseudoTerminal> terminal;
};

} // namespace kit

#endif
