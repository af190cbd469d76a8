#ifndef UART_BITLINE_H
#define UART_BITLINE_H

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <random>

namespace adapter
{

constexpr std::int64_t NEVER_NS = std::numeric_limits<std::int64_t>::max();

/// Nanoseconds of the monotonic clock.
std::int64_t now_ns();

enum class parity { none, odd, even, mark, space };

/// How an end of a line is set.
struct format
{
    std::int64_t bit_ns = 104167; // 9600 bit/s
    unsigned dataBits = 8;
    parity check = parity::none;
    unsigned stopBits = 1;

    std::int64_t characterTime_ns() const;
};

/// What a receiver has made of the levels on a line.
struct character
{
    unsigned char value = 0;
    bool isBreak = false;
    bool hasFramingError = false;
    bool hasParityError = false;
    std::int64_t time_ns = 0; ///< of the middle of its stop bit
};

/// One direction of a serial line, level by level: the sending end draws characters as its settings say, the receiving
/// end samples them at the times that its own settings say. So ends that are set differently misunderstand each other
/// as real ones do.
class bitLine
{
  public:
    void setSender(format const& settings) { sender = settings; }
    void setReceiver(format const& settings) { receiver = settings; }

    /// Draws a character behind those before, not before `earliest_ns`.
    void send(unsigned char value, std::int64_t earliest_ns);
    /// Draws a break of that length.
    void sendBreak(std::int64_t earliest_ns, std::int64_t length_ns);
    /// When the sender is done with what it has been given.
    std::int64_t free_ns() const { return drawn_ns; }

    /// Whether a character is on its way that the receiver has not sampled.
    bool hasCharacters() const { return nextStart_ns() != NEVER_NS; }
    /// The next character whose stop bit has been sampled by `time_ns`.
    std::optional<character> receive(std::int64_t time_ns);

    void hold(bool isHeld) { held = isHeld; }
    bool isHeld() const { return held; }
    void lose(double share) { lossShare = share; } ///< of the characters, which leave no trace
    void flip(double share) { flipShare = share; } ///< of the characters, in which one data bit is turned over
    void mend();
    std::uint64_t charactersCarried() const { return carried; }
    std::uint64_t charactersSpoilt() const { return spoilt; }

  private:
    struct edge
    {
        std::int64_t time_ns;
        bool level;
    };

    void draw(bool level, std::int64_t length_ns);
    bool levelAt(std::int64_t time_ns) const;
    /// The beginning of the next start bit at or behind `sampled_ns`, or NEVER_NS.
    std::int64_t nextStart_ns() const;
    character sample(std::int64_t start_ns) const;
    void forgetUntil(std::int64_t time_ns);
    bool happens(double share);

    format sender;
    format receiver;
    std::deque<edge> edges; ///< the first tells the level before everything that is remembered
    bool lastLevel = true;
    std::int64_t drawn_ns = 0;   ///< the end of what has been drawn
    std::int64_t sampled_ns = 0; ///< the receiver has looked until here
    bool held = false;
    double lossShare = 0.0;
    double flipShare = 0.0;
    std::uint64_t carried = 0;
    std::uint64_t spoilt = 0;
    std::mt19937 dice{4711};
};

} // namespace adapter

#endif
