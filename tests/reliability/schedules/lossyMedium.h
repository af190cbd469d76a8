#ifndef SCHEDULES_LOSSYMEDIUM_H
#define SCHEDULES_LOSSYMEDIUM_H

#include "dice.h"
#include "line.h"
#include "referencePort.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace schedules
{

/// How often one way of a line does what to the bytes that it carries. Rates are chances for one byte, but where
/// another thing is named; 0 is never.
struct lineFaults
{
    double loss = 0.0;
    double flip = 0.0;        ///< of one bit
    double duplication = 0.0; ///< of one byte
    double insertion = 0.0;   ///< of a byte from nowhere
    double burst = 0.0;       ///< from here on, for some bytes, three in ten are damaged
    double delay = 0.0;       ///< for a write: it and all that follows come up to 0.4 s later
    double repetition = 0.0;  ///< for a write: it comes twice
    double forgery = 0.0;     ///< for a frame: its count changes and its header's sum does not
};

/// One way of a line. Bytes take their time, arrive in pieces and in their order, and not all as they were sent.
///
/// Everything arrives at a whole microsecond.
class lossyMedium
{
  public:
    static constexpr std::int64_t CHARACTER_NS = 100'000;
    static constexpr std::int64_t GRID_NS = 1000;

    /// What became of a byte.
    struct fateOfByte
    {
        std::uint8_t value = 0;
        std::int64_t origin = -1; ///< its number among those sent; -1: from nowhere
        bool isDamaged = false;
    };

    lossyMedium(lineFaults const& faults, dice& chance) : rates(faults), random(chance) {}

    /// A device has written; what arrives of it and how much later.
    std::vector<line::arrival> carry(std::int64_t now_ns, bytes const& content);

    /// True when everything has arrived by then.
    bool isIdleAt(std::int64_t when_ns) const { return free_ns <= when_ns; }

    std::vector<reference::writing> const& sent() const { return writes; } ///< `by` means nothing here
    std::vector<reference::arrival> const& arrived() const { return arrivals; }
    std::vector<fateOfByte> const& fates() const { return bytesArrived; }

  private:
    bool happens(double rate);
    std::vector<fateOfByte> withOrigins(bytes const& content);
    void forge(std::vector<fateOfByte>& content);
    std::vector<fateOfByte> damage(std::vector<fateOfByte> const& content);
    void damageOne(fateOfByte each, std::vector<fateOfByte>& into);
    bool burstGoesOn();
    void flipBit(fateOfByte& which);
    fateOfByte fromNowhere();

    lineFaults const rates;
    dice& random;
    std::int64_t free_ns = 0; ///< when the last character will have arrived
    std::int64_t bytesSent = 0;
    unsigned burstLeft = 0;
    std::vector<reference::writing> writes;
    std::vector<reference::arrival> arrivals;
    std::vector<fateOfByte> bytesArrived;
};

} // namespace schedules

#endif
