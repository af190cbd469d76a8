#ifndef EXAMPLES_PARTNER_H
#define EXAMPLES_PARTNER_H

#include "gssipPort.h"
#include "monotonicTimeStamp.h"
#include "nullModem.h"
#include "streamLog.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace examples
{

/// The other side of a line: a port that takes and acknowledges whatever comes, and keeps it for `waitFor`.
class partner
{
  public:
    explicit partner(std::string const& device);
    ~partner();
    partner(partner const&) = delete;
    partner& operator=(partner const&) = delete;

    gssipPort& port() { return ownPort; }

    /// Waits until so many messages have come in all, and returns all that have come. Fewer when time runs out.
    std::vector<gssipMessage> waitFor(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5));

  private:
    void receiveLoop();
    void keep(gssipMessage const& message);

    monotonicTimeStamp clock;
    streamLog log;
    gssipPort ownPort;
    std::mutex takenMutex; ///< guards `taken`
    std::condition_variable somethingTaken;
    std::vector<gssipMessage> taken;
    std::atomic<bool> leaving{false};
    std::thread receiveThread;
};

/// What the small programs talk to: the device named on the command line, or else one end of a null modem that has a
/// partner at its other end.
class exampleLine
{
  public:
    exampleLine(int argumentCount, char** arguments);

    std::string const& device() const { return deviceName; }

    /// Null when the device comes from the command line: who is at its other end is not for the program to say.
    nullModem* modem() { return cable.get(); }
    partner* otherSide() { return far.get(); }

  private:
    std::unique_ptr<nullModem> cable;
    std::unique_ptr<partner> far; // leaves before the cable does
    std::string deviceName;
};

} // namespace examples

#endif
