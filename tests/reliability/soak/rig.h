#ifndef SOAK_RIG_H
#define SOAK_RIG_H

#include "accounts.h"

#include <array>
#include <memory>
#include <random>

namespace soak
{

/// Everything that is under load: two stations and the wire between them.
class rig
{
  public:
    explicit rig(settings const& chosen);

    bool start();
    void talk();
    void fallSilent();

    /// Waits until everything that was given has gone where it goes, and closes the books; tells what does not add up,
    /// or nothing. The stations are silent.
    std::string settle(effects const& allowed);

    station& at(std::size_t side) { return *stations[side]; }

    wire line;
    std::mt19937_64 random;
    std::array<wayTotals, 2> totals; ///< of the messages of each side

  private:
    bool isAtRest();
    bool staysAtRest();
    bool awaitRest();
    void awaitDelivery();

    std::array<std::unique_ptr<station>, 2> stations;
};

} // namespace soak

#endif
