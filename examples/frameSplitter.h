#ifndef EXAMPLES_FRAMESPLITTER_H
#define EXAMPLES_FRAMESPLITTER_H

#include "nullModem.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace examples
{

/// Some bytes of a line, with what they are.
struct piece
{
    enum kind {
        FRAME,  ///< one whole frame whose header checksum is right
        FILLER, ///< 20 bytes of 0xFF, as a port writes them to resynchronise
        OTHER,  ///< anything else, a frame with a wrong header checksum included
    };
    kind what = OTHER;
    bytes image;
};

std::uint16_t frameId(bytes const& frame);    ///< the id word of a whole frame
std::uint16_t frameCount(bytes const& frame); ///< its number of data words
std::uint16_t frameFlags(bytes const& frame); ///< its protocol flags

/// Cuts a stream of bytes into whole frames and what stands between them.
///
/// Works on bytes alone, so that it can judge what a port puts on the line. Nothing is lost or changed: the images of
/// all pieces, one after the other, are the stream. What may still become a frame is kept until the rest has come.
class frameSplitter
{
  public:
    /// The pieces that are complete with these bytes, in order.
    std::vector<piece> split(bytes const& chunk);

  private:
    std::size_t takePiece(std::size_t start, piece& next) const;
    std::size_t takeFrame(std::size_t start, piece& next) const;
    std::size_t leadingFills(std::size_t start) const;

    bytes kept;
};

/// A hook for the null modem that calls `each` once for every piece; what `each` returns goes on.
nullModem::hook frameByFrame(std::function<bytes(piece)> each);

} // namespace examples

#endif
