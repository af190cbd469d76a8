#ifndef SCHEDULES_LINE_H
#define SCHEDULES_LINE_H

#include "scheduler.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace schedules
{

using bytes = std::vector<std::uint8_t>;

/// What a line and its two devices are like.
struct lineTraits
{
    bool isPseudoTerminal = true;      ///< what the devices say of themselves: the library keeps no pace then
    std::int64_t characterTime_ns = 0; ///< each character's on the line; 0: bytes are there at once
    unsigned ring = 4095;              ///< characters that a driver takes while they cannot leave
    unsigned hardware = 16;            ///< characters behind those, which the driver's count leaves out
    bool flushDrops = true;            ///< an adapter on a bus keeps what it has in spite of a flush
};

/// Two serial devices with a line between them, in memory. A program opens them by their paths; it may unplug them,
/// hold up the line, and see every byte. The line may be destroyed while the devices are still open.
class line
{
  public:
    enum end : unsigned { LEFT = 0, RIGHT = 1 };
    static end otherThan(end one) { return one == LEFT ? RIGHT : LEFT; }

    line(scheduler& schedule, lineTraits const& traits);
    ~line();
    line(line const&) = delete;
    line& operator=(line const&) = delete;

    static std::string path(end which) { return which == LEFT ? "/line/left" : "/line/right"; }

    /// From now on nothing leaves the device of that end.
    void hold(end from);
    void letFlow(end from);

    /// The device goes: openings that exist have hung up, and its path is gone. What was under way is lost.
    void unplug(end which);
    void plugIn(end which);

    /// What happens to bytes on their way: for each batch that leaves a device (of one write, or of a part of one),
    /// what arrives at the other end and how much later. Without it everything arrives at once as it left.
    struct arrival
    {
        bytes content;
        std::int64_t later_ns = 0;
    };
    using medium = std::function<std::vector<arrival>(end from, bytes const& content)>;
    void carryBy(medium how);

    /// Puts bytes on the line as if the device of that end had sent them.
    void inject(end from, bytes const& content);

    // What has happened so far, with one entry for each opening of the device where there are several. Bytes that were
    // thrown away by a flush or an unplugging have not left.

    std::vector<bytes> const& left(end from) const;    ///< what has left the device of that end
    std::vector<bytes> const& readAt(end which) const; ///< what was read there
    unsigned openings(end which) const;                ///< how many exist now
    std::uint64_t lostAt(end which) const;             ///< bytes that arrived while the device was not open
    bool isIdle() const; ///< nothing is on its way, and nothing waits to be read; what a medium delays does not count

  private:
    struct state;
    class node;
    class opening;

    std::shared_ptr<state> own;
};

} // namespace schedules

#endif
