#ifndef SOAK_STATION_H
#define SOAK_STATION_H

#include "exposedPort.h"
#include "frameRecord.h"
#include "monotonicTimeStamp.h"
#include "settings.h"
#include "slowLog.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace soak
{

/// One port with an application: a thread that sends a mixed load, and one that receives.
class station
{
  public:
    station(std::string const& device, settings const& toUse, std::uint64_t seed);
    ~station();
    station(station const&) = delete;
    station& operator=(station const&) = delete;

    void talk();
    void fallSilent(); ///< returns when nothing more will be given to the port

    /// In the middle of a burst. Until the next start nothing is given to the port, which would drop it.
    bool stop();
    bool start(); ///< tries for ten seconds

    /// What has been given and received since the books began.
    struct books
    {
        frameRecords given;
        frameRecords delivered;
        std::uint64_t damaged = 0;    ///< wrong data checksum
        std::uint64_t unanswered = 0; ///< delivered, but the acknowledgement could not be written
    };
    books takeBooks();

    std::size_t delivered() const;
    bool isAtRest(); ///< nothing is queued, and no acknowledgement awaited

    slowLog log;

  private:
    void sendWhileTalking();
    void giveOneTick(std::unique_lock<std::mutex>& lock);
    void giveOne();
    void giveBurst();
    gssipMessage nextMessage(std::uint16_t flags, unsigned words);
    unsigned upTo(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random); }

    void receiveAll();
    void keepReceived(int status, gssipMessage const& message);

    settings const chosen;
    monotonicTimeStamp clock;
    kit::exposedPort port;

    std::mutex sending; // guards what follows; held while anything is given to the port
    std::condition_variable changed;
    bool talking = false;
    bool started = false;
    bool leaving = false;
    frameRecords given;
    std::mt19937_64 random;
    std::uint16_t nextId = 1;

    mutable std::mutex receiving; // guards what follows
    books received;               // but for what was given

    std::atomic<bool> leavingReceiver{false};
    std::thread sender;
    std::thread receiver;
};

} // namespace soak

#endif
