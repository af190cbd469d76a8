#ifndef KIT_EMULATEDLINE_H
#define KIT_EMULATEDLINE_H

#include "systemCalls.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace kit
{

/// What a driver and its hardware are like.
struct lineTraits
{
    double byteTime_sec = 10.0 / 9600; ///< of the real line, whatever was asked for
    unsigned ring = 4095;              ///< characters that the driver takes while nothing leaves
    unsigned hardware = 16;            ///< characters behind the ring that the driver's count leaves out
    bool flushDrops = true;            ///< an adapter on a bus keeps what it has in spite of a flush
    bool startsHeld = false;           ///< the line takes nothing
};

/// A line of that speed with ten bits a character.
inline lineTraits lineAt(double bitsPerSecond)
{
    lineTraits traits;
    traits.byteTime_sec = 10.0 / bitsPerSecond;
    return traits;
}

/// Makes a pseudo-terminal behave like a serial device with a line: it takes characters as fast as a driver does, sends
/// them at the line's pace as far as the code under test can tell (count, readiness, room), and holds up the close of
/// the descriptor until everything has left, as the system does. The bytes reach the other end when they are written.
///
/// Serves one descriptor at a time: the terminal whose kind has been asked for last.
class emulatedLine : public systemCalls
{
  public:
    explicit emulatedLine(lineTraits const& ofLine);

    /// Bytes that the driver took.
    struct handOver
    {
        double backlog_sec = 0; ///< what the line still had to send just before
        unsigned count = 0;
        std::uint8_t first = 0;
    };
    std::vector<handOver> handOvers() const;

    /// The time until the last character has left; what it would be if the line went on, while it is held.
    double backlog_sec() const;
    void hold();
    void letFlow();

    /// The descriptor's last close.
    struct closing
    {
        pid_t thread = 0;
        double backlog_sec = 0; ///< what was not sent yet, flushed characters not counted
        bool left = false;
    };
    std::optional<closing> lastClosing() const;

    std::atomic<unsigned> waits{0}; ///< how often anybody has waited in ppoll

    int fstat(int descriptor, struct stat& status) override;
    int ioctl(int descriptor, unsigned long request, void* argument) override;
    ssize_t write(int descriptor, void const* bytes, std::size_t count) override;
    int ppoll(pollfd* descriptors, nfds_t count, timespec const* limit, sigset_t const* signals) override;
    int close(int descriptor) override;

  private:
    unsigned driverCount() const;
    bool hasRoomToTell() const;
    bool isGone() const;
    void take(double at_sec, unsigned characters, std::uint8_t first);
    void flush();
    void waitForLine();

    lineTraits const traits;
    std::atomic<int> device{-1};

    mutable std::mutex mutex; // guards what follows
    bool held;
    double end_sec = 0;         // when the last character has left, while the line flows
    double heldBacklog_sec = 0; // while it is held
    std::vector<handOver> kept;
    std::optional<closing> closed;
};

} // namespace kit

#endif
