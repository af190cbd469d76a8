#ifndef FUZZ_PORTLEDGER_H
#define FUZZ_PORTLEDGER_H

#include "gssipMessage.h"
#include "portLine.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz
{

/// Keeps account of every message that a port has been given: where it is, and how often it was on the line.
///
/// The low byte of a message's flags is its key, from 1 on in the order of giving. What the port sends by itself has 0
/// there.
class ledger
{
  public:
    static constexpr std::size_t MOST = 255;

    enum class kind {
        queued,  ///< goes through the queue
        direct,  ///< written by the caller, past the queue
        dropped, ///< given to a port whose device was closed
    };

    struct entry
    {
        sentItem item;
        kind how = kind::dropped;
        bool isTracked = false; ///< to be resent when it is not acknowledged
        bool mayBeGone = false; ///< was removed, or the device was gone when it may have been written
        bool isSettled = false; ///< acknowledged, given up or forgotten: no longer pending
        bool isLoose = false; ///< an answer may have come before its registration: two writes at most, no more is known
        unsigned writes = 0;  ///< seen on the line
        unsigned writesAsked = 0; ///< of a direct one, or resends that a NAK has caused
    };

    bool isFull() const { return count == MOST; }

    /// Enters a message and returns it; the flags' low byte becomes its key.
    gssipMessage enter(kind how, std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data,
                       bool trackAck);

    /// Enters what has come over the line: exactly what was given, in order, no more often than allowed.
    void saw(sentItem const& item);

    /// How many have come through the queue onto the line.
    std::size_t passedQueue() const { return passed; }

    entry& of(gssipMessage const& message) { return entries[message.getProtocolFlags() & 0xFFU]; }

    /// Every entry in order of giving.
    entry* begin() { return entries.data() + 1; }
    entry* end() { return begin() + count; }

  private:
    void checkCount(entry const& written, std::size_t key);

    std::array<entry, MOST + 1> entries;
    std::size_t count = 0;
    std::size_t passed = 0;
    std::size_t lastFirstWrite = 0; ///< the key of the last message that came through the queue
};

} // namespace fuzz

#endif
