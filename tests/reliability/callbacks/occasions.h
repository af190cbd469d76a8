#ifndef OCCASIONS_H
#define OCCASIONS_H

#include "systemCalls.h"
#include "toldPort.h"

#include <atomic>
#include <functional>
#include <iosfwd>
#include <vector>

/// Lets the next read from a terminal fail, once it is told to, on any thread but the one that made it.
class failingRead : public kit::systemCalls
{
  public:
    ssize_t read(int descriptor, void* bytes, std::size_t capacity) override;

    std::atomic<bool> failsNext{false};

  private:
    pthread_t const testThread = pthread_self();
};

struct callbackRig : kit::toldRig
{
    using toldRig::toldRig;

    failingRead system;
    kit::systemReplaced replaced{system};
};

/// A place where a port calls the application, and what brings that about in a port that is started.
struct occasion
{
    char const* name;
    char const* place; ///< as `kit::application` knows it
    std::function<void(callbackRig&)> bringAbout;
    /// Not where it would wait for itself: on the port's own threads, and while the tracker's lock is held.
    bool mayStop;
    bool discardsQueue = false;
};

void PrintTo(occasion const& each, std::ostream* out);

/// Every place where a port calls a virtual operation, its time source or its log.
std::vector<occasion> const& everyOccasion();

/// True when the port makes that call on a thread of its own.
bool isOnOwnThread(occasion const& each);

#endif
