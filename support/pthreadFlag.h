#ifndef PTHREADFLAG_H
#define PTHREADFLAG_H

#include <atomic>

/// A boolean that several threads read and write without further synchronisation.
///
/// What a thread wrote before `set()` or `clear()` is visible to a thread that has seen the new value. No operation
/// blocks or fails; each may be called from any thread.
class pthreadFlag
{
  public:
    /// A flag that is set when `initial` is true, else clear.
    explicit pthreadFlag(bool const& initial) noexcept : value(initial) {}
    ~pthreadFlag() = default;
    pthreadFlag(pthreadFlag const&) = delete;
    pthreadFlag& operator=(pthreadFlag const&) = delete;

    void set() noexcept { value.store(true); }              ///< makes it true
    void clear() noexcept { value.store(false); }           ///< makes it false
    bool isSet() const noexcept { return value.load(); }    ///< true when it is set
    bool isClear() const noexcept { return !value.load(); } ///< true when it is not set

  private:
    std::atomic<bool> value;
};

#endif
