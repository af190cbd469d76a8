#ifndef CONFORMANCE_REACTIONS_H
#define CONFORMANCE_REACTIONS_H

#include "testVector.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace conformance
{

using steadyClock = std::chrono::steady_clock;
using duration = std::chrono::duration<double>;

struct timedByte
{
    std::uint8_t value = 0;
    steadyClock::time_point arrived;
};

/// A message as the application got it.
struct deliveredMessage
{
    std::uint16_t id = 0;
    std::uint16_t flags = 0;
    std::vector<std::uint16_t> data;
    std::uint16_t dataChecksum = 0;
    bool invalid = false;
};

struct loggedLine
{
    std::int32_t level = 0;
    std::string text;
};

/// What the side under test has done and nobody has looked at yet: three queues that threads of its own fill.
class reactions
{
  public:
    void putBytes(std::uint8_t const* first, std::size_t count);
    void putMessage(deliveredMessage const& message);
    void putLine(loggedLine const& line);

    /// The oldest one, waited for until `limit`.
    std::optional<timedByte> takeByte(steadyClock::time_point limit);
    std::optional<deliveredMessage> takeMessage(steadyClock::time_point limit);
    std::optional<loggedLine> takeLine(steadyClock::time_point limit);

    /// True when nothing is there and nothing comes for so long.
    bool quietFor(duration length);
    bool nothingLeft() const;
    /// What is there, in words.
    std::string describe() const;
    void forget();

  private:
    bool nothingLeftLocked() const { return bytesCome.empty() && messages.empty() && lines.empty(); }

    template <typename Entry>
    std::optional<Entry> take(std::deque<Entry>& from, steadyClock::time_point limit);
    template <typename Entry>
    void put(std::deque<Entry>& to, Entry const& entry);

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::deque<timedByte> bytesCome;
    std::deque<deliveredMessage> messages;
    std::deque<loggedLine> lines;
};

} // namespace conformance

#endif
