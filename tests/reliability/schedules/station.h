#ifndef SCHEDULES_STATION_H
#define SCHEDULES_STATION_H

#include "exposedPort.h"
#include "gateWatch.h"
#include "ledger.h"
#include "line.h"
#include "monotonicTimeStamp.h"
#include "recordingLog.h"
#include "scheduler.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace schedules
{

/// A port at one end of a line, the application around it, and the account of what became of every message.
///
/// Its operations are those of an application; any thread of the schedule may use them.
class station
{
  public:
    station(scheduler& schedule, line& wire, line::end place, asciiLogInterface* log = nullptr);
    ~station();
    station(station const&) = delete;
    station& operator=(station const&) = delete;

    /// A message with an id that no other one has, and content that follows from it.
    gssipMessage newMessage(std::uint16_t flags);
    static std::vector<std::uint16_t> contentOf(std::uint16_t id);

    void start(); ///< which must succeed
    void stop();  ///< the same

    /// Starts a thread that takes every message; it goes on through stops and starts until `stopListening`.
    void listen();
    void stopListening();

    /// What `getMessage` has returned, in that order.
    std::vector<std::uint16_t> const& delivered() const { return deliveredIds; }
    /// True when nothing is queued, taken but not written, or unacknowledged, and nothing received but not delivered.
    /// The port must be started and have its listener.
    bool isQuiet();

    /// Lets go who waits before the gate, and bounds the waits to come.
    void openGate();

    line::end place() const { return here; }
    line const& wire() const { return cable; }
    ledger const& account() const { return book; }

  private:
    void takeMessages();
    void check(gssipMessage const& message);

    scheduler& schedule;
    line& cable;
    line::end const here;
    monotonicTimeStamp clock;

  public:
    kit::exposedPort port;

  private:
    ledger book;
    gateWatch gate;
    std::uint16_t lastId = 0;
    std::vector<std::uint16_t> deliveredIds;
    std::atomic<bool> leaving{false};
    std::thread listener;
};

/// Seconds that a message waits at most before the gate.
constexpr double HANDSHAKE_SEC = 0.6;

/// Sleeps until both stations and their line are quiet; fails the schedule when that takes too long. Who waits before
/// the gate without a limit has waited long enough: the gates are opened now and then, since one thread or the other
/// may have heard of no limit and come to wait only later.
void awaitQuiet(scheduler& schedule, station& one, station& other);

} // namespace schedules

#endif
