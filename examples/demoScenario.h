#ifndef EXAMPLES_DEMOSCENARIO_H
#define EXAMPLES_DEMOSCENARIO_H

#include "demoJournal.h"
#include "demoStation.h"
#include "frameSplitter.h"
#include "nullModem.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>

namespace examples
{

/// What shall happen to which frame on its way.
///
/// Operations may be called from any thread.
class lineFaults
{
  public:
    enum fault { LOSE_FIRST, LOSE_ALL, DAMAGE_FIRST };

    void plan(std::uint16_t id, fault what);

    /// Applies what is planned for the frame and returns what to remark about it; the frame is empty when it is lost.
    std::string apply(piece& passing);

  private:
    struct planned
    {
        fault what = LOSE_FIRST;
        unsigned seen = 0;
    };
    std::mutex mutex; ///< guards `plans`
    std::map<std::uint16_t, planned> plans;
};

/// The demonstration's own story: two ports at the two ends of a null modem, and everything that the protocol provides
/// for, one step after the other.
class demoScenario
{
  public:
    explicit demoScenario(std::ostream& stream);

    /// True when everything happened as it should.
    bool run();

  private:
    bool startBoth();
    void trackedBothWays();
    void lostAndSentAgain();
    void neverAcknowledged();
    void damagedAndRefused();
    void handshake();
    void handshakeReject();
    void resyncFiller();
    void garbageOnTheLine();
    void stopBoth();

    void tracked(demoStation& from, nullModem::direction way, std::string const& receiver, std::uint16_t id);
    bool acknowledged(nullModem::direction way, std::uint16_t id) const;
    bytes watch(nullModem::direction way, piece passing);

    demoJournal journal;
    lineFaults faults;
    nullModem modem;
    demoStation a;
    demoStation b;
};

} // namespace examples

#endif
