#ifndef LINESETTINGS_H
#define LINESETTINGS_H

#include "monotonicTime.h"
#include "serialPort.h"

#include <cstdint>

namespace gssipInternal
{

/// The settings of a serial line as they were asked for.
struct lineSettings
{
    unsigned speed = 9600; ///< bit/s, never 0
    unsigned dataBits = 8;
    PARITY_TYPE parity = PARITY_NONE;
    unsigned stopBits = 1;
    unsigned char vmin = 1;
    unsigned char vtime = 10; ///< tenths of a second
    unsigned interMsgGapBits = 0;

    unsigned bitsPerCharacter() const noexcept { return 1 + dataBits + (parity == PARITY_NONE ? 0 : 1) + stopBits; }

    double byteTime_sec() const noexcept { return static_cast<double>(bitsPerCharacter()) / speed; }

    std::int64_t byteTime_ns() const noexcept { return bits_ns(bitsPerCharacter()); }

    std::int64_t gap_ns() const noexcept { return bits_ns(interMsgGapBits); }

  private:
    std::int64_t bits_ns(unsigned bits) const noexcept { return bits * NS_PER_SEC / speed; }
};

} // namespace gssipInternal

#endif
