#ifndef FUZZ_PORTLINE_H
#define FUZZ_PORTLINE_H

#include "pseudoTerminal.h"
#include "temporaryFolder.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fuzz
{

/// A line with the hostile peer's end in hand. It can be pulled out and put in again: its name stays the same.
class pluggableLine
{
  public:
    std::string name() const { return (folder.path / "line").string(); }

    void plug();
    void unplug();
    bool isPlugged() const { return terminal.has_value(); }

    /// Towards the port, as much as the line takes at once; the number of bytes.
    std::size_t write(kit::bytes const& data);
    /// What the port has sent by now; never waits.
    kit::bytes read();

  private:
    kit::temporaryFolder folder;
    std::optional<kit::pseudoTerminal> terminal;
};

/// Something that a port has put on the line in one piece.
struct sentItem
{
    enum class kind { frame, filler, raw } what = kind::frame;
    std::uint16_t id = 0;
    std::uint16_t flags = 0;
    kit::bytes image;

    bool operator==(sentItem const& other) const { return image == other.image; }
};

/// 20 bytes that no receiver takes for a message.
sentItem fillerItem();
/// Raw bytes, marked so that they can be told from everything else.
sentItem rawItem(kit::bytes const& content);
sentItem frameItem(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data = {});

/// Takes what a port sends to pieces. Anything but whole items with right checksums, one behind the other, is a fault.
class itemSplitter
{
  public:
    void feed(kit::bytes const& received) { pending.insert(pending.end(), received.begin(), received.end()); }
    std::optional<sentItem> next();
    bool isBetweenItems() const { return pending.empty(); }
    void forget() { pending.clear(); }

  private:
    std::size_t lengthOfFirst() const;

    kit::bytes pending;
};

} // namespace fuzz

#endif
