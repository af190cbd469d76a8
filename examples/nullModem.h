#ifndef EXAMPLES_NULLMODEM_H
#define EXAMPLES_NULLMODEM_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace examples
{

using bytes = std::vector<std::uint8_t>;

/// Two serial devices joined by a cable that can be tampered with, all within one process.
///
/// The devices are real terminals of the system (pseudo-terminals): open `deviceA()` and `deviceB()` by their names,
/// with a `gssipPort` or with any other program. What is written to one arrives at the other, as fast as it is read
/// there. Between the two every chunk of bytes passes a hook, one for each direction, which may let it pass, drop it,
/// change it, or keep it and put it back on the line later with `inject`. How the bytes of one write are cut into
/// chunks is the system's affair: a hook that is after whole frames is made with `frameByFrame` (frameSplitter.h).
///
/// One thread carries the bytes. It sleeps while there is nothing to carry, and takes no more from a device whose other
/// side does not read, as a full line would. What arrives while nobody has the device open waits there for its reader.
///
/// All operations may be called from any thread, except that `setHook` and `stop` must not be called from a hook.
class nullModem
{
  public:
    enum direction : std::size_t { A_TO_B = 0, B_TO_A = 1 };

    /// Is given the bytes that were read and returns those that shall go on: all of them, none, or others.
    ///
    /// Runs on the relay thread, never twice at the same time, whatever the direction: it must not block for long,
    /// since the line stands still meanwhile, and must not throw.
    using hook = std::function<bytes(bytes)>;

    /// Makes the two devices and starts to relay. Throws `std::system_error` when the system has none left.
    nullModem();
    /// Stops, and unplugs both devices: whoever has them open sees a hang-up.
    ~nullModem();
    nullModem(nullModem const&) = delete;
    nullModem& operator=(nullModem const&) = delete;

    std::string const& deviceA() const { return endA.name; }
    std::string const& deviceB() const { return endB.name; }

    /// Replaces the hook of one direction; an empty one lets everything pass. When this returns, the former hook is no
    /// longer running and will not run again.
    void setHook(direction way, hook onTheWay);

    /// Puts bytes on the line behind those that are on their way; they do not pass the hook. Does not wait.
    void inject(direction way, bytes const& more);

    /// Ends the relay: from now on nothing passes. The devices stay. May be called again.
    void stop();

  private:
    /// A file descriptor that closes itself.
    class descriptor
    {
      public:
        explicit descriptor(int openedNumber) : number(openedNumber) {}
        ~descriptor();
        descriptor(descriptor const&) = delete;
        descriptor& operator=(descriptor const&) = delete;
        int get() const { return number; }

      private:
        int number;
    };

    /// One pseudo-terminal. Its device is kept open here too: else the relay would be woken without end while nobody
    /// else has it open, and the system would echo what arrives.
    struct terminal
    {
        terminal();
        descriptor relaySide;
        std::string name;
        descriptor device;
    };

    struct lane
    {
        int from;
        int to;
        hook onTheWay; // guarded by hookMutex
        bytes waiting; // read and not yet written; guarded by lineMutex
    };

    void relay();
    bool waitForWork();
    short eventsOf(int number);
    void readFrom(lane& way);
    void writeTo(lane& way);
    bytes throughHook(lane& way, bytes chunk);
    void wakeRelay();

    terminal endA;
    terminal endB;
    descriptor wakeUp;
    std::array<lane, 2> lanes; ///< by `direction`
    std::mutex hookMutex;      ///< held while a hook runs; taken before lineMutex
    std::mutex lineMutex;      ///< guards what waits for the line; nothing is locked or called while it is held
    std::atomic<bool> stopping{false};
    std::mutex stopMutex; ///< serialises `stop`
    std::thread relayThread;
};

} // namespace examples

#endif
