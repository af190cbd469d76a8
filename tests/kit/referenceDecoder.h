#ifndef KIT_REFERENCEDECODER_H
#define KIT_REFERENCEDECODER_H

#include "gssipMessage.h"
#include "pseudoTerminal.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

namespace kit
{

/// What a frame says, as far as framing is concerned.
struct decodedFrame
{
    std::uint16_t som = 0;
    std::uint16_t id = 0;
    std::uint16_t count = 0;
    std::uint16_t flags = 0;
    std::uint16_t headerChecksum = 0;
    std::vector<std::uint16_t> data;
    std::uint16_t dataChecksum = 0;

    // Where it stood in the stream; two that differ in nothing else are equal.
    std::size_t begin = 0;
    std::size_t end = 0; ///< behind its last byte

    bool operator==(decodedFrame const& other) const;
};

std::ostream& operator<<(std::ostream& out, decodedFrame const& shown);

/// The same view of a message of the library.
decodedFrame viewOf(gssipMessage const& message);

/// What framing a whole stream amounts to.
struct decodedStream
{
    /// What the receiver waits for at the end of the stream; the values are those of its states.
    enum expectation : std::uint32_t { START = 0, HEADER = 1, DATA = 2 };

    std::vector<decodedFrame> frames;
    std::size_t headerErrors = 0;               ///< headers rejected for their checksum
    std::vector<std::size_t> framesBeforeError; ///< for each of them, how many frames came before it
    std::vector<std::size_t> headerErrorsAt;    ///< where each of them began
    bytes rest;                                 ///< bytes at the end that still wait for more
    expectation expected = START;
};

/// Frames a stream that is known as a whole, from its first byte. Shares nothing with the library: it looks at the
/// bytes in place, with positions instead of states.
decodedStream decode(bytes const& stream);

} // namespace kit

#endif
