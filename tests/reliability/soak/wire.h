#ifndef SOAK_WIRE_H
#define SOAK_WIRE_H

#include "frameRecord.h"
#include "lineRelay.h"
#include "pluggableTerminal.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>

namespace soak
{

/// Decodes a stream that comes piece by piece.
class streamDecoder
{
  public:
    std::vector<kit::decodedFrame> add(std::uint8_t const* data, std::size_t count);
    void reset() { rest.clear(); }

    /// How many bytes are needed at least before a new frame can be found; 0 while a start is looked for.
    std::size_t missing() const;

  private:
    kit::bytes rest;
};

/// One way of the wire with a fault in it, and with the books of what has passed at either end.
class spoiledWay : public kit::oneWay
{
  public:
    explicit spoiledWay(std::uint64_t seed) : random(seed) {}

    /// What the sending port has written, and what has been given to the receiving one.
    struct books
    {
        frameRecords written;      ///< replies left out
        frameRecords deliverable;  ///< what the receiving application should see
        std::uint64_t torn = 0;    ///< written with wrong data: the first half of one frame, and what came behind it
        std::uint64_t damaged = 0; ///< given with wrong data
        std::uint64_t bytes = 0;   ///< taken from the sending port
    };
    books seen;

    double flipShare = 0;      ///< of the bytes, one bit is flipped
    double lossShare = 0;      ///< of the bytes
    bool droppedAtEnd = false; ///< the receiving port is away
    streamDecoder before;      ///< where the bytes are taken
    streamDecoder behind;      ///< where they are given

    void taken(kit::bytes& chunk) override;
    void given(std::uint8_t const* data, std::size_t count) override;

  private:
    bool happens(double share) { return share > 0 && std::uniform_real_distribution<double>(0, 1)(random) < share; }

    std::mt19937_64 random;
};

/// Two devices, and a wire between them that can be spoiled. Side 0 and side 1.
class wire
{
  public:
    explicit wire(std::uint64_t seed);

    std::string const& device(std::size_t side) const { return ends[side].name(); }

    void plugIn(std::size_t side);
    void unplug(std::size_t side);

    void portLeaves(std::size_t side);    ///< from now on nothing is given to the port of that side
    void discardUnread(std::size_t side); ///< the port has gone, and so has what it had not read
    void portIsBack(std::size_t side);    ///< it knows nothing of what came before

    /// Calls back with the way from that side, while nobody else touches it.
    template <typename Change>
    void change(std::size_t fromSide, Change const& edit)
    {
        std::lock_guard<std::mutex> const lock(relay->mutex);
        edit(*ways[fromSide]);
    }

    /// Copies of the books of the way from that side, which begin anew.
    spoiledWay::books takeBooks(std::size_t fromSide);

    void inject(std::size_t toSide, kit::bytes const& noise);
    bool isQuiet();             ///< nothing is on its way
    std::uint64_t bytesTaken(); ///< from both ports, since the books began
    std::size_t deliverable(std::size_t fromSide);
    /// Fills up half frames on both ways with bytes that start none. False when there were none.
    bool completeHalfFrames();

  private:
    std::array<kit::pluggableTerminal, 2> ends;
    std::array<std::unique_ptr<spoiledWay>, 2> ways;
    std::unique_ptr<kit::lineRelay> relay;
};

} // namespace soak

#endif
