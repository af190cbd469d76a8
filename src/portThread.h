#ifndef PORTTHREAD_H
#define PORTTHREAD_H

class gssipPort;

namespace gssipInternal
{

/// Marks the calling thread as one of a port's own while it exists.
///
/// A call-back may try to stop the port that waits for it. Whether it does is asked before any lock is taken, of the
/// thread itself.
class portThread
{
  public:
    explicit portThread(gssipPort const& port) noexcept : former(current) { current = &port; }
    ~portThread() { current = former; }
    portThread(portThread const&) = delete;
    portThread& operator=(portThread const&) = delete;

    static bool isOf(gssipPort const& port) noexcept { return current == &port; }

  private:
    // In every thread's first block of such variables: elsewhere the first use in a thread would take memory for it.
    [[gnu::tls_model("initial-exec")]] static inline thread_local gssipPort const* current = nullptr;

    gssipPort const* const former;
};

} // namespace gssipInternal

#endif
