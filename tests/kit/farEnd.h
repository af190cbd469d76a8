#ifndef KIT_FAREND_H
#define KIT_FAREND_H

#include "pseudoTerminal.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace kit
{

/// Takes everything off the line's far end, so that it never holds up the writer.
class farEnd
{
  public:
    explicit farEnd(pseudoTerminal& ofLine) : line(ofLine), thread([this] { run(); }) {}
    ~farEnd()
    {
        stopped = true;
        thread.join();
    }
    farEnd(farEnd const&) = delete;
    farEnd& operator=(farEnd const&) = delete;

  private:
    void run()
    {
        while (!stopped)
        {
            line.read(256, std::chrono::milliseconds(5));
        }
    }

    pseudoTerminal& line;
    std::atomic<bool> stopped{false};
    std::thread thread;
};

} // namespace kit

#endif
