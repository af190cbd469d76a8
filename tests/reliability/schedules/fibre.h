#ifndef SCHEDULES_FIBRE_H
#define SCHEDULES_FIBRE_H

#include <cstddef>
#include <functional>
#include <memory>
#include <ucontext.h>
#include <vector>

namespace schedules
{

/// What stands for a thread while schedules are explored: a stack of its own inside the one thread of the process, and
/// everything that belongs to a thread in C++: its thread-local variables, its exceptions in flight, its errno.
///
/// Exactly one fibre runs at a time, and goes on until it hands over to another one by name. That takes a quarter of a
/// microsecond, a hand-over between real threads twenty times as long.
class fibre
{
  public:
    /// The one that stands for the thread of the process itself; it has that thread's stack.
    fibre();
    /// One with a stack of its own, and fresh thread-local variables; runs `entry`, which must not return.
    explicit fibre(std::function<void()> entry);
    ~fibre();
    fibre(fibre const&) = delete;
    fibre& operator=(fibre const&) = delete;

    /// Leaves the running fibre, which is this one, for `other`; returns when somebody hands over to this one.
    void handOverTo(fibre& other);

    /// Keeps the stack and what its variables own from being reported as leaks: nobody will ever run it to its end.
    void abandon();

  private:
    class stack;

    static void enter();
    void arrive();

    std::function<void()> entry;
    std::unique_ptr<stack> memory;
    ucontext_t context{};
    std::vector<unsigned char> threadLocals; ///< of this fibre, while another one runs
    int errorNumber = 0;
    [[maybe_unused]] void* fakeStack = nullptr; ///< the address sanitizer's
};

} // namespace schedules

#endif
