#ifndef WAKEABLEDESCRIPTOR_H
#define WAKEABLEDESCRIPTOR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace gssipInternal
{

/// A descriptor whose users another thread can wake and wait for, so that it is never closed under them.
///
/// Closing goes in steps: `beginClose` keeps new users out and wakes the readers; writers go on until `cutOff`;
/// `waitForUsers` returns when nobody is inside any more, and then `release` hands the descriptor out.
/// Deadlines are nanoseconds of the monotonic clock, NEVER_NS for none.
class wakeableDescriptor
{
  public:
    enum class role { reader, writer, other };

    /// What ended a wait.
    enum class ending {
        ready,       ///< the descriptor can be read or written, or fails when that is tried
        timeout,     ///< the deadline
        interrupted, ///< `interruptReader`
        reopened,    ///< the descriptor was opened (in `pause` only)
        closed,      ///< the descriptor is being closed
        failed       ///< the system could not wait
    };

    /// Keeps the descriptor open while it exists. Tells false when it is closed or being closed.
    class use
    {
      public:
        use(wakeableDescriptor& wakeable, role purpose);
        ~use();
        use(use const&) = delete;
        use& operator=(use const&) = delete;

        explicit operator bool() const { return descriptorNumber >= 0; }
        int descriptor() const { return descriptorNumber; }

        /// Waits until the descriptor is ready for `events` (as for poll; 0 waits for the deadline alone).
        ending wait(short events, std::int64_t deadline_ns);

        /// True when a writer's time is over: it must not begin another write.
        bool isCutOff() const noexcept { return owner.cut; }

        /// How often the descriptor had been opened or closed; for `pause`.
        std::uint64_t generation() const { return generationSeen; }

      private:
        std::optional<ending> waitOnce(short events, std::int64_t deadline_ns);

        wakeableDescriptor& owner;
        role const purpose;
        int descriptorNumber = -1;
        int wakeNumber = -1;
        std::uint64_t generationSeen = 0;
    };

    wakeableDescriptor() = default;
    ~wakeableDescriptor();
    wakeableDescriptor(wakeableDescriptor const&) = delete;
    wakeableDescriptor& operator=(wakeableDescriptor const&) = delete;

    /// Makes an open descriptor available. On failure (errno) it stays the caller's.
    int adopt(int opened);

    bool isOpen() const noexcept { return (users & CLOSED) == 0; }

    /// Ends the wait or pause of a reader that is inside, or else of the next one, until the descriptor is reopened.
    void interruptReader();

    /// Waits, without being inside, until the deadline or until something happened since that generation.
    ending pause(std::uint64_t since, std::int64_t deadline_ns);

    /// The descriptor, still open, for those that watch the writers finish; -1 when it was not open.
    int beginClose();
    void cutOff();
    bool hasWriters() const noexcept { return (users & WRITERS) != 0; }
    /// Waits until no writer is inside; false at the deadline.
    bool waitForWriters(std::int64_t deadline_ns);
    void waitForUsers();
    /// The descriptor, which nobody uses any more, or -1.
    int release();

  private:
    static constexpr std::uint32_t CLOSED = 0x8000'0000;
    static constexpr std::uint32_t WRITERS = 0x7FFF'0000;
    static constexpr std::uint32_t ONE_WRITER = 0x0001'0000;
    static constexpr std::uint32_t ONE_OTHER = 0x0000'0001;

    static std::uint32_t one(role purpose) { return purpose == role::writer ? ONE_WRITER : ONE_OTHER; }
    bool enter(role purpose);
    void leave(role purpose);
    std::optional<ending> whyWoken(role purpose);
    void takeInterruption();

    /// How many writers and others are inside, and CLOSED, which is set and cleared under the mutex. Nobody enters a
    /// closed descriptor, and who leaves one does so under the mutex.
    std::atomic<std::uint32_t> users{CLOSED};
    std::atomic<bool> cut{false}; // these two are changed under the mutex, and read without it
    std::atomic<std::uint64_t> generation{0};

    std::mutex mutex; ///< nothing else is locked while it is held, and no I/O waits
    std::condition_variable changed;
    bool interrupted = false; // guarded by the mutex

    // Stay as they are while anybody is inside.
    int descriptor = -1;
    int readerWake = -1; // event descriptors, as old as `descriptor`
    int writerWake = -1;
};

} // namespace gssipInternal

#endif
