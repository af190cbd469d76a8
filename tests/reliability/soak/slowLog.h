#ifndef SOAK_SLOWLOG_H
#define SOAK_SLOWLOG_H

#include "asciiLogInterface.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace soak
{

/// Counts lines, and takes as long over each as it is told.
class slowLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override { take(); }
    void log(double const& /*time_sec*/, std::int32_t const& /*level*/, std::string const& /*text*/) override
    {
        take();
    }

    std::atomic<std::uint64_t> lines{0};
    std::atomic<unsigned> pause_ms{0};

  private:
    void take()
    {
        ++lines;
        if (pause_ms != 0)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        }
    }
};

} // namespace soak

#endif
